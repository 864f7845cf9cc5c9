// SPDX-License-Identifier: LGPL-2.1-or-later
// The family's connection, which callers share with the listener.
//
// A method call reads whatever has arrived on the socket into the connection's queue, where a poll of the descriptor
// does not see it. So whoever releases the connection with messages in its queue wakes the listener.
#pragma once

#include "bus/call.hpp"
#include "bus/connection.hpp"
#include "sdr/store.hpp"

#include <cerrno>

namespace bdbus
{

inline constexpr service sdr_service = {
    .name = "com.brisemont.SensorDataRepository1",
    .path = "/com/brisemont/SensorDataRepository1",
    .interface = "com.brisemont.SensorDataRepository1",
};

extern bus_module sdr_module;

/** The store, or null before a successful init. */
extern std::atomic<sdr_store *> sdr_records;

/** Wake the listener for messages that are queued on the connection. The module lock is held. */
void sdr_wake_listener();

/** Whether the listener waits for the module lock. */
extern std::atomic<bool> sdr_listener_waits;

/** Let it take its turn. The module lock is free. */
void sdr_let_listener_in();

/** Prepare a connection for the listener: its own name, the seven matches. @return 0, or a negative code. */
int32_t sdr_subscribe(sd_bus *bus);

/** Start the listener on the open connection. @return 0, or a negative error number. */
int32_t sdr_listener_start();

/**
 * Many calls in a row: the listener does not wake for each reply of a connection that its caller is reading anyway.
 * What the calls leave in the queue is dispatched as ever.
 */
class listener_pause
{
public:
    listener_pause();
    ~listener_pause();
    listener_pause(const listener_pause &) = delete;
    listener_pause &operator=(const listener_pause &) = delete;
};

/** The connection, held for one call, its reply's handling included. Init has opened it. */
class sdr_hold
{
public:
    sdr_hold() : inherited_(is_inherited(sdr_module))
    {
        if (!inherited_) {
            pthread_mutex_lock(&sdr_module.lock);
        }
    }
    ~sdr_hold()
    {
        if (inherited_) {
            return;
        }
        sdr_wake_listener();
        pthread_mutex_unlock(&sdr_module.lock);
        if (sdr_listener_waits.load(std::memory_order_relaxed)) {
            sdr_let_listener_in();
        }
    }
    sdr_hold(const sdr_hold &) = delete;
    sdr_hold &operator=(const sdr_hold &) = delete;

    [[nodiscard]] int32_t acquired() const { return inherited_ ? -ECHILD : 0; }
    [[nodiscard]] sd_bus *bus() const { return sdr_module.bus; }

private:
    bool inherited_;
};

/** Building a call is silent, and a failed call tells the D-Bus error's text. */
inline constexpr call_texts sdr_texts = {.issue = plain_texts.issue, .parse = plain_texts.parse};

/** The reading of a record is silent too. */
inline constexpr call_texts sdr_fetch_texts = {.issue = plain_texts.issue};

class sdr_call : public module_call<sdr_hold>
{
public:
    explicit sdr_call(const char *member, const call_texts &texts = sdr_texts) : module_call(sdr_service, texts)
    {
        create(member);
    }
};

} // namespace bdbus
