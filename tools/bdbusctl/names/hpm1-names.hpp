// SPDX-License-Identifier: LGPL-2.1-or-later
// The names of HPM.1 for the codes and bits of an upgrade.
#pragma once

#include "frame/report.hpp"

#include <array>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace bdbusctl
{

/** Major, minor, four auxiliary bytes. */
using hpm1_version = std::array<uint8_t, 6>;

/** Timeouts are in units of so many seconds. */
inline constexpr unsigned hpm1_timeout_unit_s = 5;

/** Bits of a component's general properties. */
inline constexpr uint8_t component_has_rollback = 0x02;
inline constexpr uint8_t component_has_deferral = 0x10;

/** The HPM.1 commands by their codes, as the upgrade status reports them. */
enum class hpm1_command : uint8_t {
    target_capabilities = 0x2E,
    component_properties,
    abort,
    action,
    upload_block,
    finish_upload,
    upgrade_status,
    activate,
    self_test,
    rollback_status,
    manual_rollback,
};

std::string_view command_name(uint8_t code);
std::string_view action_name(uint8_t action);

/** What a completion code means as the answer to a command. */
std::string completion_name(hpm1_command command, uint8_t code);
cell completion_cell(hpm1_command command, uint8_t code);

std::string self_test_name(uint8_t result1, uint8_t result2);

/** The names of the bits that are set, from bit 0 up. */
std::vector<std::string> global_capability_names(uint8_t bits);
std::vector<std::string> component_capability_names(uint8_t bits);

/** The numbers of the components in a mask, in a table or an array. */
cell components_cell(uint8_t mask);

cell timeout_cell(uint8_t units);

/**
 * A version as HPM.1 writes it: the minor byte holds two decimal digits; auxiliary bytes are left out when all are
 * zero.
 */
std::string version_text(std::span<const uint8_t> version);

/** The same as a cell; none for a version that is absent (empty, or all bytes 0xFF). */
cell version_cell(std::span<const uint8_t> version);
/** Its bytes, for JSON beside the text. */
cell version_hex_cell(std::span<const uint8_t> version);

/** Of MAJOR.MINOR[.AUXILIARY], as version_text() writes it; anything else is a std::invalid_argument. */
hpm1_version parse_version(const std::string &text);

} // namespace bdbusctl
