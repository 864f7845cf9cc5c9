// SPDX-License-Identifier: LGPL-2.1-or-later
// Questions to the upgrade target that more than one family asks.
#pragma once

#include "frame/session.hpp"
#include "names/hpm1-names.hpp"

#include <bdbus/hpm1.h>

#include <array>
#include <cstdint>
#include <string>

namespace bdbusctl
{

struct component_property {
    uint8_t completion_code = 0;
    std::array<uint8_t, BDBUS_HPM1_PROPERTY_MAX> data{};

    bool available() const { return completion_code == BDBUS_HPM1_CC_SUCCESS; }
    hpm1_version version() const;
    std::string text() const;
};

component_property read_property(const session &run, uint8_t component, uint8_t selector);
/** The same; a nonzero completion code is a failure. */
component_property require_property(const session &run, uint8_t component, uint8_t selector);

bdbus_hpm1_target_caps_rec read_capabilities(const session &run);

/** A completion code other than success, as a failure with the code and its name. */
failure completion_failure(const std::string &message, hpm1_command command, uint8_t code);
void require_success(const std::string &intent, hpm1_command command, uint8_t code);

} // namespace bdbusctl
