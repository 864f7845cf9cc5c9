/* SPDX-License-Identifier: LGPL-2.1-or-later */
/**
 * @file storectrl.h
 * The storage controller behind the RAID management service `com.brisemont.RAIDMgmt`: eleven queries, eleven
 * operations.
 *
 * Every call opens a connection of its own, asks the service once and closes it; so the next call after a restart of
 * the bus works again. What goes through unchanged is the service's to explain: fields that are named by their
 * position, the units of sizes, status codes and answers.
 *
 * Queries return their record by value. It starts zeroed and is filled in the order of the reply: lists come as columns
 * whose entries of one index describe one thing. An array shorter than its column leaves the rest zero, of a longer
 * one the surplus is dropped. `status` is the service's result, the last item of a reply. A query that fails prints one
 * line on stderr; every field that it could not read is zero, `status` too. Records that are both argument and result
 * come back with their outputs alone, the inputs zero.
 *
 * Operations return the service's answer, as it stands. One that failed returns 0 too and prints one line on stderr, so
 * a program that must tell the two apart looks at stderr; the controller may have carried it out all the same.
 *
 * Arguments are sent unchecked, with two exceptions that keep to the record: a count beyond the columns' capacity is
 * sent as that capacity, with as many entries; a text without a NUL is sent up to the end of its room.
 *
 * Signals: while a call waits, SIGCHLD, SIGWINCH, SIGIO, SIGURG, SIGPROF and SIGVTALRM are held back in its thread, and
 * their handlers run right after it. Any other signal whose handler runs in that thread (SIGALRM, SIGUSR1, SIGTERM,
 * ...), with SA_RESTART or without, ends the call as a failed one, and the line says "Interrupted system call" (EINTR);
 * the controller may have carried the operation out or not. To a call that waits without limit it is the caller's way
 * to set one.
 *
 * Threads: any thread may call. Calls of this family wait for one another, also while one waits for its answer. Those
 * that say so wait for theirs without limit: a service that never answers one of them blocks the whole family.
 * The others give up after sd-bus's default time-out, 25 s or what the environment's SYSTEMD_BUS_TIMEOUT says. All wait
 * up to 90 s for a bus that takes the connection and says nothing. A thread that is canceled (pthread_cancel) inside a
 * call ends only after it. A forked child may call too, unless another thread was inside a call of this family at the
 * fork.
 */
#ifndef BDBUS_STORECTRL_H
#define BDBUS_STORECTRL_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* The capacities of the columns, in entries. */
#define BDBUS_STORECTRL_VD_MAX 64    /**< virtual drives */
#define BDBUS_STORECTRL_PD_MAX 128   /**< physical drives */
#define BDBUS_STORECTRL_GROUP_MAX 64 /**< drive groups */
#define BDBUS_STORECTRL_LEVEL_MAX 8  /**< RAID levels */

/** How many progress values a drive has. */
#define BDBUS_STORECTRL_PROGRESS_COLUMNS 7

/* The room of the texts, in bytes, with the terminating NUL. */
#define BDBUS_STORECTRL_TEXT_MAX 16     /**< of a virtual drive or a query for one */
#define BDBUS_STORECTRL_OOB_TEXT_MAX 32 /**< of the query for the out-of-band initialization */

/** The virtual drives with their progress, from bdbus_storectrl_get_vd_list_w_progress_status(). */
typedef struct bdbus_storectrl_vd_progress_list {
    uint8_t count;                          /**< entries, as the service counts them */
    uint8_t vd_ids[BDBUS_STORECTRL_VD_MAX]; /**< the drives' IDs */
    uint64_t sizes[BDBUS_STORECTRL_VD_MAX]; /**< the drives' sizes, in the service's unit */
    /** The progress values, one column each in the order of the reply; defined by the service. */
    uint8_t progress[BDBUS_STORECTRL_PROGRESS_COLUMNS][BDBUS_STORECTRL_VD_MAX];
    int32_t status; /**< the service's result code */
} bdbus_storectrl_vd_progress_list;

