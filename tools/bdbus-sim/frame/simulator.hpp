// SPDX-License-Identifier: LGPL-2.1-or-later
// The simulated controller: its state, its services and the object that controls it.
#pragma once

#include "frame/calls.hpp"
#include "frame/event.hpp"
#include "frame/faults.hpp"
#include "frame/json.hpp"
#include "frame/service.hpp"
#include "frame/state.hpp"

#include <functional>
#include <memory>
#include <span>
#include <string>
#include <utility>
#include <vector>

namespace bdbus_sim
{

class simulator
{
public:
    /** What a service's file has: adds the service, its section of the state and its tables. */
    using add_function = void(simulator &);

    /** A scenario is {"state": merge patch, "faults": [fault, …]}, both optional. */
    simulator(event_loop &loop, std::span<add_function *const> services, const json &scenario);

    /** Takes all names. The control object's name comes last, so a client that sees it finds every service there. */
    void start();

    /** Goes back to the start: every service is on the bus, state and faults are the scenario's, the call list is
     * empty. */
    void reset();

    /** For the services' files: a new service without objects. Without a path it has /com/brisemont/NAME. */
    service &add_service(const std::string &name, const std::string &path = {});

    service *find(const std::string &name) const;
    service &at(const std::string &name) const;

    /** Adds an action to every reset, for a service that keeps data beside the state. */
    void on_reset(std::function<void()> action) { reset_actions_.push_back(std::move(action)); }

    void add_fault(const json &description);

    event_loop &loop;
    state_document state;
    fault_list faults;
    call_list calls;
    std::function<const byte_vector &(uint8_t component)> received; // what an upgrade has brought

private:
    void set_to_scenario();

    json scenario_faults_ = json::array();
    std::vector<std::unique_ptr<service>> services_;
    std::vector<std::function<void()>> reset_actions_;
    service control_;
};

void fill_control(service &control, simulator &sim);

} // namespace bdbus_sim
