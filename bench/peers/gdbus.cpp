// SPDX-License-Identifier: LGPL-2.1-or-later
// The rows by GDBus, the D-Bus of GLib. Its worker thread is in its counts.
#include "peer.hpp"

#include <gio/gio.h>

namespace
{

GDBusConnection *kept_connection()
{
    static GDBusConnection *connection = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
    return connection;
}

GVariant *call(GDBusConnection *bus, const char *name, const char *path, const char *interface, const char *member,
               GVariant *values, const char *answer)
{
    return g_dbus_connection_call_sync(bus, name, path, interface, member, values, G_VARIANT_TYPE(answer),
                                       G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
}

/** Read a reply, and release it. */
template <typename... Values>
bool take(GVariant *reply, const char *format, Values... values)
{
    if (reply == nullptr) {
        return false;
    }
    g_variant_get(reply, format, values...);
    g_variant_unref(reply);
    return true;
}

bool kept_call()
{
    guchar bytes[4] = {};
    return take(call(kept_connection(), bench::upgrade_name, bench::upgrade_path, bench::upgrade_name,
                     "GetUpgradeStatus", g_variant_new("(y)", 0), "(yyyy)"),
                "(yyyy)", &bytes[0], &bytes[1], &bytes[2], &bytes[3]);
}

bool auth_log()
{
    GVariant *entry = g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, bench::auth_log_entry,
                                                sizeof(bench::auth_log_entry), sizeof(uint8_t));
    guchar code = 0;
    guint16 value = 0;
    return take(call(kept_connection(), bench::auth_log_name, bench::auth_log_path, bench::auth_log_name,
                     "AuthLogAddEntry", g_variant_new("(@ay)", entry), "(yq)"),
                "(yq)", &code, &value);
}

/** @return the value, to be released; null for a failure. */
GVariant *property(const char *name)
{
    GVariant *value = nullptr;
    const bool read = take(call(kept_connection(), bench::upgrade_name, bench::upgrade_path, bench::properties_name,
                                "Get", g_variant_new("(ss)", bench::upgrade_name, name), "(v)"),
                           "(v)", &value);
    return read ? value : nullptr;
}

bool property_byte()
{
    GVariant *value = property("UpgradeInProgress");
    const bool read = value != nullptr && g_variant_get_byte(value) == 1;
    g_clear_pointer(&value, g_variant_unref);
    return read;
}

bool property_bytes()
{
    GVariant *value = property("BmcFwVersion");
    gsize length = 0;
    const bool read = value != nullptr && g_variant_get_fixed_array(value, &length, 1) != nullptr;
    g_clear_pointer(&value, g_variant_unref);
    return read;
}

bool bypass()
{
    constexpr auto flags = static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                                             G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION);
    gchar *address = g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
    GDBusConnection *bus = g_dbus_connection_new_for_address_sync(address, flags, nullptr, nullptr, nullptr);
    gint32 answer = 0;
    const bool called = take(call(bus, bench::bypass_name, bench::bypass_path, bench::bypass_name, "SetGlobalReset",
                                  g_variant_new("(y)", 1), "(i)"),
                             "(i)", &answer);
    g_dbus_connection_close_sync(bus, nullptr, nullptr);
    g_object_unref(bus);
    g_free(address);
    return called && answer == 1;
}

} // namespace

int main(int argc, char **argv)
{
    return bench::peer_main(argc, argv, {kept_call, auth_log, property_byte, property_bytes, bypass});
}
