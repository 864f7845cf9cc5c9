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
 * other for ever. A thread that is canceled (pthread_cancel) inside a call ends only after it. In a child that was
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
    BDBUS_UPGRADE_VERSION_BMC_UBOOT,     /**< of the BMC's boot loader U-Boot */
    BDBUS_UPGRADE_VERSION_BMC_FW,        /**< of the BMC's firmware */
    BDBUS_UPGRADE_VERSION_BMC_CONF,      /**< of the BMC's configuration */
    BDBUS_UPGRADE_VERSION_FPGA,          /**< of the FPGA */
    BDBUS_UPGRADE_VERSION_BIOS,          /**< of the BIOS */
    BDBUS_UPGRADE_VERSION_NVRAM,         /**< of the NVRAM */
    BDBUS_UPGRADE_VERSION_CPLD,          /**< of the CPLD */
    BDBUS_UPGRADE_VERSION_BMC_FW_BACKUP, /**< of the backup copy of the BMC's firmware */
    BDBUS_UPGRADE_VERSION_FPGA_BACKUP,   /**< of the backup copy of the FPGA */
    BDBUS_UPGRADE_VERSION_BIOS_BACKUP,   /**< of the backup copy of the BIOS */
    BDBUS_UPGRADE_VERSION_CPLD_BACKUP    /**< of the backup copy of the CPLD */
} bdbus_upgrade_version;

/**
 * The handlers of the 80 notices, each slot named for its signal; a null slot drops it. What a signal carries is the
 * service's.
 *
 * A handler runs inside bdbus_upgrade_signal_process(), on its caller's thread. It gets the signal message, a null
 * user-data pointer and sd-bus's error pointer; its result is ignored. The message is valid during the call, unless the
 * handler takes a reference of its own. Who sent it is not checked: a notice of any program that the bus lets send it
 * gets here.
 */
