// SPDX-License-Identifier: LGPL-2.1-or-later
#include "simulator.hpp"

namespace bdbus_sim
{

namespace
{

/** Keeps what was sent and answers as the state says. */
method row(state_document &state, const char *member, const char *in, const std::string &place)
{
    return method(member, in, "i", [&state, in = std::string(in), place](const call &what) {
        state.set(place, in.size() == 1 ? what.args[0] : what.args);
        return json::array({state.at("/bypass/answer")});
    });
}

} // namespace

void add_bypass(simulator &simulator)
{
    state_document &state = simulator.state;
    json defaults = {{"answer", 0}, {"global_reset", 0}, {"permanent_global_reset", 0}, {"permanent_bypass", {0, 0}}};
    json shape = {{"answer", "i"}, {"global_reset", "y"}, {"permanent_global_reset", "y"}, {"permanent_bypass", "2y"}};
    state.add_section("bypass", defaults, shape);

    simulator.add_service("AdvancedBypass")
        .add_object({
            row(state, "SetGlobalReset", "y", "/bypass/global_reset"),
            row(state, "SetPermanentGlobalReset", "y", "/bypass/permanent_global_reset"),
            row(state, "SetPermanentBypass", "yy", "/bypass/permanent_bypass"),
        });
}

} // namespace bdbus_sim
