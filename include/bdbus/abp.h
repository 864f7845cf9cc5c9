/* SPDX-License-Identifier: LGPL-2.1-or-later */
/**
 * @file abp.h
 * Advanced bypass: the global reset, the permanent global reset and the permanent bypass.
 *
 * Service `com.brisemont.AdvancedBypass`. Every call opens a connection of its own, asks the service once and closes
 * it; so the next call after a restart of the bus works again. A call waits up to 25 s for its answer, or what the
 * environment's SYSTEMD_BUS_TIMEOUT says, and before that up to 90 s for a bus that takes the connection and says
 * nothing.
 *
 * Results: the 32-bit integer that the service answered, as it stands. A call that failed returns 0 too and prints one
 * line on stderr, so a program that must tell the two apart looks at stderr.
 *
 * Signals: while a call waits, SIGCHLD, SIGWINCH, SIGIO, SIGURG, SIGPROF and SIGVTALRM are held back in its thread, and
 * their handlers run right after it. Any other signal whose handler runs in that thread (SIGALRM, SIGUSR1, SIGTERM,
 * ...), with SA_RESTART or without, ends the call as a failed one: 0, and the line says "Interrupted system call"
 * (EINTR). The service may have carried the request out or not.
 *
 * Threads: any thread may call. Calls of this family wait for one another, also while one waits for its answer. A
 * thread that is canceled (pthread_cancel) inside a call ends only after it. A forked child may call too, unless
 * another thread was inside a call of this family at the fork.
 */
#ifndef BDBUS_ABP_H
#define BDBUS_ABP_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/**
 * Set the global reset: method "SetGlobalReset" of service `com.brisemont.AdvancedBypass`.
 *
 * Waits for other calls of this file, then up to 25 s for the answer, or what the environment's SYSTEMD_BUS_TIMEOUT
 * says. It may wait 90 s more for a bus that hangs. A handler of SIGALRM or SIGTERM, say, that runs in the calling
 * thread ends the wait, and the call has failed. Any thread may call.
 *
 * @param value the setting. Its low 8 bits are sent, so 256 is sent as 0; what they mean is the service's.
 * @return the service's answer as it stands. A call that failed returns 0 too, after one line on stderr that gives the
 * reason; the service may have carried the request out all the same.
 */
int32_t bdbus_abp_set_global_reset(int32_t value);

/**
 * Set the permanent global reset: method "SetPermanentGlobalReset" of service `com.brisemont.AdvancedBypass`.
 *
 * Waits for other calls of this file, then up to 25 s for the answer, or what the environment's SYSTEMD_BUS_TIMEOUT
 * says. It may wait 90 s more for a bus that hangs. A handler of SIGALRM or SIGTERM, say, that runs in the calling
 * thread ends the wait, and the call has failed. Any thread may call.
 *
 * @param value the setting. Its low 8 bits are sent, so 256 is sent as 0; what they mean is the service's.
 * @return the service's answer as it stands. A call that failed returns 0 too, after one line on stderr that gives the
 * reason; the service may have carried the request out all the same.
 */
int32_t bdbus_abp_set_permanent_global_reset(int32_t value);

/**
 * Set the permanent bypass: method "SetPermanentBypass" of service `com.brisemont.AdvancedBypass`.
 *
 * Waits for other calls of this file, then up to 25 s for the answer, or what the environment's SYSTEMD_BUS_TIMEOUT
 * says. It may wait 90 s more for a bus that hangs. A handler of SIGALRM or SIGTERM, say, that runs in the calling
 * thread ends the wait, and the call has failed. Any thread may call.
 *
 * @param first  sent first. Its low 8 bits are sent, so 256 is sent as 0; what they mean is the service's.
 * @param second sent second, its low 8 bits likewise.
 * @return the service's answer as it stands. A call that failed returns 0 too, after one line on stderr that gives the
 * reason; the service may have carried the request out all the same.
 */
int32_t bdbus_abp_set_permanent_bypass(int32_t first, int32_t second);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