typedef struct bdbus_upgrade_callback_table {
    /** Signal UbootChange: a change of the boot loader U-Boot. */
    sd_bus_message_handler_t uboot_change;
    /** Signal UbootUpdateSucceed: an update of the boot loader U-Boot succeeded. */
    sd_bus_message_handler_t uboot_update_succeed;
    /** Signal UbootUpdateAborted: an update of the boot loader U-Boot was aborted. */
    sd_bus_message_handler_t uboot_update_aborted;
    /** Signal UbootUpdateFail: an update of the boot loader U-Boot failed. */
    sd_bus_message_handler_t uboot_update_fail;
    /** Signal UbootUpdateTimeout: an update of the boot loader U-Boot took too long. */
    sd_bus_message_handler_t uboot_update_timeout;
    /** Signal UbootActivationFail: the boot loader U-Boot could not be activated. */
    sd_bus_message_handler_t uboot_activation_fail;
    /** Signal UbootVersion: about the version of the boot loader U-Boot. */
    sd_bus_message_handler_t uboot_version;
    /** Signal UbootSignFail: the signature of the boot loader U-Boot failed its check. */
    sd_bus_message_handler_t uboot_sign_fail;
    /** Signal UbootEnvDefaults: about the default environment of the boot loader U-Boot. */
    sd_bus_message_handler_t uboot_env_defaults;
    /** Signal UbootFlash0Fail: flash 0 of the boot loader U-Boot failed. */
    sd_bus_message_handler_t uboot_flash0_fail;
    /** Signal UbootFlash1Fail: flash 1 of the boot loader U-Boot failed. */
    sd_bus_message_handler_t uboot_flash1_fail;
    /** Signal BmcReset: a reset of the BMC. */
    sd_bus_message_handler_t bmc_reset;
    /** Signal BmcChange: a change of the BMC firmware. */
    sd_bus_message_handler_t bmc_change;
    /** Signal BmcAutoRollback: an automatic rollback of the BMC firmware. */
    sd_bus_message_handler_t bmc_auto_rollback;
    /** Signal BmcManualRollbackInitiated: a manual rollback of the BMC firmware was initiated. */
    sd_bus_message_handler_t bmc_manual_rollback_initiated;
    /** Signal BmcManualRollbackSucceed: a manual rollback of the BMC firmware succeeded. */
    sd_bus_message_handler_t bmc_manual_rollback_succeed;
    /** Signal BmcManualRollbackFail: a manual rollback of the BMC firmware failed. */
    sd_bus_message_handler_t bmc_manual_rollback_fail;
    /** Signal BmcUpdateSucceed: an update of the BMC firmware succeeded. */
    sd_bus_message_handler_t bmc_update_succeed;
    /** Signal BmcUpdateAborted: an update of the BMC firmware was aborted. */
    sd_bus_message_handler_t bmc_update_aborted;
    /** Signal BmcUpdateFail: an update of the BMC firmware failed. */
    sd_bus_message_handler_t bmc_update_fail;
    /** Signal BmcUpdateTimeout: an update of the BMC firmware took too long. */
    sd_bus_message_handler_t bmc_update_timeout;
    /** Signal BmcActivationFail: the BMC firmware could not be activated. */
    sd_bus_message_handler_t bmc_activation_fail;
    /** Signal BmcVersion: about the version of the BMC firmware. */
    sd_bus_message_handler_t bmc_version;
    /** Signal BmcSignVerifyPass: the signature of the BMC firmware passed its check. */
    sd_bus_message_handler_t bmc_sign_verify_pass;
    /** Signal BmcSignVerifyFail: the signature of the BMC firmware failed its check. */
    sd_bus_message_handler_t bmc_sign_verify_fail;
    /** Signal FwconfUpdateSucceed: an update of the BMC configuration succeeded. */
    sd_bus_message_handler_t fwconf_update_succeed;
    /** Signal FwconfUpdateAborted: an update of the BMC configuration was aborted. */
    sd_bus_message_handler_t fwconf_update_aborted;
    /** Signal FwconfUpdateFail: an update of the BMC configuration failed. */
    sd_bus_message_handler_t fwconf_update_fail;
    /** Signal FwconfUpdateTimeout: an update of the BMC configuration took too long. */
    sd_bus_message_handler_t fwconf_update_timeout;
    /** Signal FwconfActivationFail: the BMC configuration could not be activated. */
    sd_bus_message_handler_t fwconf_activation_fail;
    /** Signal FwconfVersion: about the version of the BMC configuration. */
    sd_bus_message_handler_t fwconf_version;
    /** Signal FpgaChange: a change of the FPGA. */
    sd_bus_message_handler_t fpga_change;
    /** Signal FpgaManualRollbackInitiated: a manual rollback of the FPGA was initiated. */
    sd_bus_message_handler_t fpga_manual_rollback_initiated;
    /** Signal FpgaManualRollbackSucceed: a manual rollback of the FPGA succeeded. */
    sd_bus_message_handler_t fpga_manual_rollback_succeed;
    /** Signal FpgaManualRollbackFail: a manual rollback of the FPGA failed. */
    sd_bus_message_handler_t fpga_manual_rollback_fail;
    /** Signal FpgaUpdatePending: an update of the FPGA is pending. */
    sd_bus_message_handler_t fpga_update_pending;
    /** Signal FpgaUpdateStart: an update of the FPGA has begun. */
    sd_bus_message_handler_t fpga_update_start;
    /** Signal FpgaUpdateEnd: an update of the FPGA has ended. */
    sd_bus_message_handler_t fpga_update_end;
    /** Signal FpgaUpdateSucceed: an update of the FPGA succeeded. */
    sd_bus_message_handler_t fpga_update_succeed;
    /** Signal FpgaUpdateAborted: an update of the FPGA was aborted. */
    sd_bus_message_handler_t fpga_update_aborted;
    /** Signal FpgaUpdateFail: an update of the FPGA failed. */
    sd_bus_message_handler_t fpga_update_fail;
    /** Signal FpgaUpdateTimeout: an update of the FPGA took too long. */
    sd_bus_message_handler_t fpga_update_timeout;
    /** Signal FpgaActivationFail: the FPGA could not be activated. */
    sd_bus_message_handler_t fpga_activation_fail;
    /** Signal FpgaAutoRollbackStart: an automatic rollback of the FPGA has begun. */
    sd_bus_message_handler_t fpga_auto_rollback_start;
    /** Signal FpgaAutoRollbackSucceed: an automatic rollback of the FPGA succeeded. */
    sd_bus_message_handler_t fpga_auto_rollback_succeed;
    /** Signal FpgaAutoRollbackFail: an automatic rollback of the FPGA failed. */
    sd_bus_message_handler_t fpga_auto_rollback_fail;
    /** Signal FpgaVersion: about the version of the FPGA. */
    sd_bus_message_handler_t fpga_version;
    /** Signal FpgaSignVerifyPass: the signature of the FPGA passed its check. */
    sd_bus_message_handler_t fpga_sign_verify_pass;
    /** Signal FpgaSignVerifyFail: the signature of the FPGA failed its check. */
    sd_bus_message_handler_t fpga_sign_verify_fail;
    /** Signal BiosUpdatePending: an update of the BIOS is pending. */
    sd_bus_message_handler_t bios_update_pending;
    /** Signal BiosUpdateSucceed: an update of the BIOS succeeded. */
    sd_bus_message_handler_t bios_update_succeed;
    /** Signal BiosUpdateAborted: an update of the BIOS was aborted. */
    sd_bus_message_handler_t bios_update_aborted;
    /** Signal BiosUpdateFail: an update of the BIOS failed. */
    sd_bus_message_handler_t bios_update_fail;
    /** Signal BiosUpdateTimeout: an update of the BIOS took too long. */
    sd_bus_message_handler_t bios_update_timeout;
    /** Signal BiosManualRollbackInitiated: a manual rollback of the BIOS was initiated. */
    sd_bus_message_handler_t bios_manual_rollback_initiated;
    /** Signal BiosRollbackSucceed: a rollback of the BIOS succeeded. */
    sd_bus_message_handler_t bios_rollback_succeed;
    /** Signal BiosFlash0BootInit: the BIOS begins to boot from flash 0. */
    sd_bus_message_handler_t bios_flash0_boot_init;
    /** Signal BiosFlash1BootInit: the BIOS begins to boot from flash 1. */
    sd_bus_message_handler_t bios_flash1_boot_init;
    /** Signal BiosFlashSwapRunning: the flashes of the BIOS are being swapped. */
    sd_bus_message_handler_t bios_flash_swap_running;
    /** Signal BiosFlashSwapFinished: the flashes of the BIOS were swapped. */
    sd_bus_message_handler_t bios_flash_swap_finished;
    /** Signal NvramUpdatePending: an update of the NVRAM is pending. */
    sd_bus_message_handler_t nvram_update_pending;
    /** Signal NvramUpdateSucceed: an update of the NVRAM succeeded. */
    sd_bus_message_handler_t nvram_update_succeed;
    /** Signal NvramUpdateAborted: an update of the NVRAM was aborted. */
    sd_bus_message_handler_t nvram_update_aborted;
    /** Signal NvramUpdateFail: an update of the NVRAM failed. */
    sd_bus_message_handler_t nvram_update_fail;
    /** Signal NvramUpdateTimeout: an update of the NVRAM took too long. */
    sd_bus_message_handler_t nvram_update_timeout;
    /** Signal NvramActivationFail: the NVRAM could not be activated. */
    sd_bus_message_handler_t nvram_activation_fail;
    /** Signal BpCpldManualRollbackInitiated: a manual rollback of the CPLD was initiated. */
    sd_bus_message_handler_t bp_cpld_manual_rollback_initiated;
    /** Signal BpCpldManualRollbackSucceed: a manual rollback of the CPLD succeeded. */
    sd_bus_message_handler_t bp_cpld_manual_rollback_succeed;
    /** Signal BpCpldManualRollbackFail: a manual rollback of the CPLD failed. */
    sd_bus_message_handler_t bp_cpld_manual_rollback_fail;
    /** Signal BpCpldUpdateSucceed: an update of the CPLD succeeded. */
    sd_bus_message_handler_t bp_cpld_update_succeed;
    /** Signal BpCpldUpdateAborted: an update of the CPLD was aborted. */
    sd_bus_message_handler_t bp_cpld_update_aborted;
    /** Signal BpCpldUpdateFail: an update of the CPLD failed. */
    sd_bus_message_handler_t bp_cpld_update_fail;
    /** Signal BpCpldUpdateTimeout: an update of the CPLD took too long. */
    sd_bus_message_handler_t bp_cpld_update_timeout;
    /** Signal BpCpldActivationFail: the CPLD could not be activated. */
    sd_bus_message_handler_t bp_cpld_activation_fail;
    /** Signal BpCpldAutoRollbackStart: an automatic rollback of the CPLD has begun. */
    sd_bus_message_handler_t bp_cpld_auto_rollback_start;
    /** Signal BpCpldAutoRollbackSucceed: an automatic rollback of the CPLD succeeded. */
    sd_bus_message_handler_t bp_cpld_auto_rollback_succeed;
    /** Signal BpCpldAutoRollbackFail: an automatic rollback of the CPLD failed. */
    sd_bus_message_handler_t bp_cpld_auto_rollback_fail;
    /** Signal BpCpldVersion: about the version of the CPLD. */
    sd_bus_message_handler_t bp_cpld_version;
    /** Signal BpCpldSignVerifyPass: the signature of the CPLD passed its check. */
    sd_bus_message_handler_t bp_cpld_sign_verify_pass;
    /** Signal BpCpldSignVerifyFail: the signature of the CPLD failed its check. */
    sd_bus_message_handler_t bp_cpld_sign_verify_fail;
} bdbus_upgrade_callback_table;

