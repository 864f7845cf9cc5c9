// SPDX-License-Identifier: LGPL-2.1-or-later
// Signals that would end the program, held back until it is ready to end.
#pragma once

#include <unistd.h>

#include <chrono>
#include <csignal>
#include <ctime>

namespace bdbusctl
{

/**
 * While it lives, the signals that end a program wait to be asked for. Those that the program was started to ignore
 * stay ignored.
 */
class held_signals
{
public:
    held_signals()
    {
        sigemptyset(&set_);
        for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
            struct sigaction action = {};
            if (sigaction(number, nullptr, &action) == 0 && action.sa_handler != SIG_IGN) {
                sigaddset(&set_, number);
            }
        }
        pthread_sigmask(SIG_BLOCK, &set_, &before_);
    }
    ~held_signals() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
    held_signals(const held_signals &) = delete;
    held_signals &operator=(const held_signals &) = delete;

    /**
     * Runs an action that may block for long, such as a call on a bus that hangs or output to a stopped pager. A signal
     * during it ends the program at once, with the status of success.
     */
    template <typename Action>
    void end_during(Action action) const
    {
        for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
            if (sigismember(&set_, number) > 0) {
                signal(number, end_at_once);
            }
        }
        pthread_sigmask(SIG_UNBLOCK, &set_, nullptr);
        action();
        pthread_sigmask(SIG_BLOCK, &set_, nullptr);
    }

    /** @return whether a signal came within the time. */
    bool wait(std::chrono::milliseconds duration) const
    {
        const timespec timeout{0, static_cast<long>(std::chrono::nanoseconds(duration).count())};
        return sigtimedwait(&set_, nullptr, &timeout) > 0;
    }

private:
    static void end_at_once(int /*number*/) { _exit(0); }

    sigset_t set_{};
    sigset_t before_{};
};

} // namespace bdbusctl
