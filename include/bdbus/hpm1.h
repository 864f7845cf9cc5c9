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
 * that is cancelled (pthread_cancel) inside a call ends only after it. In a child that was forked while the connection
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

/** Completion codes that HPM.1 and IPMI 2.0 give a meaning here; any other nonzero code is a plain failure. */
#define BDBUS_HPM1_CC_SUCCESS 0x00
#define BDBUS_HPM1_CC_IN_PROGRESS 0x80       /**< goes on in the background: poll bdbus_hpm1_get_upgrade_status() */
#define BDBUS_HPM1_CC_ROLLBACK_FAILED 0x81   /**< of the rollback status: the rollback failed */
#define BDBUS_HPM1_CC_RESEND 0x82            /**< of an upload: block not taken, send it again */
#define BDBUS_HPM1_CC_RESEND_NUMBER 0x83     /**< of an upload: block not taken, send it again */
#define BDBUS_HPM1_CC_COPY_DIFFERS 0x83      /**< of a finish: the active copy doesn't match the upgrade image */
#define BDBUS_HPM1_CC_TIMEOUT 0xC3           /**< timeout while processing */
#define BDBUS_HPM1_CC_LENGTH_INVALID 0xC7    /**< request data length invalid: send a shorter block */
#define BDBUS_HPM1_CC_LENGTH_EXCEEDED 0xC8   /**< request data field length limit exceeded: send a shorter block */
#define BDBUS_HPM1_CC_NOT_IN_THIS_STATE 0xD5 /**< not supported in present state */

/** Values of bdbus_hpm1_component_props_rec::selector. */
#define BDBUS_HPM1_PROPERTY_GENERAL 0
#define BDBUS_HPM1_PROPERTY_CURRENT_VERSION 1
#define BDBUS_HPM1_PROPERTY_DESCRIPTION 2
#define BDBUS_HPM1_PROPERTY_ROLLBACK_VERSION 3
#define BDBUS_HPM1_PROPERTY_DEFERRED_VERSION 4

/** Values of bdbus_hpm1_upgrade_action_rec::action, and the action types of an HPM.1 image. */
#define BDBUS_HPM1_ACTION_BACKUP 0
#define BDBUS_HPM1_ACTION_PREPARE 1
#define BDBUS_HPM1_ACTION_UPLOAD 2

/** bdbus_hpm1_self_test_rec::result1 of a self test that passed. */
#define BDBUS_HPM1_SELF_TEST_PASSED 0x55

/** GetTargetUpgradeCaps. Time-outs are in units of 5 seconds. */
typedef struct bdbus_hpm1_target_caps_rec {
    uint8_t picmg_id;            /**< request and reply */
    uint8_t completion_code;     /**< reply */
    uint8_t hpm_version;         /**< reply: HPM.1 version of the target */
    uint8_t global_capabilities; /**< reply: bit 0 self test, bit 1 rollback; the byte 0x01 also means that an upgrade
                                    is not desirable */
    uint8_t upgrade_timeout;     /**< reply: limit of a long-duration command */
    uint8_t self_test_timeout;   /**< reply */
    uint8_t rollback_timeout;    /**< reply */
    uint8_t inaccessibility_timeout; /**< reply */
    uint8_t components_present;      /**< reply: bit n set when component n is on the target */
} bdbus_hpm1_target_caps_rec;

/** GetComponentProps. */
typedef struct bdbus_hpm1_component_props_rec {
    uint8_t picmg_id;                      /**< request and reply */
    uint8_t component_id;                  /**< request: component 0 to 7 */
    uint8_t selector;                      /**< request: BDBUS_HPM1_PROPERTY_… */
    uint8_t completion_code;               /**< reply */
    uint8_t data[BDBUS_HPM1_PROPERTY_MAX]; /**< reply: the property's bytes; a longer one is cut, a shorter one leaves
                                              the rest */
} bdbus_hpm1_component_props_rec;

/** AbortFirmwareUpgrade, ActivateFirmware, InitiateManualRollback. */
typedef struct bdbus_hpm1_basic_rec {
    uint8_t picmg_id;        /**< request and reply */
    uint8_t completion_code; /**< reply */
} bdbus_hpm1_basic_rec;

/** InitiateUpgradeAction. */
typedef struct bdbus_hpm1_upgrade_action_rec {
    uint8_t picmg_id;        /**< request and reply */
    uint8_t components;      /**< request: mask of the components that the action applies to */
    uint8_t action;          /**< request: BDBUS_HPM1_ACTION_… */
    uint8_t completion_code; /**< reply */
} bdbus_hpm1_upgrade_action_rec;

/** UploadFirmwareBlock. */
typedef struct bdbus_hpm1_upload_block_rec {
    uint8_t picmg_id;                   /**< request and reply */
    uint8_t block_number;               /**< request: 0 for a component's first block, then one more each, modulo 256 */
    uint8_t data[BDBUS_HPM1_BLOCK_MAX]; /**< request: the block */
    uint32_t length;                    /**< request: bytes of `data` to send, 0 to BDBUS_HPM1_BLOCK_MAX */
    uint8_t completion_code;            /**< reply */
} bdbus_hpm1_upload_block_rec;

/** FinishFirmwareUpload. */
typedef struct bdbus_hpm1_finish_upload_rec {
    uint8_t picmg_id;        /**< request and reply */
    uint8_t component_id;    /**< request: component 0 to 7 */
    uint32_t image_length;   /**< request: bytes uploaded for the component */
    uint8_t completion_code; /**< reply */
} bdbus_hpm1_finish_upload_rec;

