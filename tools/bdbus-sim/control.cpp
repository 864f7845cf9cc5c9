// SPDX-License-Identifier: LGPL-2.1-or-later
// The control object: changes the state, disturbs the services, tells what they were asked.
#include "simulator.hpp"

#include <cerrno>
#include <fstream>
#include <stdexcept>
#include <system_error>

namespace bdbus_sim
{

namespace
{

json json_of(const call &what)
{
    return parse_json(what.arg<std::string>(0), "JSON argument");
}

void emit(simulator &simulator, service &control, const json &object)
{
    object_reader signal(object, "signal", {"service", "member", "interface", "path", "signature", "args", "stranger"});
    service &named = simulator.at(signal.text("service"));
    service &sender = signal.flag("stranger") ? control : named;
    if (!sender.running()) {
        signal.refuse(named.name() + " is not on the bus");
    }
    sender.emit(signal.text("member"), signal.text("signature"), signal.value("args", json::array()),
                signal.text("interface", named.bus_name()), signal.text("path", named.path()));
}

const byte_vector &received(const simulator &simulator, const call &what)
{
    auto component = what.arg<uint8_t>(0);
    if (component >= hpm1_target::components_max) {
        throw std::invalid_argument("no such component: " + std::to_string(component));
    }
    return simulator.target.received(component);
}

json get_received(const simulator &simulator, const call &what)
{
    // A bus cuts the connection of a sender whose message is over its limit, usually 32 MiB.
    constexpr size_t most = 24U << 20;
    const byte_vector &bytes = received(simulator, what);
    if (bytes.size() > most) {
        throw std::invalid_argument("too large for a message, use SaveReceived");
    }
    return json::binary(bytes);
}

std::string calls_of(const simulator &simulator, const std::string &name)
{
    return simulator.calls.text(name.empty() ? "" : simulator.at(name).name());
}

void save(const byte_vector &bytes, const std::string &path)
{
    std::ofstream file(path, std::ios::binary);
    file.write(reinterpret_cast<const char *>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    if (!file.flush()) {
        throw std::system_error(errno, std::generic_category(), path);
    }
}

} // namespace

void fill_control(service &control, simulator &simulator)
{
    auto *sim = &simulator;
    auto *self = &control;
    auto text = [](const call &what) {
        return what.arg<std::string>(0);
    };
    auto action = [](const char *member, const char *in, auto act) {
        return method(member, in, "", [act](const call &what) {
            act(what);
            return json::array();
        });
    };
    auto query = [](const char *member, const char *in, const char *out, auto ask) {
        return method(member, in, out, [ask](const call &what) { return json::array({ask(what)}); });
    };

    control.add_object({
        action("Reset", "", [=](const call &) { sim->reset(); }),
        action("SetState", "s", [=](const call &what) { sim->state.patch(json_of(what)); }),
        query("GetState", "", "s", [=](const call &) { return to_text(sim->state.shown()); }),
        action("AddFault", "s", [=](const call &what) { sim->add_fault(json_of(what)); }),
        action("ClearFaults", "", [=](const call &) { sim->faults.clear(); }),
        action("Emit", "s", [=](const call &what) { emit(*sim, *self, json_of(what)); }),
        query("Calls", "s", "s", [=](const call &what) { return calls_of(*sim, text(what)); }),
        action("ClearCalls", "", [=](const call &) { sim->calls.clear(); }),
        query("GetReceived", "y", "ay", [=](const call &what) { return get_received(*sim, what); }),
        action("SaveReceived", "ys", [=](const call &what) { save(received(*sim, what), what.arg<std::string>(1)); }),
        action("Stop", "s", [=](const call &what) { sim->at(text(what)).stop(); }),
        action("Start", "s", [=](const call &what) { sim->at(text(what)).start(); }),
    });
}

} // namespace bdbus_sim
