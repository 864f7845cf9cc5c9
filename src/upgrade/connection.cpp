// SPDX-License-Identifier: LGPL-2.1-or-later
// The module of the upgrade family and of the HPM.1 commands.
#include "upgrade/connection.hpp"

#include "upgrade/events.hpp"

namespace bdbus
{

constinit bus_module upgrade_module;

int32_t upgrade_bus_acquire()
{
    return module_acquire(upgrade_module, upgrade_events_match);
}

void upgrade_bus_release()
{
    module_release(upgrade_module);
}

} // namespace bdbus
