// SPDX-License-Identifier: LGPL-2.1-or-later
// What all measured programs do: so many times through, of which the first few are not measured.
#pragma once

namespace bench
{

/** One time through. @return whether it came out as it should. */
using side = bool (*)();

/**
 * Do it, with the measured part between two calls of measured_part(), and print how long that took in nanoseconds and
 * how much the peak memory grew in bytes, the first few times included.
 *
 * The program ends there.
 *
 * @param few  as a text, like `many`: from the command line.
 */
[[noreturn]] void measure(side once, const char *few, const char *many);

} // namespace bench