/** The physical drives with their progress, from bdbus_storectrl_get_pd_list_w_progress_status(). */
typedef struct bdbus_storectrl_pd_progress_list {
    uint8_t count;                           /**< entries, as the service counts them */
    uint16_t pd_ids[BDBUS_STORECTRL_PD_MAX]; /**< the drives' IDs */
    uint64_t sizes[BDBUS_STORECTRL_PD_MAX];  /**< the drives' sizes, in the service's unit */
    /** The progress values, one column each in the order of the reply; defined by the service. */
    uint8_t progress[BDBUS_STORECTRL_PROGRESS_COLUMNS][BDBUS_STORECTRL_PD_MAX];
    int32_t status; /**< the service's result code */
} bdbus_storectrl_pd_progress_list;

/** The virtual drives, from bdbus_storectrl_get_virtual_drive_list(). */
typedef struct bdbus_storectrl_vd_list {
    uint8_t count;                          /**< entries, as the service counts them */
    uint8_t vd_ids[BDBUS_STORECTRL_VD_MAX]; /**< the drives' IDs */
    uint64_t sizes[BDBUS_STORECTRL_VD_MAX]; /**< the drives' sizes, in the service's unit */
    int32_t status;                         /**< the service's result code */
} bdbus_storectrl_vd_list;

/** The physical drives that no virtual drive uses, from bdbus_storectrl_get_unconfig_drive_list(). */
typedef struct bdbus_storectrl_unconfig_list {
    uint8_t count;                           /**< entries, as the service counts them */
    uint16_t pd_ids[BDBUS_STORECTRL_PD_MAX]; /**< the drives' IDs */
    uint8_t reserved[4096];                  /**< always zero */
    uint64_t sizes[BDBUS_STORECTRL_PD_MAX];  /**< the drives' sizes, in the service's unit */
    int32_t status;                          /**< the service's result code */
} bdbus_storectrl_unconfig_list;

/** The drive groups, from bdbus_storectrl_get_drive_group_list(). */
typedef struct bdbus_storectrl_drive_group_list {
    uint8_t head1;                              /**< the reply's first single byte; defined by the service */
    uint8_t head2;                              /**< the reply's second single byte; defined by the service */
    uint8_t column1[BDBUS_STORECTRL_GROUP_MAX]; /**< the reply's first byte column; defined by the service */
    uint8_t column2[BDBUS_STORECTRL_GROUP_MAX]; /**< the reply's second byte column; defined by the service */
    uint8_t head3;                              /**< the reply's third single byte; defined by the service */
    uint8_t column3[BDBUS_STORECTRL_GROUP_MAX]; /**< the reply's third byte column; defined by the service */
    uint8_t column4[BDBUS_STORECTRL_GROUP_MAX]; /**< the reply's fourth byte column; defined by the service */
    int32_t status;                             /**< the service's result code */
} bdbus_storectrl_drive_group_list;

/** The hot spares, from bdbus_storectrl_get_hot_spare_drive_list(). */
typedef struct bdbus_storectrl_hot_spare_list {
    uint8_t head1;                           /**< the reply's first single byte; defined by the service */
    uint8_t head2;                           /**< the reply's second single byte; defined by the service */
    uint8_t head3;                           /**< the reply's third single byte; defined by the service */
    uint16_t pd_ids[BDBUS_STORECTRL_PD_MAX]; /**< the drives' IDs */
    uint8_t column1[BDBUS_STORECTRL_PD_MAX]; /**< the reply's first byte column; defined by the service */
    uint8_t column2[BDBUS_STORECTRL_PD_MAX]; /**< the reply's second byte column; defined by the service */
    int32_t status;                          /**< the service's result code */
} bdbus_storectrl_hot_spare_list;

