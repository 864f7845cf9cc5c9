// SPDX-License-Identifier: LGPL-2.1-or-later
// What every program over sd-bus writes: a connection, and what a call leaves to be released.
#pragma once

#include <pthread.h>
#include <systemd/sd-bus.h>

#include <csignal>
#include <initializer_list>

namespace bench
{

/** Where a service is: its object and interface have its name. */
struct peer {
    const char *name;
    const char *path;
};

inline constexpr peer auth_log = {"com.brisemont.AuthLog1", "/com/brisemont/AuthLog1"};
inline constexpr peer bypass = {"com.brisemont.AdvancedBypass", "/com/brisemont/AdvancedBypass"};
inline constexpr peer config = {"com.brisemont.Config1", "/com/brisemont/Config1"};
inline constexpr peer raid = {"com.brisemont.RAIDMgmt", "/com/brisemont/RAIDMgmt"};
inline constexpr peer sdr = {"com.brisemont.SensorDataRepository1", "/com/brisemont/SensorDataRepository1"};
inline constexpr peer sel = {"com.brisemont.SystemEventLog1", "/com/brisemont/SystemEventLog1"};
inline constexpr peer upgrade = {"com.brisemont.Upgrade1", "/com/brisemont/Upgrade1"};

/** A connection that the program keeps. */
inline sd_bus *kept_bus()
{
    static sd_bus *bus = nullptr;
    if (bus == nullptr) {
        sd_bus_open_system(&bus);
    }
    return bus;
}

/**
 * What a careful program does around each use of a connection that its threads share, as the library does: it takes its
 * turn, and puts off a cancellation.
 */
class turn
{
public:
    turn()
    {
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancelable_);
        pthread_mutex_lock(&lock_);
    }
    ~turn()
    {
        pthread_mutex_unlock(&lock_);
        pthread_setcancelstate(cancelable_, nullptr);
    }
    turn(const turn &) = delete;
    turn &operator=(const turn &) = delete;

private:
    static inline pthread_mutex_t lock_ = PTHREAD_MUTEX_INITIALIZER;
    int cancelable_ = 0;
};

/** And around a call: a signal that only reports something does not end it. */
class quiet_turn : turn
{
public:
    quiet_turn() { pthread_sigmask(SIG_BLOCK, &reports_, &before_); }
    ~quiet_turn() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
    quiet_turn(const quiet_turn &) = delete;
    quiet_turn &operator=(const quiet_turn &) = delete;

private:
    static inline const sigset_t reports_ = [] {
        sigset_t set;
        sigemptyset(&set);
        for (const int signal : {SIGCHLD, SIGWINCH, SIGIO, SIGURG, SIGPROF, SIGVTALRM}) {
            sigaddset(&set, signal);
        }
        return set;
    }();

    sigset_t before_;
};

/** A connection for one call. */
class own_bus
{
public:
    own_bus() { sd_bus_open_system(&bus_); }
    ~own_bus() { sd_bus_unref(bus_); }
    own_bus(const own_bus &) = delete;
    own_bus &operator=(const own_bus &) = delete;
    operator sd_bus *() const { return bus_; }

private:
    sd_bus *bus_ = nullptr;
};

struct call {
    sd_bus_message *request = nullptr;
    sd_bus_message *reply = nullptr;
    sd_bus_error error = {};

    call() = default;
    ~call()
    {
        sd_bus_error_free(&error);
        sd_bus_message_unref(request);
        sd_bus_message_unref(reply);
    }
    call(const call &) = delete;
    call &operator=(const call &) = delete;

    bool create(sd_bus *bus, const peer &to, const char *member)
    {
        return sd_bus_message_new_method_call(bus, &request, to.name, to.path, to.name, member) >= 0;
    }

    bool send(sd_bus *bus, uint64_t timeout_us = 0)
    {
        return sd_bus_call(bus, request, timeout_us, &error, &reply) >= 0;
    }

    /** Create and send in one step. */
    template <typename... Values>
    bool invoke(sd_bus *bus, const peer &to, const char *member, const char *signature, Values... values)
    {
        return sd_bus_call_method(bus, to.name, to.path, to.name, member, &error, &reply, signature, values...) >= 0;
    }
};

} // namespace bench
