// SPDX-License-Identifier: LGPL-2.1-or-later
// Looking up what calls name, and the standard methods that every object has.
#include "frame/objects.hpp"

#include "frame/introspection.hpp"

#include <algorithm>

namespace bdbus_sim
{

namespace
{

constexpr const char *introspectable_interface = "org.freedesktop.DBus.Introspectable";
constexpr const char *properties_interface = "org.freedesktop.DBus.Properties";

/** A call may leave its interface out. */
bool is_interface(const std::string &asked, const std::string &own)
{
    return asked.empty() || asked == own;
}

template <typename Row>
const Row *find_row(const std::vector<Row> &rows, const std::string &interface, const std::string &member)
{
    auto found = std::find_if(rows.begin(), rows.end(), [&](const Row &row) {
        return row.member == member && is_interface(interface, row.interface);
    });
    return found != rows.end() ? &*found : nullptr;
}

bool has_interface(const object_table &object, const std::string &interface)
{
    auto in_row = [&](const auto &row) {
        return is_interface(interface, row.interface);
    };
    return interface == introspectable_interface || interface == properties_interface ||
           std::any_of(object.methods.begin(), object.methods.end(), in_row) ||
           std::any_of(object.properties.begin(), object.properties.end(), in_row) ||
           std::any_of(object.signals.begin(), object.signals.end(), in_row);
}

dbus_error unknown_object(const std::string &path)
{
    return standard_error("UnknownObject", "Unknown object '" + path + "'.");
}

dbus_error unknown_interface(const std::string &interface)
{
    return standard_error("UnknownInterface", "Unknown interface '" + interface + "'.");
}

dbus_error unknown_member(const object_table &object, const call &request)
{
    if (!has_interface(object, request.interface)) {
        return unknown_interface(request.interface);
    }
    return request.kind == call_kind::method
               ? standard_error("UnknownMethod", "Unknown method '" + request.member + "'.")
               : standard_error("UnknownProperty", "Unknown property '" + request.member + "'.");
}

void check_signature(const call &request, const std::string &signature)
{
    if (request.signature != signature) {
        throw standard_error("InvalidArgs",
                             request.member + " takes \"" + signature + "\", not \"" + request.signature + "\".");
    }
}

} // namespace

std::pair<std::string, std::string> split_path(const std::string &path)
{
    size_t slash = path.rfind('/');
    return {path.substr(0, slash), path.substr(slash + 1)};
}

// ---- resolved calls

std::chrono::milliseconds resolved_call::duration(const call &request) const
{
    bool takes_time = called != nullptr && called->duration;
    return takes_time ? called->duration(request) : std::chrono::milliseconds(0);
}

reply resolved_call::execute(const call &request) const
{
    if (error) {
        throw *error;
    }
    if (called != nullptr) {
        check_signature(request, called->in);
        return {called->out, called->handler(request)};
    }
    if (request.kind == call_kind::get) {
        return {accessed->signature, json::array({accessed->get(request)})};
    }
    if (!accessed->set) {
        throw standard_error("PropertyReadOnly", "Property " + request.member + " is not writable.");
    }
    check_signature(request, accessed->signature);
    accessed->set(request);
    return {};
}

// ---- the tree

object_tree::object_tree(std::string own_interface)
    : own_interface_(std::move(own_interface)),
      standard_methods_{method(
                            "Introspect", "", "s", [this](const call &request) { return introspect(request); },
                            introspectable_interface),
                        method(
                            "GetAll", "s", "a{sv}", [this](const call &request) { return all_properties(request); },
                            properties_interface)}
{
}

void object_tree::add(object_table table)
{
    auto fill_interfaces = [&](auto &rows) {
        for (auto &row : rows) {
            row.interface = row.interface.empty() ? own_interface_ : row.interface;
        }
    };
    fill_interfaces(table.methods);
    fill_interfaces(table.properties);
    fill_interfaces(table.signals);
    objects_.push_back(std::move(table));
}

const object_table *object_tree::find(const std::string &path) const
{
    auto [parent, name] = split_path(path);
    for (const object_table &object : objects_) {
        if (object.parent == parent && object.has(name)) {
            return &object;
        }
    }
    return nullptr;
}

resolved_call object_tree::resolve(const call &request) const
{
    bool is_method = request.kind == call_kind::method;
    const method *standard = is_method ? find_row(standard_methods_, request.interface, request.member) : nullptr;
    if (standard != nullptr) {
        return {.called = standard};
    }

    const object_table *object = find(request.path);
    if (object == nullptr) {
        return {.error = unknown_object(request.path)};
    }
    resolved_call resolved;
    if (is_method) {
        resolved.called = find_row(object->methods, request.interface, request.member);
    } else {
        resolved.accessed = find_row(object->properties, request.interface, request.member);
    }
    if (resolved.called == nullptr && resolved.accessed == nullptr) {
        resolved.error = unknown_member(*object, request);
    }
    return resolved;
}

const method *object_tree::find_method(const std::string &member) const
{
    for (const object_table &object : objects_) {
        if (const method *found = find_row(object.methods, "", member); found != nullptr) {
            return found;
        }
    }
    return find_row(standard_methods_, "", member);
}

const property *object_tree::find_property(const std::string &interface, const std::string &member) const
{
    for (const object_table &object : objects_) {
        if (const property *found = find_row(object.properties, interface, member); found != nullptr) {
            return found;
        }
    }
    return nullptr;
}

// ---- the standard methods

/** The names of the nodes right below a path, each once. */
std::vector<std::string> object_tree::children(const std::string &path) const
{
    std::string prefix = path == "/" ? path : path + "/";
    std::vector<std::string> names;
    for (const object_table &object : objects_) {
        std::string above = object.parent + "/";
        std::vector<std::string> own = above.starts_with(prefix) ? object.names() : std::vector<std::string>();
        if (above == prefix) {
            names.insert(names.end(), own.begin(), own.end());
        } else if (!own.empty()) {
            names.push_back(above.substr(prefix.size(), above.find('/', prefix.size()) - prefix.size()));
        }
    }
    std::sort(names.begin(), names.end());
    names.erase(std::unique(names.begin(), names.end()), names.end());
    return names;
}

/** A node that is no object, but has objects below it, can be introspected too. */
json object_tree::introspect(const call &request) const
{
    const object_table *object = find(request.path);
    std::vector<std::string> below = children(request.path);
    if (object == nullptr && below.empty()) {
        throw unknown_object(request.path);
    }
    return json::array({introspection_data(object, below)});
}

json object_tree::all_properties(const call &request) const
{
    const object_table *object = find(request.path);
    if (object == nullptr) {
        throw unknown_object(request.path);
    }
    auto interface = request.arg<std::string>(0);
    if (!has_interface(*object, interface)) {
        throw unknown_interface(interface);
    }
    json all = json::object();
    for (const property &row : object->properties) {
        if (is_interface(interface, row.interface)) {
            all[row.member] = {{"signature", row.signature}, {"value", row.get(request)}};
        }
    }
    return json::array({all});
}

} // namespace bdbus_sim
