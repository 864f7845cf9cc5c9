/* SPDX-License-Identifier: LGPL-2.1-or-later */
/**
 * @file hpm1.h
 * The commands of the PICMG HPM.1 firmware-upgrade standard, carried as methods of service `com.brisemont.Upgrade1`.
 *
 * Each command takes one record of the caller's, which is request and reply at once. `picmg_id` is sent, and the
 * reply's PICMG identifier overwrites it; set it to 0. Fields that are not named as a reply are not written. The
 * functions pass the bytes on: a completion code other than 0 is in the record, and the function still succeeds.
 *
 * Results: 0 or more when the reply was read. Otherwise the negative errno-style code of the step that failed, after
 * one line on stderr; the record is then untouched, but for fields of a reply that broke off after them. -EINVAL for a
 * null record, without a line and with nothing sent.
 *
 * Signals: while a call waits, SIGCHLD, SIGWINCH, SIGIO, SIGURG, SIGPROF and SIGVTALRM are held back in its thread, and
 * their handlers run right after it. Any other signal whose handler runs in that thread (SIGALRM, SIGUSR1, SIGTERM,
 * ...), with SA_RESTART or without, ends the call with -EINTR, which can serve as a program's own limit on a call (best
 * with a timer that repeats, and not while the call waits for another thread's call); the target has got the command or
 * not, and the reply is lost. While the connection is opened, all signals are held back during each step but SIGINT,
 * SIGTERM, SIGQUIT, SIGHUP and faults, and so they are while a stage of upgrade_agent.h sends these commands,
 * alarm(2)'s with its default action too.
 *
 * Threads: any thread may call. The commands share one connection and one lock with upgrade.h and wait for one another.
 * They must not be called from a handler of ::bdbus_upgrade_callback_table, which runs with that lock held. A thread
 * that is canceled (pthread_cancel) inside a call ends only after it. In a child that was forked while the connection
 * was open or being opened, commands fail with -ECHILD at once.
 *
 * The connection is opened by the first call of either file, and never again once it was open (upgrade.h): when the bus
 * has gone away, commands fail with -ENOTCONN (the one during which it went with -ECONNRESET), until the process is
 * restarted.
 */
#ifndef BDBUS_HPM1_H
#define BDBUS_HPM1_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/** The largest firmware block, in bytes. */
#define BDBUS_HPM1_BLOCK_MAX 1530

/** The bytes of one component property. */
#define BDBUS_HPM1_PROPERTY_MAX 12

/* Completion codes that HPM.1 and IPMI 2.0 (Table 5-2) give a meaning here; any other nonzero code is a failure. */
#define BDBUS_HPM1_CC_SUCCESS 0x00           /**< the command was carried out */
#define BDBUS_HPM1_CC_IN_PROGRESS 0x80       /**< goes on in the background: poll bdbus_hpm1_get_upgrade_status() */
#define BDBUS_HPM1_CC_ROLLBACK_FAILED 0x81   /**< of the rollback status: the rollback failed */
#define BDBUS_HPM1_CC_RESEND 0x82            /**< of an upload: block not taken, send the same block again */
#define BDBUS_HPM1_CC_RESEND_NUMBER 0x83     /**< of an upload: the same, in another code */
#define BDBUS_HPM1_CC_COPY_DIFFERS 0x83      /**< of a finish: the active copy doesn't match the upgrade image */
#define BDBUS_HPM1_CC_TIMEOUT 0xC3           /**< timeout while processing (IPMI): ask again */
#define BDBUS_HPM1_CC_LENGTH_INVALID 0xC7    /**< request data length invalid (IPMI): send a shorter block */
#define BDBUS_HPM1_CC_LENGTH_EXCEEDED 0xC8   /**< request data field length limit exceeded (IPMI): the same */
#define BDBUS_HPM1_CC_NOT_IN_THIS_STATE 0xD5 /**< not supported in present state (IPMI) */

