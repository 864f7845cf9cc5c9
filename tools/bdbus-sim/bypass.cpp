// SPDX-License-Identifier: LGPL-2.1-or-later
#include "simulator.hpp"

void add_bypass(simulator &simulator)
{
    state_document &state = simulator.state;
    state.add_section(
        "bypass", {{"answer", 0}, {"global_reset", 0}, {"permanent_global_reset", 0}, {"permanent_bypass", {0, 0}}},
        {{"answer", "i"}, {"global_reset", "y"}, {"permanent_global_reset", "y"}, {"permanent_bypass", "2y"}});

    auto keep = [&state](const std::string &place, auto value_of) {
        return [&state, place, value_of](const call &what) {
            state.set(place, value_of(what));
            return json::array({state.at("/bypass/answer")});
        };
    };
    auto first = [](const call &what) {
        return what.args[0];
    };
    auto all = [](const call &what) {
        return what.args;
    };

    simulator.add_service("AdvancedBypass")
        .add_object({
            {"SetGlobalReset", "y", "i", keep("/bypass/global_reset", first)},
            {"SetPermanentGlobalReset", "y", "i", keep("/bypass/permanent_global_reset", first)},
            {"SetPermanentBypass", "yy", "i", keep("/bypass/permanent_bypass", all)},
        });
}
