/* SPDX-License-Identifier: LGPL-2.1-or-later */
/**
 * @file upgrade_agent.h
 * The upgrade agent: a whole firmware upgrade from one PICMG HPM.1 image file.
 *
 * The stages, in order: bdbus_upgrade_agent_initialization(), bdbus_upgrade_agent_validate_image_integrity(),
 * bdbus_upgrade_agent_target_check(), bdbus_upgrade_agent_preparation_stage(), bdbus_upgrade_agent_pre_upgrade_check(),
 * bdbus_upgrade_agent_upgrade_stage(), bdbus_upgrade_agent_activation_stage(), bdbus_upgrade_agent_end().
 *
 * Results: 0 when a stage succeeded. Every other result is a failure, also a positive one, and its codes are the
 * stage's own. The reason goes to syslog, through the program's own openlog() and setlogmask(): LOG_ERR for failures,
 * LOG_NOTICE for progress, LOG_INFO for details. The commands below print their lines on stderr besides (hpm1.h).
 * Nothing is undone when a stage fails; the context stays valid. When the bus has gone away, what asks the target fails
 * until the process is restarted.
 *
 * An image that is too short, or whose lengths reach past its end, is refused with "Truncated HPM.1 image" and never
 * read beyond its bytes; so is a context that is null or holds no image, but for the activation stage, which
 * looks at the image only where there is one. The result is then -8 from the integrity check and -1 from a stage. The
 * image's digest finds damage. It is no signature: who made an image is for the program, or the target, to check.
 *
 * Signals: a stage makes many calls, and during each of them all signals are held back in its thread but SIGINT,
 * SIGTERM, SIGQUIT, SIGHUP and faults; the others' handlers run between the calls, and end none. A handler of one of
 * those four that runs in this thread during a call makes it fail with -EINTR (when the controller's identity is read,
 * 0x1000 | EINTR): the target has got the command or not, the reply is lost, and the stage goes on as after any failed
 * command, which means a rollback when it was the self test's. Block these four where that is not wanted. What is held
 * back is held back with its default action, too: an alarm(2) that should end the program does so only between the
 * calls. bdbus_upgrade_agent_abort() and bdbus_upgrade_agent_get_component_properties() are single calls and go by
 * hpm1.h.
 *
 * Threads: the stages run on the caller's thread, and only one upgrade may run at a time in a process. Another thread
 * may watch it with bdbus_upgrade_agent_get_upgrade_stage_status(), and have the target give up with
 * bdbus_upgrade_agent_abort(), which does not by itself end the stage. A thread that is cancelled (pthread_cancel)
 * inside a call ends only after that call. In a child that was forked after or during the first command, every command
 * fails with -ECHILD.
 */
#ifndef BDBUS_UPGRADE_AGENT_H
#define BDBUS_UPGRADE_AGENT_H

#include <bdbus/hpm1.h>

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/** Components that a target can have. */
#define BDBUS_UPGRADE_AGENT_COMPONENTS 8

/** Bits of bdbus_upgrade_agent_context::options. */
#define BDBUS_UPGRADE_AGENT_VERBOSE 0x01 /**< log information about the image */
#define BDBUS_UPGRADE_AGENT_FORCE 0x02   /**< upgrade every component that the image holds, whatever its version */
#define BDBUS_UPGRADE_AGENT_SKIP_IDENTITY 0x04 /**< do not compare device, product and manufacturer */

/** Stages as bdbus_upgrade_agent_get_upgrade_stage_status() reports them. */
#define BDBUS_UPGRADE_AGENT_STAGE_IDLE 0
#define BDBUS_UPGRADE_AGENT_STAGE_RUNNING 1
#define BDBUS_UPGRADE_AGENT_STAGE_DONE 2
#define BDBUS_UPGRADE_AGENT_STAGE_FAILED 3

/** Result of bdbus_upgrade_agent_preparation_stage() when the controller's firmware is too old for the image. */
#define BDBUS_UPGRADE_AGENT_FIRMWARE_TOO_OLD 36

