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
 * waits for the other, so a long mount does not hold up the getters. A thread that is canceled (pthread_cancel) inside
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

/**
 * Whether a disk is active (D-Bus property "Active").
 *
 * Waits for other getters, then up to 25 s for the answer, or what the environment's SYSTEMD_BUS_TIMEOUT says. The
 * call that opens the connection may wait 90 s more for a bus that hangs. Any thread may call.
 *
 * @param disk the disk's number, from 0; a negative one gives -EINVAL, one that the service does not have -EBADR.
 * @param out  receives 0 or 1. Not null. Untouched after a failure.
 * @return 0; else a negative errno, after one line on stderr, or two without a connection: -ETIMEDOUT without an
 * answer in time, -EINTR ended by a signal handler, -ECONNRESET or -ENOTCONN once the bus has gone away, -ECHILD in a
 * forked child, and others. -EINVAL for a null `out`, with nothing sent.
 */
int32_t bdbus_rstorage_disk_get_active_st(int32_t disk, uint8_t *out);

/**
 * Whether a disk is connected (D-Bus property "Connected").
 *
 * Waits for other getters, then up to 25 s for the answer, or what the environment's SYSTEMD_BUS_TIMEOUT says. The
 * call that opens the connection may wait 90 s more for a bus that hangs. Any thread may call.
 *
 * @param disk the disk's number, from 0; a negative one gives -EINVAL, one that the service does not have -EBADR.
 * @param out  receives 0 or 1. Not null. Untouched after a failure.
 * @return 0; else a negative errno, after one line on stderr, or two without a connection: -ETIMEDOUT without an
 * answer in time, -EINTR ended by a signal handler, -ECONNRESET or -ENOTCONN once the bus has gone away, -ECHILD in a
 * forked child, and others. -EINVAL for a null `out`, with nothing sent.
 */
int32_t bdbus_rstorage_disk_get_connected_st(int32_t disk, uint8_t *out);

/**
 * Whether a disk's image is mounted (D-Bus property "Mounted").
 *
 * Waits for other getters, then up to 25 s for the answer, or what the environment's SYSTEMD_BUS_TIMEOUT says. The
 * call that opens the connection may wait 90 s more for a bus that hangs. Any thread may call.
 *
 * @param disk the disk's number, from 0; a negative one gives -EINVAL, one that the service does not have -EBADR.
 * @param out  receives 0 or 1. Not null. Untouched after a failure.
 * @return 0; else a negative errno, after one line on stderr, or two without a connection: -ETIMEDOUT without an
 * answer in time, -EINTR ended by a signal handler, -ECONNRESET or -ENOTCONN once the bus has gone away, -ECHILD in a
 * forked child, and others. -EINVAL for a null `out`, with nothing sent.
 */
int32_t bdbus_rstorage_disk_get_mounted_st(int32_t disk, uint8_t *out);

/**
 * The kind of medium that a disk is (D-Bus property "MediaType").
 *
 * Waits for other getters, then up to 25 s for the answer, or what the environment's SYSTEMD_BUS_TIMEOUT says. The
 * call that opens the connection may wait 90 s more for a bus that hangs. Any thread may call.
 *
 * @param disk the disk's number, from 0; a negative one gives -EINVAL, one that the service does not have -EBADR.
 * @param out  receives the service's code, 0 to 255. Not null. Untouched after a failure.
 * @return 0; else a negative errno, after one line on stderr, or two without a connection: -ETIMEDOUT without an
 * answer in time, -EINTR ended by a signal handler, -ECONNRESET or -ENOTCONN once the bus has gone away, -ECHILD in a
 * forked child, and others. -EINVAL for a null `out`, with nothing sent.
 */
int32_t bdbus_rstorage_disk_get_media_type(int32_t disk, uint8_t *out);

/**
 * The protocol by which a disk's image is reached (D-Bus property "ProcotolType", which the service spells so).
 *
 * Waits for other getters, then up to 25 s for the answer, or what the environment's SYSTEMD_BUS_TIMEOUT says. The
 * call that opens the connection may wait 90 s more for a bus that hangs. Any thread may call.
 *
 * @param disk the disk's number, from 0; a negative one gives -EINVAL, one that the service does not have -EBADR.
 * @param out  receives the service's code, 0 to 255. Not null. Untouched after a failure.
 * @return 0; else a negative errno, after one line on stderr, or two without a connection: -ETIMEDOUT without an
 * answer in time, -EINTR ended by a signal handler, -ECONNRESET or -ENOTCONN once the bus has gone away, -ECHILD in a
 * forked child, and others. -EINVAL for a null `out`, with nothing sent.
 */
int32_t bdbus_rstorage_disk_get_proto_type(int32_t disk, uint8_t *out);

