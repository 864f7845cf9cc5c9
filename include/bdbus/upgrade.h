/* SPDX-License-Identifier: LGPL-2.1-or-later */
/**
 * @file upgrade.h
 * The firmware-upgrade service `com.brisemont.Upgrade1`: versions, rollback flags, upgrade state, its 80 notices, the
 * selection of flashes, and the notices that it takes.
 *
 * The first call opens the one connection of this file and hpm1.h and subscribes to the 80 signals; from then on they
 * queue on the connection until bdbus_upgrade_signal_process() is called. It is open once the bus has greeted it and
 * has answered each subscription; a refusal is an answer, and that signal is then never received. A connection that was
 * dropped or timed out before that is a failed open, with the line "Failed to connect to system bus: ...", and the next
 * call tries again. One that was open is never opened again: when the bus has gone away, calls fail with -ENOTCONN (the
 * one during which it went with -ECONNRESET), until the process is restarted.
 *
 * Results: 0 or more when the call succeeded. Otherwise the negative errno-style code of the step that failed, after
 * one line on stderr, with the output untouched. -EINVAL for a null output or record, without a line and with nothing
 * sent.
 *
 * Signals: while a call waits, SIGCHLD, SIGWINCH, SIGIO, SIGURG, SIGPROF and SIGVTALRM are held back in its thread, and
 * their handlers run right after it. Any other signal whose handler runs in that thread (SIGALRM, SIGUSR1, SIGTERM,
 * ...), with SA_RESTART or without, ends the call with -EINTR, which can serve as a program's own limit on a call (best
 * with a timer that repeats, and not while the call waits for another thread's call); the request has reached the
 * service or not, and the reply is lost. While the connection is opened and subscribed, all signals are held back
 * during each step but SIGINT, SIGTERM, SIGQUIT, SIGHUP and faults.
 *
 * Threads: any thread may call. The functions share one lock with hpm1.h and wait for one another, also while one waits
 * for its answer. None of them may be called from a handler of the callback table, where the lock is held, but
 * bdbus_upgrade_callbacks() and the three change handles, which take no lock and have a rule of their own. A handler
 * must not wait for another family whose handlers call this one: two threads that process both would wait for each
 * other for ever. A thread that is cancelled (pthread_cancel) inside a call ends only after it. In a child that was
 * forked while the connection was open or being opened, calls fail with -ECHILD at once.
 */
#ifndef BDBUS_UPGRADE_H
#define BDBUS_UPGRADE_H

#include <stdint.h>
#include <systemd/sd-bus.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/** The most bytes that a version getter writes: the room that its buffer must have. */
#define BDBUS_UPGRADE_VERSION_MAX 64

/** The bytes of a version that is set. */
#define BDBUS_UPGRADE_VERSION_BYTES 6

/** Number of notices, and of slots in ::bdbus_upgrade_callback_table. */
#define BDBUS_UPGRADE_SIGNALS 80

/** The versions that the service holds, for bdbus_upgrade_get_version(). */
typedef enum bdbus_upgrade_version {
    BDBUS_UPGRADE_VERSION_BMC_UBOOT,
    BDBUS_UPGRADE_VERSION_BMC_FW,
    BDBUS_UPGRADE_VERSION_BMC_CONF,
    BDBUS_UPGRADE_VERSION_FPGA,
    BDBUS_UPGRADE_VERSION_BIOS,
    BDBUS_UPGRADE_VERSION_NVRAM,
    BDBUS_UPGRADE_VERSION_CPLD,
    BDBUS_UPGRADE_VERSION_BMC_FW_BACKUP,
    BDBUS_UPGRADE_VERSION_FPGA_BACKUP,
    BDBUS_UPGRADE_VERSION_BIOS_BACKUP,
    BDBUS_UPGRADE_VERSION_CPLD_BACKUP
} bdbus_upgrade_version;

/**
 * The handlers of the 80 notices, each slot named for its signal; a null slot drops it.
 *
 * A handler runs inside bdbus_upgrade_signal_process(), on its caller's thread. It gets the signal message, a null
 * user-data pointer and sd-bus's error pointer; its result is ignored. The message is valid during the call, unless the
 * handler takes a reference of its own. Who sent it is not checked: a notice of any program that the bus lets send it
 * gets here.
 */
