// SPDX-License-Identifier: LGPL-2.1-or-later
// The family's connection: one for each call, in the module's slot while the call holds the lock.
#pragma once

#include "bus/call.hpp"
#include "bus/connection.hpp"

#include <bdbus/network.h>

namespace bdbus
{

/** Lock the module and open its connection. @return the connection; null, with the lock free, when there is no bus. */
sd_bus *network_bus_acquire();

/** Close the connection and free the lock. */
void network_bus_release();

class network_hold
{
public:
    network_hold() : bus_(network_bus_acquire()) {}
    ~network_hold() { release(); }
    network_hold(const network_hold &) = delete;
    network_hold &operator=(const network_hold &) = delete;

    /** The connection, or null. */
    [[nodiscard]] sd_bus *bus() const { return bus_; }

    /** Let go of the connection before the end; replies that came over it stay readable. */
    void release()
    {
        if (bus_ != nullptr) {
            bus_ = nullptr;
            network_bus_release();
        }
    }

private:
    sd_bus *bus_;
};

/** Nothing is printed. */
inline constexpr call_texts network_texts = {};

/** Fold an sd-bus code into the family's range. */
inline int32_t network_status(int32_t code)
{
    return code < 0 ? BDBUS_NETWORK_ERRNO | -code : BDBUS_NETWORK_OK;
}

} // namespace bdbus
