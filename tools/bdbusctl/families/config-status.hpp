// SPDX-License-Identifier: LGPL-2.1-or-later
// The status of a configuration call, as a text and as a failure.
#pragma once

#include "frame/session.hpp"

#include <cstdint>
#include <string>

namespace bdbusctl
{

/** A status of the configuration calls, which the upgrade agent passes on. */
std::string config_status_text(int32_t status);

void check_config_status(const std::string &intent, int32_t status);

} // namespace bdbusctl
