// SPDX-License-Identifier: LGPL-2.1-or-later
/*
 * A simulated service: tables of methods and properties, and the connection that they are served on.
 *
 * The tables are all that a service's file has to say. Messages become JSON and back by the signatures of the tables;
 * reading and writing of properties, introspection, the call list and the faults are the same for every service and
 * done here.
 */
#pragma once

#include "frame/bus.hpp"
#include "frame/calls.hpp"
#include "frame/event.hpp"
#include "frame/faults.hpp"
#include "frame/json.hpp"

#include <chrono>
#include <functional>
#include <list>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace bdbus_sim
{

/** What a client asks. For "get" and "set", `interface` and `member` are the property's. */
struct call {
    std::string kind; // "call", "get", "set", "signal"
    std::string path;
    std::string interface;
    std::string member;
    std::string signature;
    std::string sender;
    json args;

    template <typename T>
    T arg(size_t index) const
    {
        return args.at(index).get<T>();
    }
};

// The rows of a service's tables. An empty interface is the service's own. Handlers refuse with a dbus_error.

struct method {
    using handler_function = std::function<json(const call &)>; // gives the reply's values, an array

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
    std::function<std::chrono::milliseconds(const call &)> duration; // before it is carried out; none: no time
};

struct property {
    using getter = std::function<json(const call &)>;
    using setter = std::function<void(const call &)>;

    property(std::string interface_, std::string name_, std::string signature_, getter get_, setter set_ = nullptr)
        : interface(std::move(interface_)), name(std::move(name_)), signature(std::move(signature_)),
          get(std::move(get_)), set(std::move(set_))
    {
    }

    std::string interface;
    std::string name;
    std::string signature;
    getter get;
    setter set; // none: read-only
};

struct signal_row {
    std::string interface;
    std::string member;
    std::string signature;
};

/** Objects with the same members. Which there are may follow the state. */
struct object_table {
    std::function<std::vector<std::string>()> paths;
    std::vector<method> methods{};
    std::vector<property> properties{};
    std::vector<signal_row> signals{};
};

class service
{
public:
    /** With null lists the service is neither recorded nor disturbed. */
    service(event_loop &loop, std::string name, std::string path, call_list *calls, fault_list *faults);

    void add_object(object_table table);

    /** One object at the service's usual path. */
    void add_object(std::vector<method> methods, std::vector<property> properties = {},
                    std::vector<signal_row> signals = {});

    /** The call list shows only the lengths of texts. */
    void keep_texts_secret() { has_secrets_ = true; }

    /** What to do when anybody sends a signal on the service's own object. */
    void listen(const std::string &member, std::function<void()> action);

    const std::string &name() const { return name_; }
    const std::string &bus_name() const { return bus_name_; }
    const std::string &path() const { return path_; }
    bool running() const { return bus_ != nullptr; }

    /** The name of its connection; empty while the service is stopped. */
    std::string unique_name() const;

    /** Takes the name on the bus; nothing when it has it. */
    void start();

    /** Gives the name back and leaves the bus. Calls that are still being delayed are never answered. */
    void stop();

    /**
     * Sends a signal and returns when the bus has passed it on; does nothing while the service is stopped. An empty
     * interface or path is the service's own.
     */
    void emit(const std::string &member, const std::string &signature, const json &args, std::string interface = {},
              std::string path = {});

    /** Looks members up for faults, whatever the object; null when there is none. */
    const method *find_method(const std::string &member) const;
    const property *find_property(const std::string &interface, const std::string &member) const;

private:
    struct delayed_call {
        message_ptr message;
        call what;
        fault disturbance;
        timer_ptr due;
    };

    static int on_message(sd_bus_message *message, void *self, sd_bus_error *error);
    static int on_signal(sd_bus_message *message, void *self, sd_bus_error *error);
    void receive(sd_bus_message *message);
    void hear(sd_bus_message *message);
    void record(const call &what);
    void delay(sd_bus_message *message, call what, fault disturbance);

    void announce(const announcement &signal);
    void answer(sd_bus_message *message, const call &what, const fault &disturbance);
    void die(const fault &disturbance);
    reply carry_out(const call &what);
    reply call_method(const call &what);
    reply read_property(const call &what);
    reply write_property(const call &what);
    reply all_properties(const call &what);
    void send(sd_bus_message *message, const call &what, const reply &values);
    void send_error(sd_bus_message *message, const dbus_error &error);

    const object_table *find_object(const std::string &path) const;
    const object_table &object_at(const std::string &path) const;
    const property &property_of(const call &what) const;
    std::vector<std::string> children(const std::string &path) const;
    std::string introspect(const std::string &path) const;

    event_loop &loop_;
    std::string name_;
    std::string bus_name_;
    std::string path_;
    call_list *calls_;
    fault_list *faults_;
    std::vector<object_table> objects_;
    std::map<std::string, std::function<void()>> listeners_; // by signal
    bool has_secrets_ = false;
    std::list<delayed_call> delayed_;
    timer_ptr return_;
    bus_ptr bus_;
};

} // namespace bdbus_sim
