// SPDX-License-Identifier: LGPL-2.1-or-later
// Configuration: fifteen typed keys with a cache that the service's change notice drops. Nothing is printed.
//
// Two locks. The connection lock guards the connection and is held by the pump, a read and a write; the cache lock
// guards the cached values and is held by a get or set around its read or write, so the order is cache, then
// connection. The change handler runs with the connection lock held and therefore takes no other: it only marks the
// cache as stale, and whoever takes the cache lock next drops what is in it before answering.
#include "bus/call.hpp"
#include "bus/member.hpp"

#include <bdbus/config.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>

namespace bdbus
{

namespace
{

constexpr service config_service = {
    .name = "com.brisemont.Config1",
    .path = "/com/brisemont/Config1",
    .interface = "com.brisemont.Config1",
};

struct config_key {
    const char *type; // null closes the table
    uint32_t writable;
    uint32_t cached;
    void *value; // owned: a text as sd-bus allocated it, or a cell of 32 bits
    const char *name;
};

constinit config_key config_keys[] = {
    {"u", 0, 0, nullptr, "Firmware.Aux"},
    {"b", 0, 0, nullptr, "Firmware.Has_Signature"},
    {"u", 0, 0, nullptr, "Firmware.Major"},
    {"u", 0, 0, nullptr, "Firmware.Minor"},
    {"u", 0, 0, nullptr, "Generic.Device_Id"},
    {"s", 0, 0, nullptr, "Generic.Device_Name"},
    {"u", 0, 0, nullptr, "Generic.Device_Revision"},
    {"u", 0, 0, nullptr, "Generic.Manufacturer_Id"},
    {"u", 0, 0, nullptr, "Generic.Product_Id"},
    {"u", 1, 0, nullptr, "Generic_Index"},
    {"b", 0, 0, nullptr, "Hpm2.Dynamic_Credentials"},
    {"b", 0, 0, nullptr, "Hpm2.Dynamic_Credentials_Reuse"},
    {"b", 0, 0, nullptr, "Hpm2.Enabled"},
    {"b", 0, 0, nullptr, "Hpm2.Packet_Trace"},
    {"b", 0, 0, nullptr, "Hpm3.Enabled"},
    {nullptr, 0, 0, nullptr, nullptr},
};

constinit bus_module config_module;
constinit pthread_mutex_t config_cache_lock = PTHREAD_MUTEX_INITIALIZER;
constinit std::atomic<bool> config_cache_stale{false};

config_key *config_find(const char *name)
{
    for (config_key *key = config_keys; name != nullptr && key->type != nullptr; key++) {
        if (strcmp(key->name, name) == 0) {
            return key;
        }
    }
    return nullptr;
}

bool config_signature_fits(const config_key &key, const char *signature)
{
    return signature != nullptr && signature[0] == key.type[0];
}

void config_drop(config_key &key)
{
    free(key.value);
    key.value = nullptr;
    key.cached = 0;
}

void config_cache_invalidate_all()
{
    for (config_key *key = config_keys; key->type != nullptr; key++) {
        config_drop(*key);
    }
}

/** The cache lock, with every value gone that was cached before a change notice. */
class config_cache_guard : mutex_guard
{
public:
    config_cache_guard() : mutex_guard(config_cache_lock)
    {
        if (config_cache_stale.exchange(false, std::memory_order_acq_rel)) {
            config_cache_invalidate_all();
        }
    }
};

/** The notice's contents do not matter: any change drops the whole cache. */
int config_changed(sd_bus_message * /*signal*/, void * /*userdata*/, sd_bus_error * /*error*/)
{
    config_cache_stale.store(true, std::memory_order_release);
    return 0;
}

/** The connection, opened and subscribed on first use, or null. The connection lock is held. */
sd_bus *config_bus_get()
{
    module_open(config_module, [](sd_bus *bus) {
        return match_signal(bus, config_service, "PropertiesChanged", config_changed);
    }); // a failure leaves it null
    return config_module.bus;
}

/** Fold an sd-bus code into the family's range. */
int32_t config_status(int code)
{
    return code < 0 ? BDBUS_CONFIG_ERRNO | -code : BDBUS_CONFIG_OK;
}

/** Handle what is queued, one message of it. @return a status; a broken connection shows in the read or write. */
int32_t config_bus_pump()
{
    if (is_inherited(config_module)) {
        return config_status(-ECHILD);
    }
    if (const int32_t watched = watch_forks(config_module); watched < 0) {
        return config_status(watched);
    }
    const mutex_guard guard(config_module.lock);
    sd_bus *bus = config_bus_get();
    if (bus == nullptr) {
        return BDBUS_CONFIG_NO_BUS;
    }
    sd_bus_process(bus, nullptr);
    return BDBUS_CONFIG_OK;
}

/** A call about one key, over the connection that the pump has opened. The cache lock is held. */
class config_call : service, failure_report, mutex_guard, public call_frame
{
public:
    explicit config_call(const grouped_member &key)
        : service(at(key)), mutex_guard(config_module.lock),
          call_frame(*this, static_cast<const service &>(*this), silent_texts, config_module.bus, 0)
    {
    }

private:
    static service at(const grouped_member &key) { return {config_service.name, config_service.path, key.interface()}; }
};

/** Ask the service for a value into a new allocation: a text, or a cell. The cache lock is held. */
int32_t config_read(config_key &key)
{
    const grouped_member property(config_service.interface, key.name);
    config_call call(property);
    if (key.type[0] == 's') {
        char *text = nullptr;
        call.get_string_property(property.name(), &text);
        key.value = text;
    } else if (void *cell = malloc(sizeof(uint32_t)); cell != nullptr) {
        if (key.type[0] == 'b') {
            call.get_basic_property<"b">(property.name(), static_cast<int32_t *>(cell));
        } else {
            call.get_basic_property<"u">(property.name(), static_cast<uint32_t *>(cell));
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

/** Hand a value to the service. The cache lock is held. */
int32_t config_write(const config_key &key, uint32_t value)
{
    const grouped_member property(config_service.interface, key.name);
    config_call call(property);
    return config_status(key.type[0] == 'b' ? call.set_property<"b">(property.name(), static_cast<int32_t>(value))
                                            : call.set_property<"u">(property.name(), value));
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
    if (out == nullptr) {
        return config_status(-EINVAL);
    }
    const uncancelled guard;
    const held_signals held;
    int32_t status = config_bus_pump();
    if (status != BDBUS_CONFIG_OK) {
        return status;
    }
    const config_cache_guard cache;
    if (key.cached == 0) {
        status = config_read(key);
    }
    if (key.value == nullptr) {
        return status;
    }
    config_copy(key, out, len);
    return BDBUS_CONFIG_OK;
}

/** A set whose key may be set and whose signature fits. */
int32_t config_set(config_key &key, const uint32_t *value)
{
    if (value == nullptr) {
        return config_status(-EINVAL);
    }
    const uncancelled guard;
    const held_signals held;
    const int32_t status = config_bus_pump();
    if (status != BDBUS_CONFIG_OK) {
        return status; // nothing is cached before there is a connection
    }
    const config_cache_guard cache;
    config_drop(key);
    return key.type[0] == 's' ? BDBUS_CONFIG_NO_STRING_SET : config_write(key, *value);
}

} // namespace

} // namespace bdbus

int32_t bdbus_config_get(const char *key, const char *signature, ...)
{
    bdbus::config_key *entry = bdbus::config_find(key);
    if (entry == nullptr) {
        return BDBUS_CONFIG_NO_KEY;
    }
    if (!bdbus::config_signature_fits(*entry, signature)) {
        return BDBUS_CONFIG_WRONG_SIGNATURE;
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
    bdbus::config_key *entry = bdbus::config_find(key);
    if (entry == nullptr) {
        return BDBUS_CONFIG_NO_KEY;
    }
    if (!bdbus::config_signature_fits(*entry, signature)) {
        return BDBUS_CONFIG_WRONG_SIGNATURE;
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
    return bdbus_config_get(key, "u", out);
}

int32_t bdbus_config_get_bool(const char *key)
{
    uint32_t value = 0;
    bdbus_config_get(key, "b", &value); // a failure leaves 0
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
