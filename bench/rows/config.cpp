// SPDX-License-Identifier: LGPL-2.1-or-later
// Configuration keys. Each get and set handles what is queued before it does anything else; so does who keeps values
// by hand, for they may have changed.
#include "bare.hpp"
#include "row.hpp"

#include <bdbus/config.h>

namespace bench
{

namespace
{

int on_change(sd_bus_message * /*signal*/, void * /*userdata*/, sd_bus_error * /*error*/)
{
    return 0;
}

sd_bus *watching_bus()
{
    static bool watching = false;
    if (!watching) {
        watching = sd_bus_match_signal(kept_bus(), nullptr, nullptr, config.path, config.name, "PropertiesChanged",
                                       on_change, nullptr) >= 0;
    }
    return kept_bus();
}

bool library_cached()
{
    uint32_t value = 0;
    return bdbus_config_get_unsigned("Firmware.Major", &value) == BDBUS_CONFIG_OK;
}

bool bare_cached()
{
    const turn own;
    return sd_bus_process(watching_bus(), nullptr) >= 0;
}

bool library_set()
{
    return bdbus_config_set_unsigned("Generic_Index", 1) == BDBUS_CONFIG_OK;
}

bool bare_set()
{
    sd_bus *bus = watching_bus();
    sd_bus_process(bus, nullptr);
    sd_bus_error error = {};
    const int result =
        sd_bus_set_property(bus, config.name, config.path, config.name, "Generic_Index", &error, "u", uint32_t{1});
    sd_bus_error_free(&error);
    return result >= 0;
}

bool library_set_and_get()
{
    uint32_t value = 0;
    return library_set() && bdbus_config_get_unsigned("Generic_Index", &value) == BDBUS_CONFIG_OK;
}

bool bare_set_and_get()
{
    if (!bare_set()) {
        return false;
    }
    sd_bus *bus = kept_bus();
    sd_bus_process(bus, nullptr);
    sd_bus_error error = {};
    uint32_t value = 0;
    const int result =
        sd_bus_get_property_trivial(bus, config.name, config.path, config.name, "Generic_Index", &error, 'u', &value);
    sd_bus_error_free(&error);
    return result >= 0;
}

constexpr row rows[] = {
    {.name = "config-cached",
     .title = "configuration: cached get",
     .library = library_cached,
     .bare = bare_cached,
     .budget = 1.15,
     .few = 1000,
     .many = 3000},
    {"config-set", "configuration: set", library_set, bare_set, 1.05},
    {"config-set-get", "configuration: set, uncached get", library_set_and_get, bare_set_and_get, 1.05},
};

} // namespace

const std::span<const row> config_rows = rows;

} // namespace bench
