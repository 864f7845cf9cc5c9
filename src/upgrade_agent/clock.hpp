// SPDX-License-Identifier: LGPL-2.1-or-later
// The agent's only ways to time: whole seconds, and a sleep. Nothing else in the agent waits.
#pragma once

#include <cstdint>
#include <ctime>

namespace bdbus
{

inline int64_t agent_time_s()
{
    return time(nullptr);
}

/** An interrupted sleep is not resumed: what follows a sleep is a poll, and an early poll does no harm. */
inline void bdbus_upgrade_agent_sleep_ms(uint32_t milliseconds)
{
    const timespec duration = {
        .tv_sec = static_cast<time_t>(milliseconds / 1000),
        .tv_nsec = static_cast<long>(milliseconds % 1000) * 1'000'000,
    };
    nanosleep(&duration, nullptr);
}

} // namespace bdbus
