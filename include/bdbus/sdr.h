/* SPDX-License-Identifier: LGPL-2.1-or-later */
/**
 * @file sdr.h
 * The sensor data repository (SDR): a copy of service `com.brisemont.SensorDataRepository1`'s records inside the
 * library.
 *
 * bdbus_sdr_init() reads every record once and starts one thread, the listener, which applies the changes that are
 * announced on the bus. The getters answer from the copy, without bus traffic and without a lock, but for one that has
 * lost to writers of the same record 64 times over: it lets them finish. The setters write the copy first and then tell
 * the service; a call that fails leaves the copy as written, but in a forked child, where they leave it alone.
 *
 * A record is an IPMI 2.0 sensor data record of 64 bytes, laid out as a full sensor record (type 01h), with the
 * sensor's state beside it. The service hands out records only, no state: until somebody announces a change of a
 * sensor, its reading is the record's nominal reading, its event enables, hysteresis and thresholds are the record's
 * bytes for power-up, and its event status is zero. Nothing here asks for a sensor's reading.
 *
 * There is no call that lists the sensors: call bdbus_sdr_get() for each ID from 0 to 65534; the stored ones give 0.
 * All those calls together take a fraction of a millisecond.
 *
 * An announcement counts whoever sends it. So every program that the bus lets send these signals can announce readings,
 * and can add and delete records in the copy; the bus's policy is the defence (SECURITY.md). An announcement of another
 * client that was still queued when a setter stored its value is applied after it: the older value stays in the copy
 * until the next one.
 *
 * Results: 0, or a negative errno-style code; no function changes its output on failure. A call that the service or the
 * bus failed prints one line on stderr. -EINVAL (-22) for an ID that is not stored, for a null pointer and before
 * bdbus_sdr_init() has succeeded (bdbus_sdr_add() then gives -ENOTCONN), without a line and with nothing sent. The
 * connection is never opened again: when the bus has gone away, calls to the service fail with -ENOTCONN (the first
 * perhaps with -ECONNRESET) until the process is restarted; the getters go on answering, and nothing keeps the copy up
 * to date.
 *
 * Signals: while a call waits for the service, SIGCHLD, SIGWINCH, SIGIO, SIGURG, SIGPROF and SIGVTALRM are held back in
 * its thread, and their handlers run right after it. Any other signal whose handler runs in that thread (SIGALRM,
 * SIGUSR1, SIGTERM, ...), with SA_RESTART or without, ends the call with -EINTR, which can serve as a program's own
 * limit on a call; the request has reached the service or not, and the reply is lost. bdbus_sdr_init() makes many
 * calls: during each of them all signals are held back but SIGINT, SIGTERM, SIGQUIT, SIGHUP and faults.
 *
 * Threads: any thread may call, once bdbus_sdr_init() has returned 0. Calls to the service wait for one another; the
 * getters wait for no call. A thread that is canceled (pthread_cancel) inside a call ends only after it. In a forked
 * child there is no listener: bdbus_sdr_init() and calls to the service fail with -ECHILD at once, and the getters
 * answer from the copy as it was at the fork, which nothing keeps up to date.
 */
#ifndef BDBUS_SDR_H
#define BDBUS_SDR_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/** The bytes of an SDR, a full sensor record (IPMI 2.0, section 43.1). */
#define BDBUS_SDR_BYTES 64

/** Event enables or event status (IPMI 2.0, sections 35.11 and 35.13, Get Sensor Event Enable and Status). */
typedef struct bdbus_sdr_event {
    uint8_t flags;           /**< of the enables: bit 7 event messages, bit 6 scanning; of the status, the service's */
    uint16_t assertion_mask; /**< one bit for each assertion event */
    uint16_t deassertion_mask; /**< one bit for each deassertion event */
} bdbus_sdr_event;

/** Threshold hysteresis, raw (IPMI 2.0, section 35.7, Get Sensor Hysteresis). */
typedef struct bdbus_sdr_hysteresis {
    uint8_t positive; /**< positive-going, in raw counts */
    uint8_t negative; /**< negative-going, in raw counts */
} bdbus_sdr_hysteresis;

/** Thresholds, raw (IPMI 2.0, section 35.9, Get Sensor Thresholds). */
typedef struct bdbus_sdr_thresholds {
    uint8_t readable_mask; /**< bit 0 lower non-critical, 1 lower critical, 2 lower non-recoverable, 3 to 5 the upper
                              ones */
    uint8_t lower_noncritical;    /**< lower non-critical */
    uint8_t lower_critical;       /**< lower critical */
    uint8_t lower_nonrecoverable; /**< lower non-recoverable */
    uint8_t upper_noncritical;    /**< upper non-critical */
    uint8_t upper_critical;       /**< upper critical */
    uint8_t upper_nonrecoverable; /**< upper non-recoverable */
} bdbus_sdr_thresholds;