/* Values of bdbus_hpm1_component_props_rec::selector. A version is major, minor and four auxiliary bytes. */
#define BDBUS_HPM1_PROPERTY_GENERAL 0          /**< general properties: what the component supports, bit by bit */
#define BDBUS_HPM1_PROPERTY_CURRENT_VERSION 1  /**< version of the active copy */
#define BDBUS_HPM1_PROPERTY_DESCRIPTION 2      /**< description, a text */
#define BDBUS_HPM1_PROPERTY_ROLLBACK_VERSION 3 /**< version of the backup copy */
#define BDBUS_HPM1_PROPERTY_DEFERRED_VERSION 4 /**< version of the copy that waits for its activation */

/* Values of bdbus_hpm1_upgrade_action_rec::action, and the action types of an HPM.1 image. */
#define BDBUS_HPM1_ACTION_BACKUP 0  /**< copy the active firmware to the backup */
#define BDBUS_HPM1_ACTION_PREPARE 1 /**< prepare the components for an upload */
#define BDBUS_HPM1_ACTION_UPLOAD 2  /**< take an upload, for an upgrade */

/** bdbus_hpm1_self_test_rec::result1 of a self test that passed. */
#define BDBUS_HPM1_SELF_TEST_PASSED 0x55

/** Record of bdbus_hpm1_target_upgrade_caps(). Time-outs are in units of 5 seconds. */
typedef struct bdbus_hpm1_target_caps_rec {
    uint8_t picmg_id;            /**< request and reply: PICMG identifier, 0 */
    uint8_t completion_code;     /**< reply: BDBUS_HPM1_CC_… */
    uint8_t hpm_version;         /**< reply: HPM.1 version of the target */
    uint8_t global_capabilities; /**< reply: bit 0 self test, bit 1 rollback; the byte 0x01 also means that an upgrade
                                    is not desirable */
    uint8_t upgrade_timeout;     /**< reply: limit of a long-duration command */
    uint8_t self_test_timeout;   /**< reply: limit of the self test after an activation */
    uint8_t rollback_timeout;    /**< reply: limit of a rollback */
    uint8_t inaccessibility_timeout; /**< reply: how long the target may be out of reach during an upgrade */
    uint8_t components_present;      /**< reply: bit n set when component n is on the target */
} bdbus_hpm1_target_caps_rec;

/** Record of bdbus_hpm1_component_props(). */
typedef struct bdbus_hpm1_component_props_rec {
    uint8_t picmg_id;                      /**< request and reply: PICMG identifier, 0 */
    uint8_t component_id;                  /**< request: component 0 to 7 */
    uint8_t selector;                      /**< request: BDBUS_HPM1_PROPERTY_… */
    uint8_t completion_code;               /**< reply: BDBUS_HPM1_CC_… */
    uint8_t data[BDBUS_HPM1_PROPERTY_MAX]; /**< reply: the property's bytes; a longer one is cut, a shorter one leaves
                                              the rest */
} bdbus_hpm1_component_props_rec;

/** Record of bdbus_hpm1_abort_fw_upgrade(), bdbus_hpm1_activate_fw() and bdbus_hpm1_init_manual_rollback(). */
typedef struct bdbus_hpm1_basic_rec {
    uint8_t picmg_id;        /**< request and reply: PICMG identifier, 0 */
    uint8_t completion_code; /**< reply: BDBUS_HPM1_CC_… */
} bdbus_hpm1_basic_rec;

/** Record of bdbus_hpm1_init_upgrade_action(). */
typedef struct bdbus_hpm1_upgrade_action_rec {
    uint8_t picmg_id;        /**< request and reply: PICMG identifier, 0 */
    uint8_t components;      /**< request: bit n set when the action applies to component n */
    uint8_t action;          /**< request: BDBUS_HPM1_ACTION_… */
    uint8_t completion_code; /**< reply: BDBUS_HPM1_CC_… */
} bdbus_hpm1_upgrade_action_rec;

