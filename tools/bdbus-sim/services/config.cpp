// SPDX-License-Identifier: LGPL-2.1-or-later
// The configuration: properties that announce their changes.
#include "services/services.hpp"

#include <map>

namespace bdbus_sim
{

namespace
{

struct config_key {
    std::string name; // as in the state; the part before the dot ends the interface's name
    const char *type;
    json value;
    bool writable = false;

    std::string interface() const
    {
        std::string whole = "com.brisemont.Config1";
        if (size_t dot = name.rfind('.'); dot != std::string::npos) {
            whole.append(".").append(name, 0, dot);
        }
        return whole;
    }

    std::string member() const { return name.substr(name.rfind('.') + 1); }
};

std::vector<config_key> config_keys()
{
    return {
        {"Firmware.Aux", "u", 1},
        {"Firmware.Has_Signature", "b", true},
        {"Firmware.Major", "u", 1},
        {"Firmware.Minor", "u", 5},
        {"Generic.Device_Id", "u", 32},
        {"Generic.Device_Name", "s", "bmc-sim"},
        {"Generic.Device_Revision", "u", 1},
        {"Generic.Manufacturer_Id", "u", 0x00A2B3},
        {"Generic.Product_Id", "u", 0x1234},
        {"Generic_Index", "u", 0, true},
        {"Hpm2.Dynamic_Credentials", "b", false},
        {"Hpm2.Dynamic_Credentials_Reuse", "b", false},
        {"Hpm2.Enabled", "b", true},
        {"Hpm2.Packet_Trace", "b", false},
        {"Hpm3.Enabled", "b", false},
    };
}

/** One signal for each interface with changed properties. */
void announce(service &config, const json &before, const json &after)
{
    std::map<std::string, json> changed;
    for (const config_key &key : config_keys()) {
        if (before[key.name] != after[key.name]) {
            changed[key.interface()].push_back(key.member());
        }
    }
    for (const auto &[interface, members] : changed) {
        config.emit("PropertiesChanged", "sas", json::array({interface, members}));
    }
}

property row(state_document &state, const config_key &key)
{
    std::string place = "/config/" + key.name;
    property made(key.interface(), key.member(), key.type, [&state, place](const call &) { return state.at(place); });
    if (key.writable) {
        made.set = [&state, place](const call &request) {
            state.set(place, request.args[0]);
        };
    }
    return made;
}

} // namespace

void add_config(simulator &sim)
{
    json defaults;
    json shape;
    std::vector<property> properties;
    for (const config_key &key : config_keys()) {
        defaults[key.name] = key.value;
        shape[key.name] = key.type;
        properties.push_back(row(sim.state, key));
    }
    sim.state.add_section("config", defaults, shape);

    service &config = sim.add_service("Config1");
    config.add_object({}, properties, {{"", "PropertiesChanged", "sas"}});
    sim.state.on_change("config",
                        [&config](const json &before, const json &after) { announce(config, before, after); });
}

} // namespace bdbus_sim