/** A sensor: its SDR, and its state as far as it was announced or set. The SDR alone says nothing of the present. */
typedef struct bdbus_sdr_record {
    uint16_t record_id;           /**< the key */
    uint8_t sdr[BDBUS_SDR_BYTES]; /**< the SDR; its bytes 0 and 1 hold the record ID, least significant byte first */
    bdbus_sdr_event event_enable; /**< which events the sensor may report, as last announced or set; before that, as the
                                     SDR has it for power-up */
    bdbus_sdr_event event_status; /**< which events are asserted, as last announced or set; before that, zero */
    bdbus_sdr_hysteresis hysteresis; /**< as last announced or set; before that, the SDR's */
    uint8_t reading;                 /**< the raw reading last announced or set; before that, the SDR's nominal reading,
                                        which nobody has measured */
    bdbus_sdr_thresholds thresholds; /**< as last announced or set; before that, the SDR's */
    uintptr_t context;               /**< the word given to bdbus_sdr_add(); 0 for a record of another's */
} bdbus_sdr_record;

/**
 * The reading callback, or null. Assign it directly, at any time.
 *
 * The listener calls it after every reading of a stored sensor that is announced, whoever set it and whoever sent the
 * announcement, with a pointer to the stored record. There is no call for the nominal readings that
 * bdbus_sdr_init() finds. The record's memory stays valid for good, but holds this sensor only while it is stored;
 * where other threads may write the record at the same time, read it with bdbus_sdr_get().
 *
 * It runs on the listener's thread, named "bdbus-sdr", which holds no lock meanwhile: it may call the functions of this
 * file. Until it returns, no announcement is applied to the copy. The thread has all signals blocked but SIGSEGV,
 * SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGABRT and SIGSYS, and what is started here inherits that: a child process that
 * does not set its signal mask anew cannot be ended by SIGTERM. So hand such work to a thread of the program's own. The
 * callback must return, and must not end the thread.
 */
extern void (*bdbus_sdr_set_reading_and_event_status_callback)(bdbus_sdr_record *record);

/**
 * Create the copy, start the listener and read the whole repository. Call it before the others; a further call returns
 * 0 and does nothing. The copy then holds the records, with the state that they name for power-up; what the sensors
 * read now is not known until it is announced.
 *
 * Reading ends, without failing, at a record that cannot be read or an ID that has been asked for: a service that is
 * not there gives 0 and an empty copy. A handler of SIGINT, SIGTERM, SIGQUIT or SIGHUP that runs in this thread during
 * one of the calls ends the reading there, too; all other handlers wait for the call's end.
 *
 * The connection is open once the bus has greeted it and has answered each of the seven subscriptions; a refusal is an
 * answer, and that kind of announcement is then never received. One that was dropped or timed out before that is a bus
 * that cannot be reached; one that takes the connection and says nothing is waited for up to 90 s.
 *
 * @return 0; -ENOMEM; the negative code of a bus that cannot be reached, and -ECHILD in a child of the process that
 * called it, after the line "Failed to connect to system bus: ..." on stderr; the negative error number when the thread
 * cannot be created. After a failure it may be called again.
 */
int32_t bdbus_sdr_init(void);

/**
 * Copy a whole record out of the library's copy. Its state is what was last announced or set; before that, what the
 * SDR names for power-up.
 *
 * Asks nothing of the service and waits for no call; any thread may call.
 *
 * @param record_id the sensor's record ID, 0 to 65534.
 * @param out       receives the record. Not null. Untouched after a failure.
 * @return 0; -EINVAL when the ID is not stored, for a null `out`, and before bdbus_sdr_init() has succeeded.
 */
int32_t bdbus_sdr_get(uint16_t record_id, bdbus_sdr_record *out);

/**
 * Copy a sensor's event enables as last announced or set; before that, the record's for power-up (form: IPMI 2.0,
 * section 35.11, Get Sensor Event Enable).
 *
 * Asks nothing of the service and waits for no call; any thread may call.
 *
 * @param record_id the sensor's record ID, 0 to 65534.
 * @param out       receives the enables. Not null. Untouched after a failure.
 * @return 0; -EINVAL when the ID is not stored, for a null `out`, and before bdbus_sdr_init() has succeeded.
 */
int32_t bdbus_sdr_event_get(uint16_t record_id, bdbus_sdr_event *out);

/**
 * Copy a sensor's event status as last announced or set; before that, all zero (form: IPMI 2.0, section 35.13, Get
 * Sensor Event Status).
 *
 * Asks nothing of the service and waits for no call; any thread may call.
 *
 * @param record_id the sensor's record ID, 0 to 65534.
 * @param out       receives the status. Not null. Untouched after a failure.
 * @return 0; -EINVAL when the ID is not stored, for a null `out`, and before bdbus_sdr_init() has succeeded.
 */