/** One upgrade: the image and what the stages learn. The caller sets `options` and leaves the rest to the stages. */
typedef struct bdbus_upgrade_agent_context {
    uint8_t
        component_id; /**< component being uploaded, then the last one; another thread reads it with an atomic load */
    uint8_t options;  /**< BDBUS_UPGRADE_AGENT_VERBOSE, _FORCE, _SKIP_IDENTITY */
    uint32_t image_size;                    /**< bytes of `image_data` */
    uint8_t *image_data;                    /**< the whole file, owned by the context; null when none was loaded */
    uint8_t upgrade_mask;                   /**< bit n set: component n is to be upgraded */
    uint8_t fw_major;                       /**< the controller's firmware version */
    uint8_t fw_minor;                       /**< its minor part */
    uint8_t device_id;                      /**< the controller's device ID */
    uint8_t manufacturer_id[3];             /**< the controller's, least significant byte first */
    uint8_t product_id[2];                  /**< the controller's, most significant byte first */
    bdbus_hpm1_target_caps_rec target_caps; /**< the target's upgrade capabilities */
    bdbus_hpm1_component_props_rec
        component_props[BDBUS_UPGRADE_AGENT_COMPONENTS]; /**< general properties; zero where unknown */
} bdbus_upgrade_agent_context;

/**
 * Read an image file into a new context.
 *
 * The file must be one that can be sought: a regular file, or a flash partition's device. A FIFO fails with the seek's
 * message, and opening one never waits. A file that is empty, or of more than 4 GiB - 1 bytes, fails like a read that
 * ended early. The whole file is held in memory until bdbus_upgrade_agent_end(); nothing of it is checked here.
 *
 * @param path the file. Null gives a context without an image.
 * @return the context, for bdbus_upgrade_agent_end() to free; null, with the reason in syslog, when the file could not
 * be read or memory is short.
 */
bdbus_upgrade_agent_context *bdbus_upgrade_agent_initialization(const char *path);

/**
 * Check the image: MD5 digest, the letters "PICMGFWU" at its start, header version, header checksum, lengths. That
 * finds damage, not a forger: anybody can make an image that passes.
 *
 * @param context the upgrade.
 * @return 0; -1, -2, -3 when the digest could not be computed; -4 digest differs; -5 no "PICMGFWU"; -6 header
 * version is not 0; -7 header checksum; -8 truncated, or no image.
 */
int32_t bdbus_upgrade_agent_validate_image_integrity(bdbus_upgrade_agent_context *context);

/**
 * The image's header. With BDBUS_UPGRADE_AGENT_VERBOSE its fields are logged. Nothing is checked: the file may be
 * shorter than a header.
 *
 * @param context the upgrade.
 * @return the first byte of the image, valid until bdbus_upgrade_agent_end(); null without an image.
 */
const uint8_t *bdbus_upgrade_agent_get_hpm1_header(const bdbus_upgrade_agent_context *context);

/**
 * The vendor header of the image's last upload record: the bytes from 6 bytes into its image data on. Their contents
 * are the vendor's; the caller knows how many they are, and compares with `image_data` and `image_size`.
 *
 * @param context the upgrade.
 * @return a pointer into the image, valid until bdbus_upgrade_agent_end(); null without an upload record, or when a
 * record is invalid or truncated.
 */
const uint8_t *bdbus_upgrade_agent_get_brs_header(const bdbus_upgrade_agent_context *context);

/**
 * Free the context and its image, and set stage and progress to 0.
 *
 * @param context the upgrade; may be null.
 */
void bdbus_upgrade_agent_end(bdbus_upgrade_agent_context *context);

/**
 * Where the upgrade stands. May be called at any time, from any thread.
 *
 * @param stage    receives BDBUS_UPGRADE_AGENT_STAGE_…; may be null.
 * @param progress receives the percentage, 0 to 100, of the current component that has been uploaded; may be null.
 */
void bdbus_upgrade_agent_get_upgrade_stage_status(uint8_t *stage, uint8_t *progress);

