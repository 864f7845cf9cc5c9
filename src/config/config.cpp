// SPDX-License-Identifier: LGPL-2.1-or-later
// Configuration: fifteen typed keys with a cache that the service's change notice drops. Nothing is printed.
//
// One lock guards the connection and the cached values. A get or set holds it from its look at the bus to its end, and
// the change handler runs under it.
#include "bus/call.hpp"
#include "bus/member.hpp"

#include <bdbus/config.h>

#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>

namespace bdbus
{

namespace
{

constexpr char config_base[] = "com.brisemont.Config1";

constexpr service config_service = {
    .name = config_base,
    .path = "/com/brisemont/Config1",
    .interface = config_base,
};

struct config_key {
    const char *type; // one character
    uint32_t writable;
    uint32_t cached;
    void *value; // owned: a text as sd-bus allocated it, or a cell of 32 bits
    const char *name;
    std::size_t length; // of the name
    const char *interface;
    const char *property;
};

template <literal Name>
constexpr config_key config_entry(const char *type, uint32_t writable = 0)
{
    using member = grouped_literal<config_base, Name>;
    return {type, writable, 0, nullptr, member::text, sizeof(member::text) - 1, member::interface, member::name};
}

constinit config_key config_keys[] = {
    config_entry<"Firmware.Aux">("u"),
    config_entry<"Firmware.Has_Signature">("b"),
    config_entry<"Firmware.Major">("u"),
    config_entry<"Firmware.Minor">("u"),
    config_entry<"Generic.Device_Id">("u"),
    config_entry<"Generic.Device_Name">("s"),
    config_entry<"Generic.Device_Revision">("u"),
    config_entry<"Generic.Manufacturer_Id">("u"),
    config_entry<"Generic.Product_Id">("u"),
    config_entry<"Generic_Index">("u", 1),
    config_entry<"Hpm2.Dynamic_Credentials">("b"),
    config_entry<"Hpm2.Dynamic_Credentials_Reuse">("b"),
    config_entry<"Hpm2.Enabled">("b"),
    config_entry<"Hpm2.Packet_Trace">("b"),
    config_entry<"Hpm3.Enabled">("b"),
};

constinit bus_module config_module;

/** The key of this name and type, if there is one. @return a status. */
int32_t config_find(const char *name, const char *signature, config_key *&found)
{
    if (name == nullptr) {
        return BDBUS_CONFIG_NO_KEY;
    }
    const std::size_t length = strlen(name);
    for (config_key &key : config_keys) {
        if (key.length == length && memcmp(key.name, name, length) == 0) {
            found = &key;
            return signature != nullptr && signature[0] == key.type[0] ? BDBUS_CONFIG_OK : BDBUS_CONFIG_WRONG_SIGNATURE;
        }
    }
    return BDBUS_CONFIG_NO_KEY;
}

void config_drop(config_key &key)
{
    free(key.value);
    key.value = nullptr;
    key.cached = 0;
}

void config_cache_invalidate_all()
{
    for (config_key &key : config_keys) {
        config_drop(key);
    }
}

/** The notice's contents do not matter: any change drops the whole cache. */
int config_changed(sd_bus_message * /*signal*/, void * /*userdata*/, sd_bus_error * /*error*/)
{
    config_cache_invalidate_all();
    return 0;
}

/** The connection, opened and subscribed on first use, or null. The lock is held. */
sd_bus *config_bus_get()
{
    if (config_module.bus == nullptr) {
        const held_signals held;
        module_open(config_module, [](sd_bus *bus) {
            return match_signal(bus, config_service, "PropertiesChanged", config_changed);
        }); // a failure leaves it null
    }
    return config_module.bus;
}

/** Fold an sd-bus code into the family's range. */
int32_t config_status(int code)
{
    return code < 0 ? BDBUS_CONFIG_ERRNO | -code : BDBUS_CONFIG_OK;
}

/** Handle what is queued, one message of it. The lock is held. @return a status. */
int32_t config_bus_pump()
{
    sd_bus *bus = config_bus_get();
    if (bus == nullptr) {
        return BDBUS_CONFIG_NO_BUS;
    }
    sd_bus_process(bus, nullptr); // a broken connection shows in the read or write
    return BDBUS_CONFIG_OK;
}

/** Whether the lock may be taken. @return a status. */
int32_t config_enter()
{
    return config_status(is_inherited(config_module) ? -ECHILD : watch_forks(config_module));
}

/** A call about one key. The lock is held. */
class config_call : held_signals, service, failure_report, public call_frame
{
public:
    explicit config_call(const config_key &key)
        : service{config_service.name, config_service.path, key.interface},
          call_frame(*this, static_cast<const service &>(*this), silent_texts, config_module.bus, 0)
    {
    }
};

/** Ask the service for a value into a new allocation: a text, or a cell. The lock is held. */
int32_t config_read(config_key &key)
{
    config_call call(key);
    if (key.type[0] == 's') {
        char *text = nullptr;
        call.get_string_property(key.property, &text);
        key.value = text;
    } else if (void *cell = malloc(sizeof(uint32_t)); cell != nullptr) {
        if (key.type[0] == 'b') {
            call.get_basic_property<"b">(key.property, static_cast<int32_t *>(cell));
        } else {
            call.get_basic_property<"u">(key.property, static_cast<uint32_t *>(cell));
        }
        key.value = cell;
    }
    if (key.value == nullptr) {
        call.fail(-ENOMEM);
    }
    if (call.failed()) {
        config_drop(key);
        return config_status(call.result());
    }
    key.cached = 1;
    return BDBUS_CONFIG_OK;
}

/** Hand a value to the service. The lock is held. */
int32_t config_write(const config_key &key, uint32_t value)
{
    config_call call(key);
    return config_status(key.type[0] == 'b' ? call.set_property<"b">(key.property, static_cast<int32_t>(value))
                                            : call.set_property<"u">(key.property, value));
}

/** Copy a cached value out: a text as strncpy does, a number as it is. */
void config_copy(const config_key &key, void *out, uint32_t len)
{
    if (key.type[0] == 's') {
        const auto *text = static_cast<const char *>(key.value);
        const size_t taken = strnlen(text, len);
        memcpy(out, text, taken);
        memset(static_cast<char *>(out) + taken, 0, len - taken);
    } else {
        memcpy(out, key.value, sizeof(uint32_t));
    }
}

/** A get whose key is known and whose signature fits. */
int32_t config_get(config_key &key, void *out, uint32_t len)
{
    int32_t status = out == nullptr ? config_status(-EINVAL) : config_enter();
    if (status != BDBUS_CONFIG_OK) {
        return status;
    }
    const uncancelled guard;
    const mutex_guard lock(config_module.lock);
    status = config_bus_pump();
    if (status != BDBUS_CONFIG_OK) {
        return status;
    }
    if (key.cached == 0) {
        status = config_read(key);
    }
    if (key.value != nullptr) {
        config_copy(key, out, len);
    }
    return status;
}

/** A set whose key may be set and whose signature fits. */
int32_t config_set(config_key &key, const uint32_t *value)
{
    int32_t status = value == nullptr ? config_status(-EINVAL) : config_enter();
    if (status != BDBUS_CONFIG_OK) {
        return status;
    }
    const uncancelled guard;
    const mutex_guard lock(config_module.lock);
    status = config_bus_pump();
    if (status != BDBUS_CONFIG_OK) {
        return status; // nothing is cached before there is a connection
    }
    config_drop(key);
    return key.type[0] == 's' ? BDBUS_CONFIG_NO_STRING_SET : config_write(key, *value);
}

/** The get of a number. */
int32_t config_get_number(const char *name, const char *signature, uint32_t *out)
{
    config_key *key = nullptr;
    const int32_t status = config_find(name, signature, key);
    return status != BDBUS_CONFIG_OK ? status : config_get(*key, out, 0);
}

} // namespace

} // namespace bdbus