typedef struct bdbus_upgrade_callback_table {
    /* the boot loader U-Boot */
    sd_bus_message_handler_t uboot_change;
    sd_bus_message_handler_t uboot_update_succeed;
    sd_bus_message_handler_t uboot_update_aborted;
    sd_bus_message_handler_t uboot_update_fail;
    sd_bus_message_handler_t uboot_update_timeout;
    sd_bus_message_handler_t uboot_activation_fail;
    sd_bus_message_handler_t uboot_version;
    sd_bus_message_handler_t uboot_sign_fail;
    sd_bus_message_handler_t uboot_env_defaults;
    sd_bus_message_handler_t uboot_flash0_fail;
    sd_bus_message_handler_t uboot_flash1_fail;
    /* the BMC firmware */
    sd_bus_message_handler_t bmc_reset;
    sd_bus_message_handler_t bmc_change;
    sd_bus_message_handler_t bmc_auto_rollback;
    sd_bus_message_handler_t bmc_manual_rollback_initiated;
    sd_bus_message_handler_t bmc_manual_rollback_succeed;
    sd_bus_message_handler_t bmc_manual_rollback_fail;
    sd_bus_message_handler_t bmc_update_succeed;
    sd_bus_message_handler_t bmc_update_aborted;
    sd_bus_message_handler_t bmc_update_fail;
    sd_bus_message_handler_t bmc_update_timeout;
    sd_bus_message_handler_t bmc_activation_fail;
    sd_bus_message_handler_t bmc_version;
    sd_bus_message_handler_t bmc_sign_verify_pass;
    sd_bus_message_handler_t bmc_sign_verify_fail;
    /* the BMC configuration */
    sd_bus_message_handler_t fwconf_update_succeed;
    sd_bus_message_handler_t fwconf_update_aborted;
    sd_bus_message_handler_t fwconf_update_fail;
    sd_bus_message_handler_t fwconf_update_timeout;
    sd_bus_message_handler_t fwconf_activation_fail;
    sd_bus_message_handler_t fwconf_version;
    /* the FPGA */
    sd_bus_message_handler_t fpga_change;
    sd_bus_message_handler_t fpga_manual_rollback_initiated;
    sd_bus_message_handler_t fpga_manual_rollback_succeed;
    sd_bus_message_handler_t fpga_manual_rollback_fail;
    sd_bus_message_handler_t fpga_update_pending;
    sd_bus_message_handler_t fpga_update_start;
    sd_bus_message_handler_t fpga_update_end;
    sd_bus_message_handler_t fpga_update_succeed;
    sd_bus_message_handler_t fpga_update_aborted;
    sd_bus_message_handler_t fpga_update_fail;
    sd_bus_message_handler_t fpga_update_timeout;
    sd_bus_message_handler_t fpga_activation_fail;
    sd_bus_message_handler_t fpga_auto_rollback_start;
    sd_bus_message_handler_t fpga_auto_rollback_succeed;
    sd_bus_message_handler_t fpga_auto_rollback_fail;
    sd_bus_message_handler_t fpga_version;
    sd_bus_message_handler_t fpga_sign_verify_pass;
    sd_bus_message_handler_t fpga_sign_verify_fail;
    /* the BIOS */
    sd_bus_message_handler_t bios_update_pending;
    sd_bus_message_handler_t bios_update_succeed;
    sd_bus_message_handler_t bios_update_aborted;
    sd_bus_message_handler_t bios_update_fail;
    sd_bus_message_handler_t bios_update_timeout;
    sd_bus_message_handler_t bios_manual_rollback_initiated;
    sd_bus_message_handler_t bios_rollback_succeed;
    sd_bus_message_handler_t bios_flash0_boot_init;
    sd_bus_message_handler_t bios_flash1_boot_init;
    sd_bus_message_handler_t bios_flash_swap_running;
    sd_bus_message_handler_t bios_flash_swap_finished;
    /* the NVRAM */
    sd_bus_message_handler_t nvram_update_pending;
    sd_bus_message_handler_t nvram_update_succeed;
    sd_bus_message_handler_t nvram_update_aborted;
    sd_bus_message_handler_t nvram_update_fail;
    sd_bus_message_handler_t nvram_update_timeout;
    sd_bus_message_handler_t nvram_activation_fail;
    /* the CPLD */
    sd_bus_message_handler_t bp_cpld_manual_rollback_initiated;
    sd_bus_message_handler_t bp_cpld_manual_rollback_succeed;
    sd_bus_message_handler_t bp_cpld_manual_rollback_fail;
    sd_bus_message_handler_t bp_cpld_update_succeed;
    sd_bus_message_handler_t bp_cpld_update_aborted;
    sd_bus_message_handler_t bp_cpld_update_fail;
    sd_bus_message_handler_t bp_cpld_update_timeout;
    sd_bus_message_handler_t bp_cpld_activation_fail;
    sd_bus_message_handler_t bp_cpld_auto_rollback_start;
    sd_bus_message_handler_t bp_cpld_auto_rollback_succeed;
    sd_bus_message_handler_t bp_cpld_auto_rollback_fail;
    sd_bus_message_handler_t bp_cpld_version;
    sd_bus_message_handler_t bp_cpld_sign_verify_pass;
    sd_bus_message_handler_t bp_cpld_sign_verify_fail;
} bdbus_upgrade_callback_table;

