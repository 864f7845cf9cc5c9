// SPDX-License-Identifier: LGPL-2.1-or-later
// Calls read from messages.
#include "frame/call.hpp"

#include "frame/codec.hpp"

#include <stdexcept>
#include <utility>

namespace bdbus_sim
{

namespace
{

std::string text_or_empty(const char *text)
{
    return text == nullptr ? "" : text;
}

/** The call list and the faults know reads and writes of properties as such, whatever method they come through. */
void become_access(call &request, json args)
{
    const bool get = request.member == "Get";
    const std::string wanted = get ? "ss" : "ssv";
    if (request.signature != wanted) {
        throw std::invalid_argument(request.member + " takes \"" + wanted + "\", not \"" + request.signature + "\".");
    }
    request.kind = get ? call_kind::get : call_kind::set;
    request.interface = args[0].get<std::string>();
    request.member = args[1].get<std::string>();
    request.signature = get ? "" : args[2]["signature"].get<std::string>();
    if (!get) {
        request.args.push_back(std::move(args[2]["value"]));
    }
}

} // namespace

const char *name_of(call_kind kind)
{
    switch (kind) {
    case call_kind::get:
        return "get";
    case call_kind::set:
        return "set";
    case call_kind::signal:
        return "signal";
    case call_kind::method:
        break;
    }
    return "call";
}

call read_header(sd_bus_message *message)
{
    return {.kind = call_kind::method,
            .path = text_or_empty(sd_bus_message_get_path(message)),
            .interface = text_or_empty(sd_bus_message_get_interface(message)),
            .member = text_or_empty(sd_bus_message_get_member(message)),
            .signature = text_or_empty(sd_bus_message_get_signature(message, 1)),
            .sender = text_or_empty(sd_bus_message_get_sender(message)),
            .args = json::array()};
}

void read_arguments(call &request, sd_bus_message *message)
{
    json args = decode_arguments(message);
    const bool access = request.member == "Get" || request.member == "Set";
    if (access && request.interface == "org.freedesktop.DBus.Properties") {
        become_access(request, std::move(args));
    } else {
        request.args = std::move(args);
    }
}

} // namespace bdbus_sim
