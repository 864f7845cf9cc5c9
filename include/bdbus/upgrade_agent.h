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
 * stage's own. The reason goes to syslog, but for an identity that could not be read, through the program's own
 * openlog() and setlogmask(): LOG_ERR for failures, LOG_NOTICE for progress, LOG_INFO for details. The commands below
 * print their lines on stderr besides (hpm1.h). Nothing is undone when a stage fails; the context stays valid. When the
 * bus has gone away, what asks the target fails until the process is restarted.
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
 * command, which means a rollback when it was the self test's. Block these four where that is not wanted.
 * bdbus_upgrade_agent_abort() and bdbus_upgrade_agent_get_component_properties() are single calls and go by hpm1.h.
 *
 * Threads: the stages run on the caller's thread, and only one upgrade may run at a time in a process. Another thread
 * may watch it with bdbus_upgrade_agent_get_upgrade_stage_status(), and have the target give up with
 * bdbus_upgrade_agent_abort(), which does not by itself end the stage. A thread that is canceled (pthread_cancel)
 * inside a call ends only after that call. In a child that was forked after the first command, every command fails with
 * -ECHILD.
 */
#ifndef BDBUS_UPGRADE_AGENT_H
#define BDBUS_UPGRADE_AGENT_H

#include <bdbus/hpm1.h>

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/** How many components a target can have. */
#define BDBUS_UPGRADE_AGENT_COMPONENTS 8

/* Bits of bdbus_upgrade_agent_context::options. */
#define BDBUS_UPGRADE_AGENT_VERBOSE 0x01 /**< log information about the image */
#define BDBUS_UPGRADE_AGENT_FORCE 0x02   /**< upgrade every component that the image holds, whatever its version */
#define BDBUS_UPGRADE_AGENT_SKIP_IDENTITY 0x04 /**< do not compare device, product and manufacturer */

/* Stages as bdbus_upgrade_agent_get_upgrade_stage_status() reports them. */
#define BDBUS_UPGRADE_AGENT_STAGE_IDLE 0    /**< no upgrade stage since the last initialization or end */
#define BDBUS_UPGRADE_AGENT_STAGE_RUNNING 1 /**< the upgrade stage is running */
#define BDBUS_UPGRADE_AGENT_STAGE_DONE 2    /**< the last upgrade stage succeeded */
#define BDBUS_UPGRADE_AGENT_STAGE_FAILED 3  /**< the last upgrade stage failed */

/** Result of bdbus_upgrade_agent_preparation_stage() when the controller's firmware is too old for the image. */
#define BDBUS_UPGRADE_AGENT_FIRMWARE_TOO_OLD 36

/** One upgrade: the image and what the stages learn. The caller sets `options` and leaves the rest to the stages. */
typedef struct bdbus_upgrade_agent_context {
    uint8_t component_id; /**< component that the upgrade stage is at, then its last; another thread reads it with an
                             atomic load */
    uint8_t options;      /**< BDBUS_UPGRADE_AGENT_VERBOSE, _FORCE, _SKIP_IDENTITY */
    uint32_t image_size;  /**< bytes of `image_data` */
    uint8_t *image_data;  /**< the whole file, owned by the context; null when none was loaded */
    uint8_t upgrade_mask; /**< bit n set: component n is to be upgraded */
    uint8_t fw_major;     /**< the controller's firmware version, its major part */
    uint8_t fw_minor;     /**< its minor part */
    uint8_t device_id;    /**< the controller's device ID */
    uint8_t manufacturer_id[3];             /**< the controller's manufacturer ID, least significant byte first */
    uint8_t product_id[2];                  /**< the controller's product ID, most significant byte first */
    bdbus_hpm1_target_caps_rec target_caps; /**< the target's upgrade capabilities */
    bdbus_hpm1_component_props_rec
        component_props[BDBUS_UPGRADE_AGENT_COMPONENTS]; /**< general properties; zero where unknown */
} bdbus_upgrade_agent_context;

/**
 * Read an image file into a new context, and set stage and progress to 0.
 *
 * The file must be one that can be sought: a regular file, or a flash partition's device. A FIFO fails at the seek,
 * and opening one never waits. A file that is empty, or of more than 4 GiB - 1 bytes, fails like a read that ended
 * early. The whole file is held in memory until bdbus_upgrade_agent_end(); nothing of it is checked here. No bus is
 * used.
 *
 * @param path the file. Null gives a context without an image.
 * @return the context, for bdbus_upgrade_agent_end() to free; null, with the reason in syslog, when the file could not
 * be read or memory is short.
 */