/** A flash to select, for bdbus_upgrade_bmc_set_flash() and bdbus_upgrade_bios_set_flash(). */
typedef struct bdbus_upgrade_flash_select {
    uint32_t flash; /**< request: the service's number, sent with all its bits */
    uint8_t result; /**< reply: the service's result byte */
} bdbus_upgrade_flash_select;

/** A version to set, for bdbus_upgrade_bios_set_version() and bdbus_upgrade_nvram_set_version(). */
typedef struct bdbus_upgrade_version_update {
    uint8_t version[BDBUS_UPGRADE_VERSION_BYTES]; /**< request: sent as they are, all of them */
    uint8_t result;                               /**< reply: the service's result byte */
} bdbus_upgrade_version_update;

/** The factory mode to report, for bdbus_upgrade_factory_mode_setting(). */
typedef struct bdbus_upgrade_factory_mode {
    uint8_t mode;   /**< request: the service's value */
    uint8_t result; /**< reply: the service's result byte */
} bdbus_upgrade_factory_mode;

/**
 * Register the callback table, replace it, or clear it with null.
 *
 * The library keeps the pointer only: the table must stay valid while it is registered, and a slot that is changed in
 * place takes effect at the next notice. Register while no other thread is inside bdbus_upgrade_signal_process(). Takes
 * no lock and opens no connection; a handler of the table may call it, too.
 *
 * @param table the table, or null.
 * @return 0; it does not fail.
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
 * about a microsecond. Any thread may call; not from a handler of the callback table.
 *
 * @return 0, also once the bus has gone away, when no message comes any more; the negative code of a connection that
 * could not be opened, after a line on stderr; -ECHILD in a forked child.
 */
int32_t bdbus_upgrade_signal_process(void);

/**
 * Read a version into a buffer whose size is known. The library does not interpret its bytes, first byte first.
 *
 * Waits for other calls of this file and of hpm1.h, then up to 25 s for the answer, or what the environment's
 * SYSTEMD_BUS_TIMEOUT says. The call that opens the connection may wait 90 s more for a bus that hangs. Any thread may
 * call; not from a handler of the callback table.
 *
 * @param which    the version, BDBUS_UPGRADE_VERSION_….
 * @param buf      receives at most `capacity` bytes; a shorter version leaves the rest as it was. May be null when
 * `capacity` is 0. Untouched after a failure.
 * @param capacity the room in `buf`, in bytes.
 * @param length   receives the length of the whole version in bytes, which may exceed `capacity`. May be null.
 * Untouched after a failure.
 * @return 0 or more when it was read; else a negative errno, after one line on stderr: -ETIMEDOUT without an answer in
 * time, -EINTR ended by a signal handler, -ECONNRESET or -ENOTCONN once the bus has gone away, -ENOBUFS with too many
 * notices queued, -ECHILD in a forked child, and others. -EINVAL for an unknown `which` and for a null `buf` with
 * room, with nothing sent.
 */
int32_t bdbus_upgrade_get_version(bdbus_upgrade_version which, uint8_t *buf, uint32_t capacity, uint32_t *length);

/**
 * Read the version of the BMC's boot loader U-Boot (D-Bus property "BmcUbootVersion"), as bytes that the library does
 * not interpret.
 *
 * Waits for other calls of this file and of hpm1.h, then up to 25 s for the answer, or what the environment's
 * SYSTEMD_BUS_TIMEOUT says. The call that opens the connection may wait 90 s more for a bus that hangs. Any thread may
 * call; not from a handler of the callback table.
 *
 * @param out room for BDBUS_UPGRADE_VERSION_MAX (64) bytes; a longer version is cut to it, a shorter one leaves the
 * rest as it was. Not null. Untouched after a failure.
 * @return positive when it was read; else a negative errno, after one line on stderr: -ETIMEDOUT without an answer in
 * time, -EINTR ended by a signal handler, -ECONNRESET or -ENOTCONN once the bus has gone away, -ENOBUFS with too many
 * notices queued, -ECHILD in a forked child, and others. -EINVAL for a null `out`, with nothing sent.
 */