/** Record of bdbus_hpm1_upload_fw_block(). */
typedef struct bdbus_hpm1_upload_block_rec {
    uint8_t picmg_id;                   /**< request and reply: PICMG identifier, 0 */
    uint8_t block_number;               /**< request: 0 for a component's first block, then one more each, modulo 256 */
    uint8_t data[BDBUS_HPM1_BLOCK_MAX]; /**< request: the block */
    uint32_t length;                    /**< request: bytes of `data` to send, 0 to BDBUS_HPM1_BLOCK_MAX */
    uint8_t completion_code;            /**< reply: BDBUS_HPM1_CC_… */
} bdbus_hpm1_upload_block_rec;

/** Record of bdbus_hpm1_finish_fw_upload(). */
typedef struct bdbus_hpm1_finish_upload_rec {
    uint8_t picmg_id;        /**< request and reply: PICMG identifier, 0 */
    uint8_t component_id;    /**< request: component 0 to 7 */
    uint32_t image_length;   /**< request: bytes uploaded for the component */
    uint8_t completion_code; /**< reply: BDBUS_HPM1_CC_… */
} bdbus_hpm1_finish_upload_rec;

/** Record of bdbus_hpm1_get_upgrade_status(). */
typedef struct bdbus_hpm1_upgrade_status_rec {
    uint8_t picmg_id;             /**< request and reply: PICMG identifier, 0 */
    uint8_t completion_code;      /**< reply: BDBUS_HPM1_CC_… */
    uint8_t command_in_progress;  /**< reply: the command that the target works on */
    uint8_t last_completion_code; /**< reply: completion code of the last long-duration command */
} bdbus_hpm1_upgrade_status_rec;

/** Record of bdbus_hpm1_query_self_test_results(). */
typedef struct bdbus_hpm1_self_test_rec {
    uint8_t picmg_id;        /**< set to 0 */
    uint8_t completion_code; /**< 0, or BDBUS_HPM1_CC_NOT_IN_THIS_STATE when the results could not be read */
    uint8_t result1;         /**< reply: BDBUS_HPM1_SELF_TEST_PASSED, or the kind of failure */
    uint8_t result2;         /**< reply: details of the failure */
} bdbus_hpm1_self_test_rec;

/** Record of bdbus_hpm1_query_rollback_status(). */
typedef struct bdbus_hpm1_rollback_status_rec {
    uint8_t picmg_id;        /**< request and reply: PICMG identifier, 0 */
    uint8_t completion_code; /**< reply: BDBUS_HPM1_CC_… */
    uint8_t rollback_status; /**< reply: bit n set when a rollback of component n happened or failed */
} bdbus_hpm1_rollback_status_rec;

/**
 * Get Target Upgrade Capabilities (PICMG HPM.1): what the target can do, its time limits and which components it has.
 *
 * Waits up to 25 s for the answer, or what the environment's SYSTEMD_BUS_TIMEOUT says, and before that for other calls
 * of this file and of upgrade.h. The call that opens the connection may wait 90 s more for a bus that hangs. Any
 * thread may call; not from a handler of ::bdbus_upgrade_callback_table.
 *
 * @param rec `picmg_id` is sent; all fields receive the reply. After a failure it keeps what it held, but for the
 * fields that a broken reply still brought.
 * @return positive when the reply was read, whatever the completion code; else a negative errno, after one line on
 * stderr: -ETIMEDOUT without an answer in time, -EINTR ended by a signal handler, -ECONNRESET or -ENOTCONN once the bus
 * has gone away, -ECHILD in a forked child, and others. -EINVAL for a null `rec`, with nothing sent.
 */
int32_t bdbus_hpm1_target_upgrade_caps(bdbus_hpm1_target_caps_rec *rec);

/**
 * Get Component Properties (PICMG HPM.1): one property of one component.
 *
 * Waits up to 25 s for the answer, or what the environment's SYSTEMD_BUS_TIMEOUT says, and before that for other calls
 * of this file and of upgrade.h. The call that opens the connection may wait 90 s more for a bus that hangs. Any
 * thread may call; not from a handler of ::bdbus_upgrade_callback_table.
 *
 * @param rec `picmg_id`, `component_id` (0 to 7) and `selector` are sent; the other fields, and `picmg_id`, receive
 * the reply. After a failure it keeps what it held, but for the fields that a broken reply still brought.
 * @return positive when the reply was read, whatever the completion code; else a negative errno, after one line on
 * stderr: -ETIMEDOUT without an answer in time, -EINTR ended by a signal handler, -ECONNRESET or -ENOTCONN once the bus
 * has gone away, -ECHILD in a forked child, and others. -EINVAL for a null `rec`, with nothing sent.
 */
