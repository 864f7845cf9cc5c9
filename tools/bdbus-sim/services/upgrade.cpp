// SPDX-License-Identifier: LGPL-2.1-or-later
// The upgrade service: versions, flash selection, and the HPM.1 target with its notices.
#include "services/hpm1-target.hpp"
#include "services/services.hpp"

#include <algorithm>
#include <iterator>
#include <map>
#include <memory>

namespace bdbus_sim
{

namespace
{

const char *const component_names[] = {"BmcUboot", "BmcFw", "BmcConf", "Fpga", "Bios", "Nvram", "Cpld"};
const char *const backup_names[] = {"BmcFw", "Fpga", "Bios", "Cpld"};

/** Signals that the service counts when others send them. */
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

/** The notices of a component: its name in the target, the prefix of their names, and their kinds. */
struct notices {
    std::string component;
    std::string prefix;
    std::vector<std::string> kinds;
};

const notices component_notices[] = {
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

/** The kinds of notices for an event, in this order; a component sends those that it has. */
const std::map<hpm1_target::component_event, std::vector<std::string>> event_notices = {
    {hpm1_target::component_event::received, {"SignVerifyPass", "UpdatePending"}},
    {hpm1_target::component_event::signature_bad, {"SignFail", "SignVerifyFail", "UpdateFail"}},
    {hpm1_target::component_event::upload_failed, {"UpdateFail"}},
    {hpm1_target::component_event::upload_timed_out, {"UpdateTimeout"}},
    {hpm1_target::component_event::aborted, {"UpdateAborted"}},
    {hpm1_target::component_event::activating, {"UpdateStart"}},
    {hpm1_target::component_event::activated, {"UpdateEnd", "UpdateSucceed", version_kind, "Change"}},
    {hpm1_target::component_event::deferred, {"UpdateEnd", "UpdatePending"}},
    {hpm1_target::component_event::activation_failed, {"UpdateEnd", "ActivationFail", "UpdateFail"}},
    {hpm1_target::component_event::rolling_back, {"ManualRollbackInitiated"}},
    {hpm1_target::component_event::rolled_back, {"ManualRollbackSucceed", "RollbackSucceed", version_kind, "Change"}},
    {hpm1_target::component_event::restarted, {"Reset"}},
};

/** A version's notice carries the version, the others nothing. */
std::string signature_of(const std::string &kind)
{
    return kind == version_kind ? "ay" : "";
}

void announce(service &upgrade, hpm1_target::component_event event, const json &component)
{
    auto own = std::find_if(std::begin(component_notices), std::end(component_notices),
                            [&](const notices &row) { return row.component == component["name"]; });
    if (own == std::end(component_notices)) {
        return;
    }
    for (const std::string &kind : event_notices.at(event)) {
        if (std::find(own->kinds.begin(), own->kinds.end(), kind) != own->kinds.end()) {
            upgrade.emit(own->prefix + kind, signature_of(kind),
                         kind == version_kind ? json::array({component["version"]}) : json::array());
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

json component_property(hpm1_target &target, const call &request)
{
    auto answer = target.component_property(request.arg<uint8_t>(1), request.arg<uint8_t>(2));
    return json::array({answer.code, picmg_id, answer.bytes});
}

uint8_t upload(hpm1_target &target, const call &request)
{
    return target.upload(request.arg<uint8_t>(1), request.arg<uint32_t>(2), request.args[3].get_binary());
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

json select_bmc_flash(state_document &state, const call &request)
{
    if (request.arg<uint32_t>(0) >= flashes) {
        return answer(hpm1_target::invalid_field);
    }
    state.set("/upgrade/bmc_flash", request.args[0]);
    return answer(hpm1_target::ok);
}

/** The BIOS goes on from the other flash at once. */
json select_bios_flash(state_document &state, service &upgrade, const call &request)
{
    if (request.arg<uint32_t>(0) >= flashes) {
        return answer(hpm1_target::invalid_field);
    }
    if (state.at("/upgrade/bios_flash") == request.args[0]) {
        return answer(hpm1_target::ok);
    }
    for (const std::string kind : {"FlashSwapRunning", "FlashSwapFinished"}) {
        upgrade.emit("Bios" + kind, "", json::array());
    }
    state.set("/upgrade/bios_flash", request.args[0]);
    upgrade.emit("BiosFlash" + request.args[0].dump() + "BootInit", "", json::array());
    return answer(hpm1_target::ok);
}

json set_version(state_document &state, const std::string &name, const call &request)
{
    const byte_vector &version = request.args[0].get_binary();
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

json set_factory_mode(state_document &state, const call &request)
{
    state.set("/upgrade/factory_mode", request.args[0]);
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
        method("GetComponentProps", "yyy", "yyay",
               [=](const call &request) { return component_property(*t, request); }),
        method("AbortFirmwareUpgrade", "y", "yy", [=](const call &) { return code(t->abort()); }),
        method(
            "InitiateUpgradeAction", "yyy", "yy",
            [=](const call &request) { return code(t->initiate(request.arg<uint8_t>(1), request.arg<uint8_t>(2))); }),
        method("UploadFirmwareBlock", "yyuay", "yy", [=](const call &request) { return code(upload(*t, request)); }),
        method("FinishFirmwareUpload", "yyu", "yy",
               [=](const call &request) { return code(t->finish(request.arg<uint8_t>(1), request.arg<uint32_t>(2))); }),
        method("GetUpgradeStatus", "y", "yyyy", [=](const call &) { return upgrade_status(*t); }),
        method("ActivateFirmware", "y", "yy", [=](const call &) { return code(t->activate()); }),
        method("QueryRollbackStatus", "y", "yyy", [=](const call &) { return rollback_status(*s); }),
        method("InitiateManualRollback", "y", "yy", [=](const call &) { return code(t->roll_back()); }),
        method("SetBmcFlashSelect", "u", "y", [=](const call &request) { return select_bmc_flash(*s, request); }),
        method("SetBiosFlashSelect", "u", "y", [=](const call &request) { return select_bios_flash(*s, *u, request); }),
        method("SetBiosVersion", "ay", "y", [=](const call &request) { return set_version(*s, "Bios", request); }),
        method("SetNvramVersion", "ay", "y", [=](const call &request) { return set_version(*s, "Nvram", request); }),
        method("BmcFactoryModeNotify", "y", "y", [=](const call &request) { return set_factory_mode(*s, request); }),
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

void add_upgrade(simulator &sim)
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
    state_document &state = sim.state;
    state.add_section("upgrade", defaults, shape);

    const auto target = std::make_shared<hpm1_target>(state, sim.loop);
    sim.on_reset([target] { target->reset(); });
    sim.received = [target](uint8_t component) -> const byte_vector & {
        return target->received(component);
    };

    service &upgrade = sim.add_service("Upgrade1");
    upgrade.add_object(methods(state, *target, upgrade), properties(state), signals());
    for (const std::string name : noted_names) {
        upgrade.listen(name, [&state, name] {
            const std::string count = "/upgrade/notices/" + name;
            state.set(count, state.get<uint32_t>(count) + 1);
        });
    }
    target->on_event(
        [&upgrade](hpm1_target::component_event event, const json &component) { announce(upgrade, event, component); });
}

} // namespace bdbus_sim