/** The RAID levels that the controller offers, from bdbus_storectrl_get_available_raid_level(). */
typedef struct bdbus_storectrl_raid_levels {
    uint8_t head1;                              /**< the reply's first single byte; defined by the service */
    uint8_t column1[BDBUS_STORECTRL_LEVEL_MAX]; /**< the reply's first byte column; defined by the service */
    uint8_t head2;                              /**< the reply's second single byte; defined by the service */
    uint8_t column2[BDBUS_STORECTRL_LEVEL_MAX]; /**< the reply's second byte column; defined by the service */
    uint8_t column3[BDBUS_STORECTRL_LEVEL_MAX]; /**< the reply's third byte column; defined by the service */
    uint8_t column4[BDBUS_STORECTRL_LEVEL_MAX]; /**< the reply's fourth byte column; defined by the service */
    int32_t status;                             /**< the service's result code */
} bdbus_storectrl_raid_levels;

/** How many physical drives a virtual drive needs: query and result of bdbus_storectrl_get_min_pd_needed(). */
typedef struct bdbus_storectrl_min_pd {
    uint8_t param1; /**< input, defined by the service */
    uint8_t param2; /**< input, defined by the service */
    uint8_t min_pd; /**< output: the fewest drives */
    int32_t status; /**< output: the service's result code */
} bdbus_storectrl_min_pd;

/** How large a new virtual drive can be: query and result of bdbus_storectrl_get_max_available_size(). */
typedef struct bdbus_storectrl_max_size {
    uint8_t param1;                          /**< input, defined by the service */
    uint8_t param2;                          /**< input, defined by the service */
    uint8_t param3;                          /**< input, defined by the service */
    uint8_t pd_count;                        /**< input: how many entries of pd_ids are sent, 0 to 128 */
    uint16_t pd_ids[BDBUS_STORECTRL_PD_MAX]; /**< input: the drives that it would use */
    uint64_t max_size;                       /**< output: in the service's unit */
    int32_t status;                          /**< output: the service's result code */
} bdbus_storectrl_max_size;

/** The controller's out-of-band initialization: query and result of bdbus_storectrl_get_ctrl_oob_init_state(). */
typedef struct bdbus_storectrl_oob_init {
    int32_t param;                           /**< input, defined by the service */
    char text[BDBUS_STORECTRL_OOB_TEXT_MAX]; /**< input, NUL-terminated */
    uint8_t state;                           /**< output: the service's code */
    int32_t status;                          /**< output: the service's result code */
} bdbus_storectrl_oob_init;

/** Which virtual drive bdbus_storectrl_get_virtual_drive_info() is asked for. */
typedef struct bdbus_storectrl_vd_query {
    char text[BDBUS_STORECTRL_TEXT_MAX]; /**< sent, NUL-terminated; defined by the service */
    uint8_t selector;                    /**< sent; defined by the service */
} bdbus_storectrl_vd_query;

/**
 * A virtual drive: what bdbus_storectrl_get_virtual_drive_info() knows of one, or what
 * bdbus_storectrl_create_virtual_drive() makes. All is sent but `value`.
 */
typedef struct bdbus_storectrl_vd {
    uint8_t param1;                      /**< defined by the service, like all that is named by its position */
    uint8_t param2;                      /**< zero in the information */
    uint8_t param3;                      /**< zero in the information */
    uint8_t param4;                      /**< zero in the information */
    uint64_t size;                       /**< in the service's unit */
    char text[BDBUS_STORECTRL_TEXT_MAX]; /**< NUL-terminated; empty in the information */
    uint8_t option1;                     /**< defined by the service */
    uint8_t option2;                     /**< defined by the service */
    uint8_t option3;                     /**< defined by the service */
    uint8_t option4;                     /**< defined by the service */
    uint8_t option5;                     /**< defined by the service */
    uint8_t option6;                     /**< defined by the service */
    uint8_t option7;                     /**< zero in the information */
    uint8_t option8;                     /**< zero in the information */
    uint8_t option9;                     /**< defined by the service */
    int32_t value;                       /**< in the information only, defined by the service; not sent */
    uint8_t pd_count; /**< the drives that it uses: entries of pd_ids, as the service counts them or as they are sent */
    uint16_t pd_ids[BDBUS_STORECTRL_PD_MAX]; /**< the drives' IDs */
} bdbus_storectrl_vd;

