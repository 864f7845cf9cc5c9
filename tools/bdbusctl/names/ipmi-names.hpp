// SPDX-License-Identifier: LGPL-2.1-or-later
// The names of IPMI 2.0 for its codes: completions, sensors, their events and units. A code without a name is shown as
// a number.
#pragma once

#include "frame/session.hpp"

#include <array>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace bdbusctl
{

struct code_name {
    uint8_t code;
    std::string_view name;
};

std::string_view find_name(std::span<const code_name> names, uint8_t code, std::string_view otherwise);

/** The names of the bits that are set, from bit 0 up. */
std::vector<std::string> bit_names(const std::array<std::string_view, 8> &names, uint8_t bits);

/** The completion codes that the client acts on. */
constexpr uint8_t completion_success = 0x00;
constexpr uint8_t completion_not_present = 0xCB;

std::string completion_name(uint8_t code);
/** A completion code other than success, as a failure with the code and its name. */
failure completion_failure(const std::string &message, uint8_t code, const std::string &name);

std::string sensor_type_name(uint8_t sensor_type);
std::string unit_name(uint8_t unit);

constexpr uint8_t threshold_events = 0x01;
constexpr uint8_t sensor_specific_events = 0x6F;

std::string event_type_name(uint8_t event_type);
/** An event by its offset, 0 to 15; whose offsets are a sensor type's own only with sensor_specific_events. */
std::string event_name(uint8_t event_type, uint8_t sensor_type, unsigned offset);
/** Those of a mask, which has one bit for each offset. */
std::vector<std::string> event_names(uint8_t event_type, uint8_t sensor_type, uint16_t mask);

} // namespace bdbusctl
