// SPDX-License-Identifier: LGPL-2.1-or-later
// The network: nodes as objects below one path, some with an LLDP neighbor, and the host name.
#include "services/services.hpp"

#include <algorithm>

namespace bdbus_sim
{

namespace
{

const std::string nodes_path = "/com/brisemont/network";
const std::string neighbor = "LLDP.Neighbor";
const std::string extra_name = "veth";          // before a number
constexpr uint32_t extra_nodes_max = 1'000'000; // more fit no message

/** A property of a node. The state has the same groups and names. */
struct node_property {
    std::string group;
    const char *name;
    const char *type;
};

const node_property node_properties[] = {
    {"IDs", "PciDeviceId", "q"},   {"IDs", "PciSubId", "q"},       {"IDs", "PciSubVendorId", "q"},
    {"IDs", "PciVendorId", "q"},   {"Status", "LLDPEnabled", "b"}, {"Status", "LLDPSupport", "b"},
    {"Status", "LinkStatus", "b"}, {neighbor, "ChassisID", "s"},   {neighbor, "ChassisIdSubtype", "y"},
    {neighbor, "PortDescr", "s"},  {neighbor, "PortID", "s"},      {neighbor, "PortIDSubtype", "y"},
    {neighbor, "SysDescr", "s"},   {neighbor, "SysName", "s"},     {neighbor, "TTL", "q"},
};

json node_shape()
{
    json shape;
    for (const auto &[group, name, type] : node_properties) {
        shape[group == neighbor ? group + "?" : group][name] = type;
    }
    return shape;
}

json make_node(int vendor, int device, int sub_vendor, int sub_device, bool link, bool lldp)
{
    return {
        {"IDs",
         {{"PciVendorId", vendor}, {"PciDeviceId", device}, {"PciSubVendorId", sub_vendor}, {"PciSubId", sub_device}}},
        {"Status", {{"LinkStatus", link}, {"LLDPSupport", lldp}, {"LLDPEnabled", lldp && link}}}};
}

json default_nodes()
{
    json nodes = {{"eth0", make_node(0x8086, 0x1533, 0x15D9, 0x1533, true, true)},
                  {"eth1", make_node(0x8086, 0x1533, 0x15D9, 0x1533, true, true)},
                  {"eth2", make_node(0x14E4, 0x165F, 0x14E4, 0x1990, false, true)},
                  {"usb0", make_node(0, 0, 0, 0, true, false)}};
    nodes["eth0"][neighbor] = {{"ChassisID", "02:00:5e:10:07:01"},
                               {"ChassisIdSubtype", 4}, // MAC address
                               {"PortID", "Ethernet1/12"},
                               {"PortIDSubtype", 5}, // interface name
                               {"PortDescr", "rack 7, unit 12, management"},
                               {"SysName", "switch-7a.example.net"},
                               {"SysDescr", "Managed switch, 48 ports, software 4.2.1"},
                               {"TTL", 120}};
    nodes["eth1"][neighbor] = {{"ChassisID", "switch-7b"},
                               {"ChassisIdSubtype", 7}, // locally assigned
                               {"PortID", "02:00:5e:10:07:2c"},
                               {"PortIDSubtype", 3}, // MAC address
                               {"PortDescr", "rack 7, unit 12, backup"},
                               {"SysName", "switch-7b.example.net"},
                               {"SysDescr", "Managed switch, 24 ports, software 3.9.0"},
                               {"TTL", 120}};
    return nodes;
}

uint32_t extra_nodes(const json &section)
{
    return std::min(section["extra_nodes"].get<uint32_t>(), extra_nodes_max);
}

/** Null when there is no such node. */
const json *find_node(const json &section, const std::string &name)
{
    static const json extra = make_node(0, 0, 0, 0, false, false);
    auto found = section["nodes"].find(name);
    if (found != section["nodes"].end()) {
        return &*found;
    }
    uint32_t extras = extra_nodes(section);
    bool numbered = extras > 0 && name.starts_with(extra_name);
    return numbered && is_number(name.substr(extra_name.size()), 0, extras - 1) ? &extra : nullptr;
}

const json &node_of(const state_document &state, const call &request)
{
    return *find_node(state.at("/network"), request.object_name());
}

std::vector<std::string> node_names(const json &section, bool with_neighbor)
{
    std::vector<std::string> names;
    for (const auto &[name, node] : section["nodes"].items()) {
        if (node.contains(neighbor) == with_neighbor) {
            names.push_back(name);
        }
    }
    for (uint32_t i = 0; !with_neighbor && i < extra_nodes(section); i++) {
        names.push_back(extra_name + std::to_string(i));
    }
    return names;
}

void switch_lldp(state_document &state, const call &request)
{
    json node = node_of(state, request);
    node["Status"]["LLDPEnabled"] = request.args[0] != 0;
    state.own("network")["nodes"][request.object_name()] = std::move(node);
}

property row(const state_document &state, const node_property &value)
{
    return property("com.brisemont.Network." + value.group, value.name, value.type,
                    [&](const call &request) { return node_of(state, request)[value.group][value.name]; });
}

object_table nodes(state_document &state, bool with_neighbor)
{
    auto belongs = [=, &state](const std::string &name) {
        const json *node = find_node(state.at("/network"), name);
        return node != nullptr && node->contains(neighbor) == with_neighbor;
    };
    auto names = [=, &state] {
        return node_names(state.at("/network"), with_neighbor);
    };
    object_table table{.parent = nodes_path, .has = belongs, .names = names};
    for (const node_property &value : node_properties) {
        if (with_neighbor || value.group != neighbor) {
            table.properties.push_back(row(state, value));
        }
    }
    table.methods.emplace_back(
        "SetLLDPEnabled", "i", "",
        [&state](const call &request) {
            switch_lldp(state, request);
            return json::array();
        },
        "com.brisemont.Network.Status");
    return table;
}

} // namespace

void add_network(simulator &sim)
{
    state_document &state = sim.state;
    json defaults = {{"nodes", default_nodes()}, {"extra_nodes", 0}, {"hostname", "bmc-sim"}};
    json shape = {{"nodes", {{"@", node_shape()}}}, {"extra_nodes", "u"}, {"hostname", "s"}};
    state.add_section("network", defaults, shape);

    service &host = sim.add_service("Network.Host1", nodes_path);
    host.add_object(nodes(state, true));
    host.add_object(nodes(state, false));

    sim.add_service("Network1").add_object({method("SetHostname", "s", "", [&state](const call &request) {
        state.set("/network/hostname", request.args[0]);
        return json::array();
    })});
}

} // namespace bdbus_sim
