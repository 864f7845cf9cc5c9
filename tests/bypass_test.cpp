// SPDX-License-Identifier: LGPL-2.1-or-later
#include "support/capture.hpp"
#include "support/simulator.hpp"

#include <bdbus/abp.h>

#include <climits>

using bypass = controller_test;

TEST_F(bypass, sends_the_low_bytes_and_hands_back_the_answer)
{
    simulator::set({{"bypass", {{"answer", -42}}}});

    EXPECT_EQ(bdbus_abp_set_global_reset(256), -42);
    EXPECT_EQ(bdbus_abp_set_permanent_global_reset(-1), -42);
    EXPECT_EQ(bdbus_abp_set_permanent_bypass(7, 0x1234), -42);

    const json calls = simulator::calls("AdvancedBypass");
    const json expected = {
        {"SetGlobalReset", "y", {0}}, {"SetPermanentGlobalReset", "y", {255}}, {"SetPermanentBypass", "yy", {7, 0x34}}};
    ASSERT_EQ(calls.size(), expected.size());
    for (size_t i = 0; i < calls.size(); i++) {
        EXPECT_EQ(json({calls[i]["member"], calls[i]["signature"], calls[i]["args"]}), expected[i]);
        EXPECT_EQ(calls[i]["path"], "/com/brisemont/AdvancedBypass");
        EXPECT_EQ(calls[i]["interface"], "com.brisemont.AdvancedBypass");
    }
    EXPECT_NE(calls[0]["sender"], calls[1]["sender"]) << "each call has a connection of its own";
}

TEST_F(bypass, answers_zero_in_silence_when_the_service_does)
{
    const stderr_capture said;
    EXPECT_EQ(bdbus_abp_set_global_reset(1), 0);
    EXPECT_EQ(said.text(), "");
}

TEST_F(bypass, answers_zero_with_one_line_for_every_failure)
{
    simulator::set({{"bypass", {{"answer", 5}}}});
    expect_every_failure_is_told({.service = "AdvancedBypass",
                                  .member = "SetPermanentBypass",
                                  .call = [] { return bdbus_abp_set_permanent_bypass(1, 2) == 5; },
                                  .issue_text = "Failed to issue method call",
                                  .prints_error_text = true,
                                  .parse_text = "Failed to parse response message"});
}

TEST_F(bypass, tries_the_bus_again_after_it_was_out_of_reach)
{
    simulator::set({{"bypass", {{"answer", 3}}}});
    without_bus([] {
        const stderr_capture said;
        EXPECT_EQ(bdbus_abp_set_global_reset(1), 0);
        EXPECT_EQ(said.text(), "Failed to connect to system bus: No such file or directory\n");
    });
    EXPECT_EQ(bdbus_abp_set_global_reset(INT_MAX), 3);
}
