// SPDX-License-Identifier: LGPL-2.1-or-later
#include "frame/service.hpp"

#include "frame/codec.hpp"

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <utility>

namespace bdbus_sim
{

namespace
{

const std::string introspectable = "org.freedesktop.DBus.Introspectable";
const std::string properties_interface = "org.freedesktop.DBus.Properties";
constexpr size_t delayed_calls_max = 1024;

std::string text_or_empty(const char *text)
{
    return text == nullptr ? "" : text;
}

call read_call(sd_bus_message *message)
{
    call what{.kind = "call",
              .path = text_or_empty(sd_bus_message_get_path(message)),
              .interface = text_or_empty(sd_bus_message_get_interface(message)),
              .member = text_or_empty(sd_bus_message_get_member(message)),
              .signature = text_or_empty(sd_bus_message_get_signature(message, true)),
              .sender = text_or_empty(sd_bus_message_get_sender(message)),
              .args = json::array()};
    return what;
}

/** Reads and writes of properties are told as such, not as calls of the interface that they come through. */
void read_arguments(call &what, sd_bus_message *message)
{
    json args = decode_arguments(message);
    bool get = what.interface == properties_interface && what.member == "Get" && what.signature == "ss";
    bool set = what.interface == properties_interface && what.member == "Set" && what.signature == "ssv";
    if (!get && !set) {
        what.args = std::move(args);
        return;
    }
    what.kind = get ? "get" : "set";
    what.interface = args[0].get<std::string>();
    what.member = args[1].get<std::string>();
    what.signature = get ? "" : args[2]["signature"].get<std::string>();
    if (set) {
        what.args.push_back(std::move(args[2]["value"]));
    }
}

void hide_texts(json &args)
{
    for (json &arg : args) {
        if (arg.is_string()) {
            arg = {{"length", arg.get_ref<const std::string &>().size()}};
        }
    }
}

bool has_interface(const std::string &asked, const std::string &own)
{
    return asked.empty() || asked == own;
}

// ---- introspection data

std::string arguments_xml(const std::string &signature, const std::string &direction)
{
    std::string xml;
    for (const std::string &type : split_signature(signature)) {
        xml.append("   <arg type=\"").append(type).append("\"").append(direction).append("/>\n");
    }
    return xml;
}

std::string member_xml(const method &method)
{
    return "  <method name=\"" + method.member + "\">\n" + arguments_xml(method.in, " direction=\"in\"") +
           arguments_xml(method.out, " direction=\"out\"") + "  </method>\n";
}

std::string member_xml(const property &property)
{
    return "  <property name=\"" + property.name + "\" type=\"" + property.signature + "\" access=\"" +
           (property.set ? "readwrite" : "read") + "\"/>\n";
}

std::string member_xml(const signal_row &signal)
{
    return "  <signal name=\"" + signal.member + "\">\n" + arguments_xml(signal.signature, "") + "  </signal>\n";
}

const char doctype_xml[] = "<!DOCTYPE node PUBLIC \"-//freedesktop//DTD D-BUS Object Introspection 1.0//EN\"\n"
                           "\"http://www.freedesktop.org/standards/dbus/1.0/introspect.dtd\">\n";

const char standard_interfaces_xml[] = R"( <interface name="org.freedesktop.DBus.Introspectable">
  <method name="Introspect">
   <arg type="s" direction="out"/>
  </method>
 </interface>
 <interface name="org.freedesktop.DBus.Properties">
  <method name="Get">
   <arg type="s" direction="in"/>
   <arg type="s" direction="in"/>
   <arg type="v" direction="out"/>
  </method>
  <method name="GetAll">
   <arg type="s" direction="in"/>
   <arg type="a{sv}" direction="out"/>
  </method>
  <method name="Set">
   <arg type="s" direction="in"/>
   <arg type="s" direction="in"/>
   <arg type="v" direction="in"/>
  </method>
 </interface>
)";

/** Members by interface, the interfaces in the order in which the tables name them. */
class interface_texts
{
public:
    template <typename Row>
    void add(const std::vector<Row> &rows)
    {
        for (const Row &row : rows) {
            of(row.interface) += member_xml(row);
        }
    }

    std::string xml() const
    {
        std::string xml;
        for (const auto &[name, members] : texts_) {
            xml.append(" <interface name=\"").append(name).append("\">\n").append(members).append(" </interface>\n");
        }
        return xml;
    }

private:
    std::string &of(const std::string &interface)
    {
        auto found = std::find_if(texts_.begin(), texts_.end(), [&](auto &text) { return text.first == interface; });
        return found != texts_.end() ? found->second : texts_.emplace_back(interface, "").second;
    }

    std::vector<std::pair<std::string, std::string>> texts_;
};

} // namespace

// ---- tables

service::service(event_loop &loop, std::string name, std::string path, call_list *calls, fault_list *faults)
    : loop_(loop), name_(std::move(name)), bus_name_("com.brisemont." + name_), path_(std::move(path)), calls_(calls),
      faults_(faults)
{
}

