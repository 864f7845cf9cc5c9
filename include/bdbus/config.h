/* SPDX-License-Identifier: LGPL-2.1-or-later */
/**
 * @file config.h
 * Configuration: typed, cached access to the fifteen keys of service `com.brisemont.Config1`.
 *
 * | Key                              | Type | May be set |
 * |----------------------------------|------|------------|
 * | "Firmware.Aux"                   | "u"  | no         |
 * | "Firmware.Has_Signature"         | "b"  | no         |
 * | "Firmware.Major"                 | "u"  | no         |
 * | "Firmware.Minor"                 | "u"  | no         |
 * | "Generic.Device_Id"              | "u"  | no         |
 * | "Generic.Device_Name"            | "s"  | no         |
 * | "Generic.Device_Revision"        | "u"  | no         |
 * | "Generic.Manufacturer_Id"        | "u"  | no         |
 * | "Generic.Product_Id"             | "u"  | no         |
 * | "Generic_Index"                  | "u"  | yes        |
 * | "Hpm2.Dynamic_Credentials"       | "b"  | no         |
 * | "Hpm2.Dynamic_Credentials_Reuse" | "b"  | no         |
 * | "Hpm2.Enabled"                   | "b"  | no         |
 * | "Hpm2.Packet_Trace"              | "b"  | no         |
 * | "Hpm3.Enabled"                   | "b"  | no         |
 *
 * Keys are case-sensitive. A value is asked of the service once and then answered from the cache, without bus traffic,
 * until the key is set or a change is announced, by whomever. Notices are handled at the start of every get and set,
 * one a call: a change is seen once those that were queued before it have had their turn.
 *
 * Results: 0 or one of the codes below, always positive. Nothing is printed. A call that fails leaves its output
 * untouched.
 *
 * The connection: the first call opens it and subscribes to the notice. It is open once the bus has greeted it and has
 * answered the subscription, be it with a refusal; before that, a connection that was dropped or timed out is one that
 * could not be opened, and the next call tries again. One that was open is never opened again: when the bus has gone
 * away, calls that ask the service give 0x1000 | ENOTCONN (the one during which it went 0x1000 | ECONNRESET), until the
 * process is restarted, while cached values are given on, whatever changes. A get on a bus that hangs waits one
 * time-out: 90 s while it opens the connection, else 25 s or what the environment's SYSTEMD_BUS_TIMEOUT says.
 *
 * Signals: while a call waits, SIGCHLD, SIGWINCH, SIGIO, SIGURG, SIGPROF and SIGVTALRM are held back in its thread, and
 * their handlers run right after it. Any other signal whose handler runs in that thread (SIGALRM, SIGUSR1, SIGTERM,
 * ...), with SA_RESTART or without, ends the call with 0x1000 | EINTR, which can serve as a program's own limit on a
 * call (best with a timer that repeats, and not while the call waits for another thread's call); a set has reached the
 * service or not. While the connection is opened and subscribed, all signals are held back during each step but SIGINT,
 * SIGTERM, SIGQUIT, SIGHUP and faults.
 *
 * Threads: any thread may call; calls of this family wait for one another. A thread that is canceled (pthread_cancel)
 * inside a call ends only after it. In a child that was forked while the connection was open, every get and set of a
 * key gives 0x1000 | ECHILD at once, also a get whose value is cached.
 */
#ifndef BDBUS_CONFIG_H
#define BDBUS_CONFIG_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

#define BDBUS_CONFIG_OK 0                /**< done */
#define BDBUS_CONFIG_BAD_TYPE 200        /**< the operation does not handle the key's type; no key has such a type */
#define BDBUS_CONFIG_NO_KEY 201          /**< no such key, or a null one */
#define BDBUS_CONFIG_WRONG_SIGNATURE 202 /**< the signature is null or begins with another type than the key's */
#define BDBUS_CONFIG_READ_ONLY 203       /**< the key cannot be set */
#define BDBUS_CONFIG_NO_STRING_SET 204   /**< a text key cannot be set; today's one text key gives 203 first */
#define BDBUS_CONFIG_NO_BUS 205          /**< no connection to the system bus; the next call tries again */
#define BDBUS_CONFIG_ERRNO 0x1000        /**< bitwise-ORed with the errno of the step that failed, such as EINTR */

/**
 * Read a key of the configuration service, from the cache or, where nothing is cached, from the service (D-Bus property
 * read). First handles one queued change notice.
 *
 * Waits for other calls of this file, and for the service up to 25 s, or what the environment's SYSTEMD_BUS_TIMEOUT
 * says. The call that opens the connection may wait 90 s more for a bus that hangs. Any thread may call. Prints
 * nothing.
 *
 * @param key       the key's name, such as "Firmware.Major"; the table at the top of this file has them all.
 * @param signature the type that the caller expects, "u", "b" or "s"; only its first character is compared with the
 * key's.
 * @param ...       for "u" and "b" a `uint32_t *`, which receives the value, of a "b" 0 or 1. For "s" a `char *` and a
 * `uint32_t`, the bytes of room: receives the text, padded with NULs, or cut and then not terminated. Not null.
 * Untouched after a failure.
 * @return BDBUS_CONFIG_OK (0); BDBUS_CONFIG_NO_KEY (201); BDBUS_CONFIG_WRONG_SIGNATURE (202); 0x1000 | EINVAL for a
 * null output. These three failures send nothing. BDBUS_CONFIG_NO_BUS (205), after one attempt to connect; 0x1000 |
 * errno when the service or the bus failed: ETIMEDOUT, EINTR when a signal handler ended the call, ENOMEM, ECONNRESET
 * or ENOTCONN once the bus has gone away, ECHILD in a forked child.
 */
