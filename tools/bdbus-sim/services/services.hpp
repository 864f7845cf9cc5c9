// SPDX-License-Identifier: LGPL-2.1-or-later
// The controller's services, each in a file of its own.
#pragma once

#include "frame/simulator.hpp"

namespace bdbus_sim
{

void add_bypass(simulator &sim);
void add_config(simulator &sim);
void add_bmc(simulator &sim);
void add_upgrade(simulator &sim);
void add_sdr(simulator &sim);
void add_sel(simulator &sim);
void add_raid(simulator &sim);
void add_network(simulator &sim);
void add_authlog(simulator &sim);
void add_rstorage(simulator &sim);

/** In the order in which they come onto the bus. */
inline constexpr simulator::add_function *all_services[] = {
    add_bypass, add_config, add_bmc, add_upgrade, add_sdr, add_sel, add_raid, add_network, add_authlog, add_rstorage,
};

} // namespace bdbus_sim