int32_t bdbus_config_get(const char *key, const char *signature, ...)
{
    bdbus::config_key *entry = nullptr;
    const int32_t status = bdbus::config_find(key, signature, entry);
    if (status != BDBUS_CONFIG_OK) {
        return status;
    }
    va_list outputs;
    va_start(outputs, signature);
    void *out = va_arg(outputs, void *);
    const uint32_t len = entry->type[0] == 's' ? va_arg(outputs, uint32_t) : 0;
    va_end(outputs);
    return bdbus::config_get(*entry, out, len);
}

int32_t bdbus_config_set(const char *key, const char *signature, ...)
{
    bdbus::config_key *entry = nullptr;
    const int32_t status = bdbus::config_find(key, signature, entry);
    if (status != BDBUS_CONFIG_OK) {
        return status;
    }
    if (entry->writable == 0) {
        return BDBUS_CONFIG_READ_ONLY;
    }
    va_list values;
    va_start(values, signature);
    const auto *value = va_arg(values, const uint32_t *);
    va_end(values);
    return bdbus::config_set(*entry, value);
}

int32_t bdbus_config_get_string(const char *key, char *buf, uint32_t len)
{
    return bdbus_config_get(key, "s", buf, len);
}

int32_t bdbus_config_get_unsigned(const char *key, uint32_t *out)
{
    return bdbus::config_get_number(key, "u", out);
}

int32_t bdbus_config_get_bool(const char *key)
{
    uint32_t value = 0;
    bdbus::config_get_number(key, "b", &value); // a failure leaves 0
    return static_cast<int32_t>(value);
}

int32_t bdbus_config_set_unsigned(const char *key, uint32_t value)
{
    return bdbus_config_set(key, "u", &value);
}

int32_t bdbus_config_set_bool(const char *key, int32_t value)
{
    return bdbus_config_set(key, "b", &value);
}