/** GetUpgradeStatus. */
typedef struct bdbus_hpm1_upgrade_status_rec {
    uint8_t picmg_id;             /**< request and reply */
    uint8_t completion_code;      /**< reply */
    uint8_t command_in_progress;  /**< reply: the command that the target works on */
    uint8_t last_completion_code; /**< reply: completion code of the last long-duration command */
} bdbus_hpm1_upgrade_status_rec;

/** The self-test results. */
typedef struct bdbus_hpm1_self_test_rec {
    uint8_t picmg_id;        /**< set to 0 */
    uint8_t completion_code; /**< 0, or BDBUS_HPM1_CC_NOT_IN_THIS_STATE when the results could not be read */
    uint8_t result1;         /**< reply: BDBUS_HPM1_SELF_TEST_PASSED, or the kind of failure */
    uint8_t result2;         /**< reply: details of the failure */
} bdbus_hpm1_self_test_rec;

/** QueryRollbackStatus. */
typedef struct bdbus_hpm1_rollback_status_rec {
    uint8_t picmg_id;        /**< request and reply */
    uint8_t completion_code; /**< reply */
    uint8_t rollback_status; /**< reply: mask of the components on which a rollback happened or failed */
} bdbus_hpm1_rollback_status_rec;

/** GetTargetUpgradeCaps: what the target can do, its time-outs and its components. @return as the file says. */
int32_t bdbus_hpm1_target_upgrade_caps(bdbus_hpm1_target_caps_rec *rec);

/** GetComponentProps: one property of one component. @return as the file says. */
int32_t bdbus_hpm1_component_props(bdbus_hpm1_component_props_rec *rec);

/**
 * AbortFirmwareUpgrade: stop the upgrade that the target is in. It waits for the command that another thread is
 * sending, a block without limit.
 *
 * @return as the file says.
 */
int32_t bdbus_hpm1_abort_fw_upgrade(bdbus_hpm1_basic_rec *rec);

/** InitiateUpgradeAction: start a backup, a preparation or an upload. @return as the file says. */
int32_t bdbus_hpm1_init_upgrade_action(bdbus_hpm1_upgrade_action_rec *rec);

/**
 * UploadFirmwareBlock: send one block of the component whose upload was started.
 *
 * Waits for the answer without a time limit, and every other call of this file and of upgrade.h waits with it, the
 * abort too. A handler of SIGALRM, say, ends the wait with -EINTR; the target may have taken the block or not.
 *
 * @return as the file says; -EINVAL also for a `length` over BDBUS_HPM1_BLOCK_MAX, with nothing sent.
 */
int32_t bdbus_hpm1_upload_fw_block(bdbus_hpm1_upload_block_rec *rec);

/** FinishFirmwareUpload: end a component's upload. @return as the file says. */
int32_t bdbus_hpm1_finish_fw_upload(bdbus_hpm1_finish_upload_rec *rec);

/** GetUpgradeStatus: how the last long-duration command stands. @return as the file says. */
int32_t bdbus_hpm1_get_upgrade_status(bdbus_hpm1_upgrade_status_rec *rec);

/** ActivateFirmware: run what was uploaded. @return as the file says. */
int32_t bdbus_hpm1_activate_fw(bdbus_hpm1_basic_rec *rec);

/**
 * The self-test results, from property "BmcPost" of service `com.brisemont.Bmc1`.
 *
 * The first two bytes go to `result1` and `result2`; further bytes are ignored, missing ones leave the field as it was.
 * Property not readable: `completion_code` stays as it was. Property whose bytes cannot be read: it is set to
 * BDBUS_HPM1_CC_NOT_IN_THIS_STATE. In both cases `picmg_id` is 0 all the same.
 *
 * @return as the file says.
 */
int32_t bdbus_hpm1_query_self_test_results(bdbus_hpm1_self_test_rec *rec);

/** QueryRollbackStatus: whether a rollback happened, and on which components. @return as the file says. */
int32_t bdbus_hpm1_query_rollback_status(bdbus_hpm1_rollback_status_rec *rec);

/** InitiateManualRollback: go back to the backup copies. @return as the file says. */
int32_t bdbus_hpm1_init_manual_rollback(bdbus_hpm1_basic_rec *rec);

/**
 * The 8-bit sum of bytes; a block that ends with its HPM.1 checksum sums to 0. No bus, no lock.
 *
 * @param data   the bytes; may be null when `length` is 0 or less.
 * @param length how many; 0 or less gives 0.
 * @return the sum modulo 256, 0 to 255; 0 for null `data`.
 */
uint8_t bdbus_hpm1_checksum(const void *data, int32_t length);

/**
 * The component that a mask stands for: its highest set bit. No bus, no lock.
 *
 * @param mask a component mask.
 * @return the bit's position; 0 for a mask of 0.
 */
uint8_t bdbus_hpm1_component_mask_to_id_conversion(uint32_t mask);

/**
 * Whether one version is newer than another. No bus, no lock.
 *
 * @param a major byte, minor byte; both are compared as plain numbers.
 * @param b the same.
 * @return 1 when `a` is newer than `b`, else 0; 0 when either is null.
 */
int32_t bdbus_upgrade_version_compare(const uint8_t *a, const uint8_t *b);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
