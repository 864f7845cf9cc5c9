// SPDX-License-Identifier: LGPL-2.1-or-later
// The objects of a service: tables of methods, properties and signals, and the look-up of what a call names.
#pragma once

#include "frame/bus.hpp"
#include "frame/call.hpp"
#include "frame/json.hpp"

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace bdbus_sim
{

// The rows of the tables. An empty interface is the service's own. Handlers refuse with a dbus_error.

struct method {
    using handler_function = std::function<json(const call &)>; // returns the reply's values, an array

    method(std::string member_, std::string in_, std::string out_, handler_function handler_,
           std::string interface_ = {})
        : member(std::move(member_)), in(std::move(in_)), out(std::move(out_)), handler(std::move(handler_)),
          interface(std::move(interface_))
    {
    }

    std::string member;
    std::string in;
    std::string out;
    handler_function handler;
    std::string interface;
    std::function<std::chrono::milliseconds(const call &)> duration; // passes before the handler runs; none: no time
};

struct property {
    using getter = std::function<json(const call &)>;
    using setter = std::function<void(const call &)>;

    property(std::string interface_, std::string member_, std::string signature_, getter get_, setter set_ = nullptr)
        : interface(std::move(interface_)), member(std::move(member_)), signature(std::move(signature_)),
          get(std::move(get_)), set(std::move(set_))
    {
    }

    std::string interface;
    std::string member;
    std::string signature;
    getter get;
    setter set; // none: read-only
};

struct signal_row {
    std::string interface;
    std::string member;
    std::string signature;
};

/** The parent of an object, and its name below that. */
std::pair<std::string, std::string> split_path(const std::string &path);

/**
 * Objects with the same members, right below one path. Which there are may follow the state: a call asks for one name,
 * and only introspection for all of them.
 */
struct object_table {
    std::string parent;
    std::function<bool(const std::string &name)> has;
    std::function<std::vector<std::string>()> names;
    std::vector<method> methods{};
    std::vector<property> properties{};
    std::vector<signal_row> signals{};
};

/** A call looked up: the method or the property that it names, or the error that answers it. */
struct resolved_call {
    const method *called = nullptr;
    const property *accessed = nullptr;
    std::optional<dbus_error> error{};

    /** The time that the call takes before it is executed. */
    std::chrono::milliseconds duration(const call &request) const;

    /** Throws the dbus_error that answers a call that cannot be executed. */
    reply execute(const call &request) const;
};

class object_tree
{
public:
    explicit object_tree(std::string own_interface);
    object_tree(const object_tree &) = delete;
    object_tree &operator=(const object_tree &) = delete;

    void add(object_table table);

    resolved_call resolve(const call &request) const;

    /** Look a member up for a fault, whatever the object; null when there is none. */
    const method *find_method(const std::string &member) const;
    const property *find_property(const std::string &interface, const std::string &member) const;

private:
    const object_table *find(const std::string &path) const;
    std::vector<std::string> children(const std::string &path) const;
    json introspect(const call &request) const;
    json all_properties(const call &request) const;

    std::string own_interface_;
    std::vector<object_table> objects_;
    std::vector<method> standard_methods_; // those that every object has
};

} // namespace bdbus_sim