int32_t bdbus_upgrade_bmc_uboot_get_version(uint8_t *out);

/**
 * Read the version of the BMC's firmware (D-Bus property "BmcFwVersion"), as bytes that the library does not
 * interpret.
 *
 * Waits for other calls of this file and of hpm1.h, then up to 25 s for the answer, or what the environment's
 * SYSTEMD_BUS_TIMEOUT says. The call that opens the connection may wait 90 s more for a bus that hangs. Any thread may
 * call; not from a handler of the callback table.
 *
 * @param out room for BDBUS_UPGRADE_VERSION_MAX (64) bytes; a longer version is cut to it, a shorter one leaves the
 * rest as it was. Not null. Untouched after a failure.
 * @return positive when it was read; else a negative errno, after one line on stderr: -ETIMEDOUT without an answer in
 * time, -EINTR ended by a signal handler, -ECONNRESET or -ENOTCONN once the bus has gone away, -ENOBUFS with too many
 * notices queued, -ECHILD in a forked child, and others. -EINVAL for a null `out`, with nothing sent.
 */
int32_t bdbus_upgrade_bmc_fw_get_version(uint8_t *out);

/**
 * Read the version of the BMC's configuration (D-Bus property "BmcConfVersion"), as bytes that the library does not
 * interpret.
 *
 * Waits for other calls of this file and of hpm1.h, then up to 25 s for the answer, or what the environment's
 * SYSTEMD_BUS_TIMEOUT says. The call that opens the connection may wait 90 s more for a bus that hangs. Any thread may
 * call; not from a handler of the callback table.
 *
 * @param out room for BDBUS_UPGRADE_VERSION_MAX (64) bytes; a longer version is cut to it, a shorter one leaves the
 * rest as it was. Not null. Untouched after a failure.
 * @return positive when it was read; else a negative errno, after one line on stderr: -ETIMEDOUT without an answer in
 * time, -EINTR ended by a signal handler, -ECONNRESET or -ENOTCONN once the bus has gone away, -ENOBUFS with too many
 * notices queued, -ECHILD in a forked child, and others. -EINVAL for a null `out`, with nothing sent.
 */
int32_t bdbus_upgrade_bmc_conf_get_version(uint8_t *out);

/**
 * Read the version of the FPGA (D-Bus property "FpgaVersion"), as bytes that the library does not interpret.
 *
 * Waits for other calls of this file and of hpm1.h, then up to 25 s for the answer, or what the environment's
 * SYSTEMD_BUS_TIMEOUT says. The call that opens the connection may wait 90 s more for a bus that hangs. Any thread may
 * call; not from a handler of the callback table.
 *
 * @param out room for BDBUS_UPGRADE_VERSION_MAX (64) bytes; a longer version is cut to it, a shorter one leaves the
 * rest as it was. Not null. Untouched after a failure.
 * @return positive when it was read; else a negative errno, after one line on stderr: -ETIMEDOUT without an answer in
 * time, -EINTR ended by a signal handler, -ECONNRESET or -ENOTCONN once the bus has gone away, -ENOBUFS with too many
 * notices queued, -ECHILD in a forked child, and others. -EINVAL for a null `out`, with nothing sent.
 */
int32_t bdbus_upgrade_fpga_get_version(uint8_t *out);

/**
 * Read the version of the BIOS (D-Bus property "BiosVersion"), as bytes that the library does not interpret.
 *
 * Waits for other calls of this file and of hpm1.h, then up to 25 s for the answer, or what the environment's
 * SYSTEMD_BUS_TIMEOUT says. The call that opens the connection may wait 90 s more for a bus that hangs. Any thread may
 * call; not from a handler of the callback table.
 *
 * @param out room for BDBUS_UPGRADE_VERSION_MAX (64) bytes; a longer version is cut to it, a shorter one leaves the
 * rest as it was. Not null. Untouched after a failure.
 * @return positive when it was read; else a negative errno, after one line on stderr: -ETIMEDOUT without an answer in
 * time, -EINTR ended by a signal handler, -ECONNRESET or -ENOTCONN once the bus has gone away, -ENOBUFS with too many
 * notices queued, -ECHILD in a forked child, and others. -EINVAL for a null `out`, with nothing sent.
 */
int32_t bdbus_upgrade_bios_get_version(uint8_t *out);

/**
 * Read the version of the NVRAM (D-Bus property "NvramVersion"), as bytes that the library does not interpret.
 *
 * Waits for other calls of this file and of hpm1.h, then up to 25 s for the answer, or what the environment's
 * SYSTEMD_BUS_TIMEOUT says. The call that opens the connection may wait 90 s more for a bus that hangs. Any thread may
 * call; not from a handler of the callback table.
 *
 * @param out room for BDBUS_UPGRADE_VERSION_MAX (64) bytes; a longer version is cut to it, a shorter one leaves the
 * rest as it was. Not null. Untouched after a failure.
 * @return positive when it was read; else a negative errno, after one line on stderr: -ETIMEDOUT without an answer in
 * time, -EINTR ended by a signal handler, -ECONNRESET or -ENOTCONN once the bus has gone away, -ENOBUFS with too many
 * notices queued, -ECHILD in a forked child, and others. -EINVAL for a null `out`, with nothing sent.
 */
int32_t bdbus_upgrade_nvram_get_version(uint8_t *out);

