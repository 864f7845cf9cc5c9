// SPDX-License-Identifier: LGPL-2.1-or-later
// An owner for a connection to the bus.
#pragma once

#include <systemd/sd-bus.h>

#include <memory>

namespace bdbus_tools
{

/** Does not flush: a bus that hangs would keep the program waiting. */
struct bus_close {
    void operator()(sd_bus *bus) const { sd_bus_close_unref(bus); }
};

using bus_pointer = std::unique_ptr<sd_bus, bus_close>;

} // namespace bdbus_tools
