// SPDX-License-Identifier: LGPL-2.1-or-later
// Which signals are held back.
#include "bus/guard.hpp"

#include <array>
#include <bit>

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

/** A set made of its first word and another one for all after it. */
consteval sigset_t set_of(unsigned long first, unsigned long others)
{
    std::array<unsigned long, sizeof(sigset_t) / sizeof(unsigned long)> words;
    words.fill(others);
    words[0] = first;
    return std::bit_cast<sigset_t>(words);
}

constexpr sigset_t held_alone = set_of(reports, 0);
constexpr sigset_t held_in_a_row = set_of(~let_through(), ~0UL);

} // namespace

held_signals::held_signals()
{
    pthread_sigmask(SIG_BLOCK, in_a_row ? &held_in_a_row : &held_alone, &before_);
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
