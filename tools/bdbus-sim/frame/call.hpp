// SPDX-License-Identifier: LGPL-2.1-or-later
// What a client asks of a service, and the values that answer it.
#pragma once

#include "frame/bus.hpp"
#include "frame/json.hpp"

#include <string>

namespace bdbus_sim
{

enum class call_kind { method, get, set, signal };

/** The kind as the call list and the faults have it. */
const char *name_of(call_kind kind);

/** What a client asks. For a get and a set, `interface` and `member` are the property's. */
struct call {
    call_kind kind = call_kind::method;
    std::string path;
    std::string interface;
    std::string member;
    std::string signature;
    std::string sender;
    json args;

    /** The object's name below its parent. */
    std::string object_name() const { return path.substr(path.rfind('/') + 1); }

    template <typename T>
    T arg(size_t index) const
    {
        return args.at(index).get<T>();
    }
};

struct reply {
    std::string signature;
    json values = json::array();
};

/** Reads all but the arguments, which may be broken. */
call read_header(sd_bus_message *message);

/**
 * Reads the arguments. The call becomes a get or a set when it is one of the standard methods for them. Throws
 * std::exception for arguments that are broken.
 */
void read_arguments(call &request, sd_bus_message *message);

} // namespace bdbus_sim
