// SPDX-License-Identifier: LGPL-2.1-or-later
// One command that drives a whole upgrade.
#pragma once

#include "frame/session.hpp"

#include <string>

namespace bdbusctl
{

struct upgrade_request {
    std::string image;
    bool force = false;
    bool skip_identity = false;
};

/** The whole road of an upgrade: check, show and ask, upload, activate, show. */
void run_upgrade(const session &run, const upgrade_request &request);

} // namespace bdbusctl
