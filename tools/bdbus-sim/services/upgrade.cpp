// SPDX-License-Identifier: LGPL-2.1-or-later
#include "simulator.hpp"

#include <algorithm>
#include <map>

namespace bdbus_sim
{

namespace
{

const char *const component_names[] = {"BmcUboot", "BmcFw", "BmcConf", "Fpga", "Bios", "Nvram", "Cpld"};
const char *const backup_names[] = {"BmcFw", "Fpga", "Bios", "Cpld"};

/** What others tell the service. */
const char *const noted_names[] = {"BmcSensorsReady", "FpgaChangeHandle", "BiosChangeHandle", "NvramChangeHandle"};

/** The PICMG identifier of every reply, after its completion code. */
constexpr uint8_t picmg_id = 0;

json code(uint8_t completion_code)
{
    return json::array({completion_code, picmg_id});
}

/** A value of the component of that name; no bytes when the target has none. */
json component_value(const state_document &state, const std::string &name, const std::string &key)
{
    for (const json &component : state.at("/target/components")) {
        if (component["name"] == name) {
            return component[key];
        }
    }
    return json::array();
}

// ---- notices

const std::string version_kind = "Version";

/** A component's notices: its name in the target, how their names begin and how they end. */
const struct {
    std::string component;
    std::string prefix;
    std::vector<std::string> kinds;
} component_notices[] = {
    {"BmcUboot",
     "Uboot",
     {"Change", "UpdateSucceed", "UpdateAborted", "UpdateFail", "UpdateTimeout", "ActivationFail", version_kind,
      "SignFail", "EnvDefaults", "Flash0Fail", "Flash1Fail"}},
    {"BmcFw",
     "Bmc",
     {"Reset", "Change", "AutoRollback", "ManualRollbackInitiated", "ManualRollbackSucceed", "ManualRollbackFail",
      "UpdateSucceed", "UpdateAborted", "UpdateFail", "UpdateTimeout", "ActivationFail", version_kind, "SignVerifyPass",
      "SignVerifyFail"}},
    {"BmcConf",
     "Fwconf",
     {"UpdateSucceed", "UpdateAborted", "UpdateFail", "UpdateTimeout", "ActivationFail", version_kind}},
    {"Fpga",
     "Fpga",
     {"Change", "ManualRollbackInitiated", "ManualRollbackSucceed", "ManualRollbackFail", "UpdatePending",
      "UpdateStart", "UpdateEnd", "UpdateSucceed", "UpdateAborted", "UpdateFail", "UpdateTimeout", "ActivationFail",
      "AutoRollbackStart", "AutoRollbackSucceed", "AutoRollbackFail", version_kind, "SignVerifyPass",
      "SignVerifyFail"}},
    {"Bios",
     "Bios",
     {"UpdatePending", "UpdateSucceed", "UpdateAborted", "UpdateFail", "UpdateTimeout", "ManualRollbackInitiated",
      "RollbackSucceed", "Flash0BootInit", "Flash1BootInit", "FlashSwapRunning", "FlashSwapFinished"}},
    {"Nvram",
     "Nvram",
     {"UpdatePending", "UpdateSucceed", "UpdateAborted", "UpdateFail", "UpdateTimeout", "ActivationFail"}},
    {"Cpld",
     "BpCpld",
     {"ManualRollbackInitiated", "ManualRollbackSucceed", "ManualRollbackFail", "UpdateSucceed", "UpdateAborted",
      "UpdateFail", "UpdateTimeout", "ActivationFail", "AutoRollbackStart", "AutoRollbackSucceed", "AutoRollbackFail",
      version_kind, "SignVerifyPass", "SignVerifyFail"}},
};

/** What an event is told with, in this order: by those of the notices that the component has. */
const std::map<hpm1_target::event, std::vector<std::string>> event_notices = {
    {hpm1_target::event::received, {"SignVerifyPass", "UpdatePending"}},
    {hpm1_target::event::signature_bad, {"SignFail", "SignVerifyFail", "UpdateFail"}},
    {hpm1_target::event::upload_failed, {"UpdateFail"}},
    {hpm1_target::event::upload_timed_out, {"UpdateTimeout"}},
    {hpm1_target::event::aborted, {"UpdateAborted"}},
    {hpm1_target::event::activating, {"UpdateStart"}},
    {hpm1_target::event::activated, {"UpdateEnd", "UpdateSucceed", version_kind, "Change"}},
    {hpm1_target::event::deferred, {"UpdateEnd", "UpdatePending"}},
    {hpm1_target::event::activation_failed, {"UpdateEnd", "ActivationFail", "UpdateFail"}},
    {hpm1_target::event::rolling_back, {"ManualRollbackInitiated"}},
    {hpm1_target::event::rolled_back, {"ManualRollbackSucceed", "RollbackSucceed", version_kind, "Change"}},
    {hpm1_target::event::restarted, {"Reset"}},
};

/** A version's notice carries the version, the others nothing. */
std::string signature_of(const std::string &kind)
{
    return kind == version_kind ? "ay" : "";
}

void announce(service &upgrade, hpm1_target::event what, const json &component)
{
    for (const auto &[name, prefix, kinds] : component_notices) {
        for (const std::string &kind : event_notices.at(what)) {
            if (name == component["name"] && std::find(kinds.begin(), kinds.end(), kind) != kinds.end()) {
                upgrade.emit(prefix + kind, signature_of(kind),
                             kind == version_kind ? json::array({component["version"]}) : json::array());
            }
        }
    }
}

std::vector<signal_row> signals()
{
    std::vector<signal_row> rows;
    for (const auto &[name, prefix, kinds] : component_notices) {
        for (const std::string &kind : kinds) {
            rows.push_back({"", prefix + kind, signature_of(kind)});
        }
    }
    return rows;
}

// ---- commands

json capabilities(const state_document &state, const hpm1_target &target)
{
    json values = code(hpm1_target::ok);
    for (const char *key : {"hpm_version", "global_capabilities", "upgrade_timeout", "self_test_timeout",
                            "rollback_timeout", "inaccessibility_timeout"}) {
        values.push_back(state.at("/target/" + std::string(key)));
    }
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

// ---- settings

json answer(uint8_t result)
{
    return json::array({result});
}

constexpr uint32_t flashes = 2;

json select_bmc_flash(state_document &state, const call &what)
{
    if (what.arg<uint32_t>(0) >= flashes) {
        return answer(hpm1_target::invalid_field);
    }
    state.set("/upgrade/bmc_flash", what.args[0]);
    return answer(hpm1_target::ok);
}

/** The BIOS goes on from the other flash at once. */
json select_bios_flash(state_document &state, service &upgrade, const call &what)
{
    if (what.arg<uint32_t>(0) >= flashes) {
        return answer(hpm1_target::invalid_field);
    }
    if (state.at("/upgrade/bios_flash") == what.args[0]) {
        return answer(hpm1_target::ok);
    }
    for (const std::string kind : {"FlashSwapRunning", "FlashSwapFinished"}) {
        upgrade.emit("Bios" + kind, "", json::array());
    }
    state.set("/upgrade/bios_flash", what.args[0]);
    upgrade.emit("BiosFlash" + what.args[0].dump() + "BootInit", "", json::array());
    return answer(hpm1_target::ok);
}

json set_version(state_document &state, const std::string &name, const call &what)
{
    const byte_vector &version = what.args[0].get_binary();
    if (version.size() != hpm1_target::version_size) {
        return answer(hpm1_target::length_invalid);
    }
    for (const auto &[id, component] : state.at("/target/components").items()) {
        if (component["name"] == name) {
            state.set("/target/components/" + id + "/version", std::vector<uint8_t>(version));
            return answer(hpm1_target::ok);
        }
    }
    return answer(hpm1_target::not_in_this_state);
}

json set_factory_mode(state_document &state, const call &what)
{
    state.set("/upgrade/factory_mode", what.args[0]);
    return answer(hpm1_target::ok);
}

// ---- tables

/** The first argument of each HPM.1 command is the PICMG identifier. */
std::vector<method> methods(state_document &state, hpm1_target &target, service &upgrade)
{
    auto *s = &state;
    auto *t = &target;
    auto *u = &upgrade;
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
        method("SetBmcFlashSelect", "u", "y", [=](const call &what) { return select_bmc_flash(*s, what); }),
        method("SetBiosFlashSelect", "u", "y", [=](const call &what) { return select_bios_flash(*s, *u, what); }),
        method("SetBiosVersion", "ay", "y", [=](const call &what) { return set_version(*s, "Bios", what); }),
        method("SetNvramVersion", "ay", "y", [=](const call &what) { return set_version(*s, "Nvram", what); }),
        method("BmcFactoryModeNotify", "y", "y", [=](const call &what) { return set_factory_mode(*s, what); }),
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
        row("BmcFlashSelect", "y", "/upgrade/bmc_flash"),
        row("BiosFlashSelect", "y", "/upgrade/bios_flash"),
    };
    for (const std::string name : component_names) {
        rows.push_back(version(name + "Version", name, "version"));
        rows.push_back(row(name + "RollbackFlag", "b", "/upgrade/rollback_flags/" + name));
    }
    for (const std::string name : backup_names) {
        rows.push_back(version(name + "BackupVersion", name, "rollback_version"));
    }
    return rows;
}

} // namespace

void add_upgrade(simulator &simulator)
{
    json defaults = json::object();
    json shape = json::object();
    for (const char *key : {"in_progress", "component_id", "bmc_flash", "bios_flash", "factory_mode"}) {
        defaults[key] = 0;
        shape[key] = "y";
    }
    for (const char *name : component_names) {
        defaults["rollback_flags"][name] = false;
        shape["rollback_flags"][name] = "b";
    }
    for (const char *name : noted_names) {
        defaults["notices"][name] = 0;
        shape["notices"][name] = "u";
    }
    state_document &state = simulator.state;
    state.add_section("upgrade", defaults, shape);

    service &upgrade = simulator.add_service("Upgrade1");
    upgrade.add_object(methods(state, simulator.target, upgrade), properties(state), signals());
    for (const std::string name : noted_names) {
        upgrade.listen(name, [&state, name] {
            const std::string count = "/upgrade/notices/" + name;
            state.set(count, state.get<uint32_t>(count) + 1);
        });
    }
    simulator.target.tell(
        [&upgrade](hpm1_target::event what, const json &component) { announce(upgrade, what, component); });
}

} // namespace bdbus_sim