int32_t bdbus_hpm1_component_props(bdbus_hpm1_component_props_rec *rec);

/**
 * Abort Firmware Upgrade (PICMG HPM.1): have the target give up the upgrade that it is in.
 *
 * It waits for its turn behind a command that another thread is sending, a block without limit. Then it waits up to
 * 25 s for the answer, or what the environment's SYSTEMD_BUS_TIMEOUT says. The call that opens the connection may wait
 * 90 s more for a bus that hangs. Any thread may call; not from a handler of ::bdbus_upgrade_callback_table.
 *
 * @param rec `picmg_id` is sent; both fields receive the reply. After a failure it keeps what it held, but for the
 * fields that a broken reply still brought.
 * @return positive when the reply was read, whatever the completion code; else a negative errno, after one line on
 * stderr: -ETIMEDOUT without an answer in time, -EINTR ended by a signal handler, -ECONNRESET or -ENOTCONN once the bus
 * has gone away, -ECHILD in a forked child, and others. -EINVAL for a null `rec`, with nothing sent.
 */
int32_t bdbus_hpm1_abort_fw_upgrade(bdbus_hpm1_basic_rec *rec);

/**
 * Initiate Upgrade Action (PICMG HPM.1): start a backup, a preparation or an upload. BDBUS_HPM1_CC_IN_PROGRESS says
 * that the target goes on by itself: poll bdbus_hpm1_get_upgrade_status().
 *
 * Waits up to 25 s for the answer, or what the environment's SYSTEMD_BUS_TIMEOUT says, and before that for other calls
 * of this file and of upgrade.h. The call that opens the connection may wait 90 s more for a bus that hangs. Any
 * thread may call; not from a handler of ::bdbus_upgrade_callback_table.
 *
 * @param rec `picmg_id`, `components` and `action` are sent; `completion_code` and `picmg_id` receive the reply. After
 * a failure it keeps what it held, but for the fields that a broken reply still brought.
 * @return positive when the reply was read, whatever the completion code; else a negative errno, after one line on
 * stderr: -ETIMEDOUT without an answer in time, -EINTR ended by a signal handler, -ECONNRESET or -ENOTCONN once the bus
 * has gone away, -ECHILD in a forked child, and others. -EINVAL for a null `rec`, with nothing sent.
 */
int32_t bdbus_hpm1_init_upgrade_action(bdbus_hpm1_upgrade_action_rec *rec);

/**
 * Upload Firmware Block (PICMG HPM.1): send one block of the component whose upload was started.
 *
 * Waits for the answer without a time limit, and every other call of this file and of upgrade.h waits with it, the
 * abort too. A handler of SIGALRM, say, that runs in the calling thread ends the wait with -EINTR; the target may have
 * taken the block or not. Any thread may call; not from a handler of ::bdbus_upgrade_callback_table.
 *
 * @param rec `picmg_id`, `block_number` and the first `length` bytes of `data` are sent; `completion_code` and
 * `picmg_id` receive the reply. After a failure it keeps what it held, but for the fields that a broken reply still
 * brought.
 * @return positive when the reply was read, whatever the completion code; else a negative errno, after one line on
 * stderr: -EINTR ended by a signal handler, -ECONNRESET or -ENOTCONN once the bus has gone away, -ECHILD in a forked
 * child, and others. -EINVAL for a null `rec` or a `length` over BDBUS_HPM1_BLOCK_MAX, with nothing sent.
 */
int32_t bdbus_hpm1_upload_fw_block(bdbus_hpm1_upload_block_rec *rec);

