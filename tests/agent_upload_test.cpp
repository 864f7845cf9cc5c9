// SPDX-License-Identifier: LGPL-2.1-or-later
#include "support/capture.hpp"
#include "support/clock.hpp"
#include "support/image.hpp"
#include "support/simulator.hpp"
#include "support/wait.hpp"

#include <bdbus/upgrade.h>

#include <sys/syslog.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <thread>

static const bytes version = {2, 0, 0, 0, 0, 0};

class agent_upload : public controller_test
{
protected:
    /** Run the upgrade stage of an image with these components marked; the target's limits are known. */
    static int32_t upgrade(const image_builder &builder, uint8_t mask, uint8_t timeout = 12)
    {
        const agent_context context(builder.build());
        context->upgrade_mask = mask;
        context->target_caps.upgrade_timeout = timeout;
        simulator::clear_calls();
        take_log();
        take_sleeps();
        const int32_t result = bdbus_upgrade_agent_upgrade_stage(context);
        last_component = context->component_id;
        bdbus_upgrade_agent_get_upgrade_stage_status(&last_stage, &last_progress);
        EXPECT_EQ(last_stage, result == 0 ? BDBUS_UPGRADE_AGENT_STAGE_DONE : BDBUS_UPGRADE_AGENT_STAGE_FAILED);
        return result;
    }

    static int32_t upgrade(const bytes &data) { return upgrade(image_builder().upload(0x02, version, data), 0x02); }

    static void fail(const char *member, const json &action, int count = 1, int skip = 0)
    {
        simulator::fault("Upgrade1", member, action, count, skip);
    }

    /** Have a command answered with a completion code. */
    static void answer(const char *member, uint8_t completion_code, int count = 1, int skip = 0)
    {
        fail(member, {{"completion_code", completion_code}}, count, skip);
    }

    /** Refuse status polls, or have the next ones answer these last completion codes. */
    static void refuse_polls(int count)
    {
        fail("GetUpgradeStatus", {{"reply", {{"signature", "yyyy"}, {"values", {0xC1, 0, 0, 0x80}}}}}, count);
    }

    static void polls(const std::vector<int> &codes)
    {
        for (const int code : codes) {
            simulator::answer("Upgrade1", "GetUpgradeStatus", "yyyy", {0, 0, 0x32, code});
        }
    }

    /** The blocks that were sent, as [number, length]. */
    static json blocks()
    {
        json sent = json::array();
        for (const json &call : simulator::calls("Upgrade1")) {
            if (call["member"] == "UploadFirmwareBlock") {
                EXPECT_EQ(call["args"][2], call["args"][3]["length"]);
                sent.push_back({call["args"][1], call["args"][2]});
            }
        }
        return sent;
    }

    static inline uint8_t last_component;
    static inline uint8_t last_stage;
    static inline uint8_t last_progress;
};

TEST_F(agent_upload, sends_the_image_in_whole_blocks_and_finishes_with_its_length)
{
    const bytes data = pattern(3061);
    EXPECT_EQ(upgrade(data), 0);
    EXPECT_EQ(blocks(), json({{0, 1530}, {1, 1530}, {2, 1}}));
    EXPECT_EQ(simulator::calls("Upgrade1").front()["args"], json({0, 0x02, 2}));
    EXPECT_EQ(simulator::last_call("Upgrade1"), json({"FinishFirmwareUpload", "yyu", {0, 1, 3061}}));
    EXPECT_EQ(simulator::received(1), data);
    EXPECT_EQ(last_progress, 100);
    EXPECT_EQ(take_log(), (std::vector<log_entry>{{LOG_NOTICE, "Upload time: 00:00, image size:    3061 bytes\n"}}));
}

