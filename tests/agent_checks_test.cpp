// SPDX-License-Identifier: LGPL-2.1-or-later
#include "support/capture.hpp"
#include "support/image.hpp"
#include "support/simulator.hpp"
#include "support/wait.hpp"

#include <sys/syslog.h>

#include <cerrno>

class agent_checks : public controller_test
{
protected:
    /** An image that holds what the target's component 1 runs already. */
    static image_builder same_as_target(uint8_t mask = 0x02)
    {
        image_builder builder;
        builder.upload(mask, simulator::state()["target"]["components"]["1"]["version"], pattern(10));
        return builder;
    }

    static void set_component(const json &patch) { simulator::set({{"target", {{"components", {{"1", patch}}}}}}); }

    static void fail(const char *member, uint8_t completion_code, int skip = 0)
    {
        simulator::fault("Upgrade1", member, {{"completion_code", completion_code}}, 1, skip);
    }

    /** The mask after all three checks of an image. */
    static int marked(const image_builder &builder, uint8_t options = 0)
    {
        const agent_context context(builder.build());
        context->options = options;
        EXPECT_EQ(bdbus_upgrade_agent_target_check(), 0);
        EXPECT_EQ(bdbus_upgrade_agent_preparation_stage(context), 0);
        EXPECT_EQ(bdbus_upgrade_agent_pre_upgrade_check(context), 0);
        return context->upgrade_mask;
    }

    /** The preparation of an image must give this result and log these lines. */
    static void expect_prepared(const image_builder &builder, int32_t result, const std::string &said = "",
                                uint8_t options = 0)
    {
        const agent_context context(builder.build());
        context->options = options;
        take_log();
        EXPECT_EQ(bdbus_upgrade_agent_preparation_stage(context), result);
        std::string text;
        for (const auto &[priority, line] : take_log()) {
            EXPECT_EQ(priority, result == 0 ? LOG_INFO : LOG_ERR) << line;
            text += line;
        }
        EXPECT_EQ(text, said);
    }
};

TEST_F(agent_checks, target_check_asks_each_component_what_it_has)
{
    set_component({{"general", 0x32}, {"deferred_version", {9, 9, 9, 9, 9, 9}}});
    EXPECT_EQ(bdbus_upgrade_agent_target_check(), 0);
    json selectors;
    for (const json &call : simulator::calls("Upgrade1")) {
        if (call["member"] == "GetComponentProps" && call["args"][1] <= 2) {
            selectors.push_back({call["args"][1], call["args"][2]});
        }
    }
    // Component 0 has a rollback copy, 1 a deferred one besides, 2 neither.
    EXPECT_EQ(selectors,
              json({{0, 0}, {0, 2}, {0, 1}, {0, 3}, {1, 0}, {1, 2}, {1, 1}, {1, 3}, {1, 4}, {2, 0}, {2, 2}, {2, 1}}));
}

TEST_F(agent_checks, target_check_ends_at_the_first_query_that_must_succeed)
{
    fail("GetTargetUpgradeCaps", 0xC1);
    EXPECT_EQ(bdbus_upgrade_agent_target_check(), -1);
    EXPECT_EQ(take_log(),
              (std::vector<log_entry>{{LOG_ERR, "Get target upgrade capabilities fail, completion code 0xC1\n"},
                                      {LOG_ERR, "HW may not support HPM.1 standard\n"}}));

    for (const int query : {0, 1, 2}) { // selectors 0, 2, 1 of component 0
        simulator::clear_calls();
        fail("GetComponentProps", 0xCC, query);
        EXPECT_EQ(bdbus_upgrade_agent_target_check(), -1);
        EXPECT_EQ(take_log_text(), "Get component properties fail, completion code 0xCC (ID 0)\n");
        EXPECT_EQ(simulator::calls("Upgrade1").size(), static_cast<size_t>(query) + 2);
    }
    fail("GetComponentProps", 0xCC, 3); // the rollback version
    EXPECT_EQ(bdbus_upgrade_agent_target_check(), 0);
    take_log();

    const stderr_capture said;
    simulator::stop("Upgrade1");
    EXPECT_EQ(bdbus_upgrade_agent_target_check(), -EHOSTUNREACH);
    EXPECT_EQ(take_log_text(), "Get target upgrade capabilities command fail (return -113)\n"
                               "HW may not support HPM.1 standard\n");
    bdbus_hpm1_component_props_rec record = {0, 5, 0, 0, {}};
    EXPECT_EQ(bdbus_upgrade_agent_get_component_properties(&record), -EHOSTUNREACH);
    EXPECT_EQ(bdbus_upgrade_agent_abort(), -EHOSTUNREACH);
    EXPECT_EQ(take_log_text(), "Get component properties command fail (return -113, ID 5)\n"
                               "Upgrade abort command fail (return -113)\n");
    EXPECT_EQ(bdbus_upgrade_agent_get_component_properties(nullptr), -EINVAL);
}

TEST_F(agent_checks, preparation_refuses_an_image_for_another_controller)
{
    expect_prepared(same_as_target(), 0);
    image_builder other = same_as_target();
    other.product_id[0] = 0x34;
    other.product_id[1] = 0x12;
    expect_prepared(other, -2, "Invalid product ID\n");
    other = same_as_target();
    other.manufacturer_id[2] = 1;
    expect_prepared(other, -1, "Invalid manufacturer ID\n");
    other.product_id[1] = 0;
    other.device_id = 0;
    expect_prepared(other, -3, "Invalid device ID\n"); // comes first
    expect_prepared(other, 0, "", BDBUS_UPGRADE_AGENT_SKIP_IDENTITY);

    other = same_as_target();
    other.earliest_version[1] = 6; // the controller runs 1.05
    expect_prepared(other, 36, "FW version 1.5 is lower than earliest compatible version 1.6\n");
    other.earliest_version[1] = 5;
    expect_prepared(other, 0);
}

