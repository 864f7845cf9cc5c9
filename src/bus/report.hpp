// SPDX-License-Identifier: LGPL-2.1-or-later
// The one line that a failed call prints.
#pragma once

#include "bus/guard.hpp"

#include <systemd/sd-bus.h>

#include <cstdint>

namespace bdbus
{

/** Print "TEXT: REASON", or "TEXT NAME: REASON", with control characters of the reason as spaces. */
void print_failure(const char *text, const char *name, const char *reason);

/** The same with an errno text for a negative code. */
void print_failure(const char *text, const char *name, int32_t code);

/**
 * The line of what failed, printed when all is over. It stands before the lock, so that the line is printed after the
 * lock is free: a program whose stderr is stuck holds up nobody but the thread that failed.
 */
class failure_report
{
public:
    failure_report() = default;
    ~failure_report()
    {
        if (text_ != nullptr || error_.name != nullptr) {
            finish();
        }
    }
    failure_report(const failure_report &) = delete;
    failure_report &operator=(const failure_report &) = delete;

    /** Where sd-bus puts the peer's error. */
    sd_bus_error *error() { return &error_; }

    /** Have a line printed with the code's errno text; none without a text. */
    void set(const char *text, int32_t code, const char *name = nullptr);

    /** The same with the peer's own words, which say more than an errno; a peer that sent none leaves the errno. */
    void set_peer_error(const char *text, int32_t code);

private:
    void finish();

    sd_bus_error error_ = {}; // the value of SD_BUS_ERROR_NULL, whose spelling is C alone
    const char *text_ = nullptr;
    const char *name_ = nullptr;
    const char *reason_ = nullptr;
    int32_t code_ = 0;
};

/** What stands before a single call: it spares the thread until the call's line is printed, too. */
class call_report : uncancelled, held_signals, public failure_report
{
};

} // namespace bdbus