/**
 * Finish Firmware Upload (PICMG HPM.1): end a component's upload. BDBUS_HPM1_CC_IN_PROGRESS says that the target goes
 * on by itself: poll bdbus_hpm1_get_upgrade_status().
 *
 * Waits up to 25 s for the answer, or what the environment's SYSTEMD_BUS_TIMEOUT says, and before that for other calls
 * of this file and of upgrade.h. The call that opens the connection may wait 90 s more for a bus that hangs. Any
 * thread may call; not from a handler of ::bdbus_upgrade_callback_table.
 *
 * @param rec `picmg_id`, `component_id` (0 to 7) and `image_length` are sent; `completion_code` and `picmg_id` receive
 * the reply. After a failure it keeps what it held, but for the fields that a broken reply still brought.
 * @return positive when the reply was read, whatever the completion code; else a negative errno, after one line on
 * stderr: -ETIMEDOUT without an answer in time, -EINTR ended by a signal handler, -ECONNRESET or -ENOTCONN once the bus
 * has gone away, -ECHILD in a forked child, and others. -EINVAL for a null `rec`, with nothing sent.
 */
int32_t bdbus_hpm1_finish_fw_upload(bdbus_hpm1_finish_upload_rec *rec);

/**
 * Get Upgrade Status (PICMG HPM.1): how the last long-duration command stands. Its end shows in
 * `last_completion_code`.
 *
 * Waits up to 25 s for the answer, or what the environment's SYSTEMD_BUS_TIMEOUT says, and before that for other calls
 * of this file and of upgrade.h. The call that opens the connection may wait 90 s more for a bus that hangs. Any
 * thread may call; not from a handler of ::bdbus_upgrade_callback_table.
 *
 * @param rec `picmg_id` is sent; all fields receive the reply. After a failure it keeps what it held, but for the
 * fields that a broken reply still brought.
 * @return positive when the reply was read, whatever the completion code; else a negative errno, after one line on
 * stderr: -ETIMEDOUT without an answer in time, -EINTR ended by a signal handler, -ECONNRESET or -ENOTCONN once the bus
 * has gone away, -ECHILD in a forked child, and others. -EINVAL for a null `rec`, with nothing sent.
 */
int32_t bdbus_hpm1_get_upgrade_status(bdbus_hpm1_upgrade_status_rec *rec);

/**
 * Activate Firmware (PICMG HPM.1): run what was uploaded. BDBUS_HPM1_CC_IN_PROGRESS says that the target goes on by
 * itself: poll bdbus_hpm1_get_upgrade_status().
 *
 * Waits up to 25 s for the answer, or what the environment's SYSTEMD_BUS_TIMEOUT says, and before that for other calls
 * of this file and of upgrade.h. The call that opens the connection may wait 90 s more for a bus that hangs. Any
 * thread may call; not from a handler of ::bdbus_upgrade_callback_table.
 *
 * @param rec `picmg_id` is sent; both fields receive the reply. After a failure it keeps what it held, but for the
 * fields that a broken reply still brought.
 * @return positive when the reply was read, whatever the completion code; else a negative errno, after one line on
 * stderr: -ETIMEDOUT without an answer in time, -EINTR ended by a signal handler, -ECONNRESET or -ENOTCONN once the bus
 * has gone away, -ECHILD in a forked child, and others. -EINVAL for a null `rec`, with nothing sent.
 */
int32_t bdbus_hpm1_activate_fw(bdbus_hpm1_basic_rec *rec);

/**
 * Query Self-test Results (PICMG HPM.1), read as property "BmcPost" of service `com.brisemont.Bmc1`: the outcome of
 * the controller's self test.
 *
 * Waits up to 25 s for the answer, or what the environment's SYSTEMD_BUS_TIMEOUT says, and before that for other calls
 * of this file and of upgrade.h. The call that opens the connection may wait 90 s more for a bus that hangs. Any
 * thread may call; not from a handler of ::bdbus_upgrade_callback_table.
 *
 * @param rec the property's first two bytes go to `result1` and `result2`; further bytes are ignored, missing ones
 * leave the field as it was. `completion_code` is 0 when they were read, and BDBUS_HPM1_CC_NOT_IN_THIS_STATE when the
 * reply's bytes could not be; when there was no such reply, it keeps what it held. `picmg_id` is set to 0, unless
 * there is no connection.
 * @return positive when the reply was read, whatever the completion code; else a negative errno, after one line on
 * stderr: -ETIMEDOUT without an answer in time, -EINTR ended by a signal handler, -ECONNRESET or -ENOTCONN once the bus
 * has gone away, -ECHILD in a forked child, and others. -EINVAL for a null `rec`, with nothing sent.
 */
