/* SPDX-License-Identifier: LGPL-2.1-or-later */
/**
 * @file sel.h
 * The system event log (SEL) of service `com.brisemont.SystemEventLog1`.
 *
 * Each call mirrors the IPMI 2.0 command of the same name. Its record carries the request and takes the response, which
 * begins with the command's completion code; a code other than 0 is in the record, and the function still succeeds.
 *
 * Results: positive when the reply was read. Otherwise the negative errno-style code of the step that failed, after one
 * line on stderr; the record is then untouched, but for fields of a reply that broke off after them. -EINVAL for a null
 * record, without a line and with nothing sent.
 *
 * The connection: the first call opens it and subscribes to the three notices. It is open once the bus has greeted it
 * and has answered each subscription; a refusal is an answer, and that notice is then never received. A connection that
 * was dropped or timed out before that is a failed open, with the line "Failed to connect to system bus: ...", and the
 * next call tries again. One that was open is never opened again: when the bus has gone away, calls fail with -ENOTCONN
 * (the one during which it went with -ECONNRESET), until the process is restarted.
 *
 * Signals: while a call waits, SIGCHLD, SIGWINCH, SIGIO, SIGURG, SIGPROF and SIGVTALRM are held back in its thread, and
 * their handlers run right after it. Any other signal whose handler runs in that thread (SIGALRM, SIGUSR1, SIGTERM,
 * ...), with SA_RESTART or without, ends the call with -EINTR, which can serve as a program's own limit on a call (best
 * with a timer that repeats, and not while the call waits for another thread's call); the request has reached the
 * service or not, and the reply is lost. While the connection is opened and subscribed, all signals are held back
 * during each step but SIGINT, SIGTERM, SIGQUIT, SIGHUP and faults.
 *
 * Threads: any thread may call; calls of this family wait for one another, also while one waits for its answer. None of
 * them but bdbus_sel_event_callbacks() may be called from a handler of the callback table. A handler must not wait for
 * another family whose handlers call this one: two threads that process both would wait for each other for ever. A
 * thread that is canceled (pthread_cancel) inside a call ends only after it. In a child that was forked while the
 * connection was open or being opened, calls fail with -ECHILD at once.
 */
#ifndef BDBUS_SEL_H
#define BDBUS_SEL_H

#include <stdint.h>
#include <systemd/sd-bus.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/** The bytes of a log entry. */
#define BDBUS_SEL_ENTRY_BYTES 16

/**
 * The handlers of the three notices; a null slot drops its notice.
 *
 * A handler runs inside bdbus_sel_event_process(), on its caller's thread. It gets the signal message, a null user-data
 * pointer and sd-bus's error pointer; its result is ignored. The message is valid during the call, unless the handler
 * takes a reference. Who sent it is not checked: a notice of any program that the bus lets send it gets here.
 */
typedef struct bdbus_sel_callback_table {
    sd_bus_message_handler_t sel_almost_full; /**< signal SelAlmostFull: the log is almost full */
    sd_bus_message_handler_t sel_cleared;     /**< signal SelCleared: the log was cleared */
    sd_bus_message_handler_t sel_full;        /**< signal SelFull: the log is full */
} bdbus_sel_callback_table;

/** Record of bdbus_sel_add_entry(): IPMI 2.0, Add SEL Entry. */
typedef struct bdbus_sel_new_entry {
    uint8_t data[BDBUS_SEL_ENTRY_BYTES]; /**< request: the entry, 16 bytes (IPMI 2.0, section 32) */
    uint8_t completion_code;             /**< reply: IPMI completion code; 0 is success */
    uint16_t record_id;                  /**< reply: the entry's ID */
} bdbus_sel_new_entry;

/** Record of bdbus_sel_clear(): IPMI 2.0, Clear SEL. */
typedef struct bdbus_sel_clear_request {
    uint16_t reservation_id; /**< request: from bdbus_sel_reserve() */
    uint8_t confirm[3];      /**< request: 'C', 'L', 'R' */
    uint8_t action;          /**< request: 0xAA starts the erasure, 0x00 asks for its progress */
    uint8_t completion_code; /**< reply: IPMI completion code; 0 is success */
    uint8_t erase_progress;  /**< reply: bits 3:0, 0 in progress, 1 completed */
} bdbus_sel_clear_request;

/** Record of bdbus_sel_get_alloc_info(): IPMI 2.0, Get SEL Allocation Info. All of it is reply. */
typedef struct bdbus_sel_alloc_info {
    uint8_t completion_code;     /**< IPMI completion code; 0 is success */
    uint16_t possible_units;     /**< number of possible allocation units */
    uint16_t unit_size;          /**< bytes of a unit */
    uint16_t free_units;         /**< number of free units */
    uint16_t largest_free_block; /**< in units */
    uint8_t max_record_size;     /**< in units */
} bdbus_sel_alloc_info;