TEST_F(agent_checks, preparation_logs_both_sides_when_verbose)
{
    expect_prepared(same_as_target(), 0,
                    "Image info:\n"
                    "  DUT device ID         : 0x20\n"
                    "  Image device ID       : 0x20\n"
                    "  DUT product ID        : 0x1234\n"
                    "  Image product ID      : 0x1234\n"
                    "  DUT mfg ID            : 0xB3A20\n"
                    "  Image manufacturer ID : 0xB3A20\n"
                    "  DUT FW version        : 1.5\n"
                    "  Image earl. comp. ver.: 1.0\n",
                    BDBUS_UPGRADE_AGENT_VERBOSE);
}

TEST_F(agent_checks, preparation_refuses_what_the_target_cannot_take)
{
    image_builder missing = same_as_target();
    missing.components = 0x82;
    expect_prepared(missing, -4, "Component(s) in image file are not supported by BMC\n");
    for (const int capabilities : {0x00, 0x03, 0x81}) {
        simulator::set({{"target", {{"global_capabilities", capabilities}}}});
        expect_prepared(same_as_target(), 0);
    }
    simulator::set({{"target", {{"global_capabilities", 0x01}}}});
    expect_prepared(same_as_target(), -5, "Upgrade not desirable right now\n");
}

TEST_F(agent_checks, preparation_keeps_what_it_learns_and_reports_the_last_query)
{
    image_builder builder = same_as_target();
    builder.components = 0x1B;
    fail("GetComponentProps", 0xC1, 1);
    const agent_context context(builder.build());
    EXPECT_EQ(bdbus_upgrade_agent_preparation_stage(context), 0) << "a failure before the last shows in the log only";
    const auto &props = context->component_props;
    EXPECT_EQ(json({props[1].component_id, props[3].component_id, props[4].data[0]}), json({0, 3, 0x26}));
    EXPECT_EQ(json({context->target_caps.components_present, context->product_id[0], context->fw_minor}),
              json({0x7F, 0x12, 5}));

    fail("GetComponentProps", 0xC1, 3);
    EXPECT_EQ(bdbus_upgrade_agent_preparation_stage(context), -1);
    builder.components = 0;
    expect_prepared(builder, 0);
}

TEST_F(agent_checks, preparation_passes_a_configuration_failure_on_before_storing_anything)
{
    const agent_context context(same_as_target().build());
    simulator::emit({{"service", "Config1"}, {"member", "PropertiesChanged"}});
    simulator::fault("Config1", "Minor", simulator::refusal(), 0);
    int32_t result = 0;
    EXPECT_TRUE(eventually([&] { // the notice has dropped the cache
        context->device_id = 0;
        result = bdbus_upgrade_agent_preparation_stage(context);
        return result != 0;
    }));
    EXPECT_EQ(result, 0x1000 | EACCES);
    EXPECT_EQ(context->device_id, 0);
}

TEST_F(agent_checks, marks_exactly_the_components_that_differ)
{
    set_component({{"general", 0x24}});
    EXPECT_EQ(marked(same_as_target()), 0);
    EXPECT_EQ(marked(same_as_target(), BDBUS_UPGRADE_AGENT_FORCE), 0x02);
    set_component({{"version", {1, 5, 0, 0, 0, 7}}});
    EXPECT_EQ(marked(same_as_target()), 0);
    const image_builder image = same_as_target();
    set_component({{"version", {1, 5, 0, 0, 0, 8}}});
    EXPECT_EQ(marked(image), 0x02) << "the last auxiliary byte differs";

    set_component({{"general", 0x26}, {"rollback_version", {1, 5, 0, 0, 0, 8}}});
    EXPECT_EQ(marked(same_as_target()), 0);
    set_component({{"rollback_version", {1, 4, 0, 0, 0, 8}}});
    EXPECT_EQ(marked(same_as_target()), 0x02) << "its backup copy differs";
    EXPECT_EQ(marked(same_as_target(0x03)), 0x02) << "the highest bit names the component";
}

TEST_F(agent_checks, pre_upgrade_check_holds_each_action_against_its_component)
{
    const auto expect = [](const image_builder &builder, int32_t result, const std::string &said = "",
                           uint8_t present = 0x7F) {
        const agent_context context(builder.build());
        EXPECT_EQ(bdbus_upgrade_agent_target_check(), 0);
        EXPECT_EQ(bdbus_upgrade_agent_preparation_stage(context), 0);
        context->target_caps.components_present = present;
        take_log();
        EXPECT_EQ(bdbus_upgrade_agent_pre_upgrade_check(context), result);
        EXPECT_EQ(take_log_text(), said);
    };
    set_component({{"general", 0x04}, {"description", "BMC fw"}});
    expect(same_as_target().prepare(0x02), 0);
    expect(same_as_target().backup(0x02), -2, "Component 1, BMC fw: no backup support (found action record invalid)\n");
    set_component({{"general", 0x02}, {"description", "0123456789A"}});
    expect(same_as_target().backup(0x02), 0);
    expect(same_as_target().prepare(0x02), -3,
           "Component 1, 0123456789A: no prepare support (found action record invalid)\n");
    expect(same_as_target().action(3, 0x02), -4, "Invalid action type - can not continue\n");
    expect(same_as_target(), -1, "Invalid action record. At least one affected component not supported\n", 0);
}
