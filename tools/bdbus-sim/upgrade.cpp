// SPDX-License-Identifier: LGPL-2.1-or-later
#include "simulator.hpp"

namespace
{

const char *const component_names[] = {"BmcUboot", "BmcFw", "BmcConf", "Fpga", "Bios", "Nvram", "Cpld"};
const char *const backup_names[] = {"BmcFw", "Fpga", "Bios", "Cpld"};

// The PICMG identifier of every reply, after its completion code.
constexpr uint8_t picmg_id = 0;

json code(uint8_t completion_code)
{
    return json::array({completion_code, picmg_id});
}

// A value of the component of that name; no bytes when the target has none.
auto component_value(const state_document &state, const std::string &name, const std::string &key)
{
    return [&state, name, key](const call &) {
        for (const json &component : state.at("/target/components"))
            if (component["name"] == name)
                return component[key];
        return json::array();
    };
}

json capabilities(const state_document &state, const hpm1_target &target)
{
    json values = code(hpm1_target::ok);
    for (const char *key : {"hpm_version", "global_capabilities", "upgrade_timeout", "self_test_timeout",
                            "rollback_timeout", "inaccessibility_timeout"})
        values.push_back(state.at("/target/" + std::string(key)));
    values.push_back(target.components_present());
    return values;
}

std::vector<method> methods(const state_document &state, hpm1_target &target)
{
    auto *t = &target;
    return {
        {"GetTargetUpgradeCaps", "y", "yyyyyyyyy",
         [=, &state](const call &) {
             return capabilities(state, *t);
         }},
        {"GetComponentProps", "yyy", "yyay",
         [=](const call &what) {
             auto answer = t->component_property(what.arg<uint8_t>(1), what.arg<uint8_t>(2));
             return json::array({answer.code, picmg_id, answer.bytes});
         }},
        {"AbortFirmwareUpgrade", "y", "yy",
         [=](const call &) {
             return code(t->abort());
         }},
        {"InitiateUpgradeAction", "yyy", "yy",
         [=](const call &what) {
             return code(t->initiate(what.arg<uint8_t>(1), what.arg<uint8_t>(2)));
         }},
        {"UploadFirmwareBlock", "yyuay", "yy",
         [=](const call &what) {
             return code(t->upload(what.arg<uint8_t>(1), what.arg<uint32_t>(2), what.args[3].get_binary()));
         }},
        {"FinishFirmwareUpload", "yyu", "yy",
         [=](const call &what) {
             return code(t->finish(what.arg<uint8_t>(1), what.arg<uint32_t>(2)));
         }},
        {"GetUpgradeStatus", "y", "yyyy",
         [=](const call &) {
             auto status = t->status();
             return json::array({hpm1_target::ok, picmg_id, status.command, status.last_code});
         }},
        {"ActivateFirmware", "y", "yy",
         [=](const call &) {
             return code(t->activate());
         }},
        {"QueryRollbackStatus", "y", "yyy",
         [&state](const call &) {
             return json::array({state.at("/target/rollback_code"), picmg_id, state.at("/target/rollback_status")});
         }},
        {"InitiateManualRollback", "y", "yy",
         [=](const call &) {
             return code(t->roll_back());
         }},
    };
}

std::vector<property> properties(const state_document &state)
{
    auto value = [&state](const std::string &place) {
        return [&state, place](const call &) {
            return state.at(place);
        };
    };

    std::vector<property> rows;
    for (const std::string name : component_names) {
        rows.push_back({"", name + "Version", "ay", component_value(state, name, "version")});
        rows.push_back({"", name + "RollbackFlag", "b", value("/upgrade/rollback_flags/" + name)});
    }
    for (const std::string name : backup_names)
        rows.push_back({"", name + "BackupVersion", "ay", component_value(state, name, "rollback_version")});
    rows.push_back({"", "ComponentCount", "i", [&state](const call &) {
                        return json(state.at("/target/components").size());
                    }});
    rows.push_back({"", "UpgradeComponentId", "y", value("/upgrade/component_id")});
    rows.push_back({"", "UpgradeInProgress", "y", value("/upgrade/in_progress")});
    return rows;
}

} // namespace

void add_upgrade(simulator &simulator)
{
    json defaults = {{"in_progress", 0}, {"component_id", 0}};
    json shape = {{"in_progress", "y"}, {"component_id", "y"}};
    for (const char *name : component_names) {
        defaults["rollback_flags"][name] = false;
        shape["rollback_flags"][name] = "b";
    }
    simulator.state.add_section("upgrade", defaults, shape);

    simulator.add_service("Upgrade1")
        .add_object(methods(simulator.state, simulator.target), properties(simulator.state));
}
