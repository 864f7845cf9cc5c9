// SPDX-License-Identifier: LGPL-2.1-or-later
// Owners for sd-bus objects, and sd-bus failures as exceptions.
#pragma once

#include "frame/json.hpp"

#include <systemd/sd-bus.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <system_error>

namespace bdbus_sim
{

struct bus_closer {
    /** Writes the replies and signals that are still queued, then closes. */
    void operator()(sd_bus *bus) const { sd_bus_flush_close_unref(bus); }
};
using bus_ptr = std::unique_ptr<sd_bus, bus_closer>;

struct message_releaser {
    void operator()(sd_bus_message *message) const { sd_bus_message_unref(message); }
};
using message_ptr = std::unique_ptr<sd_bus_message, message_releaser>;

/** Returns a result of sd-bus or sd-event; throws std::system_error for a negative one, with `context` as its text. */
int check(int result, const std::string &context);

class bus_unreachable : public std::system_error
{
public:
    explicit bus_unreachable(int error) : std::system_error(error, std::generic_category(), "system bus") {}
};

/** Throws bus_unreachable. */
bus_ptr open_system_bus(const char *description);

/** An error reply. The body is a text, a number, or null for none. */
class dbus_error : public std::runtime_error
{
public:
    dbus_error(const std::string &error_name, json error_body)
        : std::runtime_error(error_name), name(error_name), body(std::move(error_body))
    {
    }

    std::string name;
    json body;
};

/** The standard's own error `name`, which follows "org.freedesktop.DBus.Error.". */
dbus_error standard_error(const std::string &name, const std::string &text);

} // namespace bdbus_sim
