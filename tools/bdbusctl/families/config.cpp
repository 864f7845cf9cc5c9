// SPDX-License-Identifier: LGPL-2.1-or-later
// config: the keys of the configuration service.
#include "families/config-status.hpp"
#include "frame/command.hpp"
#include "frame/report.hpp"

#include <bdbus/config.h>

#include <algorithm>
#include <array>
#include <cstring>

namespace bdbusctl
{

namespace
{

struct config_key {
    const char *name;
    char type;
    bool writable = false;
};

constexpr std::array keys{
    config_key{"Firmware.Aux", 'u'},
    config_key{"Firmware.Has_Signature", 'b'},
    config_key{"Firmware.Major", 'u'},
    config_key{"Firmware.Minor", 'u'},
    config_key{"Generic.Device_Id", 'u'},
    config_key{"Generic.Device_Name", 's'},
    config_key{"Generic.Device_Revision", 'u'},
    config_key{"Generic.Manufacturer_Id", 'u'},
    config_key{"Generic.Product_Id", 'u'},
    config_key{"Generic_Index", 'u', true},
    config_key{"Hpm2.Dynamic_Credentials", 'b'},
    config_key{"Hpm2.Dynamic_Credentials_Reuse", 'b'},
    config_key{"Hpm2.Enabled", 'b'},
    config_key{"Hpm2.Packet_Trace", 'b'},
    config_key{"Hpm3.Enabled", 'b'},
};

const char *type_name(char type)
{
    return type == 's' ? "string" : type == 'b' ? "boolean" : "unsigned";
}

const config_key &find_key(const std::string &name)
{
    const auto *const found = std::find_if(keys.begin(), keys.end(), [&](const auto &key) { return key.name == name; });
    if (found == keys.end()) {
        throw failure("no such key: '" + one_line(name) + "' (see bdbusctl config list)");
    }
    return *found;
}

cell read_value(const session &run, const config_key &key)
{
    const std::string intent = std::string("read ") + key.name;
    if (key.type == 's') {
        std::array<char, 4096> text{};
        const auto read = [&] {
            return bdbus_config_get_string(key.name, text.data(), uint32_t{text.size()});
        };
        check_config_status(intent, run.observe(read).result);
        return std::string(text.begin(), std::find(text.begin(), text.end(), '\0'));
    }
    const char signature[] = {key.type, '\0'};
    uint32_t value = 0;
    check_config_status(intent, run.observe([&] { return bdbus_config_get(key.name, signature, &value); }).result);
    return key.type == 'b' ? cell(value != 0) : cell(value);
}

uint32_t parse_switch(const std::string &text)
{
    constexpr std::array on{"1", "yes", "true", "on"};
    constexpr std::array off{"0", "no", "false", "off"};
    if (std::find(on.begin(), on.end(), text) != on.end()) {
        return 1;
    }
    if (std::find(off.begin(), off.end(), text) != off.end()) {
        return 0;
    }
    throw std::invalid_argument("'" + one_line(text) + "' is neither yes nor no");
}

uint32_t parse_value(const config_key &key, const std::string &text)
{
    try {
        return key.type == 'b' ? parse_switch(text) : static_cast<uint32_t>(parse_number(text, 0, UINT32_MAX));
    } catch (const std::invalid_argument &reason) {
        throw failure(std::string(key.name) + ": " + reason.what(), exit_status::usage);
    }
}

std::vector<column> columns()
{
    return {{"key", "KEY"}, {"type", "TYPE"}, {"writable", "WRITABLE"}, {"value", "VALUE"}};
}

std::vector<cell> row_of(const config_key &key, cell value)
{
    return {key.name, type_name(key.type), key.writable, std::move(value)};
}

void list(const session &run)
{
    report table(run, columns());
    for (const auto &key : keys) {
        table.add(row_of(key, read_value(run, key)));
    }
    table.show();
}

void show(const session &run, const config_key &key)
{
    const cell value = read_value(run, key);
    run.print(one_line(value.text), row_object(columns(), row_of(key, value)));
}

struct get_arguments {
    std::string key;
};

void declare_get(CLI::App &command, get_arguments &given)
{
    command.add_option("KEY", given.key, "Key, as in config list")->type_name("")->required();
}

void get(const session &run, const get_arguments &given)
{
    show(run, find_key(given.key));
}

struct set_arguments {
    std::string key;
    std::string value;
};

void declare_set(CLI::App &command, set_arguments &given)
{
    command.add_option("KEY", given.key, "Key, as in config list")->type_name("")->required();
    command.add_option("VALUE", given.value, "Number (decimal or 0x hex), or yes/no")->type_name("")->required();
}

void set(const session &run, const set_arguments &given)
{
    const config_key &key = find_key(given.key);
    const char signature[] = {key.type, '\0'};
    const uint32_t value = key.type == 's' ? 0 : parse_value(key, given.value);
    const outcome seen = run.observe([&] { return bdbus_config_set(key.name, signature, &value); });
    check_config_status(std::string("set ") + key.name, seen.result);
    if (run.wants_json() || !run.quiet) {
        show(run, key);
    }
}

} // namespace

std::string config_status_text(int32_t status)
{
    switch (status) {
    case BDBUS_CONFIG_BAD_TYPE:
        return "the key's type is not supported";
    case BDBUS_CONFIG_NO_KEY:
        return "no such key";
    case BDBUS_CONFIG_WRONG_SIGNATURE:
        return "the key has another type";
    case BDBUS_CONFIG_READ_ONLY:
        return "the key is read-only";
    case BDBUS_CONFIG_NO_STRING_SET:
        return "a text cannot be set";
    case BDBUS_CONFIG_NO_BUS:
        return "no connection to the system bus";
    default:
        return status & BDBUS_CONFIG_ERRNO ? strerror(status & ~BDBUS_CONFIG_ERRNO) : format("status %d", status);
    }
}

void check_config_status(const std::string &intent, int32_t status)
{
    if (status == BDBUS_CONFIG_OK) {
        return;
    }
    failure error("cannot " + intent + ": " + config_status_text(status),
                  status == BDBUS_CONFIG_NO_BUS ? exit_status::no_bus : exit_status::failed);
    error.error["status"] = status;
    throw error;
}

void add_config(CLI::App &program, session &run)
{
    add_family(program, run, "config", "Configuration: identity, firmware version, switches", [](family &config) {
        config.verb("list", "Show all keys", list);
        config.verb("get", "Show the value of one key", declare_get, get);
        config.verb("set", "Set a key", declare_set, set);
    });
}

} // namespace bdbusctl