int32_t bdbus_sdr_event_status_get(uint16_t record_id, bdbus_sdr_event *out);

/**
 * Copy a sensor's hysteresis as last announced or set; before that, the record's (form: IPMI 2.0, section 35.7, Get
 * Sensor Hysteresis).
 *
 * Asks nothing of the service and waits for no call; any thread may call.
 *
 * @param record_id the sensor's record ID, 0 to 65534.
 * @param out       receives the hysteresis, raw. Not null. Untouched after a failure.
 * @return 0; -EINVAL when the ID is not stored, for a null `out`, and before bdbus_sdr_init() has succeeded.
 */
int32_t bdbus_sdr_hysteresis_get(uint16_t record_id, bdbus_sdr_hysteresis *out);

/**
 * Copy a sensor's raw reading as last announced or set; before that, the record's nominal reading, which nobody has
 * measured (form: IPMI 2.0, section 35.14, Get Sensor Reading).
 *
 * Asks nothing of the service and waits for no call; any thread may call.
 *
 * @param record_id the sensor's record ID, 0 to 65534.
 * @param out       receives the raw reading, 0 to 255. Not null. Untouched after a failure.
 * @return 0; -EINVAL when the ID is not stored, for a null `out`, and before bdbus_sdr_init() has succeeded.
 */
int32_t bdbus_sdr_reading_get(uint16_t record_id, uint8_t *out);

/**
 * Copy a sensor's thresholds as last announced or set; before that, the record's (form: IPMI 2.0, section 35.9, Get
 * Sensor Thresholds).
 *
 * Asks nothing of the service and waits for no call; any thread may call.
 *
 * @param record_id the sensor's record ID, 0 to 65534.
 * @param out       receives the thresholds, raw. Not null. Untouched after a failure.
 * @return 0; -EINVAL when the ID is not stored, for a null `out`, and before bdbus_sdr_init() has succeeded.
 */
int32_t bdbus_sdr_threshold_get(uint16_t record_id, bdbus_sdr_thresholds *out);

/**
 * Set a sensor's raw reading in the copy and tell the service, also when it is unchanged. An older announcement that
 * is still queued wins over the value in the copy.
 *
 * Waits for other calls to the service, then up to 25 s for the answer, or what the environment's SYSTEMD_BUS_TIMEOUT
 * says. Any thread may call.
 *
 * @param record_id the sensor's record ID, 0 to 65534.
 * @param reading   the raw reading, 0 to 255.
 * @return 0; -EINVAL when the ID is not stored and before bdbus_sdr_init() has succeeded. Else a negative errno, after
 * one line on stderr: -ETIMEDOUT without an answer in time, -EINTR ended by a signal handler, -ECONNRESET or -ENOTCONN
 * once the bus has gone away, and others, all with the copy as set; -ECHILD in a forked child, with the copy as it
 * was.
 */
int32_t bdbus_sdr_reading_set(uint16_t record_id, uint8_t reading);

/**
 * Set a sensor's event enables in the copy and tell the service; nothing is sent when unchanged (form: IPMI 2.0,
 * section 35.10, Set Sensor Event Enable). An older announcement that is still queued wins over the value in the copy.
 *
 * Waits for other calls to the service, then up to 25 s for the answer, or what the environment's SYSTEMD_BUS_TIMEOUT
 * says. Any thread may call.
 *
 * @param record_id the sensor's record ID, 0 to 65534.
 * @param event     the event enables to set. Not null; not kept.
 * @return 0; -EINVAL when the ID is not stored, for a null `event` and before bdbus_sdr_init() has succeeded. Else a
 * negative errno, after one line on stderr: -ETIMEDOUT without an answer in time, -EINTR ended by a signal handler,
 * -ECONNRESET or -ENOTCONN once the bus has gone away, and others, all with the copy as set; -ECHILD in a forked
 * child, with the copy as it was.
 */
int32_t bdbus_sdr_event_set(uint16_t record_id, const bdbus_sdr_event *event);

/**
 * Set a sensor's event status in the copy and tell the service; nothing is sent when unchanged. An older announcement
 * that is still queued wins over the value in the copy.
 *
 * Waits for other calls to the service, then up to 25 s for the answer, or what the environment's SYSTEMD_BUS_TIMEOUT
 * says. Any thread may call.
 *
 * @param record_id the sensor's record ID, 0 to 65534.
 * @param event     the event status to set. Not null; not kept.
 * @return 0; -EINVAL when the ID is not stored, for a null `event` and before bdbus_sdr_init() has succeeded. Else a
 * negative errno, after one line on stderr: -ETIMEDOUT without an answer in time, -EINTR ended by a signal handler,
 * -ECONNRESET or -ENOTCONN once the bus has gone away, and others, all with the copy as set; -ECHILD in a forked
 * child, with the copy as it was.
 */
