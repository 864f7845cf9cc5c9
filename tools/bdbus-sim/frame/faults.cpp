// SPDX-License-Identifier: LGPL-2.1-or-later
// Reading the descriptions of faults, and changing replies.
#include "frame/faults.hpp"

#include "frame/codec.hpp"

#include <algorithm>
#include <set>
#include <stdexcept>
#include <utility>

namespace bdbus_sim
{

namespace
{

constexpr size_t all_faults_bytes_max = 8U << 20;
constexpr uint64_t delay_max_ms = 24UL * 3600 * 1000;
/** A bus cuts the connection of a sender whose message is over its limit, usually 32 MiB. */
constexpr uint64_t oversize_max = 24U << 20;

[[noreturn]] void refuse(const std::string &reason)
{
    throw std::invalid_argument("fault: " + reason);
}

// ---- reading a description

std::chrono::milliseconds duration(const object_reader &description, const char *key)
{
    return std::chrono::milliseconds(description.number(key, delay_max_ms).value_or(0));
}

dbus_error read_error(const json &object)
{
    object_reader description(object, "fault: \"error\"", {"name", "message"});
    std::string name = description.text("name");
    if (sd_bus_interface_name_is_valid(name.c_str()) <= 0) {
        description.refuse("\"name\" must be the name of an error, such as com.brisemont.Error.Busy");
    }
    json body = description.value("message", nullptr);
    if (body.is_number()) {
        check_values("i", json::array({body}));
    } else if (!body.is_null() && !body.is_string()) {
        description.refuse("\"message\" must be a text, a number or null");
    }
    return {name, body};
}

reply read_reply(const json &object)
{
    object_reader description(object, "fault: \"reply\"", {"signature", "values"});
    reply instead{description.text("signature"), description.value("values", json::array())};
    check_values(instead.signature, instead.values);
    return instead;
}

signal_message read_signal(const json &object)
{
    object_reader description(object, "fault: \"signal\"", {"member", "signature", "args", "interface", "path"});
    signal_message signal{description.text("member"), description.text("signature"),
                          description.value("args", json::array()), description.text("interface"),
                          description.text("path")};
    if (sd_bus_member_name_is_valid(signal.member.c_str()) <= 0) {
        description.refuse("\"member\" must be the name of a signal");
    }
    if (!signal.interface.empty() && sd_bus_interface_name_is_valid(signal.interface.c_str()) <= 0) {
        description.refuse("\"interface\" must be the name of an interface");
    }
    if (!signal.path.empty() && sd_bus_object_path_is_valid(signal.path.c_str()) <= 0) {
        description.refuse("\"path\" must be an object path");
    }
    check_values(signal.signature, signal.args);
    return signal;
}

void check_action(const object_reader &description)
{
    int given = (description.flag("no_reply") ? 1 : 0) + (description.flag("die") ? 1 : 0);
    for (const char *action : {"error", "reply", "truncate", "oversize", "completion_code"}) {
        given += description.has(action) ? 1 : 0;
    }
    if (given > 1) {
        refuse("more than one action");
    }
    if (given == 0 && !description.has("delay_ms") && !description.has("signal")) {
        refuse("no action");
    }
    if (description.has("carry_out") && !description.has("completion_code")) {
        refuse("\"carry_out\" goes with \"completion_code\"");
    }
    if (description.has("return_after_ms") && !description.flag("die")) {
        refuse("\"return_after_ms\" goes with \"die\"");
    }
}

void read_action(fault &added, const object_reader &description)
{
    check_action(description);
    added.delay = duration(description, "delay_ms");
    added.no_reply = description.flag("no_reply");
    added.truncate = description.number("truncate");
    added.oversize = description.number("oversize", oversize_max);
    if (auto code = description.number("completion_code", 255)) {
        added.completion_code = static_cast<uint8_t>(*code);
    }
    added.carry_out = description.flag("carry_out");
    added.die = description.flag("die");
    if (description.has("return_after_ms")) {
        added.return_after = duration(description, "return_after_ms");
    }
    if (description.has("signal")) {
        added.signal = read_signal(description.value("signal", {}));
    }
    if (description.has("error")) {
        added.error = read_error(description.value("error", {}));
    }
    if (description.has("reply")) {
        added.instead = read_reply(description.value("reply", {}));
    }
}

const std::set<std::string> fault_keys = {
    "service",  "member",   "interface",       "kind",      "skip", "count",           "error",    "no_reply", "reply",
    "truncate", "oversize", "completion_code", "carry_out", "die",  "return_after_ms", "delay_ms", "signal"};

fault read_fault(const object_reader &description)
{
    fault added;
    added.service = description.text("service");
    added.interface = description.text("interface");
    added.member = description.text("member");
    added.skip = description.number("skip").value_or(0);
    uint64_t count = description.number("count").value_or(1);
    if (count != 0) {
        added.left = count;
    }
    read_action(added, description);
    return added;
}

// ---- checking it against the service

call_kind read_kind(const std::string &text, bool is_method)
{
    if (text.empty()) {
        return is_method ? call_kind::method : call_kind::get;
    }
    for (call_kind kind : {call_kind::method, call_kind::get, call_kind::set}) {
        if (text == name_of(kind)) {
            return kind;
        }
    }
    refuse("\"kind\" must be \"call\", \"get\" or \"set\"");
}

void check_property_fault(const fault &added)
{
    if (added.completion_code) {
        refuse("a property has no completion code");
    }
    if (added.instead && split_signature(added.instead->signature).size() > 1) {
        refuse("a property's reply is one value or none");
    }
}

/** A call that is not carried out answers the completion code, with zeros after it. */
void make_code_reply(fault &added, const method &faulty)
{
    if (faulty.out.empty() || std::string("ynqiuxt").find(faulty.out[0]) == std::string::npos) {
        refuse(added.member + " answers no completion code");
    }
    if (!added.carry_out) {
        added.instead = reply{faulty.out, zero_values(faulty.out)};
        added.instead->values.at(0) = *added.completion_code;
    }
}

void fit_to_service(fault &added, const std::string &kind, const object_tree *objects)
{
    if (objects == nullptr) {
        refuse("no such service: \"" + added.service + '"');
    }
    const method *faulty = objects->find_method(added.member);
    added.kind = read_kind(kind, faulty != nullptr);
    bool is_call = added.kind == call_kind::method;
    bool known = is_call ? faulty != nullptr : objects->find_property(added.interface, added.member) != nullptr;
    if (!known) {
        refuse(added.service + " has no such member: \"" + added.member + '"');
    }
    if (!is_call) {
        check_property_fault(added);
    } else if (added.completion_code) {
        make_code_reply(added, *faulty);
    }
}

// ---- acting

void grow_byte_arrays(reply &changed, size_t size)
{
    constexpr uint8_t filler = 0xA5;
    size_t total = 0;
    visit_byte_arrays(changed.signature, changed.values, [&](byte_vector &bytes) {
        total += std::max(bytes.size(), size);
        if (total > oversize_max) {
            refuse("the reply has so many byte arrays that no bus would pass it on");
        }
        if (bytes.size() < size) {
            bytes.resize(size, filler);
        }
    });
}

void truncate_values(reply &changed, size_t count)
{
    std::vector<std::string> types = split_signature(changed.signature);
    changed.signature.clear();
    for (size_t i = 0; i < std::min(count, types.size()); i++) {
        changed.signature += types[i];
    }
    while (changed.values.size() > count) {
        changed.values.erase(changed.values.size() - 1);
    }
}

} // namespace

bool fault::matches(const call &request) const
{
    return kind == request.kind && (interface.empty() || interface == request.interface);
}

reply fault::apply(const std::function<reply()> &execute) const
{
    if (error) {
        throw *error;
    }
    if (instead) {
        return *instead;
    }

    reply result = execute();
    if (completion_code) {
        result.values.at(0) = *completion_code;
    }
    if (truncate) {
        truncate_values(result, *truncate);
    }
    if (oversize) {
        grow_byte_arrays(result, *oversize);
    }
    return result;
}

void fault_list::add(const json &description, const service_lookup &objects_of)
{
    object_reader reader(description, "fault", fault_keys);
    fault added = read_fault(reader);
    fit_to_service(added, reader.text("kind"), objects_of(added.service));
    added.bytes = to_text(description).size();
    if (bytes_ + added.bytes > all_faults_bytes_max) {
        refuse("too many faults");
    }
    bytes_ += added.bytes;
    faults_[added.service + '.' + added.member].push_back(std::move(added));
}

void fault_list::clear()
{
    faults_.clear();
    bytes_ = 0;
}

fault fault_list::match(const std::string &service_name, const call &request)
{
    auto found = faults_.find(service_name + '.' + request.member);
    if (found == faults_.end()) {
        return {};
    }
    for (auto at = found->second.begin(); at != found->second.end(); ++at) {
        if (!at->matches(request)) {
            continue;
        }
        if (at->skip == 0) {
            return use(found->second, at);
        }
        at->skip--;
    }
    return {};
}

/** One that is used up is removed. */
fault fault_list::use(std::list<fault> &faults, std::list<fault>::iterator at)
{
    fault used = *at;
    if (at->left && --*at->left == 0) {
        bytes_ -= at->bytes;
        faults.erase(at);
    }
    return used;
}

} // namespace bdbus_sim