/**
 * Read the version of the CPLD (D-Bus property "CpldVersion"), as bytes that the library does not interpret.
 *
 * Waits for other calls of this file and of hpm1.h, then up to 25 s for the answer, or what the environment's
 * SYSTEMD_BUS_TIMEOUT says. The call that opens the connection may wait 90 s more for a bus that hangs. Any thread may
 * call; not from a handler of the callback table.
 *
 * @param out room for BDBUS_UPGRADE_VERSION_MAX (64) bytes; a longer version is cut to it, a shorter one leaves the
 * rest as it was. Not null. Untouched after a failure.
 * @return positive when it was read; else a negative errno, after one line on stderr: -ETIMEDOUT without an answer in
 * time, -EINTR ended by a signal handler, -ECONNRESET or -ENOTCONN once the bus has gone away, -ENOBUFS with too many
 * notices queued, -ECHILD in a forked child, and others. -EINVAL for a null `out`, with nothing sent.
 */
int32_t bdbus_upgrade_cpld_get_version(uint8_t *out);

/**
 * Read the version of the backup copy of the BMC's firmware (D-Bus property "BmcFwBackupVersion"), as bytes that the
 * library does not interpret.
 *
 * Waits for other calls of this file and of hpm1.h, then up to 25 s for the answer, or what the environment's
 * SYSTEMD_BUS_TIMEOUT says. The call that opens the connection may wait 90 s more for a bus that hangs. Any thread may
 * call; not from a handler of the callback table.
 *
 * @param out room for BDBUS_UPGRADE_VERSION_MAX (64) bytes; a longer version is cut to it, a shorter one leaves the
 * rest as it was. Not null. Untouched after a failure.
 * @return positive when it was read; else a negative errno, after one line on stderr: -ETIMEDOUT without an answer in
 * time, -EINTR ended by a signal handler, -ECONNRESET or -ENOTCONN once the bus has gone away, -ENOBUFS with too many
 * notices queued, -ECHILD in a forked child, and others. -EINVAL for a null `out`, with nothing sent.
 */
int32_t bdbus_upgrade_bmc_fw_get_backup_version(uint8_t *out);

/**
 * Read the version of the backup copy of the FPGA (D-Bus property "FpgaBackupVersion"), as bytes that the library does
 * not interpret.
 *
 * Waits for other calls of this file and of hpm1.h, then up to 25 s for the answer, or what the environment's
 * SYSTEMD_BUS_TIMEOUT says. The call that opens the connection may wait 90 s more for a bus that hangs. Any thread may
 * call; not from a handler of the callback table.
 *
 * @param out room for BDBUS_UPGRADE_VERSION_MAX (64) bytes; a longer version is cut to it, a shorter one leaves the
 * rest as it was. Not null. Untouched after a failure.
 * @return positive when it was read; else a negative errno, after one line on stderr: -ETIMEDOUT without an answer in
 * time, -EINTR ended by a signal handler, -ECONNRESET or -ENOTCONN once the bus has gone away, -ENOBUFS with too many
 * notices queued, -ECHILD in a forked child, and others. -EINVAL for a null `out`, with nothing sent.
 */
int32_t bdbus_upgrade_fpga_get_backup_version(uint8_t *out);

/**
 * Read the version of the backup copy of the BIOS (D-Bus property "BiosBackupVersion"), as bytes that the library does
 * not interpret.
 *
 * Waits for other calls of this file and of hpm1.h, then up to 25 s for the answer, or what the environment's
 * SYSTEMD_BUS_TIMEOUT says. The call that opens the connection may wait 90 s more for a bus that hangs. Any thread may
 * call; not from a handler of the callback table.
 *
 * @param out room for BDBUS_UPGRADE_VERSION_MAX (64) bytes; a longer version is cut to it, a shorter one leaves the
 * rest as it was. Not null. Untouched after a failure.
 * @return positive when it was read; else a negative errno, after one line on stderr: -ETIMEDOUT without an answer in
 * time, -EINTR ended by a signal handler, -ECONNRESET or -ENOTCONN once the bus has gone away, -ENOBUFS with too many
 * notices queued, -ECHILD in a forked child, and others. -EINVAL for a null `out`, with nothing sent.
 */
int32_t bdbus_upgrade_bios_get_backup_version(uint8_t *out);

/**
 * Read the version of the backup copy of the CPLD (D-Bus property "CpldBackupVersion"), as bytes that the library does
 * not interpret.
 *
 * Waits for other calls of this file and of hpm1.h, then up to 25 s for the answer, or what the environment's
 * SYSTEMD_BUS_TIMEOUT says. The call that opens the connection may wait 90 s more for a bus that hangs. Any thread may
 * call; not from a handler of the callback table.
 *
 * @param out room for BDBUS_UPGRADE_VERSION_MAX (64) bytes; a longer version is cut to it, a shorter one leaves the
 * rest as it was. Not null. Untouched after a failure.
 * @return positive when it was read; else a negative errno, after one line on stderr: -ETIMEDOUT without an answer in
 * time, -EINTR ended by a signal handler, -ECONNRESET or -ENOTCONN once the bus has gone away, -ENOBUFS with too many
 * notices queued, -ECHILD in a forked child, and others. -EINVAL for a null `out`, with nothing sent.
 */
int32_t bdbus_upgrade_cpld_get_backup_version(uint8_t *out);

/**
 * Read the rollback flag of the BMC's boot loader U-Boot (D-Bus property "BmcUbootRollbackFlag").
 *
 * Waits for other calls of this file and of hpm1.h, then up to 25 s for the answer, or what the environment's
 * SYSTEMD_BUS_TIMEOUT says. The call that opens the connection may wait 90 s more for a bus that hangs. Any thread may
 * call; not from a handler of the callback table.
 *
 * @param out receives 0 or 1. Not null. Untouched after a failure.
 * @return 0 when it was read; else a negative errno, after one line on stderr: -ETIMEDOUT without an answer in time,
 * -EINTR ended by a signal handler, -ECONNRESET or -ENOTCONN once the bus has gone away, -ENOBUFS with too many
 * notices queued, -ECHILD in a forked child, and others. -EINVAL for a null `out`, with nothing sent.
 */
int32_t bdbus_upgrade_bmc_uboot_get_rollback_flag(int32_t *out);