/** Select a flash. */
typedef struct bdbus_upgrade_flash_select {
    uint32_t flash; /**< request: the service's number, sent with all its bits */
    uint8_t result; /**< reply: the service's byte */
} bdbus_upgrade_flash_select;

/** Set a version. */
typedef struct bdbus_upgrade_version_update {
    uint8_t version[BDBUS_UPGRADE_VERSION_BYTES]; /**< request: sent as they are, all of them */
    uint8_t result;                               /**< reply: the service's byte */
} bdbus_upgrade_version_update;

/** Tell of the factory mode. */
typedef struct bdbus_upgrade_factory_mode {
    uint8_t mode;   /**< request: the service's value */
    uint8_t result; /**< reply: the service's byte */
} bdbus_upgrade_factory_mode;

/**
 * Register the callback table, replace it, or clear it with null.
 *
 * The library keeps the pointer only: the table must stay valid while it is registered, and a slot that is changed in
 * place takes effect at the next notice. Register while no other thread is inside bdbus_upgrade_signal_process(). Takes
 * no lock and opens no connection.
 *
 * @param table the table, or null.
 * @return 0.
 */
int32_t bdbus_upgrade_callbacks(const bdbus_upgrade_callback_table *table);

/**
 * Dispatch at most one queued message to the callback table. Call it repeatedly, from a main loop or a timer; call it
 * once early to be subscribed from then on.
 *
 * It does not wait for a message, but it does wait for the other calls of this file and of hpm1.h, each as long as its
 * answer takes, the block of an upload without limit. As the first call of the process it opens the connection, which
 * waits for the bus: up to 90 s for one that takes the connection and says nothing, and for an answer up to 25 s, or
 * what the environment's SYSTEMD_BUS_TIMEOUT says.
 *
 * Notices that nobody takes off here pile up. The other calls of this file and of hpm1.h read what has arrived along
 * with their answers and keep it in this process, about 1 kB for each notice; in a process that makes no such call they
 * stay with the bus. sd-bus keeps 393,216 at most: from then on these calls fail with -ENOBUFS, until enough were taken
 * off. Twenty calls ten times a second keep pace with the notices of an upgrade; one with nothing to dispatch costs
 * about a microsecond.
 *
 * @return 0, also once the bus has gone away, when no message comes any more; the negative code of a connection that
 * could not be opened, after a line on stderr; -ECHILD in a forked child.
 */
int32_t bdbus_upgrade_signal_process(void);

/**
 * Read a version into a buffer whose size is known.
 *
 * @param which    the version.
 * @param buf      receives at most `capacity` bytes; may be null when `capacity` is 0.
 * @param capacity the room in `buf`, in bytes.
 * @param length   receives the length of the whole version, which may exceed `capacity`; may be null.
 * @return 0 or more; a negative code, with `buf` and `length` untouched. -EINVAL for an unknown `which`.
 */
int32_t bdbus_upgrade_get_version(bdbus_upgrade_version which, uint8_t *buf, uint32_t capacity, uint32_t *length);

/**
 * @name Versions
 * The bytes of a version, first byte first; the library does not interpret them.
 * @param out room for BDBUS_UPGRADE_VERSION_MAX bytes; a longer version is cut to it, a shorter one leaves the rest as
 * it was.
 * @return positive when read; a negative code.
 * @{
 */
int32_t bdbus_upgrade_bmc_uboot_get_version(uint8_t *out);
int32_t bdbus_upgrade_bmc_fw_get_version(uint8_t *out);
int32_t bdbus_upgrade_bmc_conf_get_version(uint8_t *out);
int32_t bdbus_upgrade_fpga_get_version(uint8_t *out);
int32_t bdbus_upgrade_bios_get_version(uint8_t *out);
int32_t bdbus_upgrade_nvram_get_version(uint8_t *out);
int32_t bdbus_upgrade_cpld_get_version(uint8_t *out);
int32_t bdbus_upgrade_bmc_fw_get_backup_version(uint8_t *out);
int32_t bdbus_upgrade_fpga_get_backup_version(uint8_t *out);
int32_t bdbus_upgrade_bios_get_backup_version(uint8_t *out);
int32_t bdbus_upgrade_cpld_get_backup_version(uint8_t *out);
/** @} */

