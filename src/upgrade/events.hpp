// SPDX-License-Identifier: LGPL-2.1-or-later
// The subscription to the notices.
#pragma once

#include <systemd/sd-bus.h>

#include <cstdint>

namespace bdbus
{

/** Subscribe a new connection to the 80 notices. @return 0, or the first match's negative code. */
int32_t upgrade_events_match(sd_bus *bus);

} // namespace bdbus
