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
    char type;
    std::size_t offset;
    std::size_t room; // of a text
} node_keys[] = {
    {"Status.LLDPEnabled", 'b', offsetof(bnetwork_node, lldp_enabled), 0},
    {"Status.LLDPSupport", 'b', offsetof(bnetwork_node, lldp_support), 0},
    {"Status.LinkStatus", 'b', offsetof(bnetwork_node, link_status), 0},
    {"IDs.PciDeviceId", 'q', offsetof(bnetwork_node, pci_device_id), 0},
    {"IDs.PciSubId", 'q', offsetof(bnetwork_node, pci_sub_id), 0},
    {"IDs.PciSubVendorId", 'q', offsetof(bnetwork_node, pci_sub_vendor_id), 0},
    {"IDs.PciVendorId", 'q', offsetof(bnetwork_node, pci_vendor_id), 0},
    {"LLDP.Neighbor.TTL", 'q', offsetof(bnetwork_node, ttl), 0},
    {"LLDP.Neighbor.ChassisIdSubtype", 'y', offsetof(bnetwork_node, chassis_id_subtype), 0},
    {"LLDP.Neighbor.PortIDSubtype", 'y', offsetof(bnetwork_node, port_id_subtype), 0},
    {"LLDP.Neighbor.ChassisID", 's', offsetof(bnetwork_node, chassis_id), sizeof(bnetwork_node::chassis_id)},
    {"LLDP.Neighbor.PortID", 's', offsetof(bnetwork_node, port_id), sizeof(bnetwork_node::port_id)},
    {"LLDP.Neighbor.SysName", 's', offsetof(bnetwork_node, sys_name), sizeof(bnetwork_node::sys_name)},
    {"LLDP.Neighbor.PortDescr", 's', offsetof(bnetwork_node, port_descr), sizeof(bnetwork_node::port_descr)},
    {"LLDP.Neighbor.SysDescr", 's', offsetof(bnetwork_node, sys_descr), sizeof(bnetwork_node::sys_descr)},
};

/** Of a node's object; null without memory. */
class node_path
{
public:
    explicit node_path(const char *node)
    {
        static constexpr std::string_view parent = "/com/brisemont/network/";
        const std::size_t length = strlen(node) + 1;
        text_ = static_cast<char *>(malloc(parent.size() + length));
        if (text_ != nullptr) {
            memcpy(std::copy(parent.begin(), parent.end(), text_), node, length);
        }
    }
    ~node_path() { free(text_); }
    node_path(const node_path &) = delete;
    node_path &operator=(const node_path &) = delete;

    [[nodiscard]] const char *text() const { return text_; }

private:
    char *text_;
};

/** A call to the member that a key leads to, of an interface of a node's object. */
class node_call : grouped_member, service, public network_call
{
public:
    node_call(const node_path &object, const char *key)
        : grouped_member("com.brisemont.Network", key), service{"com.brisemont.Network.Host1", object.text(),
                                                                grouped_member::interface()},
          network_call(static_cast<const service &>(*this))
    {
        if (object.text() == nullptr) {
            fail(-ENOMEM);
        }
    }

    [[nodiscard]] const char *member() const { return grouped_member::name(); }
};

int32_t node_property(const node_path &path, const char *key, char type, void *out)
{
    node_call call(path, key);
    switch (type) {
    case 'b':
        call.get_basic_property<"b">(call.member(), static_cast<int32_t *>(out));
        break;
    case 'q':
        call.get_basic_property<"q">(call.member(), static_cast<uint16_t *>(out));
        break;
    case 'u':
        call.get_basic_property<"u">(call.member(), static_cast<uint32_t *>(out));
        break;
    case 'y':
        call.get_basic_property<"y">(call.member(), static_cast<uint8_t *>(out));
        break;
    case 's':
        call.get_string_property(call.member(), static_cast<char **>(out));
        break;
    default:
        call.fail(-EINVAL);
    }
    return call.status();
}

/** Read one property into its field. A failure leaves the field as it was. */
void node_read(const node_path &path, const node_key &key, bnetwork_node *rec)
{
    char *field = reinterpret_cast<char *>(rec) + key.offset;
    if (key.room == 0) {
        node_property(path, key.name, key.type, field);
        return;
    }
    char *text = nullptr;
    if (node_property(path, key.name, key.type, &text) == BDBUS_NETWORK_OK) {
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
    return bdbus::node_property(bdbus::node_path(node), key, signature[0], out);
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
    const bdbus::node_path path(node);
    for (const bdbus::node_key &key : bdbus::node_keys) {
        bdbus::node_read(path, key, rec);
    }
    free(scratch);
    return BDBUS_NETWORK_OK;
}

int32_t bnetwork_node_set_lldp_enabled(const char *node, int32_t enabled)
{
    if (node == nullptr) {
        return bdbus::network_status(-EINVAL);
    }
    const bdbus::node_path path(node);
    bdbus::node_call call(path, "Status.SetLLDPEnabled");
    call.invoke<"i">(call.member(), enabled);
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
