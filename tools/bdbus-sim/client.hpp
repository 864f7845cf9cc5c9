// SPDX-License-Identifier: LGPL-2.1-or-later
// The command line of those subcommands that talk to a running simulator.
#pragma once

#include <CLI/CLI.hpp>

#include <functional>

namespace bdbus_sim
{

/** Adds the subcommands. The one that is chosen sets `action`, which is to be run after parsing. */
void add_client_commands(CLI::App &app, std::function<void()> &action);

} // namespace bdbus_sim
