// SPDX-License-Identifier: LGPL-2.1-or-later
// The family's connection, which callers share with the listener.
//
// A method call reads whatever has arrived on the socket into the connection's queue, where a wait for the descriptor
// does not see it. So whoever releases the connection with messages in its queue wakes the listener.
#pragma once

#include "bus/call.hpp"
#include "sdr/listener.hpp"

#include <sched.h>

#include <cerrno>

namespace bdbus
{

inline constexpr service sdr_service = {
    .name = "com.brisemont.SensorDataRepository1",
    .path = "/com/brisemont/SensorDataRepository1",
    .interface = "com.brisemont.SensorDataRepository1",
};

extern bus_module sdr_module;

/** The connection, held for one call, its reply's handling included. Init has opened it. */
class sdr_hold
{
public:
    sdr_hold() : inherited_(is_inherited(sdr_module))
    {
        if (!inherited_) {
            pthread_mutex_lock(&sdr_module.lock);
            sdr_hush_listener();
        }
    }
    ~sdr_hold()
    {
        if (inherited_) {
            return;
        }
        const bool roused = sdr_rouse_listener();
        pthread_mutex_unlock(&sdr_module.lock);
        if (roused) {
            sched_yield(); // on this processor its turn would come with the scheduler's next tick
        }
        if (sdr_listener_waits.load(std::memory_order_relaxed)) {
            sdr_let_listener_in();
        }
    }
    sdr_hold(const sdr_hold &) = delete;
    sdr_hold &operator=(const sdr_hold &) = delete;

    [[nodiscard]] int32_t acquired() const { return inherited_ ? -ECHILD : 0; }
    [[nodiscard]] sd_bus *bus() const { return sdr_module.bus; }

private:
    bool inherited_;
};

/** Building a call is silent, and a failed call prints the D-Bus error's text. */
inline constexpr call_texts sdr_texts = {.issue = plain_texts.issue, .parse = plain_texts.parse};

/** The reading of a record is silent too. */
inline constexpr call_texts sdr_fetch_texts = {.issue = plain_texts.issue};

class sdr_call : public module_call<sdr_hold>
{
public:
    explicit sdr_call(const char *member, const call_texts &texts = sdr_texts) : module_call(sdr_service, texts)
    {
        create(member);
    }
};

} // namespace bdbus