bdbus_upgrade_agent_context *bdbus_upgrade_agent_initialization(const char *path);

/**
 * Check a PICMG HPM.1 image: MD5 digest, the letters "PICMGFWU" at its start, header version, header checksum,
 * lengths. That finds damage, not a forger: anybody can make an image that passes. No bus is used; the context is not
 * changed.
 *
 * @param context the upgrade; one that is null or has no image counts as truncated.
 * @return 0; -1, -2 or -3 when the digest could not be computed; -4 digest differs; -5 no "PICMGFWU"; -6 header
 * version is not 0; -7 header checksum; -8 truncated, or no image. Each failure has a line in syslog.
 */
int32_t bdbus_upgrade_agent_validate_image_integrity(bdbus_upgrade_agent_context *context);

/**
 * The PICMG HPM.1 header of the image. With BDBUS_UPGRADE_AGENT_VERBOSE its fields are logged. Nothing is checked: the
 * file may be shorter than a header. No bus is used.
 *
 * @param context the upgrade; may be null.
 * @return the first byte of the image, valid until bdbus_upgrade_agent_end(); null without an image.
 */
const uint8_t *bdbus_upgrade_agent_get_hpm1_header(const bdbus_upgrade_agent_context *context);

/**
 * The vendor header of the image's last upload record: the bytes from 6 bytes into its image data on. Their contents
 * are the vendor's; the caller knows how many they are, and compares with `image_data` and `image_size`. No bus is
 * used.
 *
 * @param context the upgrade; may be null.
 * @return a pointer into the image, valid until bdbus_upgrade_agent_end(); null without an image or an upload record,
 * and when a record is invalid or truncated.
 */
const uint8_t *bdbus_upgrade_agent_get_brs_header(const bdbus_upgrade_agent_context *context);

/**
 * Free the context and its image, and set stage and progress to 0. No stage may be running in another thread.
 *
 * @param context the upgrade; may be null.
 */
void bdbus_upgrade_agent_end(bdbus_upgrade_agent_context *context);

/**
 * Where the upgrade stands. Any thread may call, at any time; it waits for nothing.
 *
 * @param stage    receives BDBUS_UPGRADE_AGENT_STAGE_…; may be null.
 * @param progress receives the percentage, 0 to 100, that has been uploaded of the component that is being uploaded,
 * or was last; may be null.
 */
void bdbus_upgrade_agent_get_upgrade_stage_status(uint8_t *stage, uint8_t *progress);

/**
 * Read the target's capabilities and its components' properties and versions (PICMG HPM.1, Get Target Upgrade
 * Capabilities and Get Component Properties), for the later stages.
 *
 * Runs on the caller's thread, one upgrade at a time in a process. Each query waits up to 25 s for its answer, or what
 * the environment's SYSTEMD_BUS_TIMEOUT says.
 *
 * @return 0; the result of the first query that failed: -1 for a completion code other than 0, else the command's
 * negative errno, such as -ETIMEDOUT or -ENOTCONN. Versions of a backup or deferred copy that cannot be read are taken
 * as zero and are no failure. Failures have a line in syslog.
 */
int32_t bdbus_upgrade_agent_target_check(void);

/**
 * Compare the image with the controller and the target, and keep the controller's identity, the target's capabilities
 * and the general properties of the image's components in the context.
 *
 * Runs on the caller's thread, one upgrade at a time in a process. Each query waits up to 25 s for its answer, or what
 * the environment's SYSTEMD_BUS_TIMEOUT says.
 *
 * @param context the upgrade. After a failure it keeps what was read so far.
 * @return 0; a positive status, without a line in syslog, when the controller's identity could not be read:
 * BDBUS_CONFIG_NO_BUS (205) or 0x1000 | errno; -3 another device, -2 another product, -1 another manufacturer (none of
 * these with BDBUS_UPGRADE_AGENT_SKIP_IDENTITY); BDBUS_UPGRADE_AGENT_FIRMWARE_TOO_OLD (36); -4 the image holds a
 * component that the target lacks; -5 the target does not want an upgrade now; -1 also for a truncated image, or none.
 * Else the result of the query for the capabilities, or of that for the last component's properties, when it failed:
 * -1 for a completion code, or a negative errno; an earlier component's failed query is only logged.
 */