int32_t bdbus_config_get(const char *key, const char *signature, ...);

/**
 * Set a key of the configuration service (D-Bus property write). "Generic_Index" is the only one that can be set.
 *
 * Once the arguments are in order and there is a connection, the cached value is dropped, whatever the outcome; the
 * next get asks the service. Waits as bdbus_config_get() does. Any thread may call. Prints nothing.
 *
 * @param key       the key's name.
 * @param signature the type of the value, "u" or "b"; only its first character is compared with the key's.
 * @param ...       a `const uint32_t *`, the value to send. Not null.
 * @return BDBUS_CONFIG_OK (0); BDBUS_CONFIG_NO_KEY (201), BDBUS_CONFIG_WRONG_SIGNATURE (202), BDBUS_CONFIG_READ_ONLY
 * (203), 0x1000 | EINVAL for a null value, in this order and with nothing sent. BDBUS_CONFIG_NO_BUS (205), after one
 * attempt to connect; 0x1000 | errno when the service or the bus failed: ETIMEDOUT or EINTR (a signal handler ended the
 * call), both with the value set or not, ECONNRESET or ENOTCONN once the bus has gone away, ECHILD in a forked child.
 */
int32_t bdbus_config_set(const char *key, const char *signature, ...);

/**
 * Read a text key, from the cache or from the service: bdbus_config_get() with "s".
 *
 * @param key the key's name; "Generic.Device_Name" is the only text.
 * @param buf receives the text, padded with NULs up to `len` bytes. A text of `len` bytes or more fills it without a
 * terminating NUL. Not null. Untouched after a failure.
 * @param len the room in `buf`, in bytes; with 0 nothing is written.
 * @return BDBUS_CONFIG_OK (0); BDBUS_CONFIG_NO_KEY (201); BDBUS_CONFIG_WRONG_SIGNATURE (202) for a key that is no text;
 * BDBUS_CONFIG_NO_BUS (205); 0x1000 | EINVAL for a null `buf`, else 0x1000 | errno when the service or the bus failed,
 * such as ETIMEDOUT, EINTR, ENOTCONN or, in a forked child, ECHILD.
 */
int32_t bdbus_config_get_string(const char *key, char *buf, uint32_t len);

/**
 * Read a number, from the cache or from the service: bdbus_config_get() with "u".
 *
 * @param key the key's name, such as "Firmware.Major".
 * @param out receives the value. Not null. Untouched after a failure.
 * @return BDBUS_CONFIG_OK (0); BDBUS_CONFIG_NO_KEY (201); BDBUS_CONFIG_WRONG_SIGNATURE (202) for a key that is no
 * number; BDBUS_CONFIG_NO_BUS (205); 0x1000 | EINVAL for a null `out`, else 0x1000 | errno when the service or the bus
 * failed, such as ETIMEDOUT, EINTR, ENOTCONN or, in a forked child, ECHILD.
 */
int32_t bdbus_config_get_unsigned(const char *key, uint32_t *out);

/**
 * Read a switch, from the cache or from the service: bdbus_config_get() with "b". It cannot report a failure: use
 * bdbus_config_get() where that matters.
 *
 * @param key the key's name, such as "Hpm2.Enabled".
 * @return 1 on, 0 off; 0 also when the read failed, for whatever reason.
 */
int32_t bdbus_config_get_bool(const char *key);

/**
 * Set a number at the service: bdbus_config_set() with "u". The next get asks the service.
 *
 * @param key   the key's name; "Generic_Index" is the only one that can be set.
 * @param value the value to send.
 * @return BDBUS_CONFIG_OK (0); BDBUS_CONFIG_NO_KEY (201); BDBUS_CONFIG_WRONG_SIGNATURE (202) for a key that is no
 * number; BDBUS_CONFIG_READ_ONLY (203); BDBUS_CONFIG_NO_BUS (205); 0x1000 | errno when the service or the bus failed:
 * after ETIMEDOUT and EINTR the value is set or not; ECONNRESET or ENOTCONN once the bus has gone away, ECHILD in a
 * forked child.
 */
int32_t bdbus_config_set_unsigned(const char *key, uint32_t value);

/**
 * Set a switch: bdbus_config_set() with "b". No switch can be set today, so nothing is sent and the result is never 0.
 *
 * @param key   the key's name.
 * @param value 1 on, 0 off.
 * @return BDBUS_CONFIG_NO_KEY (201); BDBUS_CONFIG_WRONG_SIGNATURE (202) for a key that is no switch;
 * BDBUS_CONFIG_READ_ONLY (203) for one that is.
 */
int32_t bdbus_config_set_bool(const char *key, int32_t value);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
