// SPDX-License-Identifier: LGPL-2.1-or-later
#include "event.hpp"

#include "bus.hpp"

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <exception>
#include <utility>

timer::timer(sd_event *loop, std::chrono::milliseconds delay, std::function<void()> action) : action_(std::move(action))
{
    constexpr uint64_t accuracy_us = 1;
    auto delay_us = static_cast<uint64_t>(std::chrono::microseconds(delay).count());
    check(sd_event_add_time_relative(loop, &source_, CLOCK_MONOTONIC, delay_us, accuracy_us, fire, this), "timer");
}

timer::~timer()
{
    sd_event_source_disable_unref(source_);
}

int timer::fire(sd_event_source *source, uint64_t, void *self)
{
    auto action = std::exchange(static_cast<timer *>(self)->action_, nullptr);
    try {
        action();
        return 0;
    } catch (const std::exception &error) {
        fprintf(stderr, "bdbus-sim: %s\n", error.what());
        return sd_event_exit(sd_event_source_get_event(source), EXIT_FAILURE);
    }
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
    return check(sd_event_loop(loop_), "event loop");
}
