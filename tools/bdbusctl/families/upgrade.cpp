// SPDX-License-Identifier: LGPL-2.1-or-later
// upgrade: versions and state of the upgrade service, its notices, its settings, and whole upgrades.
#include "families/target.hpp"
#include "families/upgrade-run.hpp"
#include "frame/command.hpp"
#include "frame/watch.hpp"
#include "names/hpm1-names.hpp"

#include <bdbus/upgrade.h>

#include <algorithm>
#include <array>
#include <bit>
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
    report table(run, {{"component", "COMPONENT"},
                       {"version", "VERSION"},
                       {"version_hex"},
                       {"backup_version", "BACKUP"},
                       {"backup_version_hex"},
                       {"rollback", "ROLLBACK"}});
    for (const auto &component : components) {
        const std::string name = component.name;
        const auto version = read_version(run, component.version, name);
        std::vector<uint8_t> backup;
        if (component.backup) {
            backup = read_version(run, *component.backup, name + " backup");
        }
        int32_t rollback = 0;
        run.call("read the " + name + " rollback flag", [&] { return component.get_rollback_flag(&rollback); });
        table.add({name, version_cell(version), version_hex_cell(version), version_cell(backup),
                   version_hex_cell(backup), rollback != 0});
    }
    table.show();
}

/** The service knows components by their numbers only; their names are the target's. */
cell describe(const session &run, uint8_t component)
{
    try {
        return require_property(run, component, BDBUS_HPM1_PROPERTY_DESCRIPTION).text();
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

// ---- flashes, versions, factory mode

/** One of a few things, by its name. */
template <class thing, size_t count>
CLI::Option *add_choice(CLI::App &command, const char *name, const thing *&target,
                        const std::array<thing, count> &choices)
{
    std::vector<std::string> names;
    for (const thing &choice : choices) {
        names.emplace_back(choice.name);
    }
    const std::string list = join(names, ", ");
    const auto parse = [&choices, list](const std::string &text) {
        const auto found =
            std::find_if(choices.begin(), choices.end(), [&text](const thing &choice) { return text == choice.name; });
        if (found == choices.end()) {
            throw std::invalid_argument("'" + one_line(text) + "' is none of: " + list);
        }
        return &*found;
    };
    return add_parsed(command, name, target, parse, "One of: " + list)->required();
}

/** The service answers with a byte of its own. */
template <class exchange>
void send_setting(const session &run, const std::string &intent, int32_t (*call)(exchange *), exchange request)
{
    run.confirm("This tells the service to " + intent + ".");
    run.call(intent, [&] { return call(&request); });
    record answer;
    answer.add("result", "Result", request.result);
    answer.show(run);
}

struct flash {
    const char *name;
    int32_t (*get)(uint8_t *);
    int32_t (*set)(bdbus_upgrade_flash_select *);
};

constexpr std::array flashes{
    flash{"bmc", bdbus_upgrade_bmc_get_flash, bdbus_upgrade_bmc_set_flash},
    flash{"bios", bdbus_upgrade_bios_get_flash, bdbus_upgrade_bios_set_flash},
};

void show_flashes(const session &run)
{
    report table(run, {{"flash", "FLASH"}, {"selected", "SELECTED", true}});
    for (const flash &part : flashes) {
        uint8_t selected = 0;
        run.call(format("read the flash of the %s", part.name), [&] { return part.get(&selected); });
        table.add({part.name, selected});
    }
    table.show();
}

struct flash_arguments {
    const flash *part = nullptr;
    uint32_t number = 0;
};

void declare_set_flash(CLI::App &command, flash_arguments &given)
{
    add_choice(command, "PART", given.part, flashes);
    add_number(command, "NUMBER", given.number, "Number of the flash; its meaning is the service's")->required();
}

void set_flash(const session &run, const flash_arguments &given)
{
    send_setting(run, format("select flash %u for the %s", given.number, given.part->name), given.part->set,
                 {given.number, 0});
}

struct settable_version {
    const char *name;
    int32_t (*set)(bdbus_upgrade_version_update *);
};

constexpr std::array settable_versions{
    settable_version{"bios", bdbus_upgrade_bios_set_version},
    settable_version{"nvram", bdbus_upgrade_nvram_set_version},
};

struct version_arguments {
    const settable_version *part = nullptr;
    hpm1_version version{};
};

void declare_set_version(CLI::App &command, version_arguments &given)
{
    add_choice(command, "PART", given.part, settable_versions);
    add_parsed(command, "VERSION", given.version, parse_version, "MAJOR.MINOR[.AUX]")->required();
}

void set_version(const session &run, const version_arguments &given)
{
    bdbus_upgrade_version_update request{};
    std::copy(given.version.begin(), given.version.end(), request.version);
    send_setting(run, format("set the version of the %s to %s", given.part->name, version_text(given.version).c_str()),
                 given.part->set, request);
}

void declare_factory_mode(CLI::App &command, uint8_t &mode)
{
    add_number(command, "MODE", mode, "0 to 255; its meaning is the service's")->required();
}

void factory_mode(const session &run, const uint8_t &mode)
{
    send_setting(run, format("take factory mode %u", mode), bdbus_upgrade_factory_mode_setting, {mode, 0});
}

// ---- notices

struct outgoing_notice {
    const char *name;
    int32_t (*send)();
};

constexpr std::array outgoing_notices{
    outgoing_notice{"sensors-ready", bdbus_upgrade_bmc_sensors_ready},
    outgoing_notice{"fpga-change", bdbus_upgrade_fpga_change_handle},
    outgoing_notice{"bios-change", bdbus_upgrade_bios_change_handle},
    outgoing_notice{"nvram-change", bdbus_upgrade_nvram_change_handle},
};

void declare_notify(CLI::App &command, const outgoing_notice *&given)
{
    add_choice(command, "NOTICE", given, outgoing_notices);
}

void notify(const session &run, const outgoing_notice *const &given)
{
    const std::string intent = std::string("send the notice ") + given->name;
    run.call(intent, bdbus_upgrade_signal_process); // the change handles do not open the connection
    run.call(intent, given->send);
    // Whatever the answer is, the bus has passed the notice on before it.
    int32_t count = 0;
    run.observe([&count] { return bdbus_upgrade_component_count(&count); });
    run.print("The notice is sent.", json{{"sent", given->name}});
}

/** The handlers get nothing of the caller's. */
std::vector<event> received_notices;

int on_notice(sd_bus_message *message, void * /*userdata*/, sd_bus_error * /*error*/)
{
    const std::string name = sd_bus_message_get_member(message);
    const void *bytes = nullptr;
    size_t count = 0;
    if (sd_bus_message_has_signature(message, "ay") > 0) {
        sd_bus_message_read_array(message, 'y', &bytes, &count);
    }
    const std::span version(static_cast<const uint8_t *>(bytes), count);
    const bool has_version = !version.empty();
    received_notices.push_back({has_version ? name + " " + version_text(version) : name,
                                {{"notice", name},
                                 {"version", has_version ? json(version_text(version)) : json(nullptr)},
                                 {"version_hex", has_version ? json(hex_digits(version)) : json(nullptr)}}});
    return 0;
}

/** All slots alike: the message says which notice it is. */
const bdbus_upgrade_callback_table &notice_handlers()
{
    static const auto table = [] {
        std::array<sd_bus_message_handler_t, BDBUS_UPGRADE_SIGNALS> handlers;
        handlers.fill(on_notice);
        return std::bit_cast<bdbus_upgrade_callback_table>(handlers);
    }();
    return table;
}

/** A call handles one message, of which some are not notices: after several without one, nothing is left. */
int32_t process_notices()
{
    constexpr int several = 20;
    constexpr size_t many = 1000; // are shown before more are handled
    int32_t result = 0;
    for (int idle = 0; idle < several && received_notices.size() < many && result == 0; idle++) {
        const size_t before = received_notices.size();
        result = bdbus_upgrade_signal_process();
        if (received_notices.size() > before) {
            idle = 0;
        }
    }
    return result;
}

void watch(const session &run, const watch_arguments &given)
{
    bdbus_upgrade_callbacks(&notice_handlers());
    follow(run, given, "com.brisemont.Upgrade1", [&run] {
        run.call("follow the upgrade's notices", process_notices);
        return std::exchange(received_notices, {});
    });
}

} // namespace

void add_upgrade(CLI::App &program, session &run)
{
    add_family(
        program, run, "upgrade", "Firmware upgrade: versions, flashes, notices, and running one", [](family &upgrade) {
            upgrade.verb("versions", "Show the versions of all components", versions);
            upgrade.verb("status", "Show whether an upgrade is in progress", status);
            upgrade.verb("run", "Upgrade the controller from an image", declare_run, run_upgrade);
            upgrade.verb("watch", "Show the notices of the upgrade service", declare_watch, watch);
            upgrade.verb("flash", "Show which flashes are selected", show_flashes);
            upgrade.verb("set-flash", "Select a flash", declare_set_flash, set_flash);
            upgrade.verb("set-version", "Set the version of the BIOS or the NVRAM", declare_set_version, set_version);
            upgrade.verb("factory-mode", "Tell the service of the BMC's factory mode", declare_factory_mode,
                         factory_mode);
            upgrade.verb("notify", "Send the service a notice", declare_notify, notify);
        });
}

} // namespace bdbusctl
