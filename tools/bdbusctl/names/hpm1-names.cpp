// SPDX-License-Identifier: LGPL-2.1-or-later
// The tables behind the names, and versions as texts.
#include "names/hpm1-names.hpp"

#include "frame/text.hpp"
#include "names/ipmi-names.hpp"

#include <bdbus/upgrade_agent.h>

#include <CLI/CLI.hpp>

#include <algorithm>
#include <array>
#include <bit>

namespace bdbusctl
{

namespace
{

struct command_completion {
    hpm1_command command;
    uint8_t code;
    std::string_view name;
};

constexpr std::array command_completions{
    command_completion{hpm1_command::component_properties, 0x82, "invalid component"},
    command_completion{hpm1_command::component_properties, 0x83, "invalid property selector"},
    command_completion{hpm1_command::abort, 0x80, "upgrade cannot be aborted now"},
    command_completion{hpm1_command::action, 0x81, "invalid component"},
    command_completion{hpm1_command::upload_block, BDBUS_HPM1_CC_RESEND, "block not taken, send it again"},
    command_completion{hpm1_command::upload_block, BDBUS_HPM1_CC_RESEND_NUMBER, "block not taken, send it again"},
    command_completion{hpm1_command::finish_upload, 0x81, "number of bytes differs from the image length"},
    command_completion{hpm1_command::finish_upload, 0x82, "checksum error in the component's data"},
    command_completion{hpm1_command::finish_upload, BDBUS_HPM1_CC_COPY_DIFFERS,
                       "active copy does not match the upgrade image"},
    command_completion{hpm1_command::rollback_status, BDBUS_HPM1_CC_ROLLBACK_FAILED, "rollback failed"},
};

constexpr code_name named(hpm1_command command, std::string_view name)
{
    return {static_cast<uint8_t>(command), name};
}

constexpr std::array commands{
    named(hpm1_command::target_capabilities, "get target upgrade capabilities"),
    named(hpm1_command::component_properties, "get component properties"),
    named(hpm1_command::abort, "abort firmware upgrade"),
    named(hpm1_command::action, "initiate upgrade action"),
    named(hpm1_command::upload_block, "upload firmware block"),
    named(hpm1_command::finish_upload, "finish firmware upload"),
    named(hpm1_command::upgrade_status, "get upgrade status"),
    named(hpm1_command::activate, "activate firmware"),
    named(hpm1_command::self_test, "query self-test results"),
    named(hpm1_command::rollback_status, "query rollback status"),
    named(hpm1_command::manual_rollback, "initiate manual rollback"),
};

constexpr std::array actions{
    code_name{BDBUS_HPM1_ACTION_BACKUP, "backup"},
    code_name{BDBUS_HPM1_ACTION_PREPARE, "prepare"},
    code_name{BDBUS_HPM1_ACTION_UPLOAD, "upload"},
};

constexpr uint8_t self_test_inaccessible = 0x57;

constexpr std::array self_test_results{
    code_name{BDBUS_HPM1_SELF_TEST_PASSED, "passed"},
    code_name{0x56, "no self test on this controller"},
    code_name{self_test_inaccessible, "corrupted or inaccessible data or devices"},
    code_name{0x58, "fatal hardware error"},
};

/** Second byte of a self test with that result. */
constexpr std::array<std::string_view, 8> inaccessible_parts{
    "operational firmware corrupted", "boot block firmware corrupted", "internal use area of the FRU corrupted",
    "SDR repository empty",           "IPMB lines do not respond",     "FRU device inaccessible",
    "SDR repository inaccessible",    "SEL device inaccessible",
};

constexpr std::array<std::string_view, 8> global_capabilities{
    "self-test",           "automatic-rollback", "manual-rollback",     "service-affected",
    "deferred-activation", "degraded-meanwhile", "rollback-overridden", "upgrade-undesirable",
};

constexpr std::array<std::string_view, 8> component_capabilities{
    "reserved-0",          "rollback",   "preparation", "comparison", "deferred-activation",
    "activation-followup", "reserved-6", "reserved-7",
};

bool is_absent(std::span<const uint8_t> version)
{
    return std::all_of(version.begin(), version.end(), [](uint8_t byte) { return byte == 0xFF; });
}

} // namespace

std::string_view command_name(uint8_t code)
{
    return find_name(commands, code, code == 0 ? "none" : "unknown command");
}

std::string_view action_name(uint8_t action)
{
    return find_name(actions, action, "unknown action");
}

std::string completion_name(hpm1_command command, uint8_t code)
{
    for (const auto &entry : command_completions) {
        if (entry.command == command && entry.code == code) {
            return std::string(entry.name);
        }
    }
    if (code == BDBUS_HPM1_CC_IN_PROGRESS) {
        return "command in progress";
    }
    return completion_name(code);
}

cell completion_cell(hpm1_command command, uint8_t code)
{
    return {hex_text(code) + " (" + completion_name(command, code) + ")", code, code == 0 ? "" : "red"};
}

std::string self_test_name(uint8_t result1, uint8_t result2)
{
    std::string name(find_name(self_test_results, result1, "failed, device-specific"));
    if (result1 == self_test_inaccessible && result2 != 0) {
        name += ": " + join(bit_names(inaccessible_parts, result2), ", ");
    }
    return name;
}

std::vector<std::string> global_capability_names(uint8_t bits)
{
    return bit_names(global_capabilities, bits);
}

std::vector<std::string> component_capability_names(uint8_t bits)
{
    return bit_names(component_capabilities, bits);
}

cell components_cell(uint8_t mask)
{
    std::vector<std::string> texts;
    json numbers = json::array();
    for (unsigned component = 0; component < BDBUS_UPGRADE_AGENT_COMPONENTS; component++) {
        if ((mask >> component & 1) != 0) {
            texts.push_back(std::to_string(component));
            numbers.push_back(component);
        }
    }
    return {join(texts, ", "), numbers};
}

cell timeout_cell(uint8_t units)
{
    const unsigned seconds = units * hpm1_timeout_unit_s;
    return {format("%u s", seconds), seconds};
}

std::string version_text(std::span<const uint8_t> version)
{
    constexpr size_t longest = std::tuple_size_v<hpm1_version>;
    if (version.size() < 2) {
        return hex_digits(version);
    }
    std::string text = format("%u.%02X", version[0], version[1]);
    const auto auxiliary = version.first(std::min(version.size(), longest)).subspan(2);
    if (std::any_of(auxiliary.begin(), auxiliary.end(), [](uint8_t byte) { return byte != 0; })) {
        text += "." + hex_digits(auxiliary);
    }
    return version.size() > longest ? text + "..." : text;
}

hpm1_version parse_version(const std::string &text)
{
    const std::vector<std::string> parts = CLI::detail::split(text, '.');
    const std::string minor = parts.size() > 1 ? parts[1] : "";
    const std::string auxiliary = parts.size() > 2 ? parts[2] : "";
    hpm1_version version{};
    const size_t auxiliary_room = 2 * (version.size() - 2);
    if (parts.size() > 3 || minor.empty() || minor.size() > 2 || auxiliary.size() % 2 != 0 ||
        auxiliary.size() > auxiliary_room ||
        (minor + auxiliary).find_first_not_of("0123456789abcdefABCDEF") != std::string::npos) {
        throw std::invalid_argument("'" + one_line(text) + "' is not MAJOR.MINOR, or that and up to 4 bytes in hex");
    }

    version[0] = static_cast<uint8_t>(parse_number(parts[0], 0, UINT8_MAX));
    version[1] = static_cast<uint8_t>(std::stoul(minor, nullptr, 16));
    for (size_t index = 0; index < auxiliary.size() / 2; index++) {
        version[2 + index] = static_cast<uint8_t>(std::stoul(auxiliary.substr(2 * index, 2), nullptr, 16));
    }
    return version;
}

cell version_cell(std::span<const uint8_t> version)
{
    return is_absent(version) ? cell::none() : cell(version_text(version));
}

cell version_hex_cell(std::span<const uint8_t> version)
{
    return cell::hidden(is_absent(version) ? json(nullptr) : json(hex_digits(version)));
}

} // namespace bdbusctl