TEST_F(agent_upload, counts_blocks_modulo_256_and_sends_none_of_an_empty_image)
{
    const bytes data = pattern(300 * 1530 + 7);
    EXPECT_EQ(upgrade(data), 0);
    const json sent = blocks();
    ASSERT_EQ(sent.size(), 301U);
    EXPECT_EQ(json({sent[255], sent[256], sent[300]}), json({{255, 1530}, {0, 1530}, {44, 7}}));
    EXPECT_EQ(simulator::received(1), data);

    EXPECT_EQ(upgrade(bytes{}), 0);
    EXPECT_EQ(blocks(), json::array());
    EXPECT_EQ(simulator::last_call("Upgrade1"), json({"FinishFirmwareUpload", "yyu", {0, 1, 0}}));
    EXPECT_EQ(last_progress, 0);
}

TEST_F(agent_upload, shortens_blocks_until_the_first_is_taken)
{
    simulator::set({{"target", {{"max_block", 1527}}}});
    const bytes data = pattern(3000);
    EXPECT_EQ(upgrade(data), 0);
    EXPECT_EQ(blocks(), json({{0, 1530}, {0, 1529}, {0, 1528}, {0, 1527}, {1, 1473}}));
    EXPECT_EQ(simulator::received(1), data);
    EXPECT_NE(take_log_text().find("Upload firmware block: retry with reduced length\nTry reduced buffer size: 1527\n"
                                   "Upload time"),
              std::string::npos);

    answer("UploadFirmwareBlock", 0xC8, 1, 4);
    EXPECT_EQ(upgrade(data), -2) << "not once a block was taken";
    EXPECT_EQ(take_log_text(), "Upload firmware block: retry with reduced length\nTry reduced buffer size: 1529\n"
                               "Upload firmware block: retry with reduced length\nTry reduced buffer size: 1528\n"
                               "Upload firmware block: retry with reduced length\nTry reduced buffer size: 1527\n"
                               "Upload firmware block: retry with reduced length\n"
                               "Error in Upload Firmware command [r = 1]\nTotal sent : 0x5f7\n");
}

TEST_F(agent_upload, gives_up_when_no_size_is_left_to_try)
{
    answer("UploadFirmwareBlock", 0xC7, 0);
    EXPECT_EQ(upgrade(pattern(10)), -1);
    EXPECT_EQ(blocks().size(), 1531U);
    const std::string said = take_log_text();
    EXPECT_EQ(said.substr(said.rfind("Upload error")), "Upload error: 0\n");

    simulator::clear_faults();
    answer("UploadFirmwareBlock", 0xC7, 1530);
    answer("UploadFirmwareBlock", 0, 0);
    EXPECT_EQ(upgrade(pattern(10)), -1) << "a target that takes empty blocks never gets to the end";
    EXPECT_EQ(blocks().back(), json({0, 0}));
}

TEST_F(agent_upload, stops_at_a_block_that_is_refused_or_fails)
{
    answer("UploadFirmwareBlock", 0xD5, 1, 1);
    EXPECT_EQ(upgrade(pattern(4000)), -2);
    EXPECT_EQ(take_log(), (std::vector<log_entry>{{LOG_ERR, "Upload firmware block fail, completion code 0xD5\n"},
                                                  {LOG_ERR, "Error in Upload Firmware command [r = -2]\n"},
                                                  {LOG_ERR, "Total sent : 0x5fa\n"}}));
    EXPECT_EQ(last_progress, 38);

    const stderr_capture said;
    fail("UploadFirmwareBlock", {{"die", true}, {"return_after_ms", 0}});
    EXPECT_EQ(upgrade(pattern(4000)), -2);
    EXPECT_NE(take_log_text().find("Upload firmware block command fail (return -"), std::string::npos);
    EXPECT_EQ(said.text().substr(0, 17), "Failed bus call: ");
    simulator::start("Upgrade1");
    EXPECT_EQ(upgrade(pattern(4000)), 0);
}