/**
 * Whether a disk is write-protected (D-Bus property "WriteProtected").
 *
 * Waits for other getters, then up to 25 s for the answer, or what the environment's SYSTEMD_BUS_TIMEOUT says. The
 * call that opens the connection may wait 90 s more for a bus that hangs. Any thread may call.
 *
 * @param disk the disk's number, from 0; a negative one gives -EINVAL, one that the service does not have -EBADR.
 * @param out  receives 0 or 1. Not null. Untouched after a failure.
 * @return 0; else a negative errno, after one line on stderr, or two without a connection: -ETIMEDOUT without an
 * answer in time, -EINTR ended by a signal handler, -ECONNRESET or -ENOTCONN once the bus has gone away, -ECHILD in a
 * forked child, and others. -EINVAL for a null `out`, with nothing sent.
 */
int32_t bdbus_rstorage_disk_get_write_protected_st(int32_t disk, uint8_t *out);

/**
 * The address of the SMB share that holds a disk's image (D-Bus property "SmbShareAddr").
 *
 * Waits for other getters, then up to 25 s for the answer, or what the environment's SYSTEMD_BUS_TIMEOUT says. The
 * call that opens the connection may wait 90 s more for a bus that hangs. Any thread may call.
 *
 * @param disk the disk's number, from 0; a negative one gives -EINVAL, one that the service does not have -EBADR.
 * @param buf  receives the text, NUL-terminated and cut to `len` - 1 bytes. Not null. Untouched after a failure.
 * @param len  the room in `buf`, in bytes; with 0 nothing is written, and the call succeeds all the same.
 * @return 0; else a negative errno, after one line on stderr, or two without a connection: -ETIMEDOUT without an
 * answer in time, -EINTR ended by a signal handler, -ECONNRESET or -ENOTCONN once the bus has gone away, -ECHILD in a
 * forked child, and others. -EINVAL for a null `buf`, with nothing sent.
 */
int32_t bdbus_rstorage_disk_get_smb_share_addr(int32_t disk, char *buf, uint32_t len);

/**
 * The user of a disk's share (D-Bus property "UserName").
 *
 * Waits for other getters, then up to 25 s for the answer, or what the environment's SYSTEMD_BUS_TIMEOUT says. The
 * call that opens the connection may wait 90 s more for a bus that hangs. Any thread may call.
 *
 * @param disk the disk's number, from 0; a negative one gives -EINVAL, one that the service does not have -EBADR.
 * @param buf  receives the text, NUL-terminated and cut to `len` - 1 bytes. Not null. Untouched after a failure.
 * @param len  the room in `buf`, in bytes; with 0 nothing is written, and the call succeeds all the same.
 * @return 0; else a negative errno, after one line on stderr, or two without a connection: -ETIMEDOUT without an
 * answer in time, -EINTR ended by a signal handler, -ECONNRESET or -ENOTCONN once the bus has gone away, -ECHILD in a
 * forked child, and others. -EINVAL for a null `buf`, with nothing sent.
 */
int32_t bdbus_rstorage_disk_get_username(int32_t disk, char *buf, uint32_t len);

/**
 * The path of a disk's image on its share (D-Bus property "SmbPathToFile").
 *
 * Waits for other getters, then up to 25 s for the answer, or what the environment's SYSTEMD_BUS_TIMEOUT says. The
 * call that opens the connection may wait 90 s more for a bus that hangs. Any thread may call.
 *
 * @param disk the disk's number, from 0; a negative one gives -EINVAL, one that the service does not have -EBADR.
 * @param buf  receives the text, NUL-terminated and cut to `len` - 1 bytes. Not null. Untouched after a failure.
 * @param len  the room in `buf`, in bytes; with 0 nothing is written, and the call succeeds all the same.
 * @return 0; else a negative errno, after one line on stderr, or two without a connection: -ETIMEDOUT without an
 * answer in time, -EINTR ended by a signal handler, -ECONNRESET or -ENOTCONN once the bus has gone away, -ECHILD in a
 * forked child, and others. -EINVAL for a null `buf`, with nothing sent.
 */
int32_t bdbus_rstorage_disk_get_smb_path_file(int32_t disk, char *buf, uint32_t len);

/**
 * The name of a disk's image (D-Bus property "ImageName").
 *
 * Waits for other getters, then up to 25 s for the answer, or what the environment's SYSTEMD_BUS_TIMEOUT says. The
 * call that opens the connection may wait 90 s more for a bus that hangs. Any thread may call.
 *
 * @param disk the disk's number, from 0; a negative one gives -EINVAL, one that the service does not have -EBADR.
 * @param buf  receives the text, NUL-terminated and cut to `len` - 1 bytes. Not null. Untouched after a failure.
 * @param len  the room in `buf`, in bytes; with 0 nothing is written, and the call succeeds all the same.
 * @return 0; else a negative errno, after one line on stderr, or two without a connection: -ETIMEDOUT without an
 * answer in time, -EINTR ended by a signal handler, -ECONNRESET or -ENOTCONN once the bus has gone away, -ECHILD in a
 * forked child, and others. -EINVAL for a null `buf`, with nothing sent.
 */