/**
 * Read the rollback flag of the BMC's firmware (D-Bus property "BmcFwRollbackFlag").
 *
 * Waits for other calls of this file and of hpm1.h, then up to 25 s for the answer, or what the environment's
 * SYSTEMD_BUS_TIMEOUT says. The call that opens the connection may wait 90 s more for a bus that hangs. Any thread may
 * call; not from a handler of the callback table.
 *
 * @param out receives 0 or 1. Not null. Untouched after a failure.
 * @return 0 when it was read; else a negative errno, after one line on stderr: -ETIMEDOUT without an answer in time,
 * -EINTR ended by a signal handler, -ECONNRESET or -ENOTCONN once the bus has gone away, -ENOBUFS with too many
 * notices queued, -ECHILD in a forked child, and others. -EINVAL for a null `out`, with nothing sent.
 */
int32_t bdbus_upgrade_bmc_fw_get_rollback_flag(int32_t *out);

/**
 * Read the rollback flag of the BMC's configuration (D-Bus property "BmcConfRollbackFlag").
 *
 * Waits for other calls of this file and of hpm1.h, then up to 25 s for the answer, or what the environment's
 * SYSTEMD_BUS_TIMEOUT says. The call that opens the connection may wait 90 s more for a bus that hangs. Any thread may
 * call; not from a handler of the callback table.
 *
 * @param out receives 0 or 1. Not null. Untouched after a failure.
 * @return 0 when it was read; else a negative errno, after one line on stderr: -ETIMEDOUT without an answer in time,
 * -EINTR ended by a signal handler, -ECONNRESET or -ENOTCONN once the bus has gone away, -ENOBUFS with too many
 * notices queued, -ECHILD in a forked child, and others. -EINVAL for a null `out`, with nothing sent.
 */
int32_t bdbus_upgrade_bmc_conf_get_rollback_flag(int32_t *out);

/**
 * Read the rollback flag of the FPGA (D-Bus property "FpgaRollbackFlag").
 *
 * Waits for other calls of this file and of hpm1.h, then up to 25 s for the answer, or what the environment's
 * SYSTEMD_BUS_TIMEOUT says. The call that opens the connection may wait 90 s more for a bus that hangs. Any thread may
 * call; not from a handler of the callback table.
 *
 * @param out receives 0 or 1. Not null. Untouched after a failure.
 * @return 0 when it was read; else a negative errno, after one line on stderr: -ETIMEDOUT without an answer in time,
 * -EINTR ended by a signal handler, -ECONNRESET or -ENOTCONN once the bus has gone away, -ENOBUFS with too many
 * notices queued, -ECHILD in a forked child, and others. -EINVAL for a null `out`, with nothing sent.
 */
int32_t bdbus_upgrade_fpga_get_rollback_flag(int32_t *out);

/**
 * Read the rollback flag of the BIOS (D-Bus property "BiosRollbackFlag").
 *
 * Waits for other calls of this file and of hpm1.h, then up to 25 s for the answer, or what the environment's
 * SYSTEMD_BUS_TIMEOUT says. The call that opens the connection may wait 90 s more for a bus that hangs. Any thread may
 * call; not from a handler of the callback table.
 *
 * @param out receives 0 or 1. Not null. Untouched after a failure.
 * @return 0 when it was read; else a negative errno, after one line on stderr: -ETIMEDOUT without an answer in time,
 * -EINTR ended by a signal handler, -ECONNRESET or -ENOTCONN once the bus has gone away, -ENOBUFS with too many
 * notices queued, -ECHILD in a forked child, and others. -EINVAL for a null `out`, with nothing sent.
 */
int32_t bdbus_upgrade_bios_get_rollback_flag(int32_t *out);

/**
 * Read the rollback flag of the NVRAM (D-Bus property "NvramRollbackFlag").
 *
 * Waits for other calls of this file and of hpm1.h, then up to 25 s for the answer, or what the environment's
 * SYSTEMD_BUS_TIMEOUT says. The call that opens the connection may wait 90 s more for a bus that hangs. Any thread may
 * call; not from a handler of the callback table.
 *
 * @param out receives 0 or 1. Not null. Untouched after a failure.
 * @return 0 when it was read; else a negative errno, after one line on stderr: -ETIMEDOUT without an answer in time,
 * -EINTR ended by a signal handler, -ECONNRESET or -ENOTCONN once the bus has gone away, -ENOBUFS with too many
 * notices queued, -ECHILD in a forked child, and others. -EINVAL for a null `out`, with nothing sent.
 */
int32_t bdbus_upgrade_nvram_get_rollback_flag(int32_t *out);

/**
 * Read the rollback flag of the CPLD (D-Bus property "CpldRollbackFlag").
 *
 * Waits for other calls of this file and of hpm1.h, then up to 25 s for the answer, or what the environment's
 * SYSTEMD_BUS_TIMEOUT says. The call that opens the connection may wait 90 s more for a bus that hangs. Any thread may
 * call; not from a handler of the callback table.
 *
 * @param out receives 0 or 1. Not null. Untouched after a failure.
 * @return 0 when it was read; else a negative errno, after one line on stderr: -ETIMEDOUT without an answer in time,
 * -EINTR ended by a signal handler, -ECONNRESET or -ENOTCONN once the bus has gone away, -ENOBUFS with too many
 * notices queued, -ECHILD in a forked child, and others. -EINVAL for a null `out`, with nothing sent.
 */
int32_t bdbus_upgrade_cpld_get_rollback_flag(int32_t *out);

/**
 * Read the number of components (D-Bus property "ComponentCount").
 *
 * Waits for other calls of this file and of hpm1.h, then up to 25 s for the answer, or what the environment's
 * SYSTEMD_BUS_TIMEOUT says. The call that opens the connection may wait 90 s more for a bus that hangs. Any thread may
 * call; not from a handler of the callback table.
 *
 * @param out receives the number. Not null. Untouched after a failure.
 * @return 0 when it was read; else a negative errno, after one line on stderr: -ETIMEDOUT without an answer in time,
 * -EINTR ended by a signal handler, -ECONNRESET or -ENOTCONN once the bus has gone away, -ENOBUFS with too many
 * notices queued, -ECHILD in a forked child, and others. -EINVAL for a null `out`, with nothing sent.
 */
