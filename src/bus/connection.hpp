// SPDX-License-Identifier: LGPL-2.1-or-later
// The ways to a connection to the system bus: one kept by a module for the life of the process, or one for each call.
#pragma once

#include <pthread.h>
#include <systemd/sd-bus.h>

#include <cstdint>

namespace bdbus
{

/** Whom a call goes to, and whom signals come from. */
struct service {
    const char *name;
    const char *path;
    const char *interface;
};

class mutex_guard
{
public:
    explicit mutex_guard(pthread_mutex_t &mutex) : mutex_(mutex) { pthread_mutex_lock(&mutex_); }
    ~mutex_guard() { pthread_mutex_unlock(&mutex_); }
    mutex_guard(const mutex_guard &) = delete;
    mutex_guard &operator=(const mutex_guard &) = delete;

private:
    pthread_mutex_t &mutex_;
};

/**
 * Subscribe to a signal for as long as the connection lives. A signal that cannot be matched is not received, and every
 * call works all the same; but a match that a signal handler of the process interrupted is tried again.
 */
void match_signal(sd_bus *bus, const service &peer, const char *member, sd_bus_message_handler_t handler);

/**
 * Open a connection and subscribe it, once. Nothing is printed.
 *
 * An open returns before the bus has greeted the connection. One that the bus has dropped by the time its matches are
 * made counts as a failed open, so that the next call can try again.
 *
 * @param bus receives the connection; null after a failure.
 * @return 0, or a negative code.
 */
int32_t open_subscribed(sd_bus **bus, void (*register_matches)(sd_bus *bus));

/** For a family without signals. */
inline void no_matches(sd_bus * /*bus*/) {}

/** A module that keeps its connection: absent until the first acquire that can open it, then open for good. */
struct bus_module {
    pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
    sd_bus *bus = nullptr;
};

/**
 * Take a module's lock and have its connection open.
 *
 * A failed open prints its line, leaves the connection absent and the lock free.
 *
 * @return 0 with the lock held, or the open's negative code without it.
 */
int32_t module_acquire(bus_module &owner, void (*register_matches)(sd_bus *bus));

void module_release(bus_module &owner);

/** A module's connection, held by a pair of its named acquire and release. */
template <bus_module &Module, int32_t (*Acquire)(), void (*Release)()>
class module_hold
{
public:
    module_hold() : acquired_(Acquire()) {}
    ~module_hold()
    {
        if (acquired_ >= 0) {
            Release();
        }
    }
    module_hold(const module_hold &) = delete;
    module_hold &operator=(const module_hold &) = delete;

    [[nodiscard]] int32_t acquired() const { return acquired_; }

    /** The connection, or null when it could not be had: without the lock it is not looked at. */
    [[nodiscard]] sd_bus *bus() const { return acquired_ < 0 ? nullptr : Module.bus; }

private:
    int32_t acquired_;
};

/** Dispatch at most one queued message of a module's connection. @return 0, or the negative code of the acquire. */
template <typename Hold>
int32_t process_one()
{
    const Hold hold;
    if (hold.acquired() < 0) {
        return hold.acquired();
    }
    sd_bus_process(hold.bus(), nullptr); // a broken connection is told by the next call, not here
    return 0;
}

/** A connection of one call's own, opened under the module's lock and closed before it is released. */
class call_connection
{
public:
    explicit call_connection(pthread_mutex_t &lock);
    ~call_connection() { sd_bus_unref(bus_); }
    call_connection(const call_connection &) = delete;
    call_connection &operator=(const call_connection &) = delete;

    [[nodiscard]] int32_t acquired() const { return acquired_; }
    [[nodiscard]] sd_bus *bus() const { return bus_; }

private:
    mutex_guard guard_;
    sd_bus *bus_ = nullptr;
    int32_t acquired_;
};

} // namespace bdbus