int32_t bdbus_rstorage_disk_get_image_name(int32_t disk, char *buf, uint32_t len);

/**
 * The URL of a disk's image (D-Bus property "ImageURL").
 *
 * Waits for other getters, then up to 25 s for the answer, or what the environment's SYSTEMD_BUS_TIMEOUT says. The
 * call that opens the connection may wait 90 s more for a bus that hangs. Any thread may call.
 *
 * @param disk the disk's number, from 0; a negative one gives -EINVAL, one that the service does not have -EBADR.
 * @param buf  receives the text, NUL-terminated and cut to `len` - 1 bytes. Not null. Untouched after a failure.
 * @param len  the room in `buf`, in bytes; with 0 nothing is written, and the call succeeds all the same.
 * @return 0; else a negative errno, after one line on stderr, or two without a connection: -ETIMEDOUT without an
 * answer in time, -EINTR ended by a signal handler, -ECONNRESET or -ENOTCONN once the bus has gone away, -ECHILD in a
 * forked child, and others. -EINVAL for a null `buf`, with nothing sent.
 */
int32_t bdbus_rstorage_disk_get_image_url(int32_t disk, char *buf, uint32_t len);

/**
 * The password of a disk's user, as the service gives it (D-Bus property "Password"). The library wipes its own copy;
 * the one in `buf` is the caller's to wipe.
 *
 * Waits for other getters, then up to 25 s for the answer, or what the environment's SYSTEMD_BUS_TIMEOUT says. The
 * call that opens the connection may wait 90 s more for a bus that hangs. Any thread may call.
 *
 * @param disk the disk's number, from 0; a negative one gives -EINVAL, one that the service does not have -EBADR.
 * @param buf  receives the text, NUL-terminated and cut to `len` - 1 bytes. Not null. Untouched after a failure.
 * @param len  the room in `buf`, in bytes; with 0 nothing is written, and the call succeeds all the same.
 * @return 0; else a negative errno, after one line on stderr, or two without a connection: -ETIMEDOUT without an
 * answer in time, -EINTR ended by a signal handler, -ECONNRESET or -ENOTCONN once the bus has gone away, -ECHILD in a
 * forked child, and others. -EINVAL for a null `buf`, with nothing sent.
 */
int32_t bdbus_rstorage_disk_get_password(int32_t disk, char *buf, uint32_t len);

/**
 * The domain of a disk's user (D-Bus property "Domain").
 *
 * Waits for other getters, then up to 25 s for the answer, or what the environment's SYSTEMD_BUS_TIMEOUT says. The
 * call that opens the connection may wait 90 s more for a bus that hangs. Any thread may call.
 *
 * @param disk the disk's number, from 0; a negative one gives -EINVAL, one that the service does not have -EBADR.
 * @param buf  receives the text, NUL-terminated and cut to `len` - 1 bytes. Not null. Untouched after a failure.
 * @param len  the room in `buf`, in bytes; with 0 nothing is written, and the call succeeds all the same.
 * @return 0; else a negative errno, after one line on stderr, or two without a connection: -ETIMEDOUT without an
 * answer in time, -EINTR ended by a signal handler, -ECONNRESET or -ENOTCONN once the bus has gone away, -ECHILD in a
 * forked child, and others. -EINVAL for a null `buf`, with nothing sent.
 */
int32_t bdbus_rstorage_disk_get_domain(int32_t disk, char *buf, uint32_t len);

/**
 * Ask for a status value of a disk (D-Bus method "Status").
 *
 * Waits for other getters, then up to 25 s for the answer, or what the environment's SYSTEMD_BUS_TIMEOUT says. The
 * call that opens the connection may wait 90 s more for a bus that hangs. Any thread may call.
 *
 * @param disk     the disk's number, from 0; a negative one gives -EINVAL, one that the service does not have -EBADR.
 * @param byte_arg sent with the question; what it means is the service's.
 * @param out      receives the value, the service's. Not null. Untouched after a failure.
 * @return positive when the answer was read; else a negative errno, after one line on stderr: -ETIMEDOUT without an
 * answer in time, -EINTR ended by a signal handler, -ECONNRESET or -ENOTCONN once the bus has gone away, -ECHILD in a
 * forked child, and others. -EINVAL for a null `out`, with nothing sent.
 */
int32_t bdbus_rstorage_disk_get_status(int32_t disk, uint8_t byte_arg, int32_t *out);