/** Virtual drives to locate, for bdbus_storectrl_start_locate_vd() and bdbus_storectrl_stop_locate_vd(). */
typedef struct bdbus_storectrl_locate_vd {
    uint8_t count;                          /**< how many entries are sent, 0 to 64 */
    uint16_t ids[BDBUS_STORECTRL_VD_MAX];   /**< the drives' IDs */
    uint8_t values[BDBUS_STORECTRL_VD_MAX]; /**< one for each drive; sent by the start call only */
} bdbus_storectrl_locate_vd;

/** Physical drives to locate, for bdbus_storectrl_start_locate_pd() and bdbus_storectrl_stop_locate_pd(). */
typedef struct bdbus_storectrl_locate_pd {
    uint8_t count;                           /**< how many entries are sent, 0 to 128 */
    uint16_t pd_ids[BDBUS_STORECTRL_PD_MAX]; /**< the drives' IDs */
    uint8_t values[BDBUS_STORECTRL_PD_MAX];  /**< one for each drive; sent by the start call only */
} bdbus_storectrl_locate_pd;

/** Virtual drives to delete, for bdbus_storectrl_delete_virtual_drive(). */
typedef struct bdbus_storectrl_vd_ids {
    uint8_t count;                          /**< how many entries are sent, 0 to 64 */
    uint8_t vd_ids[BDBUS_STORECTRL_VD_MAX]; /**< the drives' IDs */
} bdbus_storectrl_vd_ids;

/** A drive that is to be a dedicated hot spare, for bdbus_storectrl_assign_dedicated_hot_spare_drive(). */
typedef struct bdbus_storectrl_spare_target {
    uint8_t param1; /**< defined by the service */
    uint16_t pd_id; /**< the drive's ID */
} bdbus_storectrl_spare_target;

/**
 * List the virtual drives with their sizes and progress (D-Bus method "GetVirtualDriveListWithProgressStatus").
 *
 * Waits for other calls of this file, then up to 25 s for the answer, or what the environment's SYSTEMD_BUS_TIMEOUT
 * says. It may wait 90 s more for a bus that hangs. Any thread may call.
 *
 * @return the list by value; zero from the first field that could not be read, `status` too; one line on stderr then
 * gives the reason. So a `status` of 0 without a line is the service's.
 */
bdbus_storectrl_vd_progress_list bdbus_storectrl_get_vd_list_w_progress_status(void);

/**
 * List the physical drives with their sizes and progress (D-Bus method "GetPhysicalDriveListWithProgressStatus").
 *
 * Waits for other calls of this file, then up to 25 s for the answer, or what the environment's SYSTEMD_BUS_TIMEOUT
 * says. It may wait 90 s more for a bus that hangs. Any thread may call.
 *
 * @return the list by value; zero from the first field that could not be read, `status` too; one line on stderr then
 * gives the reason. So a `status` of 0 without a line is the service's.
 */
bdbus_storectrl_pd_progress_list bdbus_storectrl_get_pd_list_w_progress_status(void);

/**
 * List the virtual drives with their sizes (D-Bus method "GetVirtualDriveList").
 *
 * Waits for other calls of this file, then up to 25 s for the answer, or what the environment's SYSTEMD_BUS_TIMEOUT
 * says. It may wait 90 s more for a bus that hangs. Any thread may call.
 *
 * @return the list by value; zero from the first field that could not be read, `status` too; one line on stderr then
 * gives the reason. So a `status` of 0 without a line is the service's.
 */
bdbus_storectrl_vd_list bdbus_storectrl_get_virtual_drive_list(void);

/**
 * List the physical drives that no virtual drive uses, with their sizes (D-Bus method "GetUnconfigDriveList").
 *
 * Waits for other calls of this file, then up to 25 s for the answer, or what the environment's SYSTEMD_BUS_TIMEOUT
 * says. It may wait 90 s more for a bus that hangs. Any thread may call.
 *
 * @return the list by value; zero from the first field that could not be read, `status` too; one line on stderr then
 * gives the reason. So a `status` of 0 without a line is the service's.
 */
