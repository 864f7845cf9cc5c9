// SPDX-License-Identifier: LGPL-2.1-or-later
// The two ways to a connection to the system bus: a module keeps one for the life of the process, or has one for each
// call. A family names its acquire and release, and its calls hold the connection through them.
#pragma once

#include "bus/report.hpp"

#include <pthread.h>
#include <systemd/sd-bus.h>

#include <atomic>
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
 * Subscribe to a signal for as long as the connection lives. A signal whose match the bus refuses is not received, and
 * every call works all the same.
 *
 * @param userdata what the handler gets; it only reads it.
 * @return 0 when the bus has answered, or a negative code: the connection is to be closed then.
 */
int32_t match_signal(sd_bus *bus, const service &peer, const char *member, sd_bus_message_handler_t handler,
                     const void *userdata = nullptr);

/** Subscribe a new connection. @return 0, or the first match's negative code. */
using subscription = int32_t (*)(sd_bus *bus);

/** A family's connection, or null, and the lock of all that is done with it. */
struct bus_module {
    pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
    sd_bus *bus = nullptr;
    bool inherited = false; // set in a forked child alone, before it has a second thread
    bus_module *next = nullptr;
    std::atomic<bool> watched{false};
};

/** Have forks watched for from now on. @return 0, or a negative code. */
int32_t start_watching(bus_module &owner);

/**
 * Have forks watched for, before the module's lock is taken for the first time. In a child, a connection that was there
 * or under way is inherited, and the lock of a module without one is free, whoever held it.
 *
 * @return 0, or a negative code.
 */
inline int32_t watch_forks(bus_module &owner)
{
    return owner.watched.load(std::memory_order_relaxed) ? 0 : start_watching(owner);
}

/** Whether the connection is a parent's, whose socket, lock and listener are of no use here. */
inline bool is_inherited(const bus_module &owner)
{
    return owner.inherited;
}

/**
 * Open and subscribe the connection of a module that has none. Its lock is held, and forks are watched for. Nothing is
 * printed.
 *
 * An open counts once the bus has greeted the connection and answered every match; what ends before that is closed, and
 * the next call tries again.
 *
 * @param subscribe null for a family without signals.
 * @return 0, or a negative code.
 */
int32_t module_open(bus_module &owner, subscription subscribe);

/**
 * Take a module's lock and have its connection open, from then on for good.
 *
 * A failed open prints its line, leaves the connection absent and the lock free. What nobody asked for is dropped when
 * the family has no signals.
 *
 * @return 0 with the lock held, or a negative code without it: the open's, or -ECHILD in a child of the process that
 * opened it.
 */
int32_t module_acquire(bus_module &owner, subscription subscribe);

/** The same without the line. */
int32_t module_acquire_silently(bus_module &owner, subscription subscribe);

inline void module_release(bus_module &owner)
{
    pthread_mutex_unlock(&owner.lock);
}

/**
 * Take a module's lock and open a connection for one call.
 *
 * @param text of the line for a failed open, which leaves the lock free; null for none.
 * @return 0 with the lock held, or the open's negative code without it.
 */
int32_t per_call_acquire(bus_module &owner, const char *text);

void per_call_release(bus_module &owner);

/** A module's connection, held by a pair of its named acquire and release. */
template <bus_module &Module, int32_t (*Acquire)(), void (*Release)()>
class module_hold
{
public:
    module_hold() : acquired_(Acquire()), bus_(acquired_ >= 0 ? Module.bus : nullptr) {}
    ~module_hold() { release(); }
    module_hold(const module_hold &) = delete;
    module_hold &operator=(const module_hold &) = delete;

    [[nodiscard]] int32_t acquired() const { return acquired_; }

    /** The connection, or null without the lock. */
    [[nodiscard]] sd_bus *bus() const { return bus_; }

    /** Let others have it before the end; a reply that came over it stays readable. */
    void release()
    {
        if (bus_ != nullptr) {
            bus_ = nullptr;
            Release();
        }
    }

private:
    int32_t acquired_;
    sd_bus *bus_;
};

/** Dispatch at most one queued message of a module's connection. @return 0, or the negative code of the acquire. */
template <typename Hold>
int32_t process_one()
{
    const uncancelled guard;
    const Hold hold;
    if (hold.acquired() < 0) {
        return hold.acquired();
    }
    sd_bus_process(hold.bus(), nullptr); // the next call reports a broken connection
    return 0;
}

} // namespace bdbus
