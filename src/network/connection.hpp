// SPDX-License-Identifier: LGPL-2.1-or-later
// The family's calls: a connection for each, and nothing is printed.
#pragma once

#include "bus/call.hpp"

#include <bdbus/network.h>

namespace bdbus
{

extern bus_module network_module;

int32_t network_bus_acquire();
void network_bus_release();

using network_hold = module_hold<network_module, network_bus_acquire, network_bus_release>;

/** Fold an sd-bus code into the family's range. */
inline int32_t network_status(int32_t code)
{
    return code < 0 ? BDBUS_NETWORK_ERRNO | -code : BDBUS_NETWORK_OK;
}

class network_call : public module_call<network_hold>
{
public:
    explicit network_call(const service &peer) : module_call(peer, silent_texts) {}

    [[nodiscard]] int32_t status() const { return has_connection() ? network_status(result()) : BDBUS_NETWORK_NO_BUS; }
};

} // namespace bdbus
