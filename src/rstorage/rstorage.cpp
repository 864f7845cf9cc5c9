// SPDX-License-Identifier: LGPL-2.1-or-later
// Remote storage: thirteen properties and five calls of each disk. What asks and what acts have a connection and a lock
// each, so that nobody who asks waits for a mount.
#include "bus/call.hpp"
#include "bus/connection.hpp"

#include <bdbus/rstorage.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace bdbus
{

namespace
{

constexpr const char *rstorage_name = "com.brisemont.RStorage1"; // also the interface
constexpr const char *rstorage_path = "/com/brisemont/RStorage1";

constinit bus_module rstorage_query_module;
constinit bus_module rstorage_control_module;

int32_t rstorage_query_bus_acquire()
{
    return module_acquire(rstorage_query_module, nullptr);
}

void rstorage_query_bus_release()
{
    module_release(rstorage_query_module);
}

int32_t rstorage_control_bus_acquire()
{
    return module_acquire(rstorage_control_module, nullptr);
}

void rstorage_control_bus_release()
{
    module_release(rstorage_control_module);
}

using rstorage_query_hold = module_hold<rstorage_query_module, rstorage_query_bus_acquire, rstorage_query_bus_release>;
using rstorage_control_hold =
    module_hold<rstorage_control_module, rstorage_control_bus_acquire, rstorage_control_bus_release>;

/** The object of a disk, whose path holds its number. */
class rstorage_disk
{
public:
    explicit rstorage_disk(int32_t disk) { snprintf(path_, sizeof(path_), "%s/Disk/%d", rstorage_path, disk); }

protected:
    [[nodiscard]] const service &peer() const { return peer_; }

private:
    char path_[256] = {};
    service peer_ = {.name = rstorage_name, .path = path_, .interface = rstorage_name};
};

template <typename Hold>
class rstorage_call : rstorage_disk, public module_call<Hold>
{
public:
    explicit rstorage_call(int32_t disk, const call_texts &texts = plain_texts)
        : rstorage_disk(disk), module_call<Hold>(peer(), texts)
    {
    }
};

using rstorage_query = rstorage_call<rstorage_query_hold>;
using rstorage_action = rstorage_call<rstorage_control_hold>;

/** A property's read is silent: its getter prints a line with the property's name for every failure, one without a
 * connection included. */
constexpr call_texts property_texts;

int32_t rstorage_property_result(int32_t result, const char *property)
{
    if (result >= 0) {
        return 0;
    }
    const uncancelled guard;
    print_failure(plain_texts.property, property, result);
    return result;
}

/** A property of one value, of which the caller gets the low byte. */
template <signature Type, typename Value>
int32_t rstorage_get_byte(int32_t disk, const char *property, uint8_t *out)
{
    if (out == nullptr) {
        return -EINVAL;
    }
    Value value = 0;
    const int32_t result = rstorage_query(disk, property_texts).get_basic_property<Type>(property, &value);
    if (result >= 0) {
        *out = static_cast<uint8_t>(value);
    }
    return rstorage_property_result(result, property);
}

int32_t rstorage_get_flag(int32_t disk, const char *property, uint8_t *out)
{
    return rstorage_get_byte<"b", int32_t>(disk, property, out);
}

int32_t rstorage_get_code(int32_t disk, const char *property, uint8_t *out)
{
    return rstorage_get_byte<"y", uint8_t>(disk, property, out);
}

void rstorage_copy_text(char *buf, uint32_t len, const char *text)
{
    if (len > 0) {
        const size_t taken = std::min<size_t>(strlen(text), len - 1);
        memcpy(buf, text, taken);
        buf[taken] = '\0';
    }
}

/**
 * A text is read where the reply has it, which is then the only copy besides the caller's: it is wiped there, because a
 * password must not stay behind in memory that is given back. The reply is this call's own, and nobody reads it again.
 */
int32_t rstorage_read_text(int32_t disk, const char *property, char *buf, uint32_t len)
{
    rstorage_query call(disk, property_texts);
    const char *text = nullptr;
    call.get_property(property, "s");
    if (call.read<"s">(&text) >= 0 && text != nullptr) {
        rstorage_copy_text(buf, len, text);
        explicit_bzero(const_cast<char *>(text), strlen(text));
    }
    return call.result();
}

int32_t rstorage_get_text(int32_t disk, const char *property, char *buf, uint32_t len)
{
    return buf == nullptr ? -EINVAL : rstorage_property_result(rstorage_read_text(disk, property, buf, len), property);
}

} // namespace

} // namespace bdbus

