// SPDX-License-Identifier: LGPL-2.1-or-later
#include "bus/connection.hpp"

#include "bus/texts.hpp"

#include <cerrno>

namespace bdbus
{

/** Which process this is, counted by the forks since the first open. */
static constinit std::atomic<uint32_t> process_number{1};
static constinit std::atomic<bool> counts_forks{false};

static int32_t count_forks()
{
    if (counts_forks.load(std::memory_order_relaxed)) {
        return 0;
    }
    const int error = pthread_atfork(nullptr, nullptr, [] { process_number.fetch_add(1, std::memory_order_relaxed); });
    counts_forks.store(error == 0, std::memory_order_relaxed); // twice, by two threads, does no harm
    return -error;
}

bool is_inherited(const bus_module &owner)
{
    const uint32_t opened_by = owner.opened_by.load(std::memory_order_relaxed);
    return opened_by != 0 && opened_by != process_number.load(std::memory_order_relaxed);
}

int32_t match_signal(sd_bus *bus, const service &peer, const char *member, sd_bus_message_handler_t handler)
{
    const int matched = sd_bus_match_signal(bus, nullptr, nullptr, peer.path, peer.interface, member, handler, nullptr);
    switch (matched) {
    case -EINTR:
    case -ENOMEM: // libsystemd 252 is left with a match that it cannot use
    case -ETIMEDOUT:
        return matched;
    default:
        return sd_bus_is_ready(bus) > 0 ? 0 : -ECONNRESET;
    }
}

/** Wait for the bus's greeting, as the first call would, and subscribe. */
static int32_t begin(sd_bus *bus, subscription subscribe)
{
    const char *name = nullptr;
    const int greeted = sd_bus_get_unique_name(bus, &name);
    if (greeted < 0 || subscribe == nullptr) {
        return greeted;
    }
    return subscribe(bus);
}

int32_t module_open(bus_module &owner, subscription subscribe)
{
    if (owner.bus != nullptr) {
        return 0;
    }
    const calls_in_a_row matches;
    const held_signals held;
    int32_t result = count_forks();
    if (result == 0) {
        result = sd_bus_open_system(&owner.bus);
    }
    if (result < 0) {
        owner.bus = nullptr;
        return result;
    }
    result = begin(owner.bus, subscribe);
    if (result < 0) {
        owner.bus = sd_bus_unref(owner.bus);
        return result;
    }
    owner.opened_by.store(process_number.load(std::memory_order_relaxed), std::memory_order_relaxed);
    return 0;
}

/** Take off what is queued: signals and calls of strangers, and replies that came too late. */
static void drop_queued(sd_bus *bus)
{
    uint64_t queued = 0;
    sd_bus_get_n_queued_read(bus, &queued);
    for (; queued > 0; queued--) {
        sd_bus_process(bus, nullptr);
    }
}

int32_t module_acquire(bus_module &owner, subscription subscribe)
{
    int32_t result = -ECHILD;
    if (!is_inherited(owner)) {
        pthread_mutex_lock(&owner.lock);
        result = module_open(owner, subscribe);
        if (result == 0 && subscribe == nullptr) {
            drop_queued(owner.bus);
        }
        if (result < 0) {
            pthread_mutex_unlock(&owner.lock);
        }
    }
    if (result < 0) {
        print_failure(connect_text, nullptr, result);
    }
    return result;
}

void module_release(bus_module &owner)
{
    pthread_mutex_unlock(&owner.lock);
}

call_connection::call_connection(pthread_mutex_t &lock, call_report &report)
    : guard_(lock), acquired_(sd_bus_open_system(&bus_))
{
    if (acquired_ < 0) {
        report.set(connect_text, acquired_);
    }
}

} // namespace bdbus
