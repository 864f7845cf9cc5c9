// SPDX-License-Identifier: LGPL-2.1-or-later
#include "support/capture.hpp"
#include "support/clock.hpp"
#include "support/image.hpp"
#include "support/simulator.hpp"

#include <sys/syslog.h>

#include <cerrno>

class agent_activation : public controller_test
{
protected:
    void SetUp() override
    {
        controller_test::SetUp();
        bdbus_upgrade_agent_target_check();
        simulator::clear_calls();
    }

    /** How the stage is entered: what the image and the target say of self test and rollback. */
    struct setting {
        uint8_t image_capabilities = 0;
        uint8_t global_capabilities = 3;
        uint8_t component_general = 0x26;
        uint8_t component_id = 1;
        uint8_t target_units = 2; // of 5 seconds: every time-out of the target's
        uint8_t image_units = 0;
        bool with_image = true;
    };

    static int32_t activate(const setting &how)
    {
        image_builder builder;
        builder.capabilities = how.image_capabilities;
        builder.self_test_timeout = builder.rollback_timeout = how.image_units;
        const agent_context image(builder.build());
        bdbus_upgrade_agent_context context = *image;
        context.image_data = how.with_image ? context.image_data : nullptr;
        context.component_id = how.component_id;
        context.target_caps.global_capabilities = how.global_capabilities;
        context.target_caps.upgrade_timeout = context.target_caps.self_test_timeout =
            context.target_caps.rollback_timeout = how.target_units;
        for (bdbus_hpm1_component_props_rec &properties : context.component_props) {
            properties.data[0] = how.component_general;
        }
        simulator::clear_calls();
        take_log();
        take_sleeps();
        return bdbus_upgrade_agent_activation_stage(&context);
    }

    static void answer(const char *member, const json &values, int count = 1)
    {
        const std::string signature(values.size(), 'y');
        simulator::fault("Upgrade1", member, {{"reply", {{"signature", signature}, {"values", values}}}}, count);
    }

    static void refuse(const char *member, const char *service = "Upgrade1")
    {
        simulator::fault(service, member, simulator::refusal());
    }

    static std::vector<std::string> asked()
    {
        std::vector<std::string> members = simulator::members("Upgrade1");
        const std::vector<std::string> more = simulator::members("Bmc1");
        members.insert(members.end(), more.begin(), more.end());
        return members;
    }
    using names = std::vector<std::string>;
};

TEST_F(agent_activation, follows_up_only_where_component_and_capabilities_ask_for_it)
{
    answer("ActivateFirmware", {0, 0}, 0);
    simulator::set({{"target", {{"components", {{"2", {{"general", 0x06}}}}}}}});
    bdbus_upgrade_agent_target_check();
    const std::pair<const char *, setting> without[] = {
        {"no follow-up bit", {.component_id = 2}},
        {"no such component", {.component_id = 200}},
        {"no self test", {.global_capabilities = 2}},
        {"no image, so none of its capabilities",
         {.image_capabilities = 1, .global_capabilities = 2, .with_image = false}},
    };
    for (const auto &[name, how] : without) {
        EXPECT_EQ(activate(how), 0) << name;
        EXPECT_EQ(asked(), names{"ActivateFirmware"}) << name;
    }
    for (const setting &how : {setting{.image_capabilities = 1, .global_capabilities = 2}, setting{}}) {
        EXPECT_EQ(activate(how), 0);
        EXPECT_EQ(asked(), (names{"ActivateFirmware", "BmcPost"}));
        EXPECT_EQ(take_sleeps(), std::vector<int64_t>{2000});
        EXPECT_EQ(take_log(), (std::vector<log_entry>{
                                  {LOG_INFO, "Query self test results ok (result 1: 0x55 / result 2: 0x0)\n"}}));
    }
}

TEST_F(agent_activation, waits_for_an_activation_that_goes_on)
{
    answer("ActivateFirmware", {0x80, 0}, 0);
    answer("GetUpgradeStatus", {0, 0, 0x35, 0x80}, 2);
    EXPECT_EQ(activate({.target_units = 12}), 0);
    EXPECT_EQ(asked(),
              (names{"ActivateFirmware", "GetUpgradeStatus", "GetUpgradeStatus", "GetUpgradeStatus", "BmcPost"}));

    answer("GetUpgradeStatus", {0, 0, 0x35, 0x80}, 2);
    EXPECT_EQ(activate({.global_capabilities = 1, .target_units = 0}), -1);
    EXPECT_TRUE(take_log_text().ends_with("Getting rollback status... not supported\n"));

    simulator::set({{"target", {{"components", {{"2", {{"general", 0x06}}}}}}}});
    bdbus_upgrade_agent_target_check();
    EXPECT_EQ(activate({.component_id = 2}), 0);
    EXPECT_EQ(asked(), names{"ActivateFirmware"}) << "nobody waits without a follow-up";
}

