// SPDX-License-Identifier: LGPL-2.1-or-later
// The connection of a service: calls come in, are recorded, meet their faults and are answered.
#include "frame/service.hpp"

#include "frame/codec.hpp"

#include <cerrno>
#include <iterator>
#include <stdexcept>
#include <utility>

namespace bdbus_sim
{

namespace
{

constexpr size_t delayed_calls_max = 1024;

void hide_texts(json &args)
{
    for (json &arg : args) {
        if (arg.is_string()) {
            arg = {{"length", arg.get_ref<const std::string &>().size()}};
        }
    }
}

void send_reply(sd_bus_message *message, const call &request, const reply &answer)
{
    sd_bus_message *raw = nullptr;
    check(sd_bus_message_new_method_return(message, &raw), "reply");
    message_ptr owned(raw);
    if (request.kind == call_kind::get && !answer.signature.empty()) {
        encode(raw, "v", json::array({{{"signature", answer.signature}, {"value", answer.values.at(0)}}}));
    } else {
        encode(raw, answer.signature, answer.values);
    }
    check(sd_bus_send(nullptr, raw, nullptr), "reply");
}

void send_error(sd_bus_message *message, const dbus_error &error)
{
    bool text = error.body.is_string();
    std::string body = text ? error.body.get<std::string>() : "";
    sd_bus_error plain{error.name.c_str(), text ? body.c_str() : nullptr, 0};
    sd_bus_message *raw = nullptr;
    int result = sd_bus_message_new_method_error(message, &raw, &plain);
    message_ptr reply(raw);
    if (result >= 0 && error.body.is_number()) {
        encode(raw, "i", json::array({error.body}));
    }
    // When the reply cannot be sent, the client is gone.
    if (result >= 0) {
        sd_bus_send(nullptr, raw, nullptr);
    }
}

} // namespace

service::service(event_loop &loop, std::string name, std::string path, call_list *calls, fault_list *faults)
    : loop_(loop), name_(std::move(name)), bus_name_("com.brisemont." + name_), path_(std::move(path)), calls_(calls),
      faults_(faults), objects_(bus_name_)
{
}

void service::add_object(std::vector<method> methods, std::vector<property> properties, std::vector<signal_row> signals)
{
    auto [parent, own] = split_path(path_);
    add_object(object_table{.parent = parent,
                            .has = [own = own](const std::string &name) { return name == own; },
                            .names = [own = own] { return std::vector{own}; },
                            .methods = std::move(methods),
                            .properties = std::move(properties),
                            .signals = std::move(signals)});
}

void service::listen(const std::string &member, std::function<void()> action)
{
    listeners_[member] = std::move(action);
}

// ---- connection

void service::start()
{
    if (running()) {
        return;
    }
    bus_ptr bus = open_system_bus(name_.c_str());
    check(sd_bus_attach_event(bus.get(), loop_.get(), SD_EVENT_PRIORITY_NORMAL), bus_name_);
    check(sd_bus_set_exit_on_disconnect(bus.get(), 1), bus_name_);
    check(sd_bus_add_fallback(bus.get(), nullptr, "/", on_message, this), bus_name_);
    for (const auto &[member, action] : listeners_) {
        check(sd_bus_match_signal(bus.get(), nullptr, nullptr, path_.c_str(), bus_name_.c_str(), member.c_str(),
                                  on_signal, this),
              bus_name_);
    }
    int result = sd_bus_request_name(bus.get(), bus_name_.c_str(), 0);
    if (result == -EEXIST) {
        throw std::runtime_error("somebody else has the name " + bus_name_ + " on this bus");
    }
    check(result, bus_name_);
    bus_ = std::move(bus);
    return_.reset();
}

void service::stop()
{
    delayed_.clear();
    return_.reset();
    if (!running()) {
        return;
    }
    // Whoever calls after this finds the name gone, not just a connection that is about to close.
    sd_bus_release_name(bus_.get(), bus_name_.c_str());
    bus_.reset();
}

std::string service::unique_name() const
{
    const char *name = nullptr;
    if (running()) {
        check(sd_bus_get_unique_name(bus_.get(), &name), bus_name_);
    }
    return name != nullptr ? name : "";
}

void service::send_signal(const signal_message &signal)
{
    const std::string &interface = signal.interface.empty() ? bus_name_ : signal.interface;
    const std::string &path = signal.path.empty() ? path_ : signal.path;
    sd_bus_message *raw = nullptr;
    check(sd_bus_message_new_signal(bus_.get(), &raw, path.c_str(), interface.c_str(), signal.member.c_str()),
          "signal " + path + " " + interface + " " + signal.member);
    message_ptr message(raw);
    encode(raw, signal.signature, signal.args);
    check(sd_bus_send(bus_.get(), raw, nullptr), "signal");
}

void service::emit(const std::string &member, const std::string &signature, const json &args, std::string interface,
                   std::string path)
{
    if (!running()) {
        return;
    }
    send_signal({member, signature, args, std::move(interface), std::move(path)});

    // Each service has a connection of its own, and the bus keeps no order between them. Once the bus has answered this
    // call, it has passed the signal on, so whatever is sent next, on any connection, comes after the signal.
    check(sd_bus_call_method(bus_.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                             "GetId", nullptr, nullptr, ""),
          "bus");
}

// ---- receiving

int service::on_message(sd_bus_message *message, void *self, sd_bus_error *)
{
    if (!sd_bus_message_is_method_call(message, nullptr, nullptr)) {
        return 0;
    }
    try {
        static_cast<service *>(self)->receive_call(message);
        return 1;
    } catch (...) {
        return -EIO; // sd-bus answers with it
    }
}

/** A signal has no reply, so its sender cannot be told what is wrong with it. */
int service::on_signal(sd_bus_message *message, void *self, sd_bus_error *)
{
    try {
        static_cast<service *>(self)->receive_signal(message);
        return 0;
    } catch (...) {
        return -EIO;
    }
}

void service::receive_signal(sd_bus_message *message)
{
    call request = read_header(message);
    request.kind = call_kind::signal;
    request.args = decode_arguments(message);
    record(request);
    listeners_.at(request.member)();
}

void service::receive_call(sd_bus_message *message)
{
    call request = read_header(message);
    try {
        read_arguments(request, message);
    } catch (const std::exception &error) {
        record(request);
        return send_error(message, standard_error("InvalidArgs", error.what()));
    }

    record(request);
    fault injected = faults_ != nullptr ? faults_->match(name_, request) : fault{};
    resolved_call resolved = objects_.resolve(request);
    auto time = injected.delay + resolved.duration(request);
    if (time.count() > 0) {
        delay(message, std::move(request), std::move(injected), time);
    } else {
        answer(message, request, resolved, injected);
    }
}

void service::record(const call &request)
{
    if (calls_ == nullptr) {
        return;
    }
    json args = request.args;
    if (has_secrets_) {
        hide_texts(args);
    }
    calls_->add(name_, {{"service", name_},
                        {"kind", name_of(request.kind)},
                        {"path", request.path},
                        {"interface", request.interface},
                        {"member", request.member},
                        {"signature", request.signature},
                        {"args", std::move(args)},
                        {"sender", request.sender}});
}

// ---- answering

void service::delay(sd_bus_message *message, call request, fault injected, std::chrono::milliseconds time)
{
    if (delayed_.size() >= delayed_calls_max) {
        return send_error(message, standard_error("LimitsExceeded", "Too many delayed calls."));
    }
    message_ptr kept(sd_bus_message_ref(message));
    delayed_.push_back({std::move(kept), std::move(request), std::move(injected), nullptr});
    auto entry = std::prev(delayed_.end());
    entry->due = loop_.after(time, [this, entry] {
        delayed_call due = std::move(*entry);
        delayed_.erase(entry);
        // Looked up again: the object may have come or gone meanwhile.
        answer(due.message.get(), due.request, objects_.resolve(due.request), due.injected);
    });
}

void service::answer(sd_bus_message *message, const call &request, const resolved_call &resolved, const fault &injected)
{
    if (injected.die) {
        return die(injected);
    }
    auto execute = [&] {
        return resolved.execute(request);
    };
    try {
        if (injected.signal) {
            send_signal(*injected.signal);
        }
        if (!injected.no_reply) {
            send_reply(message, request, injected.apply(execute));
        }
    } catch (const dbus_error &error) {
        send_error(message, error);
    } catch (const std::invalid_argument &error) {
        send_error(message, standard_error("InvalidArgs", error.what()));
    } catch (const std::exception &error) {
        send_error(message, standard_error("Failed", error.what()));
    }
}

/** Leaves the bus as a service does that crashes. */
void service::die(const fault &injected)
{
    auto return_after = injected.return_after;
    delayed_.clear();
    bus_.reset();
    if (return_after) {
        return_ = loop_.after(*return_after, [this] { start(); });
    }
}

} // namespace bdbus_sim