bdbus_storectrl_unconfig_list bdbus_storectrl_get_unconfig_drive_list(void);

/**
 * List the drive groups (D-Bus method "GetDriveGroupList").
 *
 * Waits for other calls of this file, then up to 25 s for the answer, or what the environment's SYSTEMD_BUS_TIMEOUT
 * says. It may wait 90 s more for a bus that hangs. Any thread may call.
 *
 * @return the list by value; zero from the first field that could not be read, `status` too; one line on stderr then
 * gives the reason. So a `status` of 0 without a line is the service's.
 */
bdbus_storectrl_drive_group_list bdbus_storectrl_get_drive_group_list(void);

/**
 * List the hot spares (D-Bus method "GetHotSpareDriveList").
 *
 * Waits for other calls of this file, then up to 25 s for the answer, or what the environment's SYSTEMD_BUS_TIMEOUT
 * says. It may wait 90 s more for a bus that hangs. Any thread may call.
 *
 * @return the list by value; zero from the first field that could not be read, `status` too; one line on stderr then
 * gives the reason. So a `status` of 0 without a line is the service's.
 */
bdbus_storectrl_hot_spare_list bdbus_storectrl_get_hot_spare_drive_list(void);

/**
 * List the RAID levels on offer (D-Bus method "GetAvailableRaidLevel").
 *
 * Waits for other calls of this file, then up to 25 s for the answer, or what the environment's SYSTEMD_BUS_TIMEOUT
 * says. It may wait 90 s more for a bus that hangs. Any thread may call.
 *
 * @return the list by value; zero from the first field that could not be read, `status` too; one line on stderr then
 * gives the reason. So a `status` of 0 without a line is the service's.
 */
bdbus_storectrl_raid_levels bdbus_storectrl_get_available_raid_level(void);

/**
 * Ask how many physical drives a virtual drive needs (D-Bus method "GetMinPdNeeded").
 *
 * Waits for other calls of this file, then up to 25 s for the answer, or what the environment's SYSTEMD_BUS_TIMEOUT
 * says. It may wait 90 s more for a bus that hangs. Any thread may call.
 *
 * @param query its `param1` and `param2` are sent.
 * @return a record with `min_pd` and `status` alone, the inputs zero; zero from the first of them that could not be
 * read, and one line on stderr then gives the reason.
 */
bdbus_storectrl_min_pd bdbus_storectrl_get_min_pd_needed(bdbus_storectrl_min_pd query);

/**
 * Ask how large a new virtual drive on some drives can be (D-Bus method "GetMaxAvailableSize").
 *
 * Waits for other calls of this file, then for the answer without limit; all other calls of this file wait with it. A
 * handler of SIGALRM, say, that runs in the calling thread ends the wait, and the call has failed. Any thread may
 * call.
 *
 * @param query its parameters, its `pd_count` and the first so many of its `pd_ids` are sent; a count over 128 counts
 * as 128.
 * @return a record with `max_size` and `status` alone, the inputs zero; zero from the first of them that could not be
 * read, and one line on stderr then gives the reason.
 */
bdbus_storectrl_max_size bdbus_storectrl_get_max_available_size(bdbus_storectrl_max_size query);

/**
 * Ask how far the controller's out-of-band initialization is (D-Bus method "GetCtrlOOBInitState").
 *
 * Waits for other calls of this file, then up to 25 s for the answer, or what the environment's SYSTEMD_BUS_TIMEOUT
 * says. It may wait 90 s more for a bus that hangs. Any thread may call.
 *
 * @param query its `param` and `text` are sent, a text without a NUL up to the end of its room.
 * @return a record with `state` and `status` alone, the inputs zero; zero from the first of them that could not be
 * read, and one line on stderr then gives the reason.
 */
bdbus_storectrl_oob_init bdbus_storectrl_get_ctrl_oob_init_state(bdbus_storectrl_oob_init query);

