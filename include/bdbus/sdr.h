/* SPDX-License-Identifier: LGPL-2.1-or-later */
/**
 * @file sdr.h
 * The sensor data repository (SDR): a copy of service `com.brisemont.SensorDataRepository1`'s records inside the
 * library.
 *
 * bdbus_sdr_init() reads every record once and starts one thread, the listener, which applies the changes that other
 * clients of the service make. The getters answer from the copy, without bus traffic and without a lock, but for one
 * that has lost to writers of the same record 64 times over: it lets them finish. The setters write the copy first and
 * then tell the service; a call that fails leaves the copy as written.
 *
 * A record is an IPMI 2.0 sensor data record of 64 bytes, laid out as a full sensor record (type 01h), with the
 * sensor's live state beside it.
 *
 * Results: 0, or a negative errno-style code; no function changes its output on failure. A call that the service or the
 * bus failed prints one line on stderr. -EINVAL (-22) for an ID that is not stored, for a null pointer and before
 * bdbus_sdr_init() has succeeded, without a line and with nothing sent.
 *
 * Threads: any thread may call, once bdbus_sdr_init() has returned 0. Calls to the service wait for one another; the
 * getters wait for no call. When the bus goes away the getters go on answering.
 */
#ifndef BDBUS_SDR_H
#define BDBUS_SDR_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/** The bytes of an SDR. */
#define BDBUS_SDR_BYTES 64

/** Event enables or event status (IPMI 2.0, Get Sensor Event Enable and Get Sensor Event Status). */
typedef struct bdbus_sdr_event {
    uint8_t flags;           /**< of the enables: bit 7 event messages, bit 6 scanning; of the status, the service's */
    uint16_t assertion_mask; /**< one bit for each assertion event */
    uint16_t deassertion_mask; /**< one bit for each deassertion event */
} bdbus_sdr_event;

/** Threshold hysteresis, raw. */
typedef struct bdbus_sdr_hysteresis {
    uint8_t positive; /**< positive-going */
    uint8_t negative; /**< negative-going */
} bdbus_sdr_hysteresis;

/** Thresholds, raw (IPMI 2.0, Get Sensor Thresholds). */
typedef struct bdbus_sdr_thresholds {
    uint8_t readable_mask; /**< bit 0 lower non-critical, 1 lower critical, 2 lower non-recoverable, 3 to 5 the upper
                              ones */
    uint8_t lower_noncritical;
    uint8_t lower_critical;
    uint8_t lower_nonrecoverable;
    uint8_t upper_noncritical;
    uint8_t upper_critical;
    uint8_t upper_nonrecoverable;
} bdbus_sdr_thresholds;

/** A sensor: its SDR and its live state. */
typedef struct bdbus_sdr_record {
    uint16_t record_id;           /**< the key */
    uint8_t sdr[BDBUS_SDR_BYTES]; /**< the SDR; its bytes 0 and 1 hold the record ID, least significant byte first */
    bdbus_sdr_event event_enable; /**< which events the sensor may report */
    bdbus_sdr_event event_status; /**< which events are asserted */
    bdbus_sdr_hysteresis hysteresis;
    uint8_t reading; /**< the current raw reading */
    bdbus_sdr_thresholds thresholds;
    uintptr_t context; /**< the word given to bdbus_sdr_add() */
} bdbus_sdr_record;

/**
 * The reading callback, or null. Assign it directly, at any time.
 *
 * The listener calls it on its own thread after every new reading of a stored sensor, whoever set it, with a pointer to
 * the stored record. It holds no lock meanwhile: the callback may call the functions of this file. The record's memory
 * stays valid for good, but holds this sensor only while it is stored; where other threads may write the record at the
 * same time, read it with bdbus_sdr_get().
 */
extern void (*bdbus_sdr_set_reading_and_event_status_callback)(bdbus_sdr_record *record);

/**
 * Create the copy, start the listener and read the whole repository. Call it before the others; a further call returns
 * 0 and does nothing. Reading ends, without failing, at a record that cannot be read or an ID that has been seen.
 *
 * @return 0; -ENOMEM; the negative code of a bus that cannot be reached, after a line on stderr; the negative error
 * number when the thread cannot be created. After a failure it may be called again.
 */
int32_t bdbus_sdr_init(void);

/** Copy a whole record. @return 0; -EINVAL. */
int32_t bdbus_sdr_get(uint16_t record_id, bdbus_sdr_record *out);

/** Copy the event enables. @return 0; -EINVAL. */
int32_t bdbus_sdr_event_get(uint16_t record_id, bdbus_sdr_event *out);

/** Copy the event status. @return 0; -EINVAL. */
int32_t bdbus_sdr_event_status_get(uint16_t record_id, bdbus_sdr_event *out);

/** Copy the hysteresis. @return 0; -EINVAL. */
int32_t bdbus_sdr_hysteresis_get(uint16_t record_id, bdbus_sdr_hysteresis *out);

/** Copy the raw reading. @return 0; -EINVAL. */
int32_t bdbus_sdr_reading_get(uint16_t record_id, uint8_t *out);

/** Copy the thresholds. @return 0; -EINVAL. */
int32_t bdbus_sdr_threshold_get(uint16_t record_id, bdbus_sdr_thresholds *out);

/** Set the raw reading and tell the service, also when it is unchanged. @return 0; -EINVAL; the call's negative code.
 */
int32_t bdbus_sdr_reading_set(uint16_t record_id, uint8_t reading);

/** Set the event enables and tell the service; nothing is sent when unchanged. @return as bdbus_sdr_reading_set(). */
int32_t bdbus_sdr_event_set(uint16_t record_id, const bdbus_sdr_event *event);

/** Set the event status and tell the service; nothing is sent when unchanged. @return as bdbus_sdr_reading_set(). */
int32_t bdbus_sdr_event_status_set(uint16_t record_id, const bdbus_sdr_event *event);

/** Set the hysteresis and tell the service; nothing is sent when unchanged. @return as bdbus_sdr_reading_set(). */
int32_t bdbus_sdr_hysteresis_set(uint16_t record_id, const bdbus_sdr_hysteresis *hysteresis);

/** Set the thresholds and tell the service; nothing is sent when unchanged. @return as bdbus_sdr_reading_set(). */
int32_t bdbus_sdr_threshold_set(uint16_t record_id, const bdbus_sdr_thresholds *thresholds);

/**
 * Add a record to the repository. An ID that is stored already gets the new SDR and keeps its event status.
 *
 * @param sdr       the SDR; what its bytes 0 and 1 hold does not matter. Not changed.
 * @param count     its bytes; must be BDBUS_SDR_BYTES.
 * @param record_id receives the ID that the service gave it.
 * @param context   a word of the caller's to keep with the record; 0 keeps the one that is there.
 * @return 0; -EINVAL; -ENOTCONN before bdbus_sdr_init(); -ENOMEM when the service took it and the copy could not; the
 * call's negative code.
 */
int32_t bdbus_sdr_add(const uint8_t *sdr, uint32_t count, uint16_t *record_id, uintptr_t context);

/** Delete a record, here first and then at the service. @return 0; -EINVAL; the call's negative code. */
int32_t bdbus_sdr_delete(uint16_t record_id);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