int32_t bdbus_rstorage_disk_get_active_st(int32_t disk, uint8_t *out)
{
    return bdbus::rstorage_get_flag(disk, "Active", out);
}

int32_t bdbus_rstorage_disk_get_connected_st(int32_t disk, uint8_t *out)
{
    return bdbus::rstorage_get_flag(disk, "Connected", out);
}

int32_t bdbus_rstorage_disk_get_mounted_st(int32_t disk, uint8_t *out)
{
    return bdbus::rstorage_get_flag(disk, "Mounted", out);
}

int32_t bdbus_rstorage_disk_get_media_type(int32_t disk, uint8_t *out)
{
    return bdbus::rstorage_get_code(disk, "MediaType", out);
}

int32_t bdbus_rstorage_disk_get_proto_type(int32_t disk, uint8_t *out)
{
    return bdbus::rstorage_get_code(disk, "ProcotolType", out); // spelt as the service has it
}

int32_t bdbus_rstorage_disk_get_write_protected_st(int32_t disk, uint8_t *out)
{
    return bdbus::rstorage_get_flag(disk, "WriteProtected", out);
}

int32_t bdbus_rstorage_disk_get_smb_share_addr(int32_t disk, char *buf, uint32_t len)
{
    return bdbus::rstorage_get_text(disk, "SmbShareAddr", buf, len);
}

int32_t bdbus_rstorage_disk_get_username(int32_t disk, char *buf, uint32_t len)
{
    return bdbus::rstorage_get_text(disk, "UserName", buf, len);
}

int32_t bdbus_rstorage_disk_get_smb_path_file(int32_t disk, char *buf, uint32_t len)
{
    return bdbus::rstorage_get_text(disk, "SmbPathToFile", buf, len);
}

int32_t bdbus_rstorage_disk_get_image_name(int32_t disk, char *buf, uint32_t len)
{
    return bdbus::rstorage_get_text(disk, "ImageName", buf, len);
}

int32_t bdbus_rstorage_disk_get_image_url(int32_t disk, char *buf, uint32_t len)
{
    return bdbus::rstorage_get_text(disk, "ImageURL", buf, len);
}

int32_t bdbus_rstorage_disk_get_password(int32_t disk, char *buf, uint32_t len)
{
    return bdbus::rstorage_get_text(disk, "Password", buf, len);
}

int32_t bdbus_rstorage_disk_get_domain(int32_t disk, char *buf, uint32_t len)
{
    return bdbus::rstorage_get_text(disk, "Domain", buf, len);
}

int32_t bdbus_rstorage_disk_get_status(int32_t disk, uint8_t byte_arg, int32_t *out)
{
    if (out == nullptr) {
        return -EINVAL;
    }
    bdbus::rstorage_query call(disk);
    call.invoke<"y">("Status", byte_arg);
    return call.read<"i">(out);
}

int32_t bdbus_rstorage_disk_mount(int32_t disk, const char *text_arg, int32_t *out, char *buf, uint32_t len)
{
    if (text_arg == nullptr || out == nullptr) {
        return -EINVAL;
    }
    bdbus::rstorage_action call(disk, bdbus::mount_texts);
    call.invoke<"s">("Mount", text_arg);
    if (buf == nullptr) {
        return call.read<"i">(out);
    }
    const char *text = nullptr;
    if (call.read<"is">(out, &text) >= 0 && text != nullptr) {
        bdbus::rstorage_copy_text(buf, len, text);
    }
    return call.result();
}

int32_t bdbus_rstorage_disk_unmount(int32_t disk, int32_t *out)
{
    if (out == nullptr) {
        return -EINVAL;
    }
    bdbus::rstorage_action call(disk);
    call.invoke<"">("Unmount");
    return call.read<"i">(out);
}

int32_t bdbus_rstorage_disk_gadget_start(int32_t disk, uint8_t byte_arg, int32_t bool_arg, int32_t *out)
{
    if (out == nullptr) {
        return -EINVAL;
    }
    bdbus::rstorage_action call(disk);
    call.invoke<"yb">("GadgetStart", byte_arg, bool_arg);
    return call.read<"i">(out);
}

int32_t bdbus_rstorage_disk_gadget_stop(int32_t disk, int32_t *out)
{
    if (out == nullptr) {
        return -EINVAL;
    }
    bdbus::rstorage_action call(disk);
    call.invoke<"">("GadgetStop");
    return call.read<"i">(out);
}
