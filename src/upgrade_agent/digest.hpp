// SPDX-License-Identifier: LGPL-2.1-or-later
// The digest that an image ends with.
#pragma once

#include <cstdint>

namespace bdbus
{

inline constexpr uint32_t digest_bytes = 16;

/** Compute the MD5 digest (RFC 1321) of bytes. @return 0, or the integrity check's code after its line. */
int32_t compute_digest(const uint8_t *bytes, uint32_t length, uint8_t (&digest)[digest_bytes]);

} // namespace bdbus