int32_t bdbus_hpm1_query_self_test_results(bdbus_hpm1_self_test_rec *rec);

/**
 * Query Rollback Status (PICMG HPM.1): whether a rollback happened, and of which components. BDBUS_HPM1_CC_IN_PROGRESS
 * and BDBUS_HPM1_CC_TIMEOUT say that the target does not know yet: ask again.
 *
 * Waits up to 25 s for the answer, or what the environment's SYSTEMD_BUS_TIMEOUT says, and before that for other calls
 * of this file and of upgrade.h. The call that opens the connection may wait 90 s more for a bus that hangs. Any
 * thread may call; not from a handler of ::bdbus_upgrade_callback_table.
 *
 * @param rec `picmg_id` is sent; all fields receive the reply. After a failure it keeps what it held, but for the
 * fields that a broken reply still brought.
 * @return positive when the reply was read, whatever the completion code; else a negative errno, after one line on
 * stderr: -ETIMEDOUT without an answer in time, -EINTR ended by a signal handler, -ECONNRESET or -ENOTCONN once the bus
 * has gone away, -ECHILD in a forked child, and others. -EINVAL for a null `rec`, with nothing sent.
 */
int32_t bdbus_hpm1_query_rollback_status(bdbus_hpm1_rollback_status_rec *rec);

/**
 * Initiate Manual Rollback (PICMG HPM.1): have the target go back to its backup copies.
 *
 * Waits up to 25 s for the answer, or what the environment's SYSTEMD_BUS_TIMEOUT says, and before that for other calls
 * of this file and of upgrade.h. The call that opens the connection may wait 90 s more for a bus that hangs. Any
 * thread may call; not from a handler of ::bdbus_upgrade_callback_table.
 *
 * @param rec `picmg_id` is sent; both fields receive the reply. After a failure it keeps what it held, but for the
 * fields that a broken reply still brought.
 * @return positive when the reply was read, whatever the completion code; else a negative errno, after one line on
 * stderr: -ETIMEDOUT without an answer in time, -EINTR ended by a signal handler, -ECONNRESET or -ENOTCONN once the bus
 * has gone away, -ECHILD in a forked child, and others. -EINVAL for a null `rec`, with nothing sent.
 */
int32_t bdbus_hpm1_init_manual_rollback(bdbus_hpm1_basic_rec *rec);

/**
 * The 8-bit sum of bytes; what ends with its PICMG HPM.1 checksum sums to 0. Uses no bus and no lock; any thread may
 * call.
 *
 * @param data   the bytes; may be null, which gives 0.
 * @param length how many bytes; 0 or less gives 0.
 * @return the sum modulo 256, 0 to 255. There are no errors.
 */
uint8_t bdbus_hpm1_checksum(const void *data, int32_t length);

/**
 * The component that a PICMG HPM.1 component mask stands for: its highest set bit. Uses no bus and no lock; any thread
 * may call.
 *
 * @param mask bit n stands for component n.
 * @return the bit's position, 0 to 31; 0 also for a mask of 0, so check that first.
 */
uint8_t bdbus_hpm1_component_mask_to_id_conversion(uint32_t mask);

/**
 * Whether one version is newer than another, by major and minor part. Uses no bus and no lock; any thread may call.
 *
 * @param a two bytes, major and minor, compared as plain numbers; may be null.
 * @param b the version to compare with, likewise.
 * @return 1 when `a` is newer than `b`; 0 when it is the same or older, or when either is null.
 */
int32_t bdbus_upgrade_version_compare(const uint8_t *a, const uint8_t *b);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
