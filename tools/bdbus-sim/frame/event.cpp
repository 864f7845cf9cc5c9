// SPDX-License-Identifier: LGPL-2.1-or-later
// The event loop and its timers.
#include "frame/event.hpp"

#include "frame/bus.hpp"

#include <cstdlib>
#include <ctime>

namespace bdbus_sim
{

timer::timer(event_loop &loop, std::chrono::milliseconds delay, std::function<void()> action)
    : loop_(loop), action_(std::move(action))
{
    // From now, not from when the loop last woke up.
    constexpr uint64_t accuracy_us = 1;
    auto due = std::chrono::steady_clock::now().time_since_epoch() + delay;
    auto due_us = static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::microseconds>(due).count());
    check(sd_event_add_time(loop.get(), &source_, CLOCK_MONOTONIC, due_us + 1, accuracy_us, fire, this), "timer");
}

timer::~timer()
{
    sd_event_source_disable_unref(source_);
}

int timer::fire(sd_event_source *, uint64_t, void *self)
{
    event_loop &loop = static_cast<timer *>(self)->loop_;
    auto action = std::exchange(static_cast<timer *>(self)->action_, nullptr);
    try {
        action();
    } catch (...) {
        loop.fail(std::current_exception());
    }
    return 0;
}

event_loop::event_loop()
{
    check(sd_event_new(&loop_), "event loop");
}

event_loop::~event_loop()
{
    sd_event_unref(loop_);
}

int event_loop::run()
{
    int code = check(sd_event_loop(loop_), "event loop");
    if (failure_) {
        std::rethrow_exception(failure_);
    }
    return code;
}

void event_loop::fail(std::exception_ptr failure)
{
    failure_ = std::move(failure);
    sd_event_exit(loop_, EXIT_FAILURE);
}

} // namespace bdbus_sim
