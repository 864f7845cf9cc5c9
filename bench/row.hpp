// SPDX-License-Identifier: LGPL-2.1-or-later
// A row of the table: the same thing done by the library and by bare sd-bus.
#pragma once

#include "measure.hpp"

#include <span>

namespace bench
{

struct row {
    const char *name;
    const char *title;
    side library;
    side bare;

    /** The greatest ratio of the library's cost to the bare one's; 0 for a row that is only shown. */
    double budget;

    /** The cost is the difference between so many times through and so many; what comes first costs more. */
    unsigned few = 100;
    unsigned many = 300;

    /** How many of what the title names one time through has. */
    unsigned per = 1;

    /** How the service is started. */
    const char *service = "";

    /** Whether it takes too long for the gate. */
    bool long_running = false;
};

// A family's rows, each in a file of its own.
extern const std::span<const row> call_rows;
extern const std::span<const row> config_rows;
extern const std::span<const row> image_rows;
extern const std::span<const row> network_rows;
extern const std::span<const row> sdr_rows;
extern const std::span<const row> upgrade_rows;

} // namespace bench