/**
 * Ask about one virtual drive (D-Bus method "GetVirtualDriveInfo").
 *
 * Waits for other calls of this file, then up to 25 s for the answer, or what the environment's SYSTEMD_BUS_TIMEOUT
 * says. It may wait 90 s more for a bus that hangs. Any thread may call.
 *
 * @param query its `text` and `selector` are sent, a text without a NUL up to the end of its room.
 * @return the drive by value, its `param2` to `param4`, `text`, `option7` and `option8` zero; zero from the first
 * field that could not be read, and one line on stderr then gives the reason.
 */
bdbus_storectrl_vd bdbus_storectrl_get_virtual_drive_info(bdbus_storectrl_vd_query query);

/**
 * Clear the controller's configuration (D-Bus method "ClearConfiguration").
 *
 * Waits for other calls of this file, then up to 25 s for the answer, or what the environment's SYSTEMD_BUS_TIMEOUT
 * says. It may wait 90 s more for a bus that hangs. Any thread may call.
 *
 * @return the service's answer as it stands. A call that failed returns 0 too, after one line on stderr that gives the
 * reason; the controller may have carried it out all the same.
 */
int32_t bdbus_storectrl_clear_configuration(void);

/**
 * Make a physical drive a global hot spare (D-Bus method "AssignGlobalHotSpareDrive").
 *
 * Waits for other calls of this file, then up to 25 s for the answer, or what the environment's SYSTEMD_BUS_TIMEOUT
 * says. It may wait 90 s more for a bus that hangs. Any thread may call.
 *
 * @param pd_id the physical drive's ID.
 * @return the service's answer as it stands. A call that failed returns 0 too, after one line on stderr that gives the
 * reason; the controller may have carried it out all the same.
 */
int32_t bdbus_storectrl_assign_global_hot_spare_drive(uint16_t pd_id);

/**
 * Have a global hot spare no longer be one (D-Bus method "RemoveGlobalHotSpareDrive").
 *
 * Waits for other calls of this file, then up to 25 s for the answer, or what the environment's SYSTEMD_BUS_TIMEOUT
 * says. It may wait 90 s more for a bus that hangs. Any thread may call.
 *
 * @param pd_id the physical drive's ID.
 * @return the service's answer as it stands. A call that failed returns 0 too, after one line on stderr that gives the
 * reason; the controller may have carried it out all the same.
 */
int32_t bdbus_storectrl_remove_global_hot_spare_drive(uint16_t pd_id);

/**
 * Have a dedicated hot spare no longer be one (D-Bus method "RemoveDedicatedHotSpareDrive").
 *
 * Waits for other calls of this file, then up to 25 s for the answer, or what the environment's SYSTEMD_BUS_TIMEOUT
 * says. It may wait 90 s more for a bus that hangs. Any thread may call.
 *
 * @param pd_id the physical drive's ID.
 * @return the service's answer as it stands. A call that failed returns 0 too, after one line on stderr that gives the
 * reason; the controller may have carried it out all the same.
 */
int32_t bdbus_storectrl_remove_dedicated_hot_spare_drive(uint16_t pd_id);

/**
 * Make a physical drive a dedicated hot spare (D-Bus method "AssignDedicatedHotSpareDrive").
 *
 * Waits for other calls of this file, then up to 25 s for the answer, or what the environment's SYSTEMD_BUS_TIMEOUT
 * says. It may wait 90 s more for a bus that hangs. Any thread may call.
 *
 * @param target its `param1` and `pd_id` are sent first.
 * @param param2 sent after it; what it means is the service's.
 * @return the service's answer as it stands. A call that failed returns 0 too, after one line on stderr that gives the
 * reason; the controller may have carried it out all the same.
 */
int32_t bdbus_storectrl_assign_dedicated_hot_spare_drive(bdbus_storectrl_spare_target target, uint8_t param2);

