// SPDX-License-Identifier: LGPL-2.1-or-later
// Verbs that follow events: a line, or a JSON object on a line, for each, until there are enough of them, a
// signal ends the program, or the service or the bus goes.
#pragma once

#include "frame/command.hpp"

#include <functional>
#include <string>
#include <vector>

namespace bdbusctl
{

struct watch_arguments {
    uint64_t count = 0;
};

void declare_watch(CLI::App &command, watch_arguments &given);

struct event {
    std::string line;
    json document; // an object
};

/** Asks `collect` ten times a second for new events; fails when the service is not on the bus. */
void follow(const session &run, const watch_arguments &given, const char *service,
            const std::function<std::vector<event>()> &collect);

} // namespace bdbusctl