TEST_F(agent_activation, asks_for_the_rollback_status_when_the_activation_fails)
{
    const stderr_capture said;
    answer("ActivateFirmware", {0xD5, 0}, 0);
    const std::string failed = "FW activation fail, completion code 0xD5\n";
    const struct {
        json reply;
        int32_t result;
        std::string line;
        int priority;
    } cases[] = {
        {{0, 0, 0x12}, 0, "Rollback occurred on component mask: 0x12\n", LOG_NOTICE},
        {{0, 0, 0}, 0, "No rollback occurred\n", LOG_NOTICE},
        {{0x81, 0, 0x02}, -1, "Rollback failed on component mask: 0x02\n", LOG_ERR},
        {{0xC1, 0, 0}, -2, "Error getting rollback status, completion code 0xC1\n", LOG_ERR},
    };
    for (const auto &one : cases) {
        answer("QueryRollbackStatus", one.reply);
        EXPECT_EQ(activate({}), one.result) << one.line;
        EXPECT_EQ(take_log(),
                  (std::vector<log_entry>{
                      {LOG_ERR, failed}, {LOG_ERR, "Getting rollback status...\n"}, {one.priority, one.line}}));
        EXPECT_EQ(take_sleeps(), std::vector<int64_t>{1000});
    }
    refuse("QueryRollbackStatus");
    EXPECT_EQ(activate({}), -EACCES);

    for (const setting &how : {setting{.global_capabilities = 1}, setting{.component_general = 0x24}}) {
        EXPECT_EQ(activate(how), -1);
        EXPECT_EQ(take_log_text(), failed + "Getting rollback status... not supported\n");
    }
    simulator::clear_faults();
    refuse("ActivateFirmware");
    EXPECT_EQ(activate({.global_capabilities = 0}), -EACCES);
    EXPECT_EQ(take_log()[0].text, "Upgrade activate FW command fail (return -13)\n");
}

TEST_F(agent_activation, polls_the_rollback_status_up_to_the_longer_limit)
{
    answer("ActivateFirmware", {0xD5, 0}, 0);
    answer("QueryRollbackStatus", {0x80, 0x77, 0}, 3);
    answer("QueryRollbackStatus", {0xC3, 0, 0}, 3);
    EXPECT_EQ(activate({.image_units = 1}), 0);
    EXPECT_EQ(take_sleeps(), std::vector<int64_t>(7, 1000));
    for (const json &call : simulator::calls("Upgrade1")) {
        EXPECT_EQ(call["args"], json::array({0})) << "the identifier of a reply is never sent on";
    }

    for (const auto &[target, image, expected] :
         {std::tuple<uint8_t, uint8_t, size_t>{2, 0, 10}, {1, 3, 15}, {0, 0, 1}}) {
        simulator::clear_faults();
        answer("ActivateFirmware", {0xD5, 0}, 0);
        answer("QueryRollbackStatus", {0x80, 0, 0}, 0);
        EXPECT_EQ(activate({.target_units = target, .image_units = image}), -2);
        EXPECT_EQ(take_sleeps().size(), expected);
        EXPECT_EQ(take_log().back().text, "Error getting rollback status, completion code 0x80\n");
    }
}

TEST_F(agent_activation, rolls_back_after_a_self_test_that_failed_or_gave_nothing)
{
    const stderr_capture said;
    answer("ActivateFirmware", {0, 0}, 0);
    simulator::set({{"bmc", {{"post", {0x57, 0x04}}}}});
    answer("InitiateManualRollback", {0xC1, 0});
    EXPECT_EQ(activate({}), 0) << "the target's answer to the rollback is not judged";
    EXPECT_EQ(take_log(), (std::vector<log_entry>{
                              {LOG_INFO, "Query self test results ok (result 1: 0x57 / result 2: 0x4)\n"},
                              {LOG_ERR, "Self test failed: Result 1 = 0x57, Result 2 = 0x4 - do manual rollback\n"}}));

    refuse("BmcPost", "Bmc1");
    answer("InitiateManualRollback", {0, 0});
    EXPECT_EQ(activate({}), 0);
    EXPECT_EQ(take_log_text(), "Error getting self test results\nSelf test command failed - do manual rollback\n");

    refuse("InitiateManualRollback");
    EXPECT_EQ(activate({.component_general = 0x20}), -1);
    EXPECT_TRUE(take_log_text().ends_with(
        "HPM.1 manual rollback fail (return -13)\nGetting rollback status... not supported\n"));
    refuse("InitiateManualRollback");
    refuse("BmcPost", "Bmc1");
    EXPECT_EQ(activate({.component_general = 0x20}), -2);
    refuse("InitiateManualRollback");
    answer("QueryRollbackStatus", {0, 0, 2});
    EXPECT_EQ(activate({}), 0) << "it had rolled back on its own";
}
