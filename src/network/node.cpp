// SPDX-License-Identifier: LGPL-2.1-or-later
// A node's properties and its LLDP switch, and the host name. Each read and each call has a connection of its own.
#include "bus/member.hpp"
#include "network/connection.hpp"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string_view>

namespace bdbus
{

namespace
{

constexpr service hostname_service = {
    .name = "com.brisemont.Network1",
    .path = "/com/brisemont/Network1",
    .interface = "com.brisemont.Network1",
};

/** What bnetwork_node_get() reads, in this order, and where it goes. */
constexpr struct node_key {
    const char *name;
    const char *type;
    std::size_t offset;
    std::size_t room; // of a text
} node_keys[] = {
    {"Status.LLDPEnabled", "b", offsetof(bnetwork_node, lldp_enabled), 0},
    {"Status.LLDPSupport", "b", offsetof(bnetwork_node, lldp_support), 0},
    {"Status.LinkStatus", "b", offsetof(bnetwork_node, link_status), 0},
    {"IDs.PciDeviceId", "q", offsetof(bnetwork_node, pci_device_id), 0},
    {"IDs.PciSubId", "q", offsetof(bnetwork_node, pci_sub_id), 0},
    {"IDs.PciSubVendorId", "q", offsetof(bnetwork_node, pci_sub_vendor_id), 0},
    {"IDs.PciVendorId", "q", offsetof(bnetwork_node, pci_vendor_id), 0},
    {"LLDP.Neighbor.TTL", "q", offsetof(bnetwork_node, ttl), 0},
    {"LLDP.Neighbor.ChassisIdSubtype", "y", offsetof(bnetwork_node, chassis_id_subtype), 0},
    {"LLDP.Neighbor.PortIDSubtype", "y", offsetof(bnetwork_node, port_id_subtype), 0},
    {"LLDP.Neighbor.ChassisID", "s", offsetof(bnetwork_node, chassis_id), sizeof(bnetwork_node::chassis_id)},
    {"LLDP.Neighbor.PortID", "s", offsetof(bnetwork_node, port_id), sizeof(bnetwork_node::port_id)},
    {"LLDP.Neighbor.SysName", "s", offsetof(bnetwork_node, sys_name), sizeof(bnetwork_node::sys_name)},
    {"LLDP.Neighbor.PortDescr", "s", offsetof(bnetwork_node, port_descr), sizeof(bnetwork_node::port_descr)},
    {"LLDP.Neighbor.SysDescr", "s", offsetof(bnetwork_node, sys_descr), sizeof(bnetwork_node::sys_descr)},
};

/** Where a key leads: to a member of an interface of a node's object. */
class node_member
{
public:
    node_member(const char *node, const char *key) : member_("com.brisemont.Network", key)
    {
        static constexpr std::string_view parent = "/com/brisemont/network/";
        const std::size_t length = strlen(node) + 1;
        path_ = static_cast<char *>(malloc(parent.size() + length));
        if (path_ != nullptr) {
            memcpy(std::copy(parent.begin(), parent.end(), path_), node, length);
        }
    }
    ~node_member() { free(path_); }
    node_member(const node_member &) = delete;
    node_member &operator=(const node_member &) = delete;

    [[nodiscard]] const char *name() const { return member_.name(); }
    [[nodiscard]] service peer() const { return {"com.brisemont.Network.Host1", path_, member_.interface()}; }

private:
    grouped_member member_;
    char *path_;
};

/** A call to one member; without memory for where it is, a failed one. */
class node_call : service, public network_call
{
public:
    explicit node_call(const node_member &member)
        : service(member.peer()), network_call(static_cast<const service &>(*this))
    {
        if (path == nullptr) {
            fail(-ENOMEM);
        }
    }
};

/** Read one property into its field. A failure leaves the field as it was. */
void node_read(const char *node, const node_key &key, bnetwork_node *rec)
{
    char *field = reinterpret_cast<char *>(rec) + key.offset;
    if (key.room == 0) {
        bnetwork_property_get(node, key.name, key.type, field);
        return;
    }
    char *text = nullptr;
    if (bnetwork_property_get(node, key.name, key.type, &text) == BDBUS_NETWORK_OK) {
        const size_t length = strnlen(text, key.room - 1);
        memcpy(field, text, length);
        field[length] = '\0';
        free(text);
    }
}

} // namespace

} // namespace bdbus

int32_t bnetwork_property_get(const char *node, const char *key, const char *signature, void *out)
{
    if (node == nullptr || key == nullptr || signature == nullptr || out == nullptr) {
        return bdbus::network_status(-EINVAL);
    }
    const bdbus::node_member property(node, key);
    bdbus::node_call call(property);
    switch (signature[0]) {
    case 'b':
        call.get_basic_property<"b">(property.name(), static_cast<int32_t *>(out));
        break;
    case 'q':
        call.get_basic_property<"q">(property.name(), static_cast<uint16_t *>(out));
        break;
    case 'u':
        call.get_basic_property<"u">(property.name(), static_cast<uint32_t *>(out));
        break;
    case 'y':
        call.get_basic_property<"y">(property.name(), static_cast<uint8_t *>(out));
        break;
    case 's':
        call.get_string_property(property.name(), static_cast<char **>(out));
        break;
    default:
        call.fail(-EINVAL);
    }
    return call.status();
}

int32_t bnetwork_node_get(const char *node, bnetwork_node *rec)
{
    if (node == nullptr) {
        return bdbus::network_status(-EINVAL);
    }
    bnetwork_node *scratch = nullptr;
    if (rec == nullptr) {
        scratch = static_cast<bnetwork_node *>(calloc(1, sizeof(*scratch)));
        if (scratch == nullptr) {
            return BDBUS_NETWORK_NO_MEMORY;
        }
        rec = scratch;
    }
    for (const bdbus::node_key &key : bdbus::node_keys) {
        bdbus::node_read(node, key, rec);
    }
    free(scratch);
    return BDBUS_NETWORK_OK;
}

int32_t bnetwork_node_set_lldp_enabled(const char *node, int32_t enabled)
{
    if (node == nullptr) {
        return bdbus::network_status(-EINVAL);
    }
    const bdbus::node_member lldp(node, "Status.SetLLDPEnabled");
    bdbus::node_call call(lldp);
    call.invoke<"i">(lldp.name(), enabled);
    return call.status();
}

int32_t bnetwork1_set_hostname(const char *hostname)
{
    if (hostname == nullptr) {
        return bdbus::network_status(-EINVAL);
    }
    bdbus::network_call call(bdbus::hostname_service);
    call.invoke<"s">("SetHostname", hostname);
    return call.status();
}
