// SPDX-License-Identifier: LGPL-2.1-or-later
// network: the controller's network nodes, their LLDP neighbors and the host name.
#include "frame/command.hpp"
#include "frame/report.hpp"

#include <bdbus/network.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <span>

namespace bdbusctl
{

namespace
{

// ---- values as texts; null is what the service does not give

std::string text_of(const json &value)
{
    const std::string text = value.is_string() ? value.get<std::string>() : value.is_null() ? "" : value.dump();
    return text.empty() ? "-" : text;
}

std::string choice(const json &value, const char *yes, const char *no)
{
    return value.is_null() ? "-" : value.get<bool>() ? yes : no;
}

std::string up_down(const json &value)
{
    return choice(value, "up", "down");
}

std::string on_off(const json &value)
{
    return choice(value, "on", "off");
}

std::string yes_no(const json &value)
{
    return choice(value, "yes", "no");
}

std::string hex_of(const json &value)
{
    return value.is_null() ? "-" : format("%04x", value.get<unsigned>());
}

std::string seconds(const json &value)
{
    return value.is_null() ? "-" : value.dump() + " s";
}

// Subtypes of IEEE 802.1AB, from 1 on.

json name_of(const json &subtype, std::span<const char *const> names)
{
    const size_t number = subtype.is_null() ? 0 : subtype.get<size_t>();
    return number >= 1 && number <= names.size() ? json(names[number - 1]) : json();
}

json chassis_id_kind(const json &subtype)
{
    constexpr std::array names{"chassis component", "interface alias", "port component",  "MAC address",
                               "network address",   "interface name",  "locally assigned"};
    return name_of(subtype, names);
}

json port_id_kind(const json &subtype)
{
    constexpr std::array names{"interface alias", "port component",   "MAC address",     "network address",
                               "interface name",  "agent circuit ID", "locally assigned"};
    return name_of(subtype, names);
}

std::string with_name(const json &subtype, const json &name)
{
    return name.is_null() ? text_of(subtype) : subtype.dump() + " (" + name.get<std::string>() + ")";
}

std::string chassis_id_subtype(const json &value)
{
    return with_name(value, chassis_id_kind(value));
}

std::string port_id_subtype(const json &value)
{
    return with_name(value, port_id_kind(value));
}

struct node_key {
    const char *name;
    char type;
    const char *field; // in JSON
    const char *label;
    std::string (*text)(const json &value);
};

constexpr const char *lldp_enabled = "Status.LLDPEnabled";

constexpr std::array keys{
    node_key{"Status.LinkStatus", 'b', "link_status", "Link", up_down},
    node_key{lldp_enabled, 'b', "lldp_enabled", "LLDP", on_off},
    node_key{"Status.LLDPSupport", 'b', "lldp_support", "LLDP supported", yes_no},
    node_key{"IDs.PciVendorId", 'q', "pci_vendor_id", "PCI vendor", hex_of},
    node_key{"IDs.PciDeviceId", 'q', "pci_device_id", "PCI device", hex_of},
    node_key{"IDs.PciSubVendorId", 'q', "pci_sub_vendor_id", "Subsystem vendor", hex_of},
    node_key{"IDs.PciSubId", 'q', "pci_sub_id", "Subsystem device", hex_of},
    node_key{"LLDP.Neighbor.SysName", 's', "sys_name", "Neighbor", text_of},
    node_key{"LLDP.Neighbor.SysDescr", 's', "sys_descr", "Description", text_of},
    node_key{"LLDP.Neighbor.ChassisID", 's', "chassis_id", "Chassis ID", text_of},
    node_key{"LLDP.Neighbor.ChassisIdSubtype", 'y', "chassis_id_subtype", "Chassis ID type", chassis_id_subtype},
    node_key{"LLDP.Neighbor.PortID", 's', "port_id", "Port ID", text_of},
    node_key{"LLDP.Neighbor.PortIDSubtype", 'y', "port_id_subtype", "Port ID type", port_id_subtype},
    node_key{"LLDP.Neighbor.PortDescr", 's', "port_descr", "Port", text_of},
    node_key{"LLDP.Neighbor.TTL", 'q', "ttl", "Valid for", seconds},
};

// ---- calls

std::string status_text(int32_t status)
{
    switch (status) {
    case BDBUS_NETWORK_NO_BUS:
        return "no connection to the system bus";
    case BDBUS_NETWORK_ERRNO | EBADR:
        return "no such node or property";
    case BDBUS_NETWORK_ERRNO | EHOSTUNREACH:
        return "the service is not on the bus";
    default:
        return status & BDBUS_NETWORK_ERRNO ? strerror(status & ~BDBUS_NETWORK_ERRNO) : format("status %d", status);
    }
}

void check_status(const std::string &intent, int32_t status, const std::string &reason)
{
    if (status == BDBUS_NETWORK_OK) {
        return;
    }
    failure error("cannot " + intent + ": " + reason,
                  status == BDBUS_NETWORK_NO_BUS ? exit_status::no_bus : exit_status::failed);
    error.error["status"] = status;
    throw error;
}

void call(const session &run, const std::string &intent, const std::function<int32_t()> &function)
{
    const int32_t status = run.observe(function).result;
    check_status(intent, status, status_text(status));
}

std::vector<std::string> node_names(const session &run)
{
    bnetwork_node_list list = {};
    const int32_t status = run.observe([&] { return bnetwork_nodes_list_get(&list); }).result;
    const bool unreadable = status == BDBUS_NETWORK_NO_LIST;
    check_status("list the nodes", status, unreadable ? "what the service says is no list" : status_text(status));
    std::vector<std::string> names(list.names, list.names + list.count);
    free(list.names);
    return names;
}

template <class number>
int32_t read_number(const char *node, const char *key, const char *type, json &value)
{
    number read{};
    const int32_t status = bnetwork_property_get(node, key, type, &read);
    value = read;
    return status;
}

int32_t read_text(const char *node, const char *key, json &value)
{
    char *text = nullptr;
    const int32_t status = bnetwork_property_get(node, key, "s", &text);
    value = text != nullptr ? text : "";
    free(text);
    return status;
}

int32_t read_switch(const char *node, const char *key, json &value)
{
    const int32_t status = read_number<int32_t>(node, key, "b", value);
    value = value != 0;
    return status;
}

int32_t read_property(const char *node, const char *key, char type, json &value)
{
    switch (type) {
    case 'y':
        return read_number<uint8_t>(node, key, "y", value);
    case 'q':
        return read_number<uint16_t>(node, key, "q", value);
    case 'u':
        return read_number<uint32_t>(node, key, "u", value);
    case 'b':
        return read_switch(node, key, value);
    default:
        return read_text(node, key, value);
    }
}

json property(const session &run, const std::string &node, const std::string &key, char type)
{
    json value;
    call(run, "read " + one_line(key) + " of " + one_line(node),
         [&] { return read_property(node.c_str(), key.c_str(), type, value); });
    return value;
}

/** Null for what the service does not give; one that answers nothing any more is a failure. */
json property_or_null(const session &run, const std::string &node, const node_key &key)
{
    try {
        return property(run, node, key.name, key.type);
    } catch (const failure &error) {
        const auto status = error.error["status"].get<int32_t>();
        constexpr std::array fatal{BDBUS_NETWORK_NO_BUS, BDBUS_NETWORK_ERRNO | EHOSTUNREACH,
                                   BDBUS_NETWORK_ERRNO | ETIMEDOUT};
        if (std::find(fatal.begin(), fatal.end(), status) != fatal.end()) {
            throw;
        }
        return nullptr;
    }
}

record describe(const session &run, const std::string &node)
{
    record lines;
    lines.add("node", "Node", node);
    for (const auto &key : keys) {
        const json value = property_or_null(run, node, key);
        lines.add(key.field, key.label, cell(key.text(value), value));
    }
    const json &known = lines.to_json();
    lines.hide("chassis_id_subtype_name", chassis_id_kind(known["chassis_id_subtype"]));
    lines.hide("port_id_subtype_name", port_id_kind(known["port_id_subtype"]));
    return lines;
}

// ---- verbs

void list(const session &run)
{
    report table(run, {{"node", "NODE"},
                       {"link", "LINK"},
                       {"lldp", "LLDP"},
                       {"supported", "SUPPORTED"},
                       {"pci", "PCI"},
                       {"subsystem", "SUBSYSTEM"},
                       {"neighbor", "NEIGHBOR"},
                       {"port", "PORT"}});
    const auto names = node_names(run);
    try {
        for (const auto &name : names) {
            const json node = describe(run, name).to_json();
            table.add({name, up_down(node["link_status"]), on_off(node["lldp_enabled"]), yes_no(node["lldp_support"]),
                       hex_of(node["pci_vendor_id"]) + ":" + hex_of(node["pci_device_id"]),
                       hex_of(node["pci_sub_vendor_id"]) + ":" + hex_of(node["pci_sub_id"]), text_of(node["sys_name"]),
                       text_of(node["port_id"])},
                      node);
        }
    } catch (const failure &error) {
        table.show_so_far(error, "nodes");
    }
    table.show();
}

struct arguments {
    std::string node;
    std::string key;
    std::string type;
    std::string state;
    std::string hostname;
};

void declare_node(CLI::App &command, arguments &given)
{
    command.add_option("NODE", given.node, "Node, as in network list")->type_name("")->required();
}

void show(const session &run, const arguments &given)
{
    const std::vector<std::string> names = node_names(run);
    if (std::find(names.begin(), names.end(), given.node) == names.end()) {
        throw failure("no such node: '" + one_line(given.node) + "' (see bdbusctl network list)");
    }
    describe(run, given.node).show(run);
}

void declare_get(CLI::App &command, arguments &given)
{
    declare_node(command, given);
    command.add_option("KEY", given.key, "Key, such as Status.LinkStatus")->type_name("")->required();
    command.add_option("--type", given.type, "D-Bus type of a key that is not among the usual ones")
        ->type_name("b|q|u|y|s")
        ->check(CLI::IsMember({"b", "q", "u", "y", "s"}));
}

char type_of(const arguments &given)
{
    if (!given.type.empty()) {
        return given.type.front();
    }
    const auto *const known =
        std::find_if(keys.begin(), keys.end(), [&](const auto &key) { return key.name == given.key; });
    if (known == keys.end()) {
        throw failure("not one of the usual keys: '" + one_line(given.key) + "': say its --type", exit_status::usage);
    }
    return known->type;
}

void get(const session &run, const arguments &given)
{
    const char type = type_of(given);
    const json value = property(run, given.node, given.key, type);
    run.print(one_line(type == 'b'   ? yes_no(value)
                       : type == 's' ? value.get<std::string>()
                                     : value.dump()),
              {{"node", given.node}, {"key", given.key}, {"type", std::string(1, type)}, {"value", value}});
}

void declare_lldp(CLI::App &command, arguments &given)
{
    declare_node(command, given);
    command.add_option("STATE", given.state, "on or off")
        ->type_name("")
        ->required()
        ->check(CLI::IsMember({"on", "off"}));
}

void lldp(const session &run, const arguments &given)
{
    call(run, "switch LLDP of " + one_line(given.node) + " " + given.state,
         [&] { return bnetwork_node_set_lldp_enabled(given.node.c_str(), given.state == "on" ? 1 : 0); });
    if (!run.wants_json() && run.quiet) {
        return;
    }
    const json now = property(run, given.node, lldp_enabled, 'b');
    run.print(on_off(now), {{"node", given.node}, {"lldp_enabled", now}});
}

void declare_hostname(CLI::App &command, arguments &given)
{
    command.add_option("NAME", given.hostname, "The new name")->type_name("")->required();
}

void hostname(const session &run, const arguments &given)
{
    call(run, "set the host name", [&] { return bnetwork1_set_hostname(given.hostname.c_str()); });
    if (run.wants_json() || !run.quiet) {
        run.print(one_line(given.hostname), {{"hostname", given.hostname}});
    }
}

} // namespace

void add_network(CLI::App &program, session &run)
{
    add_family(program, run, "network", "Network nodes, their LLDP neighbors, and the host name", [](family &network) {
        network.verb("list", "Show all nodes", list);
        network.verb("show", "Show all about one node", declare_node, show);
        network.verb("get", "Show one property of a node", declare_get, get);
        network.verb("lldp", "Switch LLDP on or off", declare_lldp, lldp);
        network.verb("hostname", "Set the host name", declare_hostname, hostname);
    });
}

} // namespace bdbusctl
