// SPDX-License-Identifier: LGPL-2.1-or-later
// The tables behind the names, and looking things up in them.
#include "names/ipmi-names.hpp"

#include "frame/text.hpp"

#include <algorithm>

namespace bdbusctl
{

namespace
{

constexpr std::array generic_completions{
    code_name{completion_success, "success"},
    code_name{0xC0, "node busy"},
    code_name{0xC1, "invalid command"},
    code_name{0xC2, "command invalid for the logical unit"},
    code_name{0xC3, "timeout while processing"},
    code_name{0xC4, "out of space"},
    code_name{0xC5, "reservation canceled or invalid"},
    code_name{0xC6, "request data truncated"},
    code_name{0xC7, "request data length invalid"},
    code_name{0xC8, "request data field length limit exceeded"},
    code_name{0xC9, "parameter out of range"},
    code_name{0xCA, "cannot return the requested number of bytes"},
    code_name{completion_not_present, "requested sensor, data or record not present"},
    code_name{0xCC, "invalid data field in request"},
    code_name{0xCD, "command illegal for the sensor or record type"},
    code_name{0xCE, "response could not be provided"},
    code_name{0xCF, "duplicated request"},
    code_name{0xD0, "response could not be provided: repository in update mode"},
    code_name{0xD1, "response could not be provided: firmware in update mode"},
    code_name{0xD2, "response could not be provided: initialization in progress"},
    code_name{0xD3, "destination unavailable"},
    code_name{0xD4, "insufficient privilege level"},
    code_name{0xD5, "not supported in present state"},
    code_name{0xD6, "sub-function disabled or unavailable"},
    code_name{0xFF, "unspecified error"},
};

/** Names of codes or offsets that follow each other, "|" between them; an empty one is reserved. */
struct named_list {
    std::string_view name;
    std::string_view entries;
};

/** By event/reading type, from threshold_events on. */
constexpr std::array event_types{
    named_list{"threshold",
               "lower non-critical going low|lower non-critical going high|lower critical going low|"
               "lower critical going high|lower non-recoverable going low|lower non-recoverable going high|"
               "upper non-critical going low|upper non-critical going high|upper critical going low|"
               "upper critical going high|upper non-recoverable going low|upper non-recoverable going high"},
    named_list{"usage", "idle|active|busy"},
    named_list{"state", "deasserted|asserted"},
    named_list{"predictive failure", "deasserted|asserted"},
    named_list{"limit", "not exceeded|exceeded"},
    named_list{"performance", "met|lags"},
    named_list{"severity",
               "ok|non-critical from ok|critical from less severe|non-recoverable from less severe|"
               "non-critical from more severe|critical from non-recoverable|non-recoverable|monitor|informational"},
    named_list{"device presence", "absent|present"},
    named_list{"device enabling", "disabled|enabled"},
    named_list{"availability", "running|in test|power off|on line|off line|off duty|degraded|power save|install error"},
    named_list{"redundancy", "fully redundant|lost|degraded|non-redundant, sufficient from redundant|"
                             "non-redundant, sufficient from insufficient|non-redundant, insufficient|"
                             "degraded from fully redundant|degraded from non-redundant"},
    named_list{"ACPI device power", "D0|D1|D2|D3"},
};

/** By sensor type, from 1 on, each with its sensor-specific events. */
constexpr std::array sensor_types{
    named_list{"temperature", ""},
    named_list{"voltage", ""},
    named_list{"current", ""},
    named_list{"fan", ""},
    named_list{"physical security",
               "chassis opened|drive bay opened|I/O card area opened|processor area opened|LAN unplugged|"
               "unauthorized dock|fan area opened"},
    named_list{"platform security",
               "secure mode violation|wrong user password|wrong setup password|wrong network boot password|"
               "wrong other pre-boot password|wrong out-of-band password"},
    named_list{"processor",
               "internal error|thermal trip|FRB1/BIST failure|FRB2/hang in POST|FRB3/startup failure|"
               "configuration error|uncorrectable complex error|present|disabled|terminator present|throttled|"
               "uncorrectable machine check|correctable machine check"},
    named_list{"power supply",
               "present|failure|predictive failure|input lost|input lost or out of range|input out of range|"
               "configuration error|inactive"},
    named_list{"power unit",
               "power off|power cycle|240 VA power down|interlock power down|AC lost|soft power control failure|"
               "failure|predictive failure"},
    named_list{"cooling device", ""},
    named_list{"other units", ""},
    named_list{"memory", "correctable ECC error|uncorrectable ECC error|parity error|scrub failed|device disabled|"
                         "correctable ECC log limit reached|present|configuration error|spare|throttled|"
                         "critical overtemperature"},
    named_list{"drive slot",
               "drive present|drive fault|predictive failure|hot spare|consistency check|in critical array|"
               "in failed array|rebuild|rebuild aborted"},
    named_list{"POST memory resize", ""},
    named_list{"system firmware", "error|hang|progress"},
    named_list{"event logging",
               "correctable memory error logging disabled|event type logging disabled|log cleared|"
               "all event logging disabled|log full|log almost full|correctable machine check logging disabled"},
    named_list{"watchdog 1", "BIOS reset|OS reset|OS shutdown|OS power down|OS power cycle|OS NMI|OS expired|"
                             "OS pre-timeout interrupt"},
    named_list{"system event",
               "reconfigured|OEM boot event|undetermined hardware failure|auxiliary log entry|PEF action|"
               "clock synchronization"},
    named_list{"critical interrupt",
               "front panel NMI|bus timeout|I/O channel check NMI|software NMI|PCI PERR|PCI SERR|"
               "EISA fail-safe timeout|bus correctable error|bus uncorrectable error|fatal NMI|bus fatal error|"
               "bus degraded"},
    named_list{"button", "power button|sleep button|reset button|FRU latch open|FRU service request"},
    named_list{"module/board", ""},
    named_list{"microcontroller", ""},
    named_list{"add-in card", ""},
    named_list{"chassis", ""},
    named_list{"chip set", "soft power control failure|thermal trip"},
    named_list{"other FRU", ""},
    named_list{"cable", "connected|wrong connection"},
    named_list{"terminator", ""},
    named_list{"system boot", "power up|hard reset|warm reset|user requested PXE boot|automatic diagnostic boot|"
                              "software hard reset|software warm reset|system restart"},
    named_list{"boot error", "no bootable media|non-bootable diskette|PXE server not found|invalid boot sector|"
                             "boot source selection timed out"},
    named_list{"OS boot",
               "A: completed|C: completed|PXE completed|diagnostic completed|CD-ROM completed|ROM completed|"
               "completed|installation started|installation completed|installation aborted|installation failed"},
    named_list{"OS stop", "stopped while loading|stopped at run time|graceful stop|graceful shutdown|PEF shutdown|"
                          "agent not responding"},
    named_list{"slot/connector",
               "fault|identify|device installed|ready for installation|ready for removal|power off|removal request|"
               "interlock|disabled|spare device"},
    named_list{"ACPI power state",
               "S0/G0 working|S1 sleeping|S2 sleeping|S3 suspend to RAM|S4 suspend to disk|S5/G2 soft off|"
               "S4/S5 soft off|G3 mechanical off|S1, S2 or S3 sleeping|G1 sleeping|S5 by override|legacy on|"
               "legacy off||unknown"},
    named_list{"watchdog 2", "expired|hard reset|power down|power cycle|||||interrupt"},
    named_list{"platform alert", "page|LAN alert|event trap|SNMP trap"},
    named_list{"entity presence", "present|absent|disabled"},
    named_list{"monitor chip", ""},
    named_list{"LAN", "heartbeat lost|heartbeat"},
    named_list{"management health",
               "sensor access degraded|controller access degraded|controller off line|controller unavailable|"
               "sensor failure|FRU failure"},
    named_list{"battery", "low|failed|present"},
    named_list{"session audit", "activated|deactivated|wrong user name or password|disabled after wrong passwords"},
    named_list{"version change",
               "hardware changed|firmware or software changed|hardware incompatible|firmware incompatible|"
               "hardware version unsupported|firmware version unsupported|hardware change succeeded|"
               "firmware change succeeded"},
    named_list{"FRU state",
               "not installed|inactive|activation requested|activation in progress|active|deactivation requested|"
               "deactivation in progress|communication lost"},
};

/** From 1 on. */
constexpr std::string_view units =
    "degrees C|degrees F|K|V|A|W|J|C|VA|nit|lm|lx|cd|kPa|psi|N|CFM|RPM|Hz|us|ms|s|min|h|days|weeks|mil|"
    "in|ft|cu in|cu ft|mm|cm|m|cu cm|cu m|l|fl oz|rad|sr|revolutions|cycles|g|oz|lb|ft-lb|oz-in|G|Gb|H|"
    "mH|F|uF|ohm|S|mol|Bq|ppm||dB|dBA|dBC|Gy|Sv|K color|bits|kbit|Mbit|Gbit|bytes|kB|MB|GB|words|dwords|"
    "qwords|lines|hits|misses|retries|resets|overruns|underruns|collisions|packets|messages|characters|"
    "errors|correctable errors|uncorrectable errors|fatal errors|grams";

std::string_view nth_name(std::string_view names, size_t index)
{
    for (; index > 0; index--) {
        const size_t bar = names.find('|');
        if (bar == std::string_view::npos) {
            return {};
        }
        names.remove_prefix(bar + 1);
    }
    return names.substr(0, names.find('|'));
}

std::string name_or_number(std::string_view name, const char *what, unsigned number)
{
    return name.empty() ? format("%s 0x%02x", what, number) : std::string(name);
}

} // namespace

std::string_view find_name(std::span<const code_name> names, uint8_t code, std::string_view otherwise)
{
    const auto found =
        std::find_if(names.begin(), names.end(), [code](const code_name &entry) { return entry.code == code; });
    return found == names.end() ? otherwise : found->name;
}

std::vector<std::string> bit_names(const std::array<std::string_view, 8> &names, uint8_t bits)
{
    std::vector<std::string> set;
    for (size_t bit = 0; bit < names.size(); bit++) {
        if (bits >> bit & 1) {
            set.emplace_back(names[bit]);
        }
    }
    return set;
}

std::string completion_name(uint8_t code)
{
    const bool of_command = code >= 0x80 && code <= 0xBE;
    const bool of_device = code >= 0x01 && code <= 0x7E;
    return std::string(find_name(generic_completions, code,
                                 of_command  ? "command-specific code"
                                 : of_device ? "device-specific code"
                                             : "unknown code"));
}

failure completion_failure(const std::string &message, uint8_t code, const std::string &name)
{
    failure error(message + ": completion code " + hex_text(code) + " (" + name + ")");
    error.error["completion_code"] = code;
    error.error["completion_name"] = name;
    return error;
}

std::string sensor_type_name(uint8_t sensor_type)
{
    const bool known = sensor_type > 0 && sensor_type <= sensor_types.size();
    return name_or_number(known ? sensor_types.at(sensor_type - 1U).name : "", "type", sensor_type);
}

std::string unit_name(uint8_t unit)
{
    return unit == 0 ? "" : name_or_number(nth_name(units, unit - 1U), "unit", unit);
}

std::string event_type_name(uint8_t event_type)
{
    if (event_type == sensor_specific_events) {
        return "sensor-specific";
    }
    const bool known = event_type > 0 && event_type <= event_types.size();
    return name_or_number(known ? event_types.at(event_type - 1U).name : "", "type", event_type);
}

std::string event_name(uint8_t event_type, uint8_t sensor_type, unsigned offset)
{
    std::string_view names;
    if (event_type == sensor_specific_events && sensor_type > 0 && sensor_type <= sensor_types.size()) {
        names = sensor_types.at(sensor_type - 1U).entries;
    } else if (event_type > 0 && event_type <= event_types.size()) {
        names = event_types.at(event_type - 1U).entries;
    }
    const std::string_view name = nth_name(names, offset);
    // "exceeded" means nothing without "limit" before it.
    const bool alone = event_type == sensor_specific_events || event_type == threshold_events || name.empty();
    return (alone ? "" : event_type_name(event_type) + ": ") + name_or_number(name, "offset", offset);
}

std::vector<std::string> event_names(uint8_t event_type, uint8_t sensor_type, uint16_t mask)
{
    std::vector<std::string> names;
    for (unsigned offset = 0; offset < 16; offset++) {
        if (mask >> offset & 1) {
            names.push_back(event_name(event_type, sensor_type, offset));
        }
    }
    return names;
}

} // namespace bdbusctl
