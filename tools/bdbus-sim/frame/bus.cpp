// SPDX-License-Identifier: LGPL-2.1-or-later
// Opening the bus; failures of sd-bus as exceptions.
#include "frame/bus.hpp"

#include <algorithm>

namespace bdbus_sim
{

int check(int result, const std::string &context)
{
    if (result < 0) {
        throw std::system_error(-result, std::generic_category(), context);
    }
    return result;
}

bus_ptr open_system_bus(const char *description)
{
    sd_bus *bus = nullptr;
    int result = sd_bus_open_system_with_description(&bus, description);
    if (result < 0) {
        throw bus_unreachable(-result);
    }
    return bus_ptr(bus);
}

dbus_error standard_error(const std::string &name, const std::string &text)
{
    // What a client sent may be in the text, but not at any length. Cut between characters.
    constexpr size_t text_max = 1000;
    size_t size = std::min(text.size(), text_max);
    while (size < text.size() && size > 0 && (static_cast<unsigned char>(text[size]) & 0xC0) == 0x80) {
        size--;
    }
    return {"org.freedesktop.DBus.Error." + name, text.substr(0, size)};
}

} // namespace bdbus_sim