int32_t bdbus_upgrade_agent_preparation_stage(bdbus_upgrade_agent_context *context);

/**
 * Check the image's actions against the target and mark in `upgrade_mask` each component whose image differs from what
 * the target holds; with BDBUS_UPGRADE_AGENT_FORCE each that the image holds. Bits are only ever set. No bus is used.
 *
 * @param context the upgrade, after the target check and the preparation stage. After a failure it keeps the marks
 * made so far.
 * @return 0; -1 a record's checksum, no component on the target, a truncated image, or none; -2 a backup of a
 * component that has none; -3 a preparation of a component that has none; -4 an unknown action. Each failure has a
 * line in syslog.
 */
int32_t bdbus_upgrade_agent_pre_upgrade_check(bdbus_upgrade_agent_context *context);

/**
 * Carry out the image's actions: backups and preparations of marked components, and the upload of each marked
 * component, in the image's order.
 *
 * Blocks start at BDBUS_HPM1_BLOCK_MAX bytes and shrink until the target takes the first one. A process is granted
 * three resends of blocks in its whole life. Long-duration commands are polled every 2 seconds up to the target's
 * limit. A block's answer is waited for without limit. Runs on the caller's thread, one upgrade at a time in a
 * process.
 *
 * A result of 0 does not say that no other thread has aborted the upgrade meanwhile: see bdbus_upgrade_agent_abort().
 *
 * @param context the upgrade, after the pre-upgrade check; `component_id` is written.
 * @return 0; -1 an invalid record, an action that was refused, a block size worn down to 0, an action or a finish that
 * went on in the background and failed, a target copy that does not match, a truncated image, or none; -2 a block that
 * was refused, failed in the background or whose call failed (-EINTR too), or a finish that was refused; else the
 * negative errno of a command. Each failure has a line in syslog.
 */
int32_t bdbus_upgrade_agent_upgrade_stage(bdbus_upgrade_agent_context *context);

/**
 * Activate the new firmware (PICMG HPM.1, Activate Firmware). Where the component that the upgrade stage came to last
 * asks for a follow-up, and target or image have a self test, follow that too, and roll back when it fails or cannot
 * be asked about: a lost bus, or a handler of SIGTERM that ends the question with -EINTR, leads there too.
 *
 * The self test is asked about every 2 seconds and the rollback every second, each up to the longer of the target's
 * and the image's limit. Runs on the caller's thread, one upgrade at a time in a process.
 *
 * @param context the upgrade. Not null; an image is not needed.
 * @return 0, also when a rollback was started or has happened; -1 activation, self test or rollback failed, or a null
 * `context`; -2 no self-test result or no rollback status; else the negative errno of a command. Each failure has a
 * line in syslog.
 */
int32_t bdbus_upgrade_agent_activation_stage(bdbus_upgrade_agent_context *context);

/**
 * Get Component Properties (PICMG HPM.1), with its completion code judged: one property of one component. A single
 * call, like bdbus_hpm1_component_props(): it waits for other calls of hpm1.h and upgrade.h, then up to 25 s for the
 * answer, or what the environment's SYSTEMD_BUS_TIMEOUT says. Any thread may call.
 *
 * @param record `picmg_id`, `component_id` (0 to 7) and `selector` are sent; the other fields receive the reply, as
 * far as it was read.
 * @return 0; -1 for a completion code other than 0; else the command's negative errno, such as -ETIMEDOUT, -EINTR or
 * -ENOTCONN, also with a line on stderr; -EINVAL for a null `record`, with nothing sent. Each failure has a line in
 * syslog.
 */
int32_t bdbus_upgrade_agent_get_component_properties(bdbus_hpm1_component_props_rec *record);

/**
 * Abort Firmware Upgrade (PICMG HPM.1), with its completion code judged: have the target give up its upgrade. Any
 * thread may call.
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
 * @return 0; -1 for a completion code other than 0; else the command's negative errno, such as -ETIMEDOUT, -EINTR or
 * -ENOTCONN, also with a line on stderr. Each failure has a line in syslog.
 */
int32_t bdbus_upgrade_agent_abort(void);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
