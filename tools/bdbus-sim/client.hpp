// SPDX-License-Identifier: LGPL-2.1-or-later
// The subcommands that talk to a running simulator.
#pragma once

#include <CLI/CLI.hpp>

#include <functional>

namespace bdbus_sim
{

/** Adds them; the one that is chosen puts what it does into `action`, to be run after parsing. */
void add_client_commands(CLI::App &app, std::function<void()> &action);

} // namespace bdbus_sim
