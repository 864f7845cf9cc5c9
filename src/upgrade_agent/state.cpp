// SPDX-License-Identifier: LGPL-2.1-or-later
// The agent's state.
#include "upgrade_agent/state.hpp"

namespace bdbus
{

constinit upgrade_agent_component component_table[BDBUS_UPGRADE_AGENT_COMPONENTS] = {};
constinit agent_status current_status = {};

} // namespace bdbus
