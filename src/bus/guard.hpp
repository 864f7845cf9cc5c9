// SPDX-License-Identifier: LGPL-2.1-or-later
// What a thread is spared while it is inside a call: to be ended by another thread, and signals that never mean to
// interrupt it.
#pragma once

#include <pthread.h>

#include <csignal>

namespace bdbus
{

/** While this lives, a cancellation waits: a thread that ended inside a call would leave its lock held for ever. */
class uncancelled
{
public:
    uncancelled() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before_); }
    ~uncancelled() { pthread_setcancelstate(before_, nullptr); }
    uncancelled(const uncancelled &) = delete;
    uncancelled &operator=(const uncancelled &) = delete;

private:
    int before_ = PTHREAD_CANCEL_ENABLE;
};

/**
 * While this lives, signals wait whose handlers would end the call: libsystemd 252 gives up a call when any handler has
 * run, whatever it did.
 *
 * For a call by itself these are the signals that only report something. Others may be a program's own limit on the
 * call, or its end.
 */
class held_signals
{
public:
    held_signals();
    ~held_signals() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
    held_signals(const held_signals &) = delete;
    held_signals &operator=(const held_signals &) = delete;

private:
    sigset_t before_;
};

/**
 * While this lives, the calls of its thread are parts of one thing, which a timer's signal must not leave half done:
 * during each of them all signals wait but SIGINT, SIGTERM, SIGQUIT, SIGHUP and faults. Between them the handlers run.
 */
class calls_in_a_row
{
public:
    calls_in_a_row();
    ~calls_in_a_row();
    calls_in_a_row(const calls_in_a_row &) = delete;
    calls_in_a_row &operator=(const calls_in_a_row &) = delete;

private:
    bool before_;
};

/** The signals that an instruction of the thread itself brings about: blocked, they end the process. */
inline constexpr int fault_signals[] = {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGABRT, SIGSYS};

} // namespace bdbus
