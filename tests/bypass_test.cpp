// SPDX-License-Identifier: LGPL-2.1-or-later
#include "support/capture.hpp"
#include "support/simulator.hpp"

#include <bdbus/abp.h>

using bypass = controller_test;

TEST_F(bypass, sends_the_low_bytes_and_hands_back_the_answer)
{
    const stderr_capture said;
    for (const int32_t answer : {-42, 0}) {
        simulator::set({{"bypass", {{"answer", answer}}}});
        EXPECT_EQ(bdbus_abp_set_global_reset(256), answer);
        EXPECT_EQ(simulator::last_call("AdvancedBypass"), json({"SetGlobalReset", "y", {0}}));
        EXPECT_EQ(bdbus_abp_set_permanent_global_reset(-1), answer);
        EXPECT_EQ(simulator::last_call("AdvancedBypass"), json({"SetPermanentGlobalReset", "y", {255}}));
        EXPECT_EQ(bdbus_abp_set_permanent_bypass(7, 0x1234), answer);
        EXPECT_EQ(simulator::last_call("AdvancedBypass"), json({"SetPermanentBypass", "yy", {7, 0x34}}));
    }
    const json calls = simulator::calls("AdvancedBypass");
    EXPECT_NE(calls[0]["sender"], calls[1]["sender"]) << "each call has a connection of its own";
    EXPECT_EQ(said.text(), "") << "an answer of 0 is no failure";
}