void service::add_object(object_table table)
{
    auto fill_interfaces = [&](auto &rows) {
        for (auto &row : rows) {
            if (row.interface.empty()) {
                row.interface = bus_name_;
            }
        }
    };
    fill_interfaces(table.methods);
    fill_interfaces(table.properties);
    fill_interfaces(table.signals);
    objects_.push_back(std::move(table));
}

void service::add_object(std::vector<method> methods, std::vector<property> properties, std::vector<signal_row> signals)
{
    add_object(object_table{.paths = [path = path_] { return std::vector{path}; },
                            .methods = std::move(methods),
                            .properties = std::move(properties),
                            .signals = std::move(signals)});
}

void service::listen(const std::string &member, std::function<void()> action)
{
    listeners_[member] = std::move(action);
}

const method *service::find_method(const std::string &member) const
{
    for (const object_table &object : objects_) {
        for (const method &method : object.methods) {
            if (method.member == member) {
                return &method;
            }
        }
    }
    return nullptr;
}

const property *service::find_property(const std::string &interface, const std::string &member) const
{
    for (const object_table &object : objects_) {
        for (const property &property : object.properties) {
            if (property.name == member && has_interface(interface, property.interface)) {
                return &property;
            }
        }
    }
    return nullptr;
}

const object_table *service::find_object(const std::string &path) const
{
    for (const object_table &object : objects_) {
        std::vector<std::string> paths = object.paths();
        if (std::find(paths.begin(), paths.end(), path) != paths.end()) {
            return &object;
        }
    }
    return nullptr;
}

const object_table &service::object_at(const std::string &path) const
{
    const object_table *object = find_object(path);
    if (object == nullptr) {
        throw standard_error("UnknownObject", "Unknown object '" + path + "'.");
    }
    return *object;
}

/** The names of the nodes right below a path. */
std::vector<std::string> service::children(const std::string &path) const
{
    std::string prefix = path == "/" ? path : path + "/";
    std::vector<std::string> names;
    for (const object_table &object : objects_) {
        for (const std::string &candidate : object.paths()) {
            if (!candidate.starts_with(prefix)) {
                continue;
            }
            names.push_back(candidate.substr(prefix.size(), candidate.find('/', prefix.size()) - prefix.size()));
        }
    }
    std::sort(names.begin(), names.end());
    names.erase(std::unique(names.begin(), names.end()), names.end());
    return names;
}

std::string service::introspect(const std::string &path) const
{
    const object_table *object = find_object(path);
    std::vector<std::string> below = children(path);
    if (object == nullptr && below.empty()) {
        object_at(path);
    }

    interface_texts interfaces;
    if (object != nullptr) {
        interfaces.add(object->methods);
        interfaces.add(object->properties);
        interfaces.add(object->signals);
    }
    std::string xml = doctype_xml;
    xml += "<node>\n";
    xml += standard_interfaces_xml + interfaces.xml();
    for (const std::string &name : below) {
        xml += " <node name=\"" + name + "\"/>\n";
    }
    return xml + "</node>\n";
}

// ---- connection

void service::start()
{
    if (running()) {
        return;
    }
    bus_ptr bus = open_system_bus(name_.c_str());
    check(sd_bus_attach_event(bus.get(), loop_.get(), SD_EVENT_PRIORITY_NORMAL), bus_name_);
    check(sd_bus_set_exit_on_disconnect(bus.get(), true), bus_name_);
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
    return text_or_empty(name);
}

void service::announce(const announcement &signal)
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
    announce({member, signature, args, std::move(interface), std::move(path)});

    // The services' connections are not in step with one another. An answer of the bus says that it has passed the
    // signal on, so whatever is sent after it, on whichever connection, comes after it.
    check(sd_bus_call_method(bus_.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                             "GetId", nullptr, nullptr, ""),
          "bus");
}

// ---- calls

int service::on_message(sd_bus_message *message, void *self, sd_bus_error *)
{
    if (!sd_bus_message_is_method_call(message, nullptr, nullptr)) {
        return 0;
    }
    try {
        static_cast<service *>(self)->receive(message);
        return 1;
    } catch (...) {
        return -EIO; // sd-bus answers with it
    }
}

/** Nobody waits for an answer to a signal, so whatever is wrong with one is nobody's business. */
int service::on_signal(sd_bus_message *message, void *self, sd_bus_error *)
{
    try {
        static_cast<service *>(self)->hear(message);
        return 0;
    } catch (...) {
        return -EIO;
    }
}

void service::hear(sd_bus_message *message)
{
    call what = read_call(message);
    what.kind = "signal";
    what.args = decode_arguments(message);
    record(what);
    listeners_.at(what.member)();
}

void service::receive(sd_bus_message *message)
{
    call what = read_call(message);
    try {
        read_arguments(what, message);
    } catch (const std::exception &error) {
        record(what);
        return send_error(message, standard_error("InvalidArgs", error.what()));
    }

    record(what);
    fault disturbance = faults_ == nullptr ? fault{} : faults_->take(name_, what);
    const method *method = find_method(what.member);
    if (method != nullptr && method->duration) {
        disturbance.delay += method->duration(what);
    }
    if (disturbance.delay.count() > 0) {
        delay(message, std::move(what), std::move(disturbance));
    } else {
        answer(message, what, disturbance);
    }
}

