// SPDX-License-Identifier: LGPL-2.1-or-later
// upgrade: versions and state of the upgrade service, and whole upgrades.
#include "command.hpp"
#include "hpm1-names.hpp"
#include "target.hpp"
#include "upgrade-run.hpp"

#include <bdbus/upgrade.h>

#include <algorithm>
#include <array>
#include <optional>

namespace bdbusctl
{

namespace
{

struct upgrade_component {
    const char *name;
    bdbus_upgrade_version version;
    std::optional<bdbus_upgrade_version> backup;
    int32_t (*get_rollback_flag)(int32_t *);
};

constexpr std::array components{
    upgrade_component{"BmcUboot", BDBUS_UPGRADE_VERSION_BMC_UBOOT, std::nullopt,
                      bdbus_upgrade_bmc_uboot_get_rollback_flag},
    upgrade_component{"BmcFw", BDBUS_UPGRADE_VERSION_BMC_FW, BDBUS_UPGRADE_VERSION_BMC_FW_BACKUP,
                      bdbus_upgrade_bmc_fw_get_rollback_flag},
    upgrade_component{"BmcConf", BDBUS_UPGRADE_VERSION_BMC_CONF, std::nullopt,
                      bdbus_upgrade_bmc_conf_get_rollback_flag},
    upgrade_component{"Fpga", BDBUS_UPGRADE_VERSION_FPGA, BDBUS_UPGRADE_VERSION_FPGA_BACKUP,
                      bdbus_upgrade_fpga_get_rollback_flag},
    upgrade_component{"Bios", BDBUS_UPGRADE_VERSION_BIOS, BDBUS_UPGRADE_VERSION_BIOS_BACKUP,
                      bdbus_upgrade_bios_get_rollback_flag},
    upgrade_component{"Nvram", BDBUS_UPGRADE_VERSION_NVRAM, std::nullopt, bdbus_upgrade_nvram_get_rollback_flag},
    upgrade_component{"Cpld", BDBUS_UPGRADE_VERSION_CPLD, BDBUS_UPGRADE_VERSION_CPLD_BACKUP,
                      bdbus_upgrade_cpld_get_rollback_flag},
};

std::vector<uint8_t> read_version(const session &run, bdbus_upgrade_version which, const std::string &whose)
{
    std::vector<uint8_t> version(BDBUS_UPGRADE_VERSION_MAX);
    uint32_t length = 0;
    run.call("read the " + whose + " version", [&] {
        return bdbus_upgrade_get_version(which, version.data(), static_cast<uint32_t>(version.size()), &length);
    });
    version.resize(std::min<size_t>(length, version.size()));
    return version;
}

void versions(const session &run)
{
    report table({{"component", "COMPONENT"},
                  {"version", "VERSION"},
                  {"version_hex"},
                  {"backup_version", "BACKUP"},
                  {"backup_version_hex"},
                  {"rollback", "ROLLBACK"}});
    for (const auto &component : components) {
        const std::string name = component.name;
        const auto version = read_version(run, component.version, name);
        std::vector<uint8_t> backup;
        if (component.backup)
            backup = read_version(run, *component.backup, name + " backup");
        int32_t rollback = 0;
        run.call("read the " + name + " rollback flag", [&] { return component.get_rollback_flag(&rollback); });
        table.add({name, version_cell(version), version_hex_cell(version), version_cell(backup),
                   version_hex_cell(backup), rollback != 0});
    }
    table.show(run);
}

// The service knows components by their numbers only; their names are the target's.
cell describe(const session &run, uint8_t component)
{
    try {
        return need_property(run, component, BDBUS_HPM1_PROPERTY_DESCRIPTION).text();
    } catch (const failure &) {
        return cell::none();
    }
}

void status(const session &run)
{
    int32_t count = 0;
    uint8_t in_progress = 0;
    uint8_t component = 0;
    run.call("read the component count", [&] { return bdbus_upgrade_component_count(&count); });
    run.call("read the upgrade's state", [&] { return bdbus_upgrade_in_progress(&in_progress); });
    run.call("read the upgraded component", [&] { return bdbus_upgrade_component_id(&component); });

    record state;
    state.add("component_count", "Components", count);
    state.add("in_progress", "In progress", in_progress != 0);
    state.hide("in_progress_raw", in_progress);
    state.add("component_id", "Component", {in_progress ? std::to_string(component) : "-", component});
    state.add("component_name", "Name", in_progress ? describe(run, component) : cell::none());
    state.show(run);
}

void declare_run(CLI::App &command, upgrade_request &given)
{
    command.add_option("IMAGE", given.image, "HPM.1 image file")->type_name("")->required();
    command.add_flag("--force", given.force, "Upgrade every component of the image, whatever its version");
    command.add_flag("--skip-identity", given.skip_identity, "Do not compare device, product and manufacturer");
}

} // namespace

void add_upgrade(CLI::App &program, session &run)
{
    family upgrade(program, run, "upgrade", "Firmware upgrade: versions, state, and running one");
    upgrade.verb("versions", "Show the versions of all components", versions);
    upgrade.verb("status", "Show whether an upgrade is in progress", status);
    upgrade.verb("run", "Upgrade the controller from an image", declare_run, run_upgrade);
}

} // namespace bdbusctl
