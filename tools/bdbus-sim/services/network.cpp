// SPDX-License-Identifier: LGPL-2.1-or-later
// The network: nodes as objects below one path, some with an LLDP neighbor, and the host name.
#include "simulator.hpp"

#include <algorithm>

namespace bdbus_sim
{

namespace
{

const std::string nodes_path = "/com/brisemont/network";
const std::string neighbor = "LLDP.Neighbor";
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

json extra_node()
{
    return make_node(0, 0, 0, 0, false, false);
}

std::vector<std::string> node_paths(const json &section, bool with_neighbor)
{
    std::vector<std::string> paths;
    for (const auto &[name, node] : section["nodes"].items()) {
        if (node.contains(neighbor) == with_neighbor) {
            paths.push_back(nodes_path + "/" + name);
        }
    }
    uint32_t extras = with_neighbor ? 0 : std::min(section["extra_nodes"].get<uint32_t>(), extra_nodes_max);
    for (uint32_t i = 0; i < extras; i++) {
        paths.push_back(nodes_path + "/veth" + std::to_string(i));
    }
    return paths;
}

std::string node_name(const call &request)
{
    return request.path.substr(nodes_path.size() + 1);
}

json read_node(const state_document &state, const call &request)
{
    const json &all = state.at("/network/nodes");
    auto found = all.find(node_name(request));
    return found != all.end() ? *found : extra_node();
}

void switch_lldp(state_document &state, const call &request)
{
    json node = read_node(state, request);
    node["Status"]["LLDPEnabled"] = request.args[0] != 0;
    state.own("network")["nodes"][node_name(request)] = std::move(node);
}

object_table nodes(state_document &state, bool with_neighbor)
{
    object_table table{.paths = [&state, with_neighbor] {
        return node_paths(state.at("/network"), with_neighbor);
    }};
    for (const auto &[group, name, type] : node_properties) {
        if (with_neighbor || group != neighbor) {
            table.properties.emplace_back("com.brisemont.Network." + group, name, type,
                                          [&state, group = group, name = name](const call &request) {
                                              return read_node(state, request)[group][name];
                                          });
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
