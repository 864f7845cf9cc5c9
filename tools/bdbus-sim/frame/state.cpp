// SPDX-License-Identifier: LGPL-2.1-or-later
// The state: checked against its shape, changed by merge patches, its passwords hidden.
#include "frame/state.hpp"

#include <systemd/sd-bus.h>

#include <algorithm>
#include <limits>
#include <stdexcept>
#include <utility>

namespace bdbus_sim
{

namespace
{

constexpr size_t elements_max = 65'536;

[[noreturn]] void refuse(const std::string &place, const std::string &reason)
{
    throw std::invalid_argument((place.empty() ? "state" : place) + ": " + reason);
}

std::string below(const std::string &place, const std::string &key)
{
    return place + "/" + key;
}

template <typename T>
bool in_range(const json &value)
{
    return value.is_number_unsigned()  ? std::in_range<T>(value.get<uint64_t>())
           : value.is_number_integer() ? std::in_range<T>(value.get<int64_t>())
                                       : false;
}

struct leaf_type {
    const char *name;
    const char *wanted;
    bool (*fits)(const json &value);
};

const leaf_type leaf_types[] = {
    {"b", "true or false",
     [](const json &value) {
         return value.is_boolean();
     }},
    {"y", "a number from 0 to 255", in_range<uint8_t>},
    {"q", "a number from 0 to 65535", in_range<uint16_t>},
    {"i", "a number from -2147483648 to 2147483647", in_range<int32_t>},
    {"u", "a number from 0 to 4294967295", in_range<uint32_t>},
    {"t", "a number from 0 to 18446744073709551615", in_range<uint64_t>},
};

void check_leaf(const std::string &place, const json &value, const std::string &type)
{
    for (const leaf_type &leaf : leaf_types) {
        if (type == leaf.name && !leaf.fits(value)) {
            refuse(place, std::string("must be ") + leaf.wanted);
        }
    }
}

void check_text(const std::string &place, const json &value, const std::string &type)
{
    size_t most = type.size() == 1 ? elements_max : std::stoul(type.substr(1));
    if (!value.is_string() || value.get_ref<const std::string &>().size() > most) {
        refuse(place, "must be a text of at most " + std::to_string(most) + " bytes");
    }
}

void check_shape(const std::string &place, const json &value, const json &shape);
void check_array(const std::string &place, const json &value, const json &element, size_t least, size_t most);

/** Most of a state is bytes, so these are checked without building the text of a place for each. */
void check_bytes(const std::string &place, const json &value, const std::string &type)
{
    if (value.is_array() && std::all_of(value.begin(), value.end(), in_range<uint8_t>) &&
        (type == "ay" || value.size() == std::stoul(type))) {
        return;
    }
    size_t exact = type == "ay" ? 0 : std::stoul(type);
    check_array(place, value, "y", exact, type == "ay" ? elements_max : exact);
}

void check_tuple(const std::string &place, const json &value, const json &shape)
{
    if (!value.is_array() || value.size() != shape.size()) {
        refuse(place, "must be an array of " + std::to_string(shape.size()) + " elements");
    }
    for (size_t i = 0; i < value.size(); i++) {
        check_shape(below(place, std::to_string(i)), value[i], shape[i]);
    }
}

bool is_path_element(const std::string &key)
{
    return !key.empty() && key.find('/') == std::string::npos && sd_bus_object_path_is_valid(("/" + key).c_str()) > 0;
}

void check_object(const std::string &place, const json &value, const json &shape);

void check_shape(const std::string &place, const json &value, const json &shape)
{
    if (shape.is_object()) {
        return check_object(place, value, shape);
    }
    if (shape.is_array() && shape.size() > 1) {
        return check_tuple(place, value, shape);
    }
    if (shape.is_array()) {
        return check_array(place, value, shape.at(0), 0, elements_max);
    }

    auto type = shape.get<std::string>();
    if (type.front() == 's' || type == "p") {
        check_text(place, value, type);
    } else if (type.size() > 1) {
        check_bytes(place, value, type);
    } else {
        check_leaf(place, value, type);
    }
}

void check_array(const std::string &place, const json &value, const json &element, size_t least, size_t most)
{
    if (!value.is_array()) {
        refuse(place, "must be an array");
    }
    if (value.size() < least || value.size() > most) {
        refuse(place,
               std::string("must have ") + (least == most ? "" : "at most ") + std::to_string(most) + " elements");
    }
    for (size_t i = 0; i < value.size(); i++) {
        check_shape(below(place, std::to_string(i)), value[i], element);
    }
}

/** The shape of a member, found by its name or by the kind of its name; null when there is no such member. */
const json *find_rule(const json &shape, const std::string &key)
{
    const std::pair<const char *, bool> kinds[] = {
        {"*", true},
        {"#", is_number(key, 1, 65'534)},
        {"#y", is_number(key, 0, 255)},
        {"@", is_path_element(key)},
    };
    for (const std::string &name : {key, key + "?"}) {
        if (auto rule = shape.find(name); rule != shape.end()) {
            return &*rule;
        }
    }
    for (const auto &[name, fits] : kinds) {
        if (auto rule = shape.find(name); fits && rule != shape.end()) {
            return &*rule;
        }
    }
    return nullptr;
}

void check_object(const std::string &place, const json &value, const json &shape)
{
    if (!value.is_object()) {
        refuse(place, "must be an object");
    }
    for (const auto &[key, element] : shape.items()) {
        if (!key.ends_with('?') && key != "*" && key != "@" && !key.starts_with('#') && !value.contains(key)) {
            refuse(place, "needs the key \"" + key + "\"");
        }
    }

    for (const auto &[key, element] : value.items()) {
        const json *rule = find_rule(shape, key);
        if (rule == nullptr) {
            refuse(place, "no such key: \"" + key + "\"");
        }
        check_shape(below(place, key), element, *rule);
    }
}

const char *const hidden = "(hidden)";

void hide_passwords(json &value, const json &shape)
{
    if (shape == "p" && !value.get_ref<const std::string &>().empty()) {
        value = hidden;
    }
    if (shape.is_object()) {
        for (auto &[key, element] : value.items()) {
            hide_passwords(element, *find_rule(shape, key));
        }
    }
}

/** A password that was read hidden stays as it is when it is written back. */
void keep_passwords(json &value, const json &before, const json &shape)
{
    if (shape == "p" && value == hidden && before.is_string()) {
        value = before;
    }
    if (!shape.is_object() || !before.is_object()) {
        return;
    }
    for (auto &[key, element] : value.items()) {
        if (auto old = before.find(key); old != before.end()) {
            keep_passwords(element, *old, *find_rule(shape, key));
        }
    }
}

} // namespace

json state_document::shown() const
{
    json shown = current_;
    hide_passwords(shown, shape_);
    return shown;
}

void state_document::add_section(const std::string &name, json defaults, json shape)
{
    defaults_[name] = std::move(defaults);
    shape_[name] = std::move(shape);
    start_ = current_ = defaults_;
}

void state_document::on_change(const std::string &section, listener action)
{
    listeners_[section] = std::move(action);
}

void state_document::set_scenario(const json &patch)
{
    json start = defaults_;
    start.merge_patch(patch);
    check_shape("", start, shape_);
    start_ = std::move(start);
}

void state_document::reset()
{
    replace(start_);
}

void state_document::patch(const json &patch)
{
    json next = current_;
    next.merge_patch(patch);
    check_shape("", next, shape_);
    keep_passwords(next, current_, shape_);
    replace(std::move(next));
}

void state_document::replace(json next)
{
    std::swap(current_, next);
    for (const auto &[section, action] : listeners_) {
        notify(section, next[section]);
    }
}

void state_document::set(const std::string &pointer, json value)
{
    std::string section = pointer.substr(1, pointer.find('/', 1) - 1);
    json before = listeners_.contains(section) ? current_.at(section) : json();
    current_.at(json::json_pointer(pointer)) = std::move(value);
    notify(section, before);
}

void state_document::notify(const std::string &section, const json &before)
{
    auto found = listeners_.find(section);
    if (found != listeners_.end() && before != current_[section]) {
        found->second(before, current_[section]);
    }
}

} // namespace bdbus_sim