/**
 * @name Rollback flags
 * @param out receives 0 or 1.
 * @return 0 when read; a negative code.
 * @{
 */
int32_t bdbus_upgrade_bmc_uboot_get_rollback_flag(int32_t *out);
int32_t bdbus_upgrade_bmc_fw_get_rollback_flag(int32_t *out);
int32_t bdbus_upgrade_bmc_conf_get_rollback_flag(int32_t *out);
int32_t bdbus_upgrade_fpga_get_rollback_flag(int32_t *out);
int32_t bdbus_upgrade_bios_get_rollback_flag(int32_t *out);
int32_t bdbus_upgrade_nvram_get_rollback_flag(int32_t *out);
int32_t bdbus_upgrade_cpld_get_rollback_flag(int32_t *out);
/** @} */

/**
 * The number of components.
 *
 * @param out receives it.
 * @return 0 when read; a negative code.
 */
int32_t bdbus_upgrade_component_count(int32_t *out);

/**
 * The component that is being upgraded.
 *
 * @param out receives its number.
 * @return 0 when read; a negative code.
 */
int32_t bdbus_upgrade_component_id(uint8_t *out);

/**
 * Whether an upgrade is in progress.
 *
 * @param out receives the service's byte, 0 for none.
 * @return 0 when read; a negative code.
 */
int32_t bdbus_upgrade_in_progress(uint8_t *out);

/**
 * @name Flash selection
 * Which flash the BMC or the BIOS starts from; the numbers are the service's.
 * @param out receives the byte.
 * @return 0 when read; a negative code, with `out` untouched.
 * @{
 */
int32_t bdbus_upgrade_bmc_get_flash(uint8_t *out);
int32_t bdbus_upgrade_bios_get_flash(uint8_t *out);
/** @} */

/**
 * @name Selecting a flash
 * @param rec `flash` is sent, `result` is written when the service's answer was read.
 * @return positive when it was, whatever `result` says; a negative code, after -EINTR with the flash selected or not.
 * @{
 */
int32_t bdbus_upgrade_bmc_set_flash(bdbus_upgrade_flash_select *rec);
int32_t bdbus_upgrade_bios_set_flash(bdbus_upgrade_flash_select *rec);
/** @} */

/**
 * @name Setting a version
 * The answer is waited for without a limit, whatever the time-out of other calls: a service that never answers keeps
 * the caller, and all other calls of this file and of hpm1.h, waiting. One that is not there is told at once. A handler
 * of SIGALRM, say, ends the wait with -EINTR; the version may then be set or not.
 * @param rec `version` is sent, `result` is written when the service's answer was read.
 * @return positive when it was, whatever `result` says; a negative code.
 * @{
 */
int32_t bdbus_upgrade_bios_set_version(bdbus_upgrade_version_update *rec);
int32_t bdbus_upgrade_nvram_set_version(bdbus_upgrade_version_update *rec);
/** @} */

/**
 * Tell the service of the BMC's factory mode.
 *
 * @param rec `mode` is sent, `result` is written when the service's answer was read.
 * @return positive when it was, whatever `result` says; a negative code.
 */
int32_t bdbus_upgrade_factory_mode_setting(bdbus_upgrade_factory_mode *rec);

/**
 * Announce that the BMC's sensors are ready: the signal `BmcSensorsReady`, without arguments, on the service's object.
 *
 * A signal has no answer: success says that it was handed to the connection, not that somebody took it.
 *
 * @return positive when it was; a negative code.
 */
int32_t bdbus_upgrade_bmc_sensors_ready(void);

/**
 * @name Change handles
 * Announce that a change of the FPGA, the BIOS or the NVRAM is handled: the signals `FpgaChangeHandle`,
 * `BiosChangeHandle` and `NvramChangeHandle`, without arguments, on the service's object.
 *
 * They take no lock and use the connection as it is, so that a handler of the callback table may call them. Called from
 * anywhere else, the caller sees to it that no other thread is inside a function of this file or of hpm1.h. They do not
 * open the connection: before the first call that does, such as bdbus_upgrade_signal_process(), they fail.
 *
 * @return positive when the signal was handed to the connection; -ENOTCONN, after a line on stderr, while none was ever
 * opened; a negative code, without a line, when it could not be sent.
 * @{
 */
int32_t bdbus_upgrade_fpga_change_handle(void);
int32_t bdbus_upgrade_bios_change_handle(void);
int32_t bdbus_upgrade_nvram_change_handle(void);
/** @} */

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
