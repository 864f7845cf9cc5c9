// SPDX-License-Identifier: LGPL-2.1-or-later
// The controller itself: the result of its self test.
#include "services/services.hpp"

namespace bdbus_sim
{

void add_bmc(simulator &sim)
{
    state_document &state = sim.state;
    // The results of the self test; 0x55 says that it has passed.
    state.add_section("bmc", {{"post", {0x55, 0}}}, {{"post", "ay"}});

    property post("", "BmcPost", "ay", [&state](const call &) { return state.at("/bmc/post"); });
    sim.add_service("Bmc1").add_object({}, {post});
}

} // namespace bdbus_sim
