// SPDX-License-Identifier: LGPL-2.1-or-later
// Network nodes: a connection for each property, and for the discovery.
#include "bare.hpp"
#include "row.hpp"

#include <bdbus/network.h>

#include <expat.h>

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace bench
{

namespace
{

constexpr const char *host = "com.brisemont.Network.Host1";
constexpr const char *node = "node10000";
constexpr std::size_t path_room = 64;

void node_path(char (&path)[path_room])
{
    snprintf(path, sizeof(path), "/com/brisemont/network/%s", node);
}

bool bare_value(const char *path, const char *interface, const char *name, char type, void *value)
{
    const own_bus bus;
    sd_bus_error error = {};
    const int result = sd_bus_get_property_trivial(bus, host, path, interface, name, &error, type, value);
    sd_bus_error_free(&error);
    return result >= 0;
}

bool bare_text(const char *path, const char *interface, const char *name, char *field, std::size_t room)
{
    const own_bus bus;
    sd_bus_error error = {};
    char *text = nullptr;
    const int result = sd_bus_get_property_string(bus, host, path, interface, name, &error, &text);
    sd_bus_error_free(&error);
    if (result < 0) {
        return false;
    }
    const std::size_t length = strnlen(text, room - 1);
    memcpy(field, text, length);
    field[length] = '\0';
    free(text);
    return true;
}

bool library_property()
{
    uint16_t value = 0;
    return bnetwork_property_get(node, "IDs.PciDeviceId", "q", &value) == BDBUS_NETWORK_OK && value == 1;
}

bool bare_property()
{
    char path[path_room];
    node_path(path);
    uint16_t value = 0;
    return bare_value(path, "com.brisemont.Network.IDs", "PciDeviceId", 'q', &value) && value == 1;
}

bool library_record()
{
    bnetwork_node record = {};
    return bnetwork_node_get(node, &record) == BDBUS_NETWORK_OK && record.ttl == 1;
}

bool bare_record()
{
    static constexpr const char *status = "com.brisemont.Network.Status";
    static constexpr const char *ids = "com.brisemont.Network.IDs";
    static constexpr const char *neighbor = "com.brisemont.Network.LLDP.Neighbor";
    bnetwork_node to = {};
    char path[path_room];
    node_path(path);
    return bare_value(path, status, "LLDPEnabled", 'b', &to.lldp_enabled) &&
           bare_value(path, status, "LLDPSupport", 'b', &to.lldp_support) &&
           bare_value(path, status, "LinkStatus", 'b', &to.link_status) &&
           bare_value(path, ids, "PciDeviceId", 'q', &to.pci_device_id) &&
           bare_value(path, ids, "PciSubId", 'q', &to.pci_sub_id) &&
           bare_value(path, ids, "PciSubVendorId", 'q', &to.pci_sub_vendor_id) &&
           bare_value(path, ids, "PciVendorId", 'q', &to.pci_vendor_id) &&
           bare_value(path, neighbor, "TTL", 'q', &to.ttl) &&
           bare_value(path, neighbor, "ChassisIdSubtype", 'y', &to.chassis_id_subtype) &&
           bare_value(path, neighbor, "PortIDSubtype", 'y', &to.port_id_subtype) &&
           bare_text(path, neighbor, "ChassisID", to.chassis_id, sizeof(to.chassis_id)) &&
           bare_text(path, neighbor, "PortID", to.port_id, sizeof(to.port_id)) &&
           bare_text(path, neighbor, "SysName", to.sys_name, sizeof(to.sys_name)) &&
           bare_text(path, neighbor, "PortDescr", to.port_descr, sizeof(to.port_descr)) &&
           bare_text(path, neighbor, "SysDescr", to.sys_descr, sizeof(to.sys_descr)) && to.ttl == 1;
}

bool library_discovery()
{
    bnetwork_node_list list = {};
    const bool listed = bnetwork_nodes_list_get(&list) == BDBUS_NETWORK_OK && list.count > 0;
    free(list.names);
    return listed;
}

/** The names in one allocation, which a first pass over the text measures. */
struct names {
    char (*slots)[BDBUS_NETWORK_NAME_BYTES];
    uint32_t count;
};

void XMLCALL on_element(void *found, const char *element, const char **attributes)
{
    auto *to = static_cast<names *>(found);
    if (strcmp(element, "node") != 0 || attributes[0] == nullptr || strcmp(attributes[0], "name") != 0) {
        return;
    }
    if (to->slots != nullptr) {
        memcpy(to->slots[to->count], attributes[1], std::min(strlen(attributes[1]), sizeof(*to->slots) - 1));
    }
    to->count++;
}

bool list_names(const char *xml)
{
    names found = {};
    XML_Parser parser = XML_ParserCreate(nullptr);
    bool parsed = true;
    for (int pass = 0; pass < 2 && parsed; pass++) {
        if (pass == 1) {
            found.slots = static_cast<decltype(found.slots)>(calloc(found.count, sizeof(*found.slots)));
            found.count = 0;
            XML_ParserReset(parser, nullptr);
        }
        XML_SetUserData(parser, &found);
        XML_SetElementHandler(parser, on_element, nullptr);
        parsed = XML_Parse(parser, xml, static_cast<int>(strlen(xml)), XML_FALSE) == XML_STATUS_OK;
    }
    XML_ParserFree(parser);
    free(found.slots);
    return parsed && found.count > 0;
}

bool bare_discovery()
{
    const own_bus bus;
    call introspect;
    const char *xml = nullptr;
    return sd_bus_call_method(bus, host, "/com/brisemont/network", "org.freedesktop.DBus.Introspectable", "Introspect",
                              &introspect.error, &introspect.reply, nullptr) >= 0 &&
           sd_bus_message_read(introspect.reply, "s", &xml) >= 0 && list_names(xml);
}

constexpr row rows[] = {
    {.name = "node-property",
     .title = "node: a property",
     .library = library_property,
     .bare = bare_property,
     .budget = 1.01},
    {.name = "node-record",
     .title = "node: its record",
     .library = library_record,
     .bare = bare_record,
     .budget = 1.01,
     .few = 10,
     .many = 30},
    {.name = "discovery",
     .title = "discovery of 10,000 nodes",
     .library = library_discovery,
     .bare = bare_discovery,
     .budget = 1.05,
     .few = 1,
     .many = 3,
     .service = "nodes=10000"},
};

} // namespace

const std::span<const row> network_rows = rows;

} // namespace bench