/** Record of bdbus_sel_get_entry(): IPMI 2.0, Get SEL Entry. */
typedef struct bdbus_sel_entry {
    uint16_t reservation_id;             /**< request: only for partial reads; else 0 */
    uint16_t record_id;                  /**< request: the entry's ID; 0x0000 the first entry, 0xFFFF the last */
    uint8_t offset;                      /**< request: the first byte to read, 0 to 15 */
    uint8_t bytes_to_read;               /**< request: 0xFF for the whole entry */
    uint8_t completion_code;             /**< reply: IPMI completion code; 0 is success */
    uint16_t next_record_id;             /**< reply: the next entry's ID; 0xFFFF after the last entry */
    uint8_t data[BDBUS_SEL_ENTRY_BYTES]; /**< reply: the bytes; more are cut, fewer leave the rest as it was */
} bdbus_sel_entry;

/**
 * Record of bdbus_sel_get_info(): IPMI 2.0, Get SEL Info. All of it is reply. Times are IPMI time stamps: seconds since
 * 1970, or since start-up below 0x20000000.
 */
typedef struct bdbus_sel_info {
    uint8_t completion_code;     /**< IPMI completion code; 0 is success */
    uint8_t version;             /**< 0x51 for IPMI 1.5 and 2.0 */
    uint16_t entries;            /**< number of entries */
    uint16_t free_space;         /**< bytes */
    uint32_t addition_timestamp; /**< of the most recent addition; 0xFFFFFFFF unknown */
    uint32_t erase_timestamp;    /**< of the most recent erasure; 0xFFFFFFFF unknown */
    uint8_t operation_support;   /**< bit 7 overflow, 3 delete, 2 partial add, 1 reserve, 0 allocation info */
} bdbus_sel_info;

/** Record of bdbus_sel_reserve(): IPMI 2.0, Reserve SEL. All of it is reply. */
typedef struct bdbus_sel_reservation {
    uint8_t completion_code; /**< IPMI completion code; 0 is success */
    uint16_t reservation_id; /**< for bdbus_sel_clear() and partial reads */
} bdbus_sel_reservation;

/**
 * Add an entry to the log (IPMI 2.0, section 31.6, Add SEL Entry).
 *
 * Waits for other calls of this file, then up to 25 s for the answer, or what the environment's SYSTEMD_BUS_TIMEOUT
 * says. The call that opens the connection may wait 90 s more for a bus that hangs. Any thread may call; not from a
 * handler of the callback table.
 *
 * @param rec `data` is sent; the other fields receive the reply. After a failure it keeps what it held, but for the
 * fields that a broken reply still brought.
 * @return positive when the reply was read, whatever the completion code; else a negative errno, after one line on
 * stderr: -ETIMEDOUT without an answer in time, -EINTR ended by a signal handler, -ECONNRESET or -ENOTCONN once the
 * bus has gone away, -ENOBUFS with too many notices queued, -ECHILD in a forked child, and others. -EINVAL for a null
 * `rec`, with nothing sent. After -ETIMEDOUT and -EINTR the entry may be in the log or not.
 */
int32_t bdbus_sel_add_entry(bdbus_sel_new_entry *rec);

/**
 * Erase the log, or ask how far its erasure is (IPMI 2.0, section 31.9, Clear SEL).
 *
 * Waits for other calls of this file, then up to 25 s for the answer, or what the environment's SYSTEMD_BUS_TIMEOUT
 * says. The call that opens the connection may wait 90 s more for a bus that hangs. Any thread may call; not from a
 * handler of the callback table.
 *
 * @param rec `reservation_id`, `confirm` and `action` are sent; the other fields receive the reply. After a failure it
 * keeps what it held, but for the fields that a broken reply still brought.
 * @return positive when the reply was read, whatever the completion code; else a negative errno, after one line on
 * stderr: -ETIMEDOUT without an answer in time, -EINTR ended by a signal handler, -ECONNRESET or -ENOTCONN once the
 * bus has gone away, -ENOBUFS with too many notices queued, -ECHILD in a forked child, and others. -EINVAL for a null
 * `rec`, with nothing sent. After -ETIMEDOUT and -EINTR the erasure may have begun or not.
 */
int32_t bdbus_sel_clear(bdbus_sel_clear_request *rec);

/**
 * Ask how the log's memory is divided and used (IPMI 2.0, section 31.3, Get SEL Allocation Info).
 *
 * Waits for other calls of this file, then up to 25 s for the answer, or what the environment's SYSTEMD_BUS_TIMEOUT
 * says. The call that opens the connection may wait 90 s more for a bus that hangs. Any thread may call; not from a
 * handler of the callback table.
 *
 * @param rec all fields receive the reply; nothing of it is sent. After a failure it keeps what it held, but for the
 * fields that a broken reply still brought.
 * @return positive when the reply was read, whatever the completion code; else a negative errno, after one line on
 * stderr: -ETIMEDOUT without an answer in time, -EINTR ended by a signal handler, -ECONNRESET or -ENOTCONN once the
 * bus has gone away, -ENOBUFS with too many notices queued, -ECHILD in a forked child, and others. -EINVAL for a null
 * `rec`, with nothing sent.
 */
