// SPDX-License-Identifier: LGPL-2.1-or-later
// How connections begin, what forks do to them, and who holds them.
#include "bus/connection.hpp"

#include "bus/texts.hpp"

#include <cerrno>

namespace bdbus
{

namespace
{

constinit std::atomic<bus_module *> watched_modules{nullptr};
constinit std::atomic<bool> forks_are_watched{false};

/** In a child, whose only thread this is. */
void after_fork()
{
    for (bus_module *module = watched_modules.load(); module != nullptr; module = module->next) {
        module->inherited = module->inherited || module->bus != nullptr;
        if (!module->inherited) {
            pthread_mutex_init(&module->lock, nullptr);
        }
    }
}

} // namespace

int32_t start_watching(bus_module &owner)
{
    if (!forks_are_watched.load()) {
        if (const int error = pthread_atfork(nullptr, nullptr, after_fork); error != 0) {
            return -error;
        }
        forks_are_watched.store(true); // twice, by two threads, does no harm
    }
    if (!owner.watched.exchange(true)) {
        owner.next = watched_modules.load();
        while (!watched_modules.compare_exchange_weak(owner.next, &owner)) {
        }
    }
    return 0;
}

int32_t match_signal(sd_bus *bus, const service &peer, const char *member, sd_bus_message_handler_t handler,
                     const void *userdata)
{
    const held_signals held;
    const int matched = sd_bus_match_signal(bus, nullptr, nullptr, peer.path, peer.interface, member, handler,
                                            const_cast<void *>(userdata));
    switch (matched) {
    case -EINTR:
    case -ENOMEM: // libsystemd 252 is left with a match that it cannot use
    case -ETIMEDOUT:
    case -EXFULL: // no descriptor is left for one that came with a message: the stream is out of step for good
    case -EBADMSG:
        return matched;
    default:
        return sd_bus_is_ready(bus) > 0 ? 0 : -ECONNRESET;
    }
}

namespace
{

/** Wait for the bus's greeting, as the first call would. */
int32_t await_greeting(sd_bus *bus)
{
    const held_signals held;
    const char *name = nullptr;
    return sd_bus_get_unique_name(bus, &name);
}

/** The greeting and the matches are calls in a row; a greeting alone is a call like any other. */
int32_t begin(sd_bus *bus, subscription subscribe)
{
    if (subscribe == nullptr) {
        return await_greeting(bus);
    }
    const calls_in_a_row steps;
    const int32_t greeted = await_greeting(bus);
    return greeted < 0 ? greeted : subscribe(bus);
}

} // namespace

int32_t module_open(bus_module &owner, subscription subscribe)
{
    int32_t result = sd_bus_open_system(&owner.bus);
    if (result < 0) {
        owner.bus = nullptr;
        return result;
    }
    result = begin(owner.bus, subscribe);
    if (result < 0) {
        owner.bus = sd_bus_unref(owner.bus);
        return result;
    }
    return 0;
}

namespace
{

/** Take off what is queued: signals and calls of strangers, and replies that came too late. */
void drop_queued(sd_bus *bus)
{
    uint64_t queued = 0;
    sd_bus_get_n_queued_read(bus, &queued);
    for (; queued > 0; queued--) {
        sd_bus_process(bus, nullptr);
    }
}

/** Inlined into both ways to acquire, for every call goes through one of them. */
[[gnu::always_inline]] inline int32_t acquire(bus_module &owner, subscription subscribe)
{
    if (is_inherited(owner)) {
        return -ECHILD;
    }
    if (const int32_t watched = watch_forks(owner); watched < 0) {
        return watched;
    }
    pthread_mutex_lock(&owner.lock);
    const int32_t result = owner.bus != nullptr ? 0 : module_open(owner, subscribe);
    if (result < 0) {
        pthread_mutex_unlock(&owner.lock);
    } else if (subscribe == nullptr) {
        drop_queued(owner.bus);
    }
    return result;
}

} // namespace

int32_t module_acquire_silently(bus_module &owner, subscription subscribe)
{
    return acquire(owner, subscribe);
}

int32_t module_acquire(bus_module &owner, subscription subscribe)
{
    const int32_t result = acquire(owner, subscribe);
    if (result < 0) {
        print_failure(connect_text, nullptr, result);
    }
    return result;
}

int32_t per_call_acquire(bus_module &owner, const char *text)
{
    pthread_mutex_lock(&owner.lock);
    const int32_t result = sd_bus_open_system(&owner.bus);
    if (result >= 0) {
        return 0;
    }
    owner.bus = nullptr;
    pthread_mutex_unlock(&owner.lock);
    if (text != nullptr) {
        print_failure(text, nullptr, result);
    }
    return result;
}

void per_call_release(bus_module &owner)
{
    owner.bus = sd_bus_unref(owner.bus);
    pthread_mutex_unlock(&owner.lock);
}

} // namespace bdbus