int32_t bdbus_upgrade_component_count(int32_t *out);

/**
 * Read which component is being upgraded (D-Bus property "UpgradeComponentId").
 *
 * Waits for other calls of this file and of hpm1.h, then up to 25 s for the answer, or what the environment's
 * SYSTEMD_BUS_TIMEOUT says. The call that opens the connection may wait 90 s more for a bus that hangs. Any thread may
 * call; not from a handler of the callback table.
 *
 * @param out receives its number, the service's. Not null. Untouched after a failure.
 * @return 0 when it was read; else a negative errno, after one line on stderr: -ETIMEDOUT without an answer in time,
 * -EINTR ended by a signal handler, -ECONNRESET or -ENOTCONN once the bus has gone away, -ENOBUFS with too many
 * notices queued, -ECHILD in a forked child, and others. -EINVAL for a null `out`, with nothing sent.
 */
int32_t bdbus_upgrade_component_id(uint8_t *out);

/**
 * Read whether an upgrade is in progress (D-Bus property "UpgradeInProgress").
 *
 * Waits for other calls of this file and of hpm1.h, then up to 25 s for the answer, or what the environment's
 * SYSTEMD_BUS_TIMEOUT says. The call that opens the connection may wait 90 s more for a bus that hangs. Any thread may
 * call; not from a handler of the callback table.
 *
 * @param out receives the service's byte, 0 for none. Not null. Untouched after a failure.
 * @return 0 when it was read; else a negative errno, after one line on stderr: -ETIMEDOUT without an answer in time,
 * -EINTR ended by a signal handler, -ECONNRESET or -ENOTCONN once the bus has gone away, -ENOBUFS with too many
 * notices queued, -ECHILD in a forked child, and others. -EINVAL for a null `out`, with nothing sent.
 */
int32_t bdbus_upgrade_in_progress(uint8_t *out);

/**
 * Read which flash the BMC starts from (D-Bus property "BmcFlashSelect").
 *
 * Waits for other calls of this file and of hpm1.h, then up to 25 s for the answer, or what the environment's
 * SYSTEMD_BUS_TIMEOUT says. The call that opens the connection may wait 90 s more for a bus that hangs. Any thread may
 * call; not from a handler of the callback table.
 *
 * @param out receives the flash's number, the service's. Not null. Untouched after a failure.
 * @return 0 when it was read; else a negative errno, after one line on stderr: -ETIMEDOUT without an answer in time,
 * -EINTR ended by a signal handler, -ECONNRESET or -ENOTCONN once the bus has gone away, -ENOBUFS with too many
 * notices queued, -ECHILD in a forked child, and others. -EINVAL for a null `out`, with nothing sent.
 */
int32_t bdbus_upgrade_bmc_get_flash(uint8_t *out);

/**
 * Read which flash the BIOS starts from (D-Bus property "BiosFlashSelect").
 *
 * Waits for other calls of this file and of hpm1.h, then up to 25 s for the answer, or what the environment's
 * SYSTEMD_BUS_TIMEOUT says. The call that opens the connection may wait 90 s more for a bus that hangs. Any thread may
 * call; not from a handler of the callback table.
 *
 * @param out receives the flash's number, the service's. Not null. Untouched after a failure.
 * @return 0 when it was read; else a negative errno, after one line on stderr: -ETIMEDOUT without an answer in time,
 * -EINTR ended by a signal handler, -ECONNRESET or -ENOTCONN once the bus has gone away, -ENOBUFS with too many
 * notices queued, -ECHILD in a forked child, and others. -EINVAL for a null `out`, with nothing sent.
 */
int32_t bdbus_upgrade_bios_get_flash(uint8_t *out);

/**
 * Select the flash that the BMC starts from (D-Bus method "SetBmcFlashSelect").
 *
 * Waits for other calls of this file and of hpm1.h, then up to 25 s for the answer, or what the environment's
 * SYSTEMD_BUS_TIMEOUT says. The call that opens the connection may wait 90 s more for a bus that hangs. Any thread may
 * call; not from a handler of the callback table.
 *
 * @param rec `flash` is sent; `result` receives the service's answer, and keeps what it held after a failure.
 * @return positive when the answer was read, whatever `result` says; else a negative errno, after one line on stderr:
 * -ETIMEDOUT without an answer in time, -EINTR ended by a signal handler, -ECONNRESET or -ENOTCONN once the bus has
 * gone away, -ENOBUFS with too many notices queued, -ECHILD in a forked child, and others. After -ETIMEDOUT and -EINTR
 * the flash may be selected or not. -EINVAL for a null `rec`, with nothing sent.
 */
int32_t bdbus_upgrade_bmc_set_flash(bdbus_upgrade_flash_select *rec);

/**
 * Select the flash that the BIOS starts from (D-Bus method "SetBiosFlashSelect").
 *
 * Waits for other calls of this file and of hpm1.h, then up to 25 s for the answer, or what the environment's
 * SYSTEMD_BUS_TIMEOUT says. The call that opens the connection may wait 90 s more for a bus that hangs. Any thread may
 * call; not from a handler of the callback table.
 *
 * @param rec `flash` is sent; `result` receives the service's answer, and keeps what it held after a failure.
 * @return positive when the answer was read, whatever `result` says; else a negative errno, after one line on stderr:
 * -ETIMEDOUT without an answer in time, -EINTR ended by a signal handler, -ECONNRESET or -ENOTCONN once the bus has
 * gone away, -ENOBUFS with too many notices queued, -ECHILD in a forked child, and others. After -ETIMEDOUT and -EINTR
 * the flash may be selected or not. -EINVAL for a null `rec`, with nothing sent.
 */
