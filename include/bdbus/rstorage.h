/* SPDX-License-Identifier: LGPL-2.1-or-later */
/**
 * @file rstorage.h
 * Remote storage: disks whose media images lie on an SMB share or at a URL. Service `com.brisemont.RStorage1`.
 *
 * A disk goes by its number; a negative one, or one that the service does not have, fails like any other call that the
 * bus or the service refuses. What the codes, texts and integers mean is the service's. Nothing is cached: every getter
 * asks the service.
 *
 * Results: 0 from a getter, positive from the other calls. Otherwise the negative errno-style code of the step that
 * failed, after one line on stderr, or two from a getter that gets no connection to the bus. The outputs are then
 * untouched, but for the integer of a reply whose text could not be read. -EINVAL for a null pointer where none is
 * allowed, without a line and with nothing sent.
 *
 * The connections: one for the getters and bdbus_rstorage_disk_get_status(), one for the other calls, each opened by
 * the first call that needs it. A connection that the bus drops before it has greeted it, or does not greet in time,
 * counts as never opened, and the next call tries again. One that was open is never opened again: when the bus has gone
 * away, calls fail with -ENOTCONN (the one during which it went with -ECONNRESET), until the process is restarted.
 * There are no notices: messages that strangers send to a connection are dropped by the next call on it.
 *
 * Signals: while a call waits, SIGCHLD, SIGWINCH, SIGIO, SIGURG, SIGPROF and SIGVTALRM are held back in its thread, and
 * their handlers run right after it. Any other signal whose handler runs in that thread (SIGALRM, SIGUSR1, SIGTERM,
 * ...), with SA_RESTART or without, ends the call with -EINTR, which can serve as a program's own limit on a call (best
 * with a timer that repeats, and not while the call waits for another thread's call); the request has reached the
 * service or not, and the reply is lost: a mount may go on.
 *
 * Texts come NUL-terminated into the caller's buffer of `len` bytes, cut to `len` - 1; bytes after the NUL stay as they
 * were. With a `len` of 0 nothing is written, and the call succeeds all the same.
 *
 * Threads: any thread may call. The getters and bdbus_rstorage_disk_get_status() wait for one another, and so do mount,
 * unmount and the gadget's start and stop among themselves, also while one waits for its answer; but neither group
 * waits for the other, so a long mount does not hold up the getters. A thread that is cancelled (pthread_cancel) inside
 * a call ends only after it. In a child that was forked while a connection was open or being opened, calls on it fail
 * with -ECHILD at once.
 */
#ifndef BDBUS_RSTORAGE_H
#define BDBUS_RSTORAGE_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/** Whether the disk is active. @param out receives 0 or 1. @return as the file says. */
int32_t bdbus_rstorage_disk_get_active_st(int32_t disk, uint8_t *out);

/** Whether the disk is connected. @param out receives 0 or 1. @return as the file says. */
int32_t bdbus_rstorage_disk_get_connected_st(int32_t disk, uint8_t *out);

/** Whether the disk's image is mounted. @param out receives 0 or 1. @return as the file says. */
int32_t bdbus_rstorage_disk_get_mounted_st(int32_t disk, uint8_t *out);

/** The kind of medium. @param out receives its code. @return as the file says. */
int32_t bdbus_rstorage_disk_get_media_type(int32_t disk, uint8_t *out);

/** The protocol by which the image is reached. @param out receives its code. @return as the file says. */
int32_t bdbus_rstorage_disk_get_proto_type(int32_t disk, uint8_t *out);

/** Whether the disk is write-protected. @param out receives 0 or 1. @return as the file says. */
int32_t bdbus_rstorage_disk_get_write_protected_st(int32_t disk, uint8_t *out);

/** The address of the SMB share. @param buf receives the text. @param len its room. @return as the file says. */
int32_t bdbus_rstorage_disk_get_smb_share_addr(int32_t disk, char *buf, uint32_t len);

/** The user of the share. @param buf receives the text. @param len its room. @return as the file says. */
int32_t bdbus_rstorage_disk_get_username(int32_t disk, char *buf, uint32_t len);

/** The image's path on the share. @param buf receives the text. @param len its room. @return as the file says. */
int32_t bdbus_rstorage_disk_get_smb_path_file(int32_t disk, char *buf, uint32_t len);

/** The image's name. @param buf receives the text. @param len its room. @return as the file says. */
int32_t bdbus_rstorage_disk_get_image_name(int32_t disk, char *buf, uint32_t len);

/** The image's URL. @param buf receives the text. @param len its room. @return as the file says. */
int32_t bdbus_rstorage_disk_get_image_url(int32_t disk, char *buf, uint32_t len);

/**
 * The user's password, as the service gives it. The library wipes its own copy; the one in `buf` is the caller's.
 *
 * @param buf receives the text.
 * @param len its room.
 * @return as the file says.
 */
int32_t bdbus_rstorage_disk_get_password(int32_t disk, char *buf, uint32_t len);

/** The user's domain. @param buf receives the text. @param len its room. @return as the file says. */
int32_t bdbus_rstorage_disk_get_domain(int32_t disk, char *buf, uint32_t len);

/**
 * Ask for a status value.
 *
 * @param byte_arg sent with the question.
 * @param out      receives the value.
 * @return as the file says.
 */
int32_t bdbus_rstorage_disk_get_status(int32_t disk, uint8_t byte_arg, int32_t *out);

/**
 * Mount the disk's image. Waits no longer than for any other answer, 25 s unless the environment's SYSTEMD_BUS_TIMEOUT
 * says otherwise; a mount that takes longer fails here with -ETIMEDOUT and may go on in the service, and so may one
 * whose call a signal handler ended with -EINTR.
 *
 * @param text_arg sent with the request; not null. It passes through sd-bus's memory, where it is not wiped: unlike the
 *                 texts that are read, a copy may stay behind in memory that was given back.
 * @param out      receives the service's result.
 * @param buf      receives the reply's text; null when only the result is wanted, and the reply need not have a text
 * then.
 * @param len      its room.
 * @return as the file says.
 */
int32_t bdbus_rstorage_disk_mount(int32_t disk, const char *text_arg, int32_t *out, char *buf, uint32_t len);

/** Unmount the disk's image. @param out receives the service's result. @return as the file says. */
int32_t bdbus_rstorage_disk_unmount(int32_t disk, int32_t *out);

/**
 * Start the gadget that presents the image to the host.
 *
 * @param byte_arg sent with the request.
 * @param bool_arg sent with the request, as true unless it is 0.
 * @param out      receives the service's result.
 * @return as the file says.
 */
int32_t bdbus_rstorage_disk_gadget_start(int32_t disk, uint8_t byte_arg, int32_t bool_arg, int32_t *out);

/** Stop the gadget. @param out receives the service's result. @return as the file says. */
int32_t bdbus_rstorage_disk_gadget_stop(int32_t disk, int32_t *out);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
