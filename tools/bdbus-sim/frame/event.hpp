// SPDX-License-Identifier: LGPL-2.1-or-later
// The one event loop of the simulator, and timers on it.
#pragma once

#include <systemd/sd-event.h>

#include <chrono>
#include <exception>
#include <functional>
#include <memory>
#include <utility>

namespace bdbus_sim
{

class event_loop;

/**
 * Runs its action once; destroying the timer before that cancels it. The action may destroy its own timer. An exception
 * that it throws ends the loop.
 */
class timer
{
public:
    timer(event_loop &loop, std::chrono::milliseconds delay, std::function<void()> action);
    timer(const timer &) = delete;
    timer &operator=(const timer &) = delete;
    ~timer();

private:
    static int fire(sd_event_source *source, uint64_t now, void *self);

    event_loop &loop_;
    std::function<void()> action_;
    sd_event_source *source_ = nullptr;
};
using timer_ptr = std::unique_ptr<timer>;

class event_loop
{
public:
    event_loop();
    event_loop(const event_loop &) = delete;
    event_loop &operator=(const event_loop &) = delete;
    ~event_loop();

    sd_event *get() const { return loop_; }

    timer_ptr after(std::chrono::milliseconds delay, std::function<void()> action)
    {
        return std::make_unique<timer>(*this, delay, std::move(action));
    }

    /** Runs until the loop is ended; returns the code that it was ended with, or throws what a timer's action threw. */
    int run();

    /** Ends the loop; run() throws the failure. */
    void fail(std::exception_ptr failure);

private:
    sd_event *loop_ = nullptr;
    std::exception_ptr failure_;
};

} // namespace bdbus_sim