/**
 * Read the target's capabilities and its components' properties and versions, for the later stages.
 *
 * @return 0; the result of the first query that failed: -1 for a completion code other than 0, else as hpm1.h. Versions
 * of a backup or deferred copy that cannot be read are taken as zero and are no failure.
 */
int32_t bdbus_upgrade_agent_target_check(void);

/**
 * Compare the image with the controller and the target, and keep the target's capabilities in the context.
 *
 * @param context the upgrade.
 * @return 0; a positive status of config.h when the controller's identity could not be read; -1 another manufacturer,
 * -2 another product, -3 another device (none of these with BDBUS_UPGRADE_AGENT_SKIP_IDENTITY);
 * BDBUS_UPGRADE_AGENT_FIRMWARE_TOO_OLD; -4 the image holds a component that the target lacks; -5 the target does not
 * want an upgrade now; else the result of a query that failed, as bdbus_upgrade_agent_target_check().
 */
int32_t bdbus_upgrade_agent_preparation_stage(bdbus_upgrade_agent_context *context);

/**
 * Check the image's actions against the target and mark in `upgrade_mask` each component whose image differs from what
 * the target holds. Bits are only ever set.
 *
 * @param context the upgrade, after the target check and the preparation stage.
 * @return 0; -1 a record's checksum, no component on the target, or a truncated image; -2 a backup of a component that
 * has none; -3 a preparation of a component that has none; -4 an unknown action.
 */
int32_t bdbus_upgrade_agent_pre_upgrade_check(bdbus_upgrade_agent_context *context);

/**
 * Carry out the image's actions: back up and prepare, then upload every marked component.
 *
 * Blocks start at BDBUS_HPM1_BLOCK_MAX bytes and shrink until the target takes the first one. A process is granted
 * three resends of blocks in its whole life. Long-duration commands are polled every 2 seconds up to the target's
 * limit. A block's answer is waited for without limit.
 *
 * A result of 0 does not say that no other thread has aborted the upgrade meanwhile: see bdbus_upgrade_agent_abort().
 *
 * @param context the upgrade.
 * @return 0; -1 an invalid record, an action that was refused, a block size worn down to 0, a long-duration command
 * that failed, or a target copy that does not match; -2 a block that was refused or whose call failed (-EINTR too), or
 * a finish that was refused; else the negative result of a command.
 */
int32_t bdbus_upgrade_agent_upgrade_stage(bdbus_upgrade_agent_context *context);

/**
 * Activate the new firmware, follow its self test, and roll back when that fails or cannot be asked about: a lost bus,
 * or a handler of SIGTERM that ends the question with -EINTR, leads there too.
 *
 * @param context the upgrade.
 * @return 0, also when a rollback was started or has happened; -1 activation, self test or rollback failed; -2 no
 * self-test result or no rollback status; else the negative result of a command.
 */
int32_t bdbus_upgrade_agent_activation_stage(bdbus_upgrade_agent_context *context);

/**
 * GetComponentProps, with its completion code judged.
 *
 * @param record `picmg_id`, `component_id` and `selector` set.
 * @return 0; -1 for a completion code other than 0; else as bdbus_hpm1_component_props().
 */
int32_t bdbus_upgrade_agent_get_component_properties(bdbus_hpm1_component_props_rec *record);

/**
 * AbortFirmwareUpgrade, with its completion code judged: have the target give up its upgrade. May be called from any
 * thread.
 *
 * It stops the target, not a stage that runs in another thread, and 0 says no more than that the target took the
 * command. Between two blocks, a target refuses the next one and the stage fails. During a finish, or another
 * long-duration command, the stage may take that command for done, go on with the next component and end with 0. And
 * the abort waits for its turn between the stage's commands: some blocks may go by before it, and while the target is
 * silent after a block it waits without limit.
 *
 * So a program that aborts keeps a flag of its own: set it, call this, wait for the stage to end, call this once more,
 * and do not call bdbus_upgrade_agent_activation_stage(), whatever the stage returned.
 *
 * @return 0; -1 for a completion code other than 0; else as bdbus_hpm1_abort_fw_upgrade(), -EINTR among it.
 */
int32_t bdbus_upgrade_agent_abort(void);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