int32_t bdbus_sdr_event_status_set(uint16_t record_id, const bdbus_sdr_event *event);

/**
 * Set a sensor's hysteresis in the copy and tell the service; nothing is sent when unchanged (form: IPMI 2.0, section
 * 35.6, Set Sensor Hysteresis). An older announcement that is still queued wins over the value in the copy.
 *
 * Waits for other calls to the service, then up to 25 s for the answer, or what the environment's SYSTEMD_BUS_TIMEOUT
 * says. Any thread may call.
 *
 * @param record_id  the sensor's record ID, 0 to 65534.
 * @param hysteresis the hysteresis to set. Not null; not kept.
 * @return 0; -EINVAL when the ID is not stored, for a null `hysteresis` and before bdbus_sdr_init() has succeeded.
 * Else a negative errno, after one line on stderr: -ETIMEDOUT without an answer in time, -EINTR ended by a signal
 * handler, -ECONNRESET or -ENOTCONN once the bus has gone away, and others, all with the copy as set; -ECHILD in a
 * forked child, with the copy as it was.
 */
int32_t bdbus_sdr_hysteresis_set(uint16_t record_id, const bdbus_sdr_hysteresis *hysteresis);

/**
 * Set a sensor's thresholds in the copy and tell the service; nothing is sent when unchanged (form: IPMI 2.0, section
 * 35.8, Set Sensor Thresholds). An older announcement that is still queued wins over the value in the copy.
 *
 * Waits for other calls to the service, then up to 25 s for the answer, or what the environment's SYSTEMD_BUS_TIMEOUT
 * says. Any thread may call.
 *
 * @param record_id  the sensor's record ID, 0 to 65534.
 * @param thresholds the thresholds to set. Not null; not kept.
 * @return 0; -EINVAL when the ID is not stored, for a null `thresholds` and before bdbus_sdr_init() has succeeded.
 * Else a negative errno, after one line on stderr: -ETIMEDOUT without an answer in time, -EINTR ended by a signal
 * handler, -ECONNRESET or -ENOTCONN once the bus has gone away, and others, all with the copy as set; -ECHILD in a
 * forked child, with the copy as it was.
 */
int32_t bdbus_sdr_threshold_set(uint16_t record_id, const bdbus_sdr_thresholds *thresholds);

/**
 * Add a record to the service's repository and to the copy (IPMI 2.0, section 33.13, Add SDR). An ID that is stored
 * already gets the new SDR and the state that it names, and keeps its event status.
 *
 * Waits for other calls to the service, then up to 25 s for the answer, or what the environment's SYSTEMD_BUS_TIMEOUT
 * says. Any thread may call.
 *
 * @param sdr       the SDR, `count` bytes; what its bytes 0 and 1 hold does not matter. Not null, not changed and not
 * kept.
 * @param count     the bytes of `sdr`; must be BDBUS_SDR_BYTES.
 * @param record_id receives the ID that the service gave it. Not null. Untouched after a failure.
 * @param context   a word of the caller's to keep with the record; 0 keeps the one that is there.
 * @return 0; -EINVAL for a null pointer or another count, then -ENOTCONN before bdbus_sdr_init() has succeeded, with
 * nothing sent; -ENOMEM when the service took the record and the copy could not. Else a negative errno, after one line
 * on stderr, with nothing in the copy: -ETIMEDOUT without an answer in time and -EINTR ended by a signal handler, both
 * with the record at the service or not; -ECONNRESET or -ENOTCONN once the bus has gone away, -ECHILD in a forked
 * child, and others.
 */
int32_t bdbus_sdr_add(const uint8_t *sdr, uint32_t count, uint16_t *record_id, uintptr_t context);

/**
 * Delete a record, from the copy first and then at the service (IPMI 2.0, section 33.15, Delete SDR).
 *
 * Waits for other calls to the service, then up to 25 s for the answer, or what the environment's SYSTEMD_BUS_TIMEOUT
 * says. Any thread may call.
 *
 * @param record_id the sensor's record ID, 0 to 65534.
 * @return 0; -EINVAL when the ID is not stored and before bdbus_sdr_init() has succeeded. Else a negative errno, after
 * one line on stderr: -ETIMEDOUT without an answer in time, -EINTR ended by a signal handler, -ECONNRESET or -ENOTCONN
 * once the bus has gone away, and others, all with the record gone from the copy; -ECHILD in a forked child, with the
 * copy as it was.
 */
int32_t bdbus_sdr_delete(uint16_t record_id);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
