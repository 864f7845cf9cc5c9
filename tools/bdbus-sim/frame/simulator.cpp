// SPDX-License-Identifier: LGPL-2.1-or-later
// The simulated controller: its services together, and what a reset does.
#include "frame/simulator.hpp"

#include <stdexcept>

namespace bdbus_sim
{

namespace
{

std::string usual_path(const std::string &name)
{
    return "/com/brisemont/" + name;
}

} // namespace

simulator::simulator(event_loop &events, std::span<add_function *const> services, const json &scenario)
    : loop(events), control_(loop, "Simulator1", usual_path("Simulator1"), nullptr, nullptr)
{
    for (add_function *const add : services) {
        add(*this);
    }
    fill_control(control_, *this);

    object_reader reader(scenario, "scenario", {"state", "faults"});
    state.set_scenario(reader.value("state", json::object()));
    scenario_faults_ = reader.value("faults", json::array());
    if (!scenario_faults_.is_array()) {
        reader.refuse("\"faults\" must be an array");
    }
    set_to_scenario();
}

void simulator::start()
{
    for (const auto &each : services_) {
        each->start();
    }
    control_.start();
}

void simulator::reset()
{
    start();
    set_to_scenario();
}

void simulator::set_to_scenario()
{
    faults.clear();
    calls.clear();
    state.reset();
    for (const auto &action : reset_actions_) {
        action();
    }
    for (const json &description : scenario_faults_) {
        add_fault(description);
    }
}

service &simulator::add_service(const std::string &name, const std::string &path)
{
    std::string own_path = path.empty() ? usual_path(name) : path;
    return *services_.emplace_back(std::make_unique<service>(loop, name, own_path, &calls, &faults));
}

service *simulator::find(const std::string &name) const
{
    for (const auto &each : services_) {
        if (each->name() == name) {
            return each.get();
        }
    }
    return nullptr;
}

service &simulator::at(const std::string &name) const
{
    service *found = find(name);
    if (found == nullptr) {
        throw std::invalid_argument("no such service: \"" + name + '"');
    }
    return *found;
}

void simulator::add_fault(const json &description)
{
    faults.add(description, [this](const std::string &name) {
        const service *found = find(name);
        return found != nullptr ? &found->objects() : nullptr;
    });
}

} // namespace bdbus_sim
