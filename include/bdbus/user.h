/* SPDX-License-Identifier: LGPL-2.1-or-later */
/**
 * @file user.h
 * The authentication log and notes of changed user accounts: service `com.brisemont.AuthLog1`.
 *
 * A record carries a request and takes the reply. What the bytes of either mean is the service's. A request travels as
 * 64 bytes: those that a function sends, and zeros after them. A completion code other than 0 is in the record, and the
 * function still succeeds.
 *
 * Results: positive when the reply was read. Otherwise the negative errno-style code of the step that failed, after one
 * line on stderr; the record is then untouched, but for the completion code of a reply that broke off after it. -EINVAL
 * for a null record, without a line and with nothing sent.
 *
 * The connection: the first call opens it. A connection that the bus drops before it has greeted it, or does not greet
 * in time, counts as never opened, and the next call tries again. One that was open is never opened again: when the bus
 * has gone away, calls fail with -ENOTCONN (the one during which it went with -ECONNRESET), until the process is
 * restarted. The family has no notices: messages that strangers send to its connection are dropped by its next call.
 *
 * Signals: while a call waits, SIGCHLD, SIGWINCH, SIGIO, SIGURG, SIGPROF and SIGVTALRM are held back in its thread, and
 * their handlers run right after it. Any other signal whose handler runs in that thread (SIGALRM, SIGUSR1, SIGTERM,
 * ...), with SA_RESTART or without, ends the call with -EINTR, which can serve as a program's own limit on a call (best
 * with a timer that repeats, and not while the call waits for another thread's call); the request has reached the
 * service or not (an entry may have been added), and the reply is lost.
 *
 * Threads: any thread may call; calls of this family wait for one another, also while one waits for its answer. A
 * thread that is canceled (pthread_cancel) inside a call ends only after it. In a child that was forked while the
 * connection was open or being opened, calls fail with -ECHILD at once.
 */
#ifndef BDBUS_USER_H
#define BDBUS_USER_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/** A request to the authentication log, for the three bdbus_user_authlog calls. */
typedef struct bdbus_authlog_request {
    uint8_t data[39];        /**< request: which of them are sent depends on the function */
    uint8_t completion_code; /**< reply: the service's completion code; 0 is success */
    uint16_t value;          /**< reply: the service's value */
} bdbus_authlog_request;

/** A change of a user account, for bdbus_user_update_send_event(). */
typedef struct bdbus_user_update {
    uint16_t first_word;     /**< request: bytes 0 and 1, the low one first */
    uint16_t second_word;    /**< request: bytes 2 and 3, the low one first */
    uint8_t data[17];        /**< request: bytes 4 to 20 */
    uint8_t completion_code; /**< reply: the service's completion code; 0 is success */
    uint16_t value;          /**< reply: the service's value */
} bdbus_user_update;

/**
 * Add an entry to the authentication log (D-Bus method "AuthLogAddEntry").
 *
 * Waits for other calls of this file, then up to 25 s for the answer, or what the environment's SYSTEMD_BUS_TIMEOUT
 * says. The call that opens the connection may wait 90 s more for a bus that hangs. Any thread may call.
 *
 * @param rec all 39 bytes of `data` are sent. `completion_code` and `value` receive the reply. After a failure it
 * keeps what it held, but for the completion code of a reply that broke off after it.
 * @return positive when the reply was read, whatever the completion code; else a negative errno, after one line on
 * stderr: -ETIMEDOUT without an answer in time, -EINTR ended by a signal handler, both with the request carried out or
 * not; -ECONNRESET or -ENOTCONN once the bus has gone away, -ECHILD in a forked child, and others. -EINVAL for a null
 * `rec`, with nothing sent.
 */
int32_t bdbus_user_authlog_add_entry(bdbus_authlog_request *rec);

/**
 * Delete an entry of the authentication log (D-Bus method "AuthLogDelEntry").
 *
 * Waits for other calls of this file, then up to 25 s for the answer, or what the environment's SYSTEMD_BUS_TIMEOUT
 * says. The call that opens the connection may wait 90 s more for a bus that hangs. Any thread may call.
 *
 * @param rec bytes 0 and 1 of `data` are sent. `completion_code` and `value` receive the reply. After a failure it
 * keeps what it held, but for the completion code of a reply that broke off after it.
 * @return positive when the reply was read, whatever the completion code; else a negative errno, after one line on
 * stderr: -ETIMEDOUT without an answer in time, -EINTR ended by a signal handler, both with the request carried out or
 * not; -ECONNRESET or -ENOTCONN once the bus has gone away, -ECHILD in a forked child, and others. -EINVAL for a null
 * `rec`, with nothing sent.
 */
int32_t bdbus_user_authlog_del_entry(bdbus_authlog_request *rec);

/**
 * Clear the authentication log (D-Bus method "AuthLogClear").
 *
 * Waits for other calls of this file, then up to 25 s for the answer, or what the environment's SYSTEMD_BUS_TIMEOUT
 * says. The call that opens the connection may wait 90 s more for a bus that hangs. Any thread may call.
 *
 * @param rec bytes 2 to 5 of `data` are sent, as the request's first four. `completion_code` and `value` receive the
 * reply. After a failure it keeps what it held, but for the completion code of a reply that broke off after it.
 * @return positive when the reply was read, whatever the completion code; else a negative errno, after one line on
 * stderr: -ETIMEDOUT without an answer in time, -EINTR ended by a signal handler, both with the request carried out or
 * not; -ECONNRESET or -ENOTCONN once the bus has gone away, -ECHILD in a forked child, and others. -EINVAL for a null
 * `rec`, with nothing sent.
 */
int32_t bdbus_user_authlog_clear(bdbus_authlog_request *rec);

/**
 * Tell the service that a user account changed (D-Bus method "UserUpdate"). It is a call, which is answered, and no
 * signal.
 *
 * Waits for other calls of this file, then up to 25 s for the answer, or what the environment's SYSTEMD_BUS_TIMEOUT
 * says. The call that opens the connection may wait 90 s more for a bus that hangs. Any thread may call.
 *
 * @param rec both words and all 17 bytes of `data` are sent. `completion_code` and `value` receive the reply. After a
 * failure it keeps what it held, but for the completion code of a reply that broke off after it.
 * @return positive when the reply was read, whatever the completion code; else a negative errno, after one line on
 * stderr: -ETIMEDOUT without an answer in time, -EINTR ended by a signal handler, both with the request carried out or
 * not; -ECONNRESET or -ENOTCONN once the bus has gone away, -ECHILD in a forked child, and others. -EINVAL for a null
 * `rec`, with nothing sent.
 */
int32_t bdbus_user_update_send_event(bdbus_user_update *rec);

/**
 * Drop messages that nobody asked for: what earlier calls have read along with their answers, and at most one more that
 * is still with the bus. The family has no notices, and each of its calls drops what has gathered; this is for programs
 * that make few.
 *
 * It does not wait for a message, but it does wait for the other calls of this file, each as long as its answer takes,
 * and as the first call of the process it opens the connection, which waits for the bus: up to 90 s for one that takes
 * the connection and says nothing. Any thread may call.
 *
 * @return 0, also once the bus has gone away; the negative code of a connection that could not be opened, after a line
 * on stderr; -ECHILD in a forked child.
 */
int32_t bdbus_user_event_process(void);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