/**
 * Mount a disk's image (D-Bus method "Mount").
 *
 * Waits for other mounts, unmounts and gadget calls, then up to 25 s for the answer, or what the environment's
 * SYSTEMD_BUS_TIMEOUT says. The call that opens the connection may wait 90 s more for a bus that hangs. A mount that
 * takes longer fails here with -ETIMEDOUT and may go on in the service, and so may one whose call a signal handler
 * ended with -EINTR. The getters do not wait for it. Any thread may call.
 *
 * @param disk     the disk's number, from 0; a negative one gives -EINVAL, one that the service does not have -EBADR.
 * @param text_arg sent with the request. Not null. It passes through sd-bus's memory, where it is not wiped: unlike
 * the texts that are read, a copy may stay behind in memory that was given back.
 * @param out      receives the service's result. Not null. Untouched after a failure, unless only the reply's text
 * could not be read.
 * @param buf      receives the reply's text, NUL-terminated and cut to `len` - 1 bytes; untouched after a failure.
 * Null when only the result is wanted, and the reply need not have a text then.
 * @param len      the room in `buf`, in bytes; with 0 no text is written.
 * @return positive when the reply was read, whatever the service's result; else a negative errno, after one line on
 * stderr: -ETIMEDOUT without an answer in time, -EINTR ended by a signal handler, -ECONNRESET or -ENOTCONN once the
 * bus has gone away, -ECHILD in a forked child, and others. -EINVAL for a null `text_arg` or `out`, with nothing sent.
 */
int32_t bdbus_rstorage_disk_mount(int32_t disk, const char *text_arg, int32_t *out, char *buf, uint32_t len);

/**
 * Unmount a disk's image (D-Bus method "Unmount").
 *
 * Waits for other mounts, unmounts and gadget calls, then up to 25 s for the answer, or what the environment's
 * SYSTEMD_BUS_TIMEOUT says. The call that opens the connection may wait 90 s more for a bus that hangs. Any thread may
 * call.
 *
 * @param disk the disk's number, from 0; a negative one gives -EINVAL, one that the service does not have -EBADR.
 * @param out  receives the service's result. Not null. Untouched after a failure.
 * @return positive when the answer was read, whatever the service's result; else a negative errno, after one line on
 * stderr: -ETIMEDOUT without an answer in time, -EINTR ended by a signal handler, -ECONNRESET or -ENOTCONN once the
 * bus has gone away, -ECHILD in a forked child, and others. After -ETIMEDOUT and -EINTR the service may have done it
 * or not. -EINVAL for a null `out`, with nothing sent.
 */
int32_t bdbus_rstorage_disk_unmount(int32_t disk, int32_t *out);

/**
 * Start the gadget that presents a disk's image to the host (D-Bus method "GadgetStart").
 *
 * Waits for other mounts, unmounts and gadget calls, then up to 25 s for the answer, or what the environment's
 * SYSTEMD_BUS_TIMEOUT says. The call that opens the connection may wait 90 s more for a bus that hangs. Any thread may
 * call.
 *
 * @param disk     the disk's number, from 0; a negative one gives -EINVAL, one that the service does not have -EBADR.
 * @param byte_arg sent with the request; what it means is the service's.
 * @param bool_arg sent with the request, as true unless it is 0.
 * @param out      receives the service's result. Not null. Untouched after a failure.
 * @return positive when the answer was read, whatever the service's result; else a negative errno, after one line on
 * stderr: -ETIMEDOUT without an answer in time, -EINTR ended by a signal handler, -ECONNRESET or -ENOTCONN once the
 * bus has gone away, -ECHILD in a forked child, and others. After -ETIMEDOUT and -EINTR the service may have done it
 * or not. -EINVAL for a null `out`, with nothing sent.
 */
int32_t bdbus_rstorage_disk_gadget_start(int32_t disk, uint8_t byte_arg, int32_t bool_arg, int32_t *out);

/**
 * Stop the gadget that presents a disk's image to the host (D-Bus method "GadgetStop").
 *
 * Waits for other mounts, unmounts and gadget calls, then up to 25 s for the answer, or what the environment's
 * SYSTEMD_BUS_TIMEOUT says. The call that opens the connection may wait 90 s more for a bus that hangs. Any thread may
 * call.
 *
 * @param disk the disk's number, from 0; a negative one gives -EINVAL, one that the service does not have -EBADR.
 * @param out  receives the service's result. Not null. Untouched after a failure.
 * @return positive when the answer was read, whatever the service's result; else a negative errno, after one line on
 * stderr: -ETIMEDOUT without an answer in time, -EINTR ended by a signal handler, -ECONNRESET or -ENOTCONN once the
 * bus has gone away, -ECHILD in a forked child, and others. After -ETIMEDOUT and -EINTR the service may have done it
 * or not. -EINVAL for a null `out`, with nothing sent.
 */
int32_t bdbus_rstorage_disk_gadget_stop(int32_t disk, int32_t *out);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
