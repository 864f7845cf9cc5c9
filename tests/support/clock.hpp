// SPDX-License-Identifier: LGPL-2.1-or-later
// The test programs stand in for the C library's time() and nanosleep(): a sleep returns at once and moves the time on.
#pragma once

#include <cstdint>
#include <vector>

/** The sleeps since the last call, in milliseconds. */
std::vector<int64_t> take_sleeps();

/** Let each look at the clock move it on by so many seconds; 0 lets it stand still. */
void set_clock_step(int64_t seconds);