int32_t bdbus_upgrade_bios_set_flash(bdbus_upgrade_flash_select *rec);

/**
 * Set the version of the BIOS (D-Bus method "SetBiosVersion").
 *
 * Waits for the answer without a limit: a service that does not answer keeps the caller, and all other calls of this
 * file and of hpm1.h, waiting. A service that is not there fails the call at once. A handler of SIGALRM, say, that
 * runs in the calling thread ends the wait with -EINTR; the version may then be set or not. Any thread may call; not
 * from a handler of the callback table.
 *
 * @param rec `version` is sent; `result` receives the service's answer, and keeps what it held after a failure.
 * @return positive when the answer was read, whatever `result` says; else a negative errno, after one line on stderr:
 * -EINTR ended by a signal handler, -EHOSTUNREACH no such service, -ECONNRESET or -ENOTCONN once the bus has gone
 * away, -ENOBUFS with too many notices queued, -ECHILD in a forked child, and others. -EINVAL for a null `rec`, with
 * nothing sent.
 */
int32_t bdbus_upgrade_bios_set_version(bdbus_upgrade_version_update *rec);

/**
 * Set the version of the NVRAM (D-Bus method "SetNvramVersion").
 *
 * Waits for the answer without a limit: a service that does not answer keeps the caller, and all other calls of this
 * file and of hpm1.h, waiting. A service that is not there fails the call at once. A handler of SIGALRM, say, that
 * runs in the calling thread ends the wait with -EINTR; the version may then be set or not. Any thread may call; not
 * from a handler of the callback table.
 *
 * @param rec `version` is sent; `result` receives the service's answer, and keeps what it held after a failure.
 * @return positive when the answer was read, whatever `result` says; else a negative errno, after one line on stderr:
 * -EINTR ended by a signal handler, -EHOSTUNREACH no such service, -ECONNRESET or -ENOTCONN once the bus has gone
 * away, -ENOBUFS with too many notices queued, -ECHILD in a forked child, and others. -EINVAL for a null `rec`, with
 * nothing sent.
 */
int32_t bdbus_upgrade_nvram_set_version(bdbus_upgrade_version_update *rec);

/**
 * Report the BMC's factory mode to the service (D-Bus method "BmcFactoryModeNotify").
 *
 * Waits for other calls of this file and of hpm1.h, then up to 25 s for the answer, or what the environment's
 * SYSTEMD_BUS_TIMEOUT says. The call that opens the connection may wait 90 s more for a bus that hangs. Any thread may
 * call; not from a handler of the callback table.
 *
 * @param rec `mode` is sent; `result` receives the service's answer, and keeps what it held after a failure.
 * @return positive when the answer was read, whatever `result` says; else a negative errno, after one line on stderr:
 * -ETIMEDOUT without an answer in time, -EINTR ended by a signal handler, -ECONNRESET or -ENOTCONN once the bus has
 * gone away, -ENOBUFS with too many notices queued, -ECHILD in a forked child, and others. -EINVAL for a null `rec`,
 * with nothing sent.
 */
int32_t bdbus_upgrade_factory_mode_setting(bdbus_upgrade_factory_mode *rec);

/**
 * Announce that the BMC's sensors are ready: the D-Bus signal "BmcSensorsReady", without arguments, on the service's
 * object.
 *
 * A signal has no answer: success says that it was handed to the connection, not that somebody took it. Waits for
 * other calls of this file and of hpm1.h. Any thread may call; not from a handler of the callback table.
 *
 * @return positive when it was handed over; else a negative errno, after one line on stderr: -ENOTCONN once the bus
 * has gone away, -ECHILD in a forked child, and others.
 */
int32_t bdbus_upgrade_bmc_sensors_ready(void);

/**
 * Announce that a change of the FPGA is handled: the D-Bus signal "FpgaChangeHandle", without arguments, on the
 * service's object.
 *
 * It takes no lock and uses the connection as it is, so that a handler of the callback table may call it. When it is
 * called from anywhere else, no other thread may be inside a function of this file or of hpm1.h. It does not open the
 * connection: before the first call that does, such as bdbus_upgrade_signal_process(), it fails.
 *
 * @return positive when the signal was handed to the connection; -ENOTCONN, after one line on stderr, while no
 * connection was ever opened; a negative errno, without a line, when the signal could not be sent, such as -ENOTCONN
 * once the bus has gone away.
 */
int32_t bdbus_upgrade_fpga_change_handle(void);

/**
 * Announce that a change of the BIOS is handled: the D-Bus signal "BiosChangeHandle", without arguments, on the
 * service's object.
 *
 * It takes no lock and uses the connection as it is, so that a handler of the callback table may call it. When it is
 * called from anywhere else, no other thread may be inside a function of this file or of hpm1.h. It does not open the
 * connection: before the first call that does, such as bdbus_upgrade_signal_process(), it fails.
 *
 * @return positive when the signal was handed to the connection; -ENOTCONN, after one line on stderr, while no
 * connection was ever opened; a negative errno, without a line, when the signal could not be sent, such as -ENOTCONN
 * once the bus has gone away.
 */
int32_t bdbus_upgrade_bios_change_handle(void);

/**
 * Announce that a change of the NVRAM is handled: the D-Bus signal "NvramChangeHandle", without arguments, on the
 * service's object.
 *
 * It takes no lock and uses the connection as it is, so that a handler of the callback table may call it. When it is
 * called from anywhere else, no other thread may be inside a function of this file or of hpm1.h. It does not open the
 * connection: before the first call that does, such as bdbus_upgrade_signal_process(), it fails.
 *
 * @return positive when the signal was handed to the connection; -ENOTCONN, after one line on stderr, while no
 * connection was ever opened; a negative errno, without a line, when the signal could not be sent, such as -ENOTCONN
 * once the bus has gone away.
 */
int32_t bdbus_upgrade_nvram_change_handle(void);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
