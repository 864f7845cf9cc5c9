// SPDX-License-Identifier: LGPL-2.1-or-later
// hpm1: the single HPM.1 commands.
#include "families/target.hpp"
#include "frame/command.hpp"
#include "names/hpm1-names.hpp"

#include <bdbus/upgrade_agent.h>

#include <array>
#include <optional>

namespace bdbusctl
{

namespace
{

void capabilities(const session &run)
{
    const bdbus_hpm1_target_caps_rec target = read_capabilities(run);
    record shown;
    shown.add("hpm_version", "HPM.1 version", target.hpm_version);
    shown.add("capabilities", "Capabilities", list_cell(global_capability_names(target.global_capabilities)));
    shown.add("capabilities_raw", "Capability byte",
              {hex_text(target.global_capabilities), target.global_capabilities});
    shown.add("upgrade_timeout_s", "Upgrade timeout", timeout_cell(target.upgrade_timeout));
    shown.add("self_test_timeout_s", "Self-test timeout", timeout_cell(target.self_test_timeout));
    shown.add("rollback_timeout_s", "Rollback timeout", timeout_cell(target.rollback_timeout));
    shown.add("inaccessibility_timeout_s", "Inaccessible up to", timeout_cell(target.inaccessibility_timeout));
    shown.add("components", "Components", components_cell(target.components_present));
    shown.add("components_raw", "Component mask", {hex_text(target.components_present), target.components_present});
    shown.show(run);
}

constexpr std::array selectors{"general", "current-version", "description", "rollback-version", "deferred-version"};
constexpr uint8_t selector_count = uint8_t{selectors.size()};

uint8_t parse_selector(const std::string &text)
{
    for (uint8_t selector = 0; selector < selector_count; selector++) {
        if (text == selectors.at(selector)) {
            return selector;
        }
    }
    return static_cast<uint8_t>(parse_number(text, 0, UINT8_MAX));
}

std::string selector_name(uint8_t selector)
{
    return selector < selectors.size() ? selectors.at(selector) : "unknown";
}

struct property_arguments {
    uint8_t component = 0;
    std::optional<uint8_t> selector;
};

void declare_properties(CLI::App &command, property_arguments &given)
{
    add_number(command, "ID", given.component, "Component number")->required();
    add_parsed(command, "SELECTOR", given.selector, parse_selector,
               join({selectors.begin(), selectors.end()}, ", ") + " or a number; all if not given");
}

cell decode(uint8_t selector, const component_property &property)
{
    if (!property.available()) {
        return cell::none();
    }
    switch (selector) {
    case BDBUS_HPM1_PROPERTY_GENERAL:
        return list_cell(component_capability_names(property.data[0]));
    case BDBUS_HPM1_PROPERTY_CURRENT_VERSION:
    case BDBUS_HPM1_PROPERTY_ROLLBACK_VERSION:
    case BDBUS_HPM1_PROPERTY_DEFERRED_VERSION:
        return version_cell(property.version());
    case BDBUS_HPM1_PROPERTY_DESCRIPTION:
        return property.text();
    default:
        return hex_digits(property.data);
    }
}

void properties(const session &run, const property_arguments &given)
{
    report table(run, {{"selector", "SELECTOR", true},
                       {"property", "PROPERTY"},
                       {"value", "VALUE"},
                       {"data_hex", "DATA"},
                       {"completion_code", "COMPLETION"},
                       {"completion_name"}});
    const auto add = [&](uint8_t selector, const component_property &property) {
        constexpr auto command = hpm1_command::component_properties;
        table.add({selector, selector_name(selector), decode(selector, property),
                   property.available() ? cell(hex_digits(property.data)) : cell::none(),
                   completion_cell(command, property.completion_code),
                   completion_name(command, property.completion_code)});
    };
    if (given.selector) {
        add(*given.selector, require_property(run, given.component, *given.selector));
    } else {
        // Without general properties there is no such component; the others may be missing.
        add(BDBUS_HPM1_PROPERTY_GENERAL, require_property(run, given.component, BDBUS_HPM1_PROPERTY_GENERAL));
        for (uint8_t selector = BDBUS_HPM1_PROPERTY_CURRENT_VERSION; selector < selector_count; selector++) {
            add(selector, read_property(run, given.component, selector));
        }
    }
    table.show();
}

/** The version of a copy that only some components have; empty where there is none. */
std::vector<uint8_t> read_copy_version(const session &run, uint8_t component, int supported, uint8_t selector)
{
    if (supported == 0) {
        return {};
    }
    const component_property copy = read_property(run, component, selector);
    if (!copy.available()) {
        return {};
    }
    const hpm1_version version = copy.version();
    return {version.begin(), version.end()};
}

void components(const session &run)
{
    report table(run, {{"id", "ID", true},
                       {"description", "DESCRIPTION"},
                       {"version", "VERSION"},
                       {"version_hex"},
                       {"rollback_version", "ROLLBACK"},
                       {"rollback_version_hex"},
                       {"deferred_version", "DEFERRED"},
                       {"deferred_version_hex"},
                       {"capabilities", "CAPABILITIES"},
                       {"capabilities_raw"}});
    const uint8_t present = read_capabilities(run).components_present;
    for (uint8_t id = 0; id < BDBUS_UPGRADE_AGENT_COMPONENTS; id++) {
        if (!(present >> id & 1)) {
            continue;
        }
        const uint8_t general = require_property(run, id, BDBUS_HPM1_PROPERTY_GENERAL).data[0];
        const std::string description = require_property(run, id, BDBUS_HPM1_PROPERTY_DESCRIPTION).text();
        const hpm1_version current = require_property(run, id, BDBUS_HPM1_PROPERTY_CURRENT_VERSION).version();
        const auto rollback =
            read_copy_version(run, id, general & component_has_rollback, BDBUS_HPM1_PROPERTY_ROLLBACK_VERSION);
        const auto deferred =
            read_copy_version(run, id, general & component_has_deferral, BDBUS_HPM1_PROPERTY_DEFERRED_VERSION);
        table.add({id, description, version_cell(current), version_hex_cell(current), version_cell(rollback),
                   version_hex_cell(rollback), version_cell(deferred), version_hex_cell(deferred),
                   list_cell(component_capability_names(general)), general});
    }
    table.show();
}

void status(const session &run)
{
    bdbus_hpm1_upgrade_status_rec answer{};
    run.call("read the upgrade status", [&] { return bdbus_hpm1_get_upgrade_status(&answer); });
    require_success("read the upgrade status", hpm1_command::upgrade_status, answer.completion_code);

    const auto command = static_cast<hpm1_command>(answer.command_in_progress);
    const std::string name(command_name(answer.command_in_progress));
    record shown;
    shown.add("command", "Command",
              {hex_text(answer.command_in_progress) + " (" + name + ")", answer.command_in_progress});
    shown.hide("command_name", name);
    shown.add("last_completion_code", "Last completion", completion_cell(command, answer.last_completion_code));
    shown.hide("last_completion_name", completion_name(command, answer.last_completion_code));
    shown.show(run);
}

void self_test(const session &run)
{
    bdbus_hpm1_self_test_rec answer{};
    run.call("read the self-test results", [&] { return bdbus_hpm1_query_self_test_results(&answer); });
    require_success("read the self-test results", hpm1_command::self_test, answer.completion_code);

    const std::string name = self_test_name(answer.result1, answer.result2);
    record shown;
    shown.add("passed", "Passed", answer.result1 == BDBUS_HPM1_SELF_TEST_PASSED);
    shown.add("result1", "Result 1", {hex_text(answer.result1) + " (" + name + ")", answer.result1});
    shown.hide("result1_name", name);
    shown.add("result2", "Result 2", {hex_text(answer.result2), answer.result2});
    shown.show(run);
}

void rollback_status(const session &run)
{
    bdbus_hpm1_rollback_status_rec answer{};
    run.call("read the rollback status", [&] { return bdbus_hpm1_query_rollback_status(&answer); });
    if (answer.completion_code != BDBUS_HPM1_CC_SUCCESS) {
        const std::string whose = answer.rollback_status ? " of components " + hex_text(answer.rollback_status) : "";
        failure error = completion_failure("rollback" + whose, hpm1_command::rollback_status, answer.completion_code);
        error.error["components_raw"] = answer.rollback_status;
        throw error;
    }
    record shown;
    shown.add("rollback", "Rollback happened", answer.rollback_status != 0);
    shown.add("components", "Components",
              answer.rollback_status != 0 ? components_cell(answer.rollback_status) : cell("-", json::array()));
    shown.hide("components_raw", answer.rollback_status);
    shown.show(run);
}

void show_completion(const session &run, const std::string &intent, hpm1_command command, uint8_t completion_code)
{
    if (completion_code == BDBUS_HPM1_CC_IN_PROGRESS) {
        throw completion_failure("the target goes on with it, see bdbusctl hpm1 status", command, completion_code);
    }
    require_success(intent, command, completion_code);
    record shown;
    shown.add("completion_code", "Completion code", completion_cell(command, completion_code));
    shown.hide("completion_name", completion_name(command, completion_code));
    shown.show(run);
}

void send_command(const session &run, const std::string &intent, hpm1_command command,
                  int32_t (*send)(bdbus_hpm1_basic_rec *))
{
    run.confirm("This tells the target to " + intent + ".");
    bdbus_hpm1_basic_rec exchange{};
    run.call(intent, [&] { return send(&exchange); });
    show_completion(run, intent, command, exchange.completion_code);
}

void activate(const session &run)
{
    send_command(run, "activate the uploaded firmware", hpm1_command::activate, bdbus_hpm1_activate_fw);
}

void rollback(const session &run)
{
    send_command(run, "go back to the backup copies", hpm1_command::manual_rollback, bdbus_hpm1_init_manual_rollback);
}

void abort_upgrade(const session &run)
{
    send_command(run, "abort the upgrade", hpm1_command::abort, bdbus_hpm1_abort_fw_upgrade);
}

struct action_arguments {
    uint8_t action = 0;
    uint8_t mask = 0;
};

uint8_t parse_action(const std::string &text)
{
    for (uint8_t action = BDBUS_HPM1_ACTION_BACKUP; action <= BDBUS_HPM1_ACTION_UPLOAD; action++) {
        if (text == action_name(action)) {
            return action;
        }
    }
    throw std::invalid_argument("'" + one_line(text) + "' is not backup, prepare or upload");
}

void declare_action(CLI::App &command, action_arguments &given)
{
    add_parsed(command, "ACTION", given.action, parse_action, "backup, prepare or upload")->required();
    add_number(command, "MASK", given.mask, "Components: bit n for component n")->required();
}

void action(const session &run, const action_arguments &given)
{
    const std::string intent = format("start the action '%s' for component mask %s",
                                      std::string(action_name(given.action)).c_str(), hex_text(given.mask).c_str());
    run.confirm("This tells the target to " + intent + ".");
    bdbus_hpm1_upgrade_action_rec exchange{};
    exchange.components = given.mask;
    exchange.action = given.action;
    run.call(intent, [&] { return bdbus_hpm1_init_upgrade_action(&exchange); });
    show_completion(run, intent, hpm1_command::action, exchange.completion_code);
}

} // namespace

void add_hpm1(CLI::App &program, session &run)
{
    add_family(program, run, "hpm1", "Single HPM.1 commands to the upgrade target", [](family &hpm1) {
        hpm1.verb("capabilities", "Show what the target can do, its timeouts and components", capabilities);
        hpm1.verb("properties", "Show the properties of a component", declare_properties, properties);
        hpm1.verb("components", "Show all components with versions and capabilities", components);
        hpm1.verb("status", "Show how the last long command stands", status);
        hpm1.verb("self-test", "Show the self-test results", self_test);
        hpm1.verb("rollback-status", "Show whether a rollback happened", rollback_status);
        hpm1.verb("activate", "Activate what was uploaded", activate);
        hpm1.verb("rollback", "Go back to the backup copies", rollback);
        hpm1.verb("abort", "Abort the upgrade that the target is in", abort_upgrade);
        hpm1.verb("action", "Start a backup, a preparation or an upload", declare_action, action);
    });
}

} // namespace bdbusctl