TEST_F(agent_upload, judges_the_finish)
{
    const stderr_capture said;
    answer("FinishFirmwareUpload", 0x83);
    EXPECT_EQ(upgrade(bytes{}), -1);
    EXPECT_EQ(take_log_text(), "Component's active copy doesn't match the upgrade image\n");
    answer("FinishFirmwareUpload", 0x81);
    EXPECT_EQ(upgrade(bytes{}), -2);
    EXPECT_EQ(take_log_text(), "Finish firmware upload fail, completion code 0x81\n");
    fail("FinishFirmwareUpload", simulator::refusal());
    EXPECT_EQ(upgrade(bytes{}), -EACCES);
    EXPECT_EQ(take_log_text(), "Finish firmware upload command fail (return -13)\n");
}

TEST_F(agent_upload, carries_out_the_actions_of_marked_components_in_order)
{
    image_builder builder;
    builder.backup(0x12)
        .prepare(0x01)
        .prepare(0x10)
        .upload(0x02, version, pattern(5))
        .upload(0x10, version, pattern(6));
    EXPECT_EQ(upgrade(builder, 0x10), 0);
    json sent;
    for (const json &call : simulator::calls("Upgrade1")) {
        sent.push_back({call["member"], call["args"][1], call["args"][2]});
    }
    EXPECT_EQ(sent, json({{"InitiateUpgradeAction", 0x10, 0},
                          {"InitiateUpgradeAction", 0x10, 1},
                          {"InitiateUpgradeAction", 0x10, 2},
                          {"UploadFirmwareBlock", 0, 6},
                          {"FinishFirmwareUpload", 4, 6}}));
    EXPECT_EQ(take_log_text().substr(0, 24), "Component 1 skipped...\nU");
    EXPECT_EQ(last_component, 4);
}

TEST_F(agent_upload, ends_at_the_first_action_that_fails)
{
    image_builder builder;
    builder.prepare(0x02).upload(0x02, version, pattern(5)).upload(0x10, version, pattern(6));
    answer("InitiateUpgradeAction", 0xC1);
    EXPECT_EQ(upgrade(builder, 0x12), -1);
    EXPECT_EQ(take_log_text(), "Initiate upgrade action fail, completion code 0xC1\n");
    EXPECT_EQ(simulator::calls("Upgrade1").size(), 1U);

    answer("InitiateUpgradeAction", 0xC1, 1, 1);
    EXPECT_EQ(upgrade(builder, 0x12), -1);
    EXPECT_EQ(take_log_text(), "Initiate upgrade action fail, completion code 0xC1\n"
                               "Initiate upgrade action fail (r: 0xFFFFFFFF), component skipped\n"
                               "Component 1 skipped...\n");
    EXPECT_EQ(simulator::calls("Upgrade1").size(), 2U);

    EXPECT_EQ(upgrade(image_builder().action(3, 0), 0), -1);
    EXPECT_EQ(take_log_text(), "Invalid action record action type\n");
}

TEST_F(agent_upload, polls_every_two_seconds_while_a_command_goes_on)
{
    simulator::set({{"target", {{"busy_polls", {{"finish", 3}, {"prepare", 2}, {"block", 1}}}}}});
    EXPECT_EQ(upgrade(image_builder().prepare(0x02).upload(0x02, version, pattern(2000)), 0x02), 0);
    EXPECT_EQ(simulator::received(1), pattern(2000));
    const std::vector<int64_t> sleeps = take_sleeps();
    EXPECT_TRUE(!sleeps.empty() && std::ranges::all_of(sleeps, [](int64_t ms) { return ms == 2000; }));
    EXPECT_EQ(take_log_text().substr(0, 12), "Upload time:");
}

