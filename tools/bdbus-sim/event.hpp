// SPDX-License-Identifier: LGPL-2.1-or-later
// The one event loop of the simulator, and timers on it.
#ifndef BDBUS_SIM_EVENT_HPP
#define BDBUS_SIM_EVENT_HPP

#include <systemd/sd-event.h>

#include <chrono>
#include <functional>
#include <memory>

// Runs its action once; destroying it before that cancels it. The action may destroy its own timer.
class timer
{
  public:
    timer(sd_event *loop, std::chrono::milliseconds delay, std::function<void()> action);
    timer(const timer &) = delete;
    timer &operator=(const timer &) = delete;
    ~timer();

  private:
    static int fire(sd_event_source *source, uint64_t now, void *self);

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

    sd_event *get() const
    {
        return loop_;
    }

    timer_ptr after(std::chrono::milliseconds delay, std::function<void()> action)
    {
        return std::make_unique<timer>(loop_, delay, std::move(action));
    }

    // Serves until somebody ends the loop; gives the code that it was ended with.
    int run();

  private:
    sd_event *loop_ = nullptr;
};

#endif
