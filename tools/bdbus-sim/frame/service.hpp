// SPDX-License-Identifier: LGPL-2.1-or-later
/*
 * A simulated service: its objects, and the connection that they are served on.
 *
 * A service's file fills in the tables and nothing else. Messages become JSON and back by the signatures of the tables;
 * properties, introspection, the call list and the faults work alike for every service.
 */
#pragma once

#include "frame/bus.hpp"
#include "frame/call.hpp"
#include "frame/calls.hpp"
#include "frame/event.hpp"
#include "frame/faults.hpp"
#include "frame/json.hpp"
#include "frame/objects.hpp"

#include <chrono>
#include <functional>
#include <list>
#include <map>
#include <string>
#include <vector>

namespace bdbus_sim
{

class service
{
public:
    /** With null lists the service's calls are not recorded and get no faults. */
    service(event_loop &loop, std::string name, std::string path, call_list *calls, fault_list *faults);

    void add_object(object_table table) { objects_.add(std::move(table)); }

    /** Adds one object at the service's usual path. */
    void add_object(std::vector<method> methods, std::vector<property> properties = {},
                    std::vector<signal_row> signals = {});

    /** From now on the call list shows only the lengths of texts. */
    void keep_texts_secret() { has_secrets_ = true; }

    /** Sets what to do when anybody sends a signal on the service's own object. */
    void listen(const std::string &member, std::function<void()> action);

    const std::string &name() const { return name_; }
    const std::string &bus_name() const { return bus_name_; }
    const std::string &path() const { return path_; }
    const object_tree &objects() const { return objects_; }
    bool running() const { return bus_ != nullptr; }

    /** The name of its connection; empty while the service is stopped. */
    std::string unique_name() const;

    /** Takes the name on the bus; does nothing when the service has it. */
    void start();

    /** Gives the name back and leaves the bus. Calls that are still being delayed are never answered. */
    void stop();

    /**
     * Sends a signal and returns when the bus has passed it on; does nothing while the service is stopped. An empty
     * interface or path is the service's own.
     */
    void emit(const std::string &member, const std::string &signature, const json &args, std::string interface = {},
              std::string path = {});

private:
    struct delayed_call {
        message_ptr message;
        call request;
        fault injected;
        timer_ptr due;
    };

    static int on_message(sd_bus_message *message, void *self, sd_bus_error *error);
    static int on_signal(sd_bus_message *message, void *self, sd_bus_error *error);
    void receive_call(sd_bus_message *message);
    void receive_signal(sd_bus_message *message);
    void record(const call &request);

    void delay(sd_bus_message *message, call request, fault injected, std::chrono::milliseconds time);
    void answer(sd_bus_message *message, const call &request, const resolved_call &resolved, const fault &injected);
    void die(const fault &injected);
    void send_signal(const signal_message &signal);

    event_loop &loop_;
    std::string name_;
    std::string bus_name_;
    std::string path_;
    call_list *calls_;
    fault_list *faults_;
    object_tree objects_;
    std::map<std::string, std::function<void()>> listeners_; // by signal
    bool has_secrets_ = false;
    std::list<delayed_call> delayed_;
    timer_ptr return_;
    bus_ptr bus_;
};

} // namespace bdbus_sim
