// SPDX-License-Identifier: LGPL-2.1-or-later
#pragma once

#include <systemd/sd-bus.h>

namespace bdbus
{

/** Subscribe a new connection to the 80 notices. */
void upgrade_events_match(sd_bus *bus);

} // namespace bdbus
