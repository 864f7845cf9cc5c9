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
json component_value(const state_document &state, const std::string &name, const std::string &key)
{
    for (const json &component : state.at("/target/components"))
        if (component["name"] == name)
            return component[key];
    return json::array();
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

json component_property(hpm1_target &target, const call &what)
{
    auto answer = target.component_property(what.arg<uint8_t>(1), what.arg<uint8_t>(2));
    return json::array({answer.code, picmg_id, answer.bytes});
}

uint8_t upload(hpm1_target &target, const call &what)
{
    return target.upload(what.arg<uint8_t>(1), what.arg<uint32_t>(2), what.args[3].get_binary());
}

json upgrade_status(hpm1_target &target)
{
    auto status = target.status();
    return json::array({hpm1_target::ok, picmg_id, status.command, status.last_code});
}

json rollback_status(const state_document &state)
{
    return json::array({state.at("/target/rollback_code"), picmg_id, state.at("/target/rollback_status")});
}

// The first argument of each is the PICMG identifier.
std::vector<method> methods(const state_document &state, hpm1_target &target)
{
    const auto *s = &state;
    auto *t = &target;
    return {
        method("GetTargetUpgradeCaps", "y", "yyyyyyyyy", [=](const call &) { return capabilities(*s, *t); }),
        method("GetComponentProps", "yyy", "yyay", [=](const call &what) { return component_property(*t, what); }),
        method("AbortFirmwareUpgrade", "y", "yy", [=](const call &) { return code(t->abort()); }),
        method("InitiateUpgradeAction", "yyy", "yy",
               [=](const call &what) { return code(t->initiate(what.arg<uint8_t>(1), what.arg<uint8_t>(2))); }),
        method("UploadFirmwareBlock", "yyuay", "yy", [=](const call &what) { return code(upload(*t, what)); }),
        method("FinishFirmwareUpload", "yyu", "yy",
               [=](const call &what) { return code(t->finish(what.arg<uint8_t>(1), what.arg<uint32_t>(2))); }),
        method("GetUpgradeStatus", "y", "yyyy", [=](const call &) { return upgrade_status(*t); }),
        method("ActivateFirmware", "y", "yy", [=](const call &) { return code(t->activate()); }),
        method("QueryRollbackStatus", "y", "yyy", [=](const call &) { return rollback_status(*s); }),
        method("InitiateManualRollback", "y", "yy", [=](const call &) { return code(t->roll_back()); }),
    };
}

json component_count(const state_document &state)
{
    return state.at("/target/components").size();
}

std::vector<property> properties(const state_document &state)
{
    const auto *s = &state;
    auto row = [=](const std::string &name, const char *signature, const std::string &place) {
        return property("", name, signature, [=](const call &) { return s->at(place); });
    };
    auto version = [=](const std::string &property_name, const std::string &component, const char *key) {
        return property("", property_name, "ay", [=](const call &) { return component_value(*s, component, key); });
    };

    std::vector<property> rows = {
        property("", "ComponentCount", "i", [=](const call &) { return component_count(*s); }),
        row("UpgradeComponentId", "y", "/upgrade/component_id"),
        row("UpgradeInProgress", "y", "/upgrade/in_progress"),
    };
    for (const std::string name : component_names) {
        rows.push_back(version(name + "Version", name, "version"));
        rows.push_back(row(name + "RollbackFlag", "b", "/upgrade/rollback_flags/" + name));
    }
    for (const std::string name : backup_names)
        rows.push_back(version(name + "BackupVersion", name, "rollback_version"));
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
