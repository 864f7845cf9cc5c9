// SPDX-License-Identifier: LGPL-2.1-or-later
#include "support/clock.hpp"

#include <atomic>
#include <ctime>
#include <mutex>
#include <utility>

static std::atomic<int64_t> clock_ms = 1'000'000'000;
static std::atomic<int64_t> step_s;
static std::mutex sleeps_mutex;
static std::vector<int64_t> sleeps;

extern "C" time_t time(time_t *out) noexcept
{
    const auto now = static_cast<time_t>(clock_ms.fetch_add(step_s * 1000) / 1000);
    if (out != nullptr) {
        *out = now;
    }
    return now;
}

extern "C" int nanosleep(const timespec *duration, timespec * /*remaining*/)
{
    const int64_t milliseconds = duration->tv_sec * int64_t{1000} + duration->tv_nsec / 1'000'000;
    clock_ms += milliseconds;
    const std::lock_guard guard(sleeps_mutex);
    sleeps.push_back(milliseconds);
    return 0;
}

std::vector<int64_t> take_sleeps()
{
    const std::lock_guard guard(sleeps_mutex);
    return std::exchange(sleeps, {});
}

void set_clock_step(int64_t seconds)
{
    step_s = seconds;
}