int32_t bdbus_sel_get_alloc_info(bdbus_sel_alloc_info *rec);

/**
 * Read an entry of the log, whole or in part (IPMI 2.0, section 31.5, Get SEL Entry). To read all, begin with
 * `record_id` 0x0000 and go on with each `next_record_id` until it is 0xFFFF.
 *
 * Waits for other calls of this file, then up to 25 s for the answer, or what the environment's SYSTEMD_BUS_TIMEOUT
 * says. The call that opens the connection may wait 90 s more for a bus that hangs. Any thread may call; not from a
 * handler of the callback table.
 *
 * @param rec `reservation_id`, `record_id`, `offset` and `bytes_to_read` are sent; the other fields receive the reply.
 * After a failure it keeps what it held, but for the fields that a broken reply still brought.
 * @return positive when the reply was read, whatever the completion code; else a negative errno, after one line on
 * stderr: -ETIMEDOUT without an answer in time, -EINTR ended by a signal handler, -ECONNRESET or -ENOTCONN once the
 * bus has gone away, -ENOBUFS with too many notices queued, -ECHILD in a forked child, and others. -EINVAL for a null
 * `rec`, with nothing sent.
 */
int32_t bdbus_sel_get_entry(bdbus_sel_entry *rec);

/**
 * Ask for the number of entries, the free space and the last changes of the log (IPMI 2.0, section 31.2, Get SEL
 * Info).
 *
 * Waits for other calls of this file, then up to 25 s for the answer, or what the environment's SYSTEMD_BUS_TIMEOUT
 * says. The call that opens the connection may wait 90 s more for a bus that hangs. Any thread may call; not from a
 * handler of the callback table.
 *
 * @param rec all fields receive the reply; nothing of it is sent. After a failure it keeps what it held, but for the
 * fields that a broken reply still brought.
 * @return positive when the reply was read, whatever the completion code; else a negative errno, after one line on
 * stderr: -ETIMEDOUT without an answer in time, -EINTR ended by a signal handler, -ECONNRESET or -ENOTCONN once the
 * bus has gone away, -ENOBUFS with too many notices queued, -ECHILD in a forked child, and others. -EINVAL for a null
 * `rec`, with nothing sent.
 */
int32_t bdbus_sel_get_info(bdbus_sel_info *rec);

/**
 * Reserve the log, for a clearing or for partial reads (IPMI 2.0, section 31.4, Reserve SEL).
 *
 * Waits for other calls of this file, then up to 25 s for the answer, or what the environment's SYSTEMD_BUS_TIMEOUT
 * says. The call that opens the connection may wait 90 s more for a bus that hangs. Any thread may call; not from a
 * handler of the callback table.
 *
 * @param rec all fields receive the reply; nothing of it is sent. After a failure it keeps what it held, but for the
 * fields that a broken reply still brought.
 * @return positive when the reply was read, whatever the completion code; else a negative errno, after one line on
 * stderr: -ETIMEDOUT without an answer in time, -EINTR ended by a signal handler, -ECONNRESET or -ENOTCONN once the
 * bus has gone away, -ENOBUFS with too many notices queued, -ECHILD in a forked child, and others. -EINVAL for a null
 * `rec`, with nothing sent.
 */
int32_t bdbus_sel_reserve(bdbus_sel_reservation *rec);

/**
 * Register the callback table, replace it, or clear it with null. It takes no lock, opens no connection and may be
 * called at any time.
 *
 * @param table the table, or null. The library keeps the pointer only: the table must stay valid while it is
 * registered.
 * @return 0; it does not fail.
 */
int32_t bdbus_sel_event_callbacks(const bdbus_sel_callback_table *table);

/**
 * Dispatch at most one queued message to the callback table; the handler runs in this call. Call it repeatedly, from a
 * main loop or a timer; call it once early to be subscribed from then on.
 *
 * It does not wait for a message, but it does wait for the other calls of this file, each as long as its answer takes,
 * and as the first call of the process it opens the connection, which waits for the bus: up to 90 s for one that takes
 * the connection and says nothing, and for an answer up to 25 s, or what the environment's SYSTEMD_BUS_TIMEOUT says.
 *
 * Notices that nobody takes off here pile up, about 1 kB each: the other calls of this file read them along with their
 * answers. sd-bus keeps 393,216 at most; from then on these calls fail with -ENOBUFS, until enough were taken off.
 * Any thread may call; not from a handler of the callback table.
 *
 * @return 0, also once the bus has gone away, when no message comes any more; the negative code of a connection that
 * could not be opened, after a line on stderr; -ECHILD in a forked child.
 */
int32_t bdbus_sel_event_process(void);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
