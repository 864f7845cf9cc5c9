// SPDX-License-Identifier: LGPL-2.1-or-later
// The one connection of the upgrade family and of the HPM.1 commands.
#pragma once

#include "bus/call.hpp"
#include "bus/connection.hpp"

namespace bdbus
{

inline constexpr service upgrade_service = {
    .name = "com.brisemont.Upgrade1",
    .path = "/com/brisemont/Upgrade1",
    .interface = "com.brisemont.Upgrade1",
};

extern bus_module upgrade_module;

/** Take the module's lock and connection; the first open subscribes to the notices. */
int32_t upgrade_bus_acquire();
void upgrade_bus_release();

using upgrade_hold = module_hold<upgrade_module, upgrade_bus_acquire, upgrade_bus_release>;

/** One call on the held connection, to the upgrade service unless another is named. */
class upgrade_call : public module_call<upgrade_hold>
{
public:
    explicit upgrade_call(const service &peer = upgrade_service) : module_call(peer, plain_texts) {}
};

} // namespace bdbus
