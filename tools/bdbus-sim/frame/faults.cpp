// SPDX-License-Identifier: LGPL-2.1-or-later
#include "frame/faults.hpp"

#include "frame/codec.hpp"
#include "frame/service.hpp"

#include <algorithm>
#include <stdexcept>

namespace bdbus_sim
{

namespace
{

constexpr size_t all_faults_bytes_max = 8U << 20;
constexpr uint64_t delay_max_ms = 24UL * 3600 * 1000;
/** A bus cuts the connection of a sender whose message is over its limit, usually 32 MiB. */
constexpr uint64_t oversize_max = 24U << 20;

[[noreturn]] void refuse(const std::string &what)
{
    throw std::invalid_argument("fault: " + what);
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

announcement read_signal(const json &object)
{
    object_reader description(object, "fault: \"signal\"", {"member", "signature", "args", "interface", "path"});
    announcement signal{description.text("member"), description.text("signature"),
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
    int given = description.flag("no_reply") + description.flag("die");
    for (const char *action : {"error", "reply", "truncate", "oversize", "completion_code"}) {
        given += description.has(action);
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

void read_action(fault &fault, const object_reader &description)
{
    check_action(description);
    fault.delay = duration(description, "delay_ms");
    fault.no_reply = description.flag("no_reply");
    fault.truncate = description.number("truncate");
    fault.oversize = description.number("oversize", oversize_max);
    if (auto code = description.number("completion_code", 255)) {
        fault.completion_code = static_cast<uint8_t>(*code);
    }
    fault.carry_out = description.flag("carry_out");
    fault.die = description.flag("die");
    if (description.has("return_after_ms")) {
        fault.return_after = duration(description, "return_after_ms");
    }
    if (description.has("signal")) {
        fault.signal = read_signal(description.value("signal", {}));
    }
    if (description.has("error")) {
        fault.error = read_error(description.value("error", {}));
    }
    if (description.has("reply")) {
        fault.instead = read_reply(description.value("reply", {}));
    }
}

fault read_fault(const json &object)
{
    object_reader description(object, "fault",
                              {"service", "member", "interface", "kind", "skip", "count", "error", "no_reply", "reply",
                               "truncate", "oversize", "completion_code", "carry_out", "die", "return_after_ms",
                               "delay_ms", "signal"});
    fault fault;
    fault.service = description.text("service");
    fault.kind = description.text("kind");
    fault.interface = description.text("interface");
    fault.member = description.text("member");
    fault.skip = description.number("skip").value_or(0);
    uint64_t count = description.number("count").value_or(1);
    if (count != 0) {
        fault.left = count;
    }
    read_action(fault, description);
    return fault;
}

// ---- fitting it to the service

void check_property_fault(const fault &fault)
{
    if (fault.completion_code) {
        refuse("a property has no completion code");
    }
    if (fault.instead && split_signature(fault.instead->signature).size() > 1) {
        refuse("a property's reply is one value or none");
    }
}

/** Members that every service answers without having them in its tables. */
bool is_common_method(const std::string &member)
{
    return member == "GetAll" || member == "Introspect";
}

bool answers_number(const method *method)
{
    return method != nullptr && !method->out.empty() &&
           std::string("ynqiuxt").find(method->out[0]) != std::string::npos;
}

void check_target(fault &fault, const service *target)
{
    if (target == nullptr) {
        refuse("no such service: \"" + fault.service + '"');
    }
    const method *method = target->find_method(fault.member);
    bool is_method = method != nullptr || is_common_method(fault.member);
    if (fault.kind.empty()) {
        fault.kind = is_method ? "call" : "get";
    }

    bool property_kind = fault.kind == "get" || fault.kind == "set";
    if (fault.kind != "call" && !property_kind) {
        refuse("\"kind\" must be \"call\", \"get\" or \"set\"");
    }
    if (property_kind ? target->find_property(fault.interface, fault.member) == nullptr : !is_method) {
        refuse(fault.service + " has no such member: \"" + fault.member + '"');
    }
    if (property_kind) {
        check_property_fault(fault);
    } else if (fault.completion_code && !answers_number(method)) {
        refuse(fault.member + " answers no completion code");
    }
}

// ---- acting

void grow_byte_arrays(reply &reply, size_t size)
{
    constexpr uint8_t filler = 0xA5;
    size_t total = 0;
    visit_byte_arrays(reply.signature, reply.values, [&](byte_vector &bytes) {
        total += std::max(bytes.size(), size);
        if (total > oversize_max) {
            refuse("the reply has so many byte arrays that no bus would pass it on");
        }
        if (bytes.size() < size) {
            bytes.resize(size, filler);
        }
    });
}

void truncate_values(reply &reply, size_t count)
{
    std::vector<std::string> types = split_signature(reply.signature);
    reply.signature.clear();
    for (size_t i = 0; i < std::min(count, types.size()); i++) {
        reply.signature += types[i];
    }
    while (reply.values.size() > count) {
        reply.values.erase(reply.values.size() - 1);
    }
}

} // namespace

reply fault::apply(const std::string &normal_signature, const std::function<reply()> &normal) const
{
    if (error) {
        throw *error;
    }
    if (instead) {
        return *instead;
    }

    bool only_zeros = completion_code && !carry_out;
    reply result = only_zeros ? reply{normal_signature, zero_values(normal_signature)} : normal();
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

void fault_list::add(const json &description, const std::function<const bdbus_sim::service *(const std::string &)> &find_service)
{
    fault fault = read_fault(description);
    check_target(fault, find_service(fault.service));
    fault.bytes = to_text(description).size();
    if (bytes_ + fault.bytes > all_faults_bytes_max) {
        refuse("too many faults");
    }
    bytes_ += fault.bytes;
    faults_.push_back(std::move(fault));
}

void fault_list::clear()
{
    faults_.clear();
    bytes_ = 0;
}

fault fault_list::take(const std::string &service, const call &what)
{
    for (auto at = faults_.begin(); at != faults_.end(); ++at) {
        bool matches = at->service == service && at->kind == what.kind && at->member == what.member &&
                       (at->interface.empty() || at->interface == what.interface);
        if (!matches || (at->skip > 0 && at->skip-- > 0)) {
            continue;
        }
        fault taken = *at;
        if (at->left && --*at->left == 0) {
            bytes_ -= at->bytes;
            faults_.erase(at);
        }
        return taken;
    }
    return {};
}

} // namespace bdbus_sim