/**
 * Have virtual drives show where they are (D-Bus method "StartLocateVirtualDrive").
 *
 * Waits for other calls of this file, then for the answer without limit; all other calls of this file wait with it. A
 * handler of SIGALRM, say, that runs in the calling thread ends the wait, and the call has failed. Any thread may
 * call.
 *
 * @param drives its `count` and the first so many of its `ids` and `values` are sent; a count over 64 counts as 64.
 * @return the service's answer as it stands. A call that failed returns 0 too, after one line on stderr that gives the
 * reason; the controller may have carried it out all the same.
 */
int32_t bdbus_storectrl_start_locate_vd(bdbus_storectrl_locate_vd drives);

/**
 * Have virtual drives no longer show where they are (D-Bus method "StopLocateVirtualDrive").
 *
 * Waits for other calls of this file, then for the answer without limit; all other calls of this file wait with it. A
 * handler of SIGALRM, say, that runs in the calling thread ends the wait, and the call has failed. Any thread may
 * call.
 *
 * @param drives its `count` and the first so many of its `ids` are sent; a count over 64 counts as 64.
 * @return the service's answer as it stands. A call that failed returns 0 too, after one line on stderr that gives the
 * reason; the controller may have carried it out all the same.
 */
int32_t bdbus_storectrl_stop_locate_vd(bdbus_storectrl_locate_vd drives);

/**
 * Have physical drives show where they are (D-Bus method "StartLocatePhysicalDrive").
 *
 * Waits for other calls of this file, then for the answer without limit; all other calls of this file wait with it. A
 * handler of SIGALRM, say, that runs in the calling thread ends the wait, and the call has failed. Any thread may
 * call.
 *
 * @param drives its `count` and the first so many of its `pd_ids` and `values` are sent; a count over 128 counts as
 * 128.
 * @return the service's answer as it stands. A call that failed returns 0 too, after one line on stderr that gives the
 * reason; the controller may have carried it out all the same.
 */
int32_t bdbus_storectrl_start_locate_pd(bdbus_storectrl_locate_pd drives);

/**
 * Have physical drives no longer show where they are (D-Bus method "StopLocatePhysicalDrive").
 *
 * Waits for other calls of this file, then for the answer without limit; all other calls of this file wait with it. A
 * handler of SIGALRM, say, that runs in the calling thread ends the wait, and the call has failed. Any thread may
 * call.
 *
 * @param drives its `count` and the first so many of its `pd_ids` are sent; a count over 128 counts as 128.
 * @return the service's answer as it stands. A call that failed returns 0 too, after one line on stderr that gives the
 * reason; the controller may have carried it out all the same.
 */
int32_t bdbus_storectrl_stop_locate_pd(bdbus_storectrl_locate_pd drives);

/**
 * Delete virtual drives, with all that they hold (D-Bus method "DeleteVirtualDrive").
 *
 * Waits for other calls of this file, then for the answer without limit; all other calls of this file wait with it. A
 * handler of SIGALRM, say, that runs in the calling thread ends the wait, and the call has failed. Any thread may
 * call.
 *
 * @param drives its `count` and the first so many of its `vd_ids` are sent; a count over 64 counts as 64.
 * @return the service's answer as it stands. A call that failed returns 0 too, after one line on stderr that gives the
 * reason; the controller may have carried it out all the same.
 */
int32_t bdbus_storectrl_delete_virtual_drive(bdbus_storectrl_vd_ids drives);

/**
 * Create a virtual drive (D-Bus method "CreateVirtualDrive").
 *
 * Waits for other calls of this file, then for the answer without limit; all other calls of this file wait with it. A
 * handler of SIGALRM, say, that runs in the calling thread ends the wait, and the call has failed. Any thread may
 * call.
 *
 * @param drive all of it is sent but `value`, of its `pd_ids` the first `pd_count`; a count over 128 counts as 128,
 * and a text without a NUL is sent up to the end of its room.
 * @return the service's answer as it stands. A call that failed returns 0 too, after one line on stderr that gives the
 * reason; the controller may have carried it out all the same.
 */
int32_t bdbus_storectrl_create_virtual_drive(bdbus_storectrl_vd drive);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
