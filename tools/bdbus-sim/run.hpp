// SPDX-License-Identifier: LGPL-2.1-or-later
#ifndef BDBUS_SIM_RUN_HPP
#define BDBUS_SIM_RUN_HPP

#include "frame/json.hpp"

#include <string>
#include <vector>

// Both give the exit status, and throw std::exception when they cannot begin.

// Serves on the system bus until SIGINT or SIGTERM.
int serve(const json &scenario);

// Runs a command beside the simulator, on a bus of their own.
int run_command(const json &scenario, const std::vector<std::string> &command);

#endif
