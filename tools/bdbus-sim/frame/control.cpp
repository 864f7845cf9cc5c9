// SPDX-License-Identifier: LGPL-2.1-or-later
// The control object: changes the state, adds faults, sends signals, lists the calls that were received.
#include "common/files.hpp"
#include "frame/simulator.hpp"

#include <stdexcept>

namespace bdbus_sim
{

namespace
{

json json_argument(const call &request)
{
    return parse_json(request.arg<std::string>(0), "JSON argument");
}

void emit(simulator &sim, service &control, const json &object)
{
    object_reader signal(object, "signal", {"service", "member", "interface", "path", "signature", "args", "stranger"});
    service &named = sim.at(signal.text("service"));
    service &sender = signal.flag("stranger") ? control : named;
    if (!sender.running()) {
        signal.refuse(named.name() + " is not on the bus");
    }
    sender.emit(signal.text("member"), signal.text("signature"), signal.value("args", json::array()),
                signal.text("interface", named.bus_name()), signal.text("path", named.path()));
}

json get_received(const simulator &sim, const call &request)
{
    // A bus cuts the connection of a sender whose message is over its limit, usually 32 MiB.
    constexpr size_t most = 24U << 20;
    const byte_vector &bytes = sim.received(request.arg<uint8_t>(0));
    if (bytes.size() > most) {
        throw std::invalid_argument("too large for a message, use SaveReceived");
    }
    return json::binary(bytes);
}

void save_received(const simulator &sim, const call &request)
{
    bdbus_tools::write_file(request.arg<std::string>(1), text_of(sim.received(request.arg<uint8_t>(0))));
}

std::string calls_of(const simulator &sim, const std::string &name)
{
    return sim.calls.text(name.empty() ? "" : sim.at(name).name());
}

} // namespace

void fill_control(service &control, simulator &sim)
{
    auto *simulated = &sim;
    auto *self = &control;
    auto text = [](const call &request) {
        return request.arg<std::string>(0);
    };
    auto action = [](const char *member, const char *in, auto act) {
        return method(member, in, "", [act](const call &request) {
            act(request);
            return json::array();
        });
    };
    auto query = [](const char *member, const char *in, const char *out, auto ask) {
        return method(member, in, out, [ask](const call &request) { return json::array({ask(request)}); });
    };

    control.add_object({
        action("Reset", "", [=](const call &) { simulated->reset(); }),
        action("SetState", "s", [=](const call &request) { simulated->state.patch(json_argument(request)); }),
        query("GetState", "", "s", [=](const call &) { return to_text(simulated->state.shown()); }),
        action("AddFault", "s", [=](const call &request) { simulated->add_fault(json_argument(request)); }),
        action("ClearFaults", "", [=](const call &) { simulated->faults.clear(); }),
        action("Emit", "s", [=](const call &request) { emit(*simulated, *self, json_argument(request)); }),
        query("Calls", "s", "s", [=](const call &request) { return calls_of(*simulated, text(request)); }),
        action("ClearCalls", "", [=](const call &) { simulated->calls.clear(); }),
        query("GetReceived", "y", "ay", [=](const call &request) { return get_received(*simulated, request); }),
        action("SaveReceived", "ys", [=](const call &request) { save_received(*simulated, request); }),
        action("Stop", "s", [=](const call &request) { simulated->at(text(request)).stop(); }),
        action("Start", "s", [=](const call &request) { simulated->at(text(request)).start(); }),
    });
}

} // namespace bdbus_sim
