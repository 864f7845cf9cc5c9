// SPDX-License-Identifier: LGPL-2.1-or-later
// Which signals are held back.
#include "bus/guard.hpp"

#include <cstring>

namespace bdbus
{

namespace
{

// In the thread's own block from the start, so that the dynamic loader has no part in it.
constinit thread_local bool in_a_row __attribute__((tls_model("initial-exec"))) = false;

/** The bit of a signal in the first word of a set, as the kernel has it. */
consteval unsigned long bit(int signal)
{
    return 1UL << (signal - 1);
}

constexpr unsigned long reports =
    bit(SIGCHLD) | bit(SIGWINCH) | bit(SIGIO) | bit(SIGURG) | bit(SIGPROF) | bit(SIGVTALRM);

/** The signals that are not held in a row: those by which a program is ended, and its own faults. */
consteval unsigned long let_through()
{
    unsigned long bits = bit(SIGINT) | bit(SIGTERM) | bit(SIGQUIT) | bit(SIGHUP);
    for (const int signal : fault_signals) {
        bits |= bit(signal);
    }
    return bits;
}

constexpr unsigned long others_in_word = ~let_through();

} // namespace

held_signals::held_signals()
{
    sigset_t held = {};
    if (!in_a_row) {
        memcpy(&held, &reports, sizeof(reports)); // a tenth of what six calls of sigaddset() cost
    } else {
        memset(&held, 0xFF, sizeof(held));
        memcpy(&held, &others_in_word, sizeof(others_in_word)); // the words after the first have none of them
    }
    pthread_sigmask(SIG_BLOCK, &held, &before_);
}

calls_in_a_row::calls_in_a_row() : before_(in_a_row)
{
    in_a_row = true;
}

calls_in_a_row::~calls_in_a_row()
{
    in_a_row = before_;
}

} // namespace bdbus
