// SPDX-License-Identifier: LGPL-2.1-or-later
// The simulated controller: its state, its services and the object that controls it.
#pragma once

#include "frame/calls.hpp"
#include "frame/event.hpp"
#include "frame/faults.hpp"
#include "frame/json.hpp"
#include "frame/service.hpp"
#include "frame/state.hpp"
#include "services/hpm1-target.hpp"

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace bdbus_sim
{

class simulator
{
public:
    /** A scenario is {"state": merge patch, "faults": [fault, …]}, both optional. */
    simulator(event_loop &loop, const json &scenario);

    /** Takes all names; the control object's is the last, so whoever sees it finds everything there. */
    void start();

    /**
     * As at the start: the scenario, every service that was on the bus is so again, and nothing of what happened since.
     */
    void reset();

    /** For the services' files: a new service, to be filled with its tables. Its usual path is /com/brisemont/NAME. */
    service &add_service(const std::string &name, const std::string &path = {});

    service *find(const std::string &name) const;
    service &at(const std::string &name) const;

    /** For what a service keeps beside the state: the action is part of every reset. */
    void on_reset(std::function<void()> action) { reset_actions_.push_back(std::move(action)); }

    void add_fault(const json &description);

    event_loop &loop;
    state_document state;
    hpm1_target target;
    fault_list faults;
    call_list calls;

private:
    void set_to_scenario();

    json scenario_faults_ = json::array();
    std::vector<std::unique_ptr<service>> services_;
    std::vector<std::function<void()>> reset_actions_;
    service control_;
};

/** Each adds one service, with its part of the state. */
void add_bypass(simulator &simulator);
void add_config(simulator &simulator);
void add_bmc(simulator &simulator);
void add_upgrade(simulator &simulator);
void add_sdr(simulator &simulator);
void add_sel(simulator &simulator);
void add_raid(simulator &simulator);
void add_network(simulator &simulator);
void add_authlog(simulator &simulator);
void add_rstorage(simulator &simulator);

void fill_control(service &control, simulator &simulator);

} // namespace bdbus_sim