TEST_F(agent_upload, waits_no_longer_than_the_target_allows)
{
    const auto wait = [](const std::vector<int> &codes, uint8_t timeout) {
        polls(codes);
        answer("FinishFirmwareUpload", 0x80);
        return upgrade(image_builder().upload(0x02, version, {}), 0x02, timeout);
    };
    const std::string line = "bdbus_upgrade_agent_wait_long_duration_cmd fail (return ";

    EXPECT_EQ(wait(std::vector<int>(6, 0x80), 2), -1) << "10 s: polls at 0, 2, 4, 6, 8 and 10";
    EXPECT_EQ(take_sleeps().size(), 5U);
    EXPECT_EQ(take_log(), (std::vector<log_entry>{{LOG_NOTICE, line + "0), last completion code 0x80, retry 0\n"}}));

    EXPECT_EQ(wait({0x80}, 0), -1) << "no time at all";
    EXPECT_TRUE(take_sleeps().empty());
    EXPECT_EQ(wait({0x00}, 0), 0) << "but a command that is done is done";

    EXPECT_EQ(wait({0xD5, 0x80, 0xD5, 0xD5, 0x80, 0x00}, 12), 0);
    EXPECT_EQ(take_log_text(), "") << "still running is no strike";

    EXPECT_EQ(wait({0x81, 0x82, 0x80, 0x83, 0x84}, 12), -1) << "the fourth strike";
    EXPECT_EQ(take_sleeps().size(), 4U);
    EXPECT_EQ(take_log_text(), line + "0), last completion code 0x82, retry 1\n" + line +
                                   "0), last completion code 0x83, retry 2\n" + line +
                                   "0), last completion code 0x84, retry 3\n" + line +
                                   "0), last completion code 0x84, retry 4\n");
}

TEST_F(agent_upload, takes_a_failed_poll_for_a_strike)
{
    const stderr_capture said;
    refuse_polls(3);
    polls({0x80, 0x00});
    answer("FinishFirmwareUpload", 0x80);
    EXPECT_EQ(upgrade(bytes{}), 0);
    EXPECT_EQ(take_sleeps().size(), 4U);

    refuse_polls(4);
    answer("FinishFirmwareUpload", 0x80);
    EXPECT_EQ(upgrade(bytes{}), -1);
    EXPECT_EQ(take_sleeps().size(), 3U);

    fail("GetUpgradeStatus", simulator::refusal());
    answer("FinishFirmwareUpload", 0x80);
    EXPECT_EQ(upgrade(bytes{}), -EACCES) << "no code was ever read: the poll's own result";
}

TEST_F(agent_upload, leaves_the_bus_to_others_between_its_commands)
{
    std::atomic<bool> stop = false;
    std::atomic<int> seen_running = 0;
    std::thread watcher([&] {
        while (!stop) {
            uint8_t stage = 0;
            uint8_t progress = 0;
            int32_t count = 0;
            EXPECT_EQ(bdbus_upgrade_component_count(&count), 0);
            bdbus_upgrade_agent_get_upgrade_stage_status(&stage, &progress);
            EXPECT_LE(progress, 100);
            seen_running += stage == BDBUS_UPGRADE_AGENT_STAGE_RUNNING;
        }
    });
    EXPECT_TRUE(eventually([&seen_running] { return upgrade(pattern(500'000)) == 0 && seen_running > 0; }));
    stop = true;
    watcher.join();
}

// The last test of this program: the process is granted three resends in its whole life.
TEST_F(agent_upload, z_resends_three_blocks_in_the_life_of_the_process)
{
    const bytes data = pattern(2000);
    answer("UploadFirmwareBlock", 0x82, 1, 1);
    answer("UploadFirmwareBlock", 0x83, 1, 1);
    EXPECT_EQ(upgrade(data), 0);
    EXPECT_EQ(blocks(), json({{0, 1530}, {1, 470}, {1, 470}, {1, 470}}));
    EXPECT_EQ(simulator::received(1), data);
    EXPECT_EQ(take_log()[0], (log_entry{LOG_INFO, "Upload firmware block command retry\n"}));

    answer("UploadFirmwareBlock", 0x82);
    EXPECT_EQ(upgrade(data), 0) << "the third";
    answer("UploadFirmwareBlock", 0x83);
    EXPECT_EQ(upgrade(data), -2);
    EXPECT_EQ(take_log_text(), "Upload firmware block fail, completion code 0x83\n"
                               "Error in Upload Firmware command [r = -2]\nTotal sent : 0x0\n");
}
