// SPDX-License-Identifier: LGPL-2.1-or-later
// The thread that dispatches the repository's signals, and what callers owe it.
#pragma once

#include <systemd/sd-bus.h>

#include <atomic>
#include <cstdint>

namespace bdbus
{

/** Leave what arrives to a caller who has just taken the module lock. */
void sdr_hush_listener();

/** Leave it to the listener again. The module lock is held. @return whether it was woken for what is queued. */
bool sdr_rouse_listener();

/** Whether the listener waits for the module lock. */
extern std::atomic<bool> sdr_listener_waits;

/** Let it take its turn. The module lock is free. */
void sdr_let_listener_in();

/** Prepare a connection for the listener: its own name, the seven matches. @return 0, or a negative code. */
int32_t sdr_subscribe(sd_bus *bus);

/** Start the listener on the open connection. @return 0, or a negative error number. */
int32_t sdr_listener_start();

/** Many calls in a row: between them, too, the listener wakes only for what they leave in the queue. */
class listener_pause
{
public:
    listener_pause();
    ~listener_pause();
    listener_pause(const listener_pause &) = delete;
    listener_pause &operator=(const listener_pause &) = delete;
};

} // namespace bdbus
