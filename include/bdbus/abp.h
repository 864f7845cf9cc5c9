/* SPDX-License-Identifier: LGPL-2.1-or-later */
/**
 * @file abp.h
 * Advanced bypass: the global reset, the permanent global reset and the permanent bypass.
 *
 * Service `com.brisemont.AdvancedBypass`. Every call opens a connection of its own, asks the service once and closes
 * it.
 *
 * Results: the 32-bit integer that the service answered, as it stands. A call that failed returns 0 too and prints one
 * line on stderr, so a program that must tell the two apart looks at stderr.
 *
 * Threads: any thread may call. Calls of this family wait for one another, also while one waits for its answer.
 */
#ifndef BDBUS_ABP_H
#define BDBUS_ABP_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/**
 * Set the global reset.
 *
 * @param value its low 8 bits are sent; what they mean is the service's.
 * @return the service's answer, or 0 after a line on stderr.
 */
int32_t bdbus_abp_set_global_reset(int32_t value);

/**
 * Set the permanent global reset.
 *
 * @param value its low 8 bits are sent; what they mean is the service's.
 * @return the service's answer, or 0 after a line on stderr.
 */
int32_t bdbus_abp_set_permanent_global_reset(int32_t value);

/**
 * Set the permanent bypass.
 *
 * @param first  sent first, its low 8 bits; what they mean is the service's.
 * @param second sent second, its low 8 bits.
 * @return the service's answer, or 0 after a line on stderr.
 */
int32_t bdbus_abp_set_permanent_bypass(int32_t first, int32_t second);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
