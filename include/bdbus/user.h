/* SPDX-License-Identifier: LGPL-2.1-or-later */
/**
 * @file user.h
 * The authentication log and notes of changed user accounts: service `com.brisemont.AuthLog1`.
 *
 * A record carries a request and takes the reply. What the bytes of either mean is the service's. A request travels as
 * 64 bytes: those that a function sends, and zeros after them. A completion code other than 0 is in the record, and the
 * function still succeeds.
 *
 * Results: positive when the reply was read. Otherwise the negative errno-style code of the step that failed, after one
 * line on stderr; the record is then untouched, but for the completion code of a reply that broke off after it. -EINVAL
 * for a null record, without a line and with nothing sent.
 *
 * Threads: any thread may call; calls of this family wait for one another, also while one waits for its answer.
 */
#ifndef BDBUS_USER_H
#define BDBUS_USER_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/** A request to the authentication log. */
typedef struct bdbus_authlog_request {
    uint8_t data[39];        /**< request: which of them are sent depends on the function */
    uint8_t completion_code; /**< reply */
    uint16_t value;          /**< reply */
} bdbus_authlog_request;

/** A change of a user account. */
typedef struct bdbus_user_update {
    uint16_t first_word;     /**< request: bytes 0 and 1, the low one first */
    uint16_t second_word;    /**< request: bytes 2 and 3, the low one first */
    uint8_t data[17];        /**< request: bytes 4 to 20 */
    uint8_t completion_code; /**< reply */
    uint16_t value;          /**< reply */
} bdbus_user_update;

/**
 * Add an entry to the log.
 *
 * @param rec all 39 bytes of `data` are sent; receives the reply.
 * @return as the file says.
 */
int32_t bdbus_user_authlog_add_entry(bdbus_authlog_request *rec);

/**
 * Delete an entry of the log.
 *
 * @param rec bytes 0 and 1 of `data` are sent; receives the reply.
 * @return as the file says.
 */
int32_t bdbus_user_authlog_del_entry(bdbus_authlog_request *rec);

/**
 * Clear the log.
 *
 * @param rec bytes 2 to 5 of `data` are sent, in front; receives the reply.
 * @return as the file says.
 */
int32_t bdbus_user_authlog_clear(bdbus_authlog_request *rec);

/**
 * Tell the service that a user account changed. It is a call, which is answered, and no signal.
 *
 * @param rec both words and all of `data` are sent; receives the reply.
 * @return as the file says.
 */
int32_t bdbus_user_update_send_event(bdbus_user_update *rec);

/**
 * Take at most one message off the family's connection and drop it. Never waits. The family has no notices: this is for
 * programs that run for long and want nothing to gather there.
 *
 * @return 0; the negative code of a connection that could not be opened, after a line on stderr.
 */
int32_t bdbus_user_event_process(void);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
