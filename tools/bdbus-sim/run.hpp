// SPDX-License-Identifier: LGPL-2.1-or-later
// The two ways to run the simulator.
#pragma once

#include "frame/json.hpp"

#include <string>
#include <vector>

namespace bdbus_sim
{

// Both return the exit status, and throw std::exception when they cannot start.

/** Serves on the system bus until SIGINT or SIGTERM. */
int serve(const json &scenario);

/** Runs a command beside the simulator, on a bus of their own. */
int run_command(const json &scenario, const std::vector<std::string> &command);

} // namespace bdbus_sim
