// SPDX-License-Identifier: LGPL-2.1-or-later
// The advanced bypass, which keeps what it is sent.
#include "services/services.hpp"

namespace bdbus_sim
{

namespace
{

/** A method that keeps its arguments in the state and answers what the state says. */
method row(state_document &state, const char *member, const char *in, const std::string &place)
{
    return method(member, in, "i", [&state, in = std::string(in), place](const call &request) {
        state.set(place, in.size() == 1 ? request.args[0] : request.args);
        return json::array({state.at("/bypass/answer")});
    });
}

} // namespace

void add_bypass(simulator &sim)
{
    state_document &state = sim.state;
    json defaults = {{"answer", 0}, {"global_reset", 0}, {"permanent_global_reset", 0}, {"permanent_bypass", {0, 0}}};
    json shape = {{"answer", "i"}, {"global_reset", "y"}, {"permanent_global_reset", "y"}, {"permanent_bypass", "2y"}};
    state.add_section("bypass", defaults, shape);

    sim.add_service("AdvancedBypass")
        .add_object({
            row(state, "SetGlobalReset", "y", "/bypass/global_reset"),
            row(state, "SetPermanentGlobalReset", "y", "/bypass/permanent_global_reset"),
            row(state, "SetPermanentBypass", "yy", "/bypass/permanent_bypass"),
        });
}

} // namespace bdbus_sim
