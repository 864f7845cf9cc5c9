// SPDX-License-Identifier: LGPL-2.1-or-later
// The rows by libdbus.
#include "peer.hpp"

#include <dbus/dbus.h>

namespace
{

DBusConnection *kept_connection()
{
    static DBusConnection *connection = dbus_bus_get(DBUS_BUS_SYSTEM, nullptr);
    return connection;
}

/** Send a call, and release it. @return its reply, to be released; null for a failure. */
DBusMessage *send(DBusConnection *bus, DBusMessage *call)
{
    DBusMessage *reply = dbus_connection_send_with_reply_and_block(bus, call, DBUS_TIMEOUT_USE_DEFAULT, nullptr);
    dbus_message_unref(call);
    return reply;
}

/** Read a reply, and release it. */
template <typename... Values>
bool take(DBusMessage *reply, int type, Values... values)
{
    const bool read =
        reply != nullptr && dbus_message_get_args(reply, nullptr, type, values..., DBUS_TYPE_INVALID) != FALSE;
    if (reply != nullptr) {
        dbus_message_unref(reply);
    }
    return read;
}

bool kept_call()
{
    DBusMessage *call =
        dbus_message_new_method_call(bench::upgrade_name, bench::upgrade_path, bench::upgrade_name, "GetUpgradeStatus");
    const uint8_t identifier = 0;
    uint8_t bytes[4] = {};
    dbus_message_append_args(call, DBUS_TYPE_BYTE, &identifier, DBUS_TYPE_INVALID);
    return take(send(kept_connection(), call), DBUS_TYPE_BYTE, &bytes[0], DBUS_TYPE_BYTE, &bytes[1], DBUS_TYPE_BYTE,
                &bytes[2], DBUS_TYPE_BYTE, &bytes[3]);
}

bool auth_log()
{
    DBusMessage *call = dbus_message_new_method_call(bench::auth_log_name, bench::auth_log_path, bench::auth_log_name,
                                                     "AuthLogAddEntry");
    const uint8_t *entry = bench::auth_log_entry;
    uint8_t code = 0;
    uint16_t value = 0;
    dbus_message_append_args(call, DBUS_TYPE_ARRAY, DBUS_TYPE_BYTE, &entry,
                             static_cast<int>(sizeof(bench::auth_log_entry)), DBUS_TYPE_INVALID);
    return take(send(kept_connection(), call), DBUS_TYPE_BYTE, &code, DBUS_TYPE_UINT16, &value);
}

DBusMessage *property(const char *name)
{
    DBusMessage *call =
        dbus_message_new_method_call(bench::upgrade_name, bench::upgrade_path, bench::properties_name, "Get");
    const char *interface = bench::upgrade_name;
    dbus_message_append_args(call, DBUS_TYPE_STRING, &interface, DBUS_TYPE_STRING, &name, DBUS_TYPE_INVALID);
    return send(kept_connection(), call);
}

/** Stand on the value of a property's reply. */
bool enter(DBusMessage *reply, DBusMessageIter &value)
{
    DBusMessageIter answer;
    if (reply == nullptr || dbus_message_iter_init(reply, &answer) == FALSE) {
        return false;
    }
    dbus_message_iter_recurse(&answer, &value);
    return true;
}

bool property_byte()
{
    DBusMessage *reply = property("UpgradeInProgress");
    DBusMessageIter value;
    uint8_t byte = 0;
    if (!enter(reply, value)) {
        return false;
    }
    dbus_message_iter_get_basic(&value, &byte);
    dbus_message_unref(reply);
    return byte == 1;
}

bool property_bytes()
{
    DBusMessage *reply = property("BmcFwVersion");
    DBusMessageIter value;
    DBusMessageIter elements;
    const uint8_t *bytes = nullptr;
    int length = 0;
    if (!enter(reply, value)) {
        return false;
    }
    dbus_message_iter_recurse(&value, &elements);
    dbus_message_iter_get_fixed_array(&elements, &bytes, &length);
    dbus_message_unref(reply);
    return length > 0;
}

bool bypass()
{
    DBusConnection *bus = dbus_bus_get_private(DBUS_BUS_SYSTEM, nullptr);
    DBusMessage *call =
        dbus_message_new_method_call(bench::bypass_name, bench::bypass_path, bench::bypass_name, "SetGlobalReset");
    const uint8_t setting = 1;
    int32_t answer = 0;
    dbus_message_append_args(call, DBUS_TYPE_BYTE, &setting, DBUS_TYPE_INVALID);
    const bool called = take(send(bus, call), DBUS_TYPE_INT32, &answer);
    dbus_connection_close(bus);
    dbus_connection_unref(bus);
    return called && answer == 1;
}

} // namespace

int main(int argc, char **argv)
{
    return bench::peer_main(argc, argv, {kept_call, auth_log, property_byte, property_bytes, bypass});
}