void service::record(const call &what)
{
    if (calls_ == nullptr) {
        return;
    }
    json args = what.args;
    if (has_secrets_) {
        hide_texts(args);
    }
    calls_->add(name_, {{"service", name_},
                        {"kind", what.kind},
                        {"path", what.path},
                        {"interface", what.interface},
                        {"member", what.member},
                        {"signature", what.signature},
                        {"args", std::move(args)},
                        {"sender", what.sender}});
}

void service::delay(sd_bus_message *message, call what, fault disturbance)
{
    if (delayed_.size() >= delayed_calls_max) {
        return send_error(message, standard_error("LimitsExceeded", "Too many delayed calls."));
    }
    auto delay = disturbance.delay;
    message_ptr kept(sd_bus_message_ref(message));
    delayed_.push_back({std::move(kept), std::move(what), std::move(disturbance), nullptr});
    auto entry = std::prev(delayed_.end());
    entry->due = loop_.after(delay, [this, entry] {
        delayed_call due = std::move(*entry);
        delayed_.erase(entry);
        answer(due.message.get(), due.what, due.disturbance);
    });
}

void service::answer(sd_bus_message *message, const call &what, const fault &disturbance)
{
    if (disturbance.die) {
        return die(disturbance);
    }
    try {
        if (disturbance.signal) {
            announce(*disturbance.signal);
        }
        if (disturbance.no_reply) {
            return;
        }
        const method *method = find_method(what.member);
        send(message, what, disturbance.apply(method == nullptr ? "" : method->out, [&] { return carry_out(what); }));
    } catch (const dbus_error &error) {
        send_error(message, error);
    } catch (const std::invalid_argument &error) {
        send_error(message, standard_error("InvalidArgs", error.what()));
    } catch (const std::exception &error) {
        send_error(message, standard_error("Failed", error.what()));
    }
}

void service::die(const fault &disturbance)
{
    auto return_after = disturbance.return_after;
    delayed_.clear();
    bus_.reset();
    if (return_after) {
        return_ = loop_.after(*return_after, [this] { start(); });
    }
}

reply service::carry_out(const call &what)
{
    if (what.kind == "get") {
        return read_property(what);
    }
    if (what.kind == "set") {
        return write_property(what);
    }
    if (what.member == "Introspect" && has_interface(what.interface, introspectable)) {
        return {"s", json::array({introspect(what.path)})};
    }
    if (what.interface == properties_interface && what.member == "GetAll" && what.signature == "s") {
        return all_properties(what);
    }
    return call_method(what);
}

reply service::call_method(const call &what)
{
    for (const method &method : object_at(what.path).methods) {
        if (method.member != what.member || !has_interface(what.interface, method.interface)) {
            continue;
        }
        if (method.in != what.signature) {
            throw standard_error("InvalidArgs",
                                 what.member + " takes \"" + method.in + "\", not \"" + what.signature + "\".");
        }
        return {method.out, method.handler(what)};
    }
    throw standard_error("UnknownMethod", "Unknown method " + what.member + " or interface " + what.interface + ".");
}

const property &service::property_of(const call &what) const
{
    for (const property &property : object_at(what.path).properties) {
        if (property.name == what.member && has_interface(what.interface, property.interface)) {
            return property;
        }
    }
    throw standard_error("UnknownProperty",
                         "Unknown property " + what.member + " or interface " + what.interface + ".");
}

reply service::read_property(const call &what)
{
    const property &property = property_of(what);
    return {property.signature, json::array({property.get(what)})};
}

reply service::write_property(const call &what)
{
    const property &property = property_of(what);
    if (!property.set) {
        throw standard_error("PropertyReadOnly", "Property " + what.member + " is not writable.");
    }
    if (property.signature != what.signature) {
        throw standard_error("InvalidArgs", "Property " + what.member + " is \"" + property.signature + "\", not \"" +
                                                what.signature + "\".");
    }
    property.set(what);
    return {};
}

reply service::all_properties(const call &what)
{
    auto interface = what.args.at(0).get<std::string>();
    json all = json::object();
    for (const property &property : object_at(what.path).properties) {
        if (has_interface(interface, property.interface)) {
            all[property.name] = {{"signature", property.signature}, {"value", property.get(what)}};
        }
    }
    return {"a{sv}", json::array({all})};
}

void service::send(sd_bus_message *message, const call &what, const reply &values)
{
    sd_bus_message *raw = nullptr;
    check(sd_bus_message_new_method_return(message, &raw), "reply");
    message_ptr reply(raw);
    if (what.kind == "get" && !values.signature.empty()) {
        encode(raw, "v", json::array({{{"signature", values.signature}, {"value", values.values.at(0)}}}));
    } else {
        encode(raw, values.signature, values.values);
    }
    check(sd_bus_send(nullptr, raw, nullptr), "reply");
}

void service::send_error(sd_bus_message *message, const dbus_error &error)
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
    // A client that cannot be answered is gone; there is nobody left to tell.
    if (result >= 0) {
        sd_bus_send(nullptr, raw, nullptr);
    }
}

} // namespace bdbus_sim
