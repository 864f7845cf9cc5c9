// SPDX-License-Identifier: LGPL-2.1-or-later
// The ways to a connection to the system bus: one kept by a module for the life of the process, or one for each call.
#pragma once

#include <pthread.h>
#include <systemd/sd-bus.h>

#include <cstdint>

namespace bdbus
{

class mutex_guard
{
  public:
    explicit mutex_guard(pthread_mutex_t &mutex) : mutex_(mutex)
    {
        pthread_mutex_lock(&mutex_);
    }
    ~mutex_guard()
    {
        pthread_mutex_unlock(&mutex_);
    }
    mutex_guard(const mutex_guard &) = delete;
    mutex_guard &operator=(const mutex_guard &) = delete;

  private:
    pthread_mutex_t &mutex_;
};

/** A module that keeps its connection: absent until the first acquire that can open it, then open for good. */
struct bus_module {
    pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
    sd_bus *bus = nullptr;
};

/**
 * Take a module's lock and have its connection open.
 *
 * A failed open prints its line, leaves the connection absent and the lock free. A new connection gets its matches from
 * `register_matches`, once; nothing that this ignores of their results keeps a call from being made.
 *
 * @return 0 with the lock held, or the open's negative code without it.
 */
int32_t module_acquire(bus_module &owner, void (*register_matches)(sd_bus *bus));

void module_release(bus_module &owner);

/** A module's connection, held by a pair of its named acquire and release. */
template <int32_t (*Acquire)(), void (*Release)()>
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

    [[nodiscard]] int32_t acquired() const
    {
        return acquired_;
    }

  private:
    int32_t acquired_;
};

/** Dispatch at most one queued message of a module's connection. @return 0, or the negative code of the acquire. */
template <int32_t (*Acquire)(), void (*Release)()>
int32_t process_one(bus_module &owner)
{
    const module_hold<Acquire, Release> hold;
    if (hold.acquired() < 0) {
        return hold.acquired();
    }
    sd_bus_process(owner.bus, nullptr); // a broken connection is told by the next call, not here
    return 0;
}

/** A connection of one call's own, opened under the module's lock and closed before it is released. */
class call_connection
{
  public:
    explicit call_connection(pthread_mutex_t &lock);
    ~call_connection()
    {
        sd_bus_unref(bus_);
    }
    call_connection(const call_connection &) = delete;
    call_connection &operator=(const call_connection &) = delete;

    [[nodiscard]] int32_t acquired() const
    {
        return acquired_;
    }
    [[nodiscard]] sd_bus *bus() const
    {
        return bus_;
    }

  private:
    mutex_guard guard_;
    sd_bus *bus_ = nullptr;
    int32_t acquired_;
};

} // namespace bdbus
