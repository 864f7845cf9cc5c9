// SPDX-License-Identifier: LGPL-2.1-or-later
#include "support/capture.hpp"
#include "support/image.hpp"
#include "support/simulator.hpp"

#include <bdbus/hpm1.h>

#include <cerrno>
#include <cstring>

using hpm1 = controller_test;

/** A record's bytes, for a comparison of all of it. */
template <typename Record>
static bytes image_of(const Record &record)
{
    bytes image(sizeof(record));
    memcpy(image.data(), &record, sizeof(record));
    return image;
}

static void answer(const char *member, const char *signature, const json &values, const char *service = "Upgrade1")
{
    simulator::fault({{"service", service},
                      {"member", member},
                      {"count", 1},
                      {"reply", {{"signature", signature}, {"values", values}}}});
}

/** The last call, as [member, signature, arguments]. */
static json last_call()
{
    const json calls = simulator::calls("Upgrade1");
    const json &call = calls.back();
    EXPECT_EQ(call["path"], "/com/brisemont/Upgrade1");
    EXPECT_EQ(call["interface"], "com.brisemont.Upgrade1");
    return {call["member"], call["signature"], call["args"]};
}

TEST_F(hpm1, reads_the_capabilities_reply_in_its_own_order)
{
    answer("GetTargetUpgradeCaps", "yyyyyyyyy", {0x80, 2, 3, 4, 5, 6, 7, 8, 9});
    bdbus_hpm1_target_caps_rec record = {};
    record.picmg_id = 0x42;
    EXPECT_GE(bdbus_hpm1_target_upgrade_caps(&record), 0) << "a completion code is no failure";
    EXPECT_EQ(image_of(record), (bytes{2, 0x80, 3, 4, 5, 6, 7, 8, 9}));
    EXPECT_EQ(last_call(), json({"GetTargetUpgradeCaps", "y", {0x42}}));
}

TEST_F(hpm1, sends_and_reads_every_short_command)
{
    const auto basic = [](const char *member, int32_t (*command)(bdbus_hpm1_basic_rec *)) {
        answer(member, "yy", {0xD5, 7});
        bdbus_hpm1_basic_rec record = {1, 1};
        EXPECT_GE(command(&record), 0);
        EXPECT_EQ(image_of(record), (bytes{7, 0xD5}));
        EXPECT_EQ(last_call(), json({member, "y", {1}}));
    };
    basic("AbortFirmwareUpgrade", bdbus_hpm1_abort_fw_upgrade);
    basic("ActivateFirmware", bdbus_hpm1_activate_fw);
    basic("InitiateManualRollback", bdbus_hpm1_init_manual_rollback);

    answer("InitiateUpgradeAction", "yy", {0x80, 7});
    bdbus_hpm1_upgrade_action_rec action = {1, 0x81, 2, 0};
    EXPECT_GE(bdbus_hpm1_init_upgrade_action(&action), 0);
    EXPECT_EQ(image_of(action), (bytes{7, 0x81, 2, 0x80}));
    EXPECT_EQ(last_call(), json({"InitiateUpgradeAction", "yyy", {1, 0x81, 2}}));

    answer("FinishFirmwareUpload", "yy", {0x83, 7});
    bdbus_hpm1_finish_upload_rec finish = {1, 6, 0xFEDCBA98, 0};
    EXPECT_GE(bdbus_hpm1_finish_fw_upload(&finish), 0);
    EXPECT_EQ(finish.picmg_id, 7);
    EXPECT_EQ(finish.completion_code, 0x83);
    EXPECT_EQ(last_call(), json({"FinishFirmwareUpload", "yyu", {1, 6, 0xFEDCBA98}}));

    answer("GetUpgradeStatus", "yyyy", {1, 2, 3, 4});
    bdbus_hpm1_upgrade_status_rec upgrade_status = {9, 0, 0, 0};
    EXPECT_GE(bdbus_hpm1_get_upgrade_status(&upgrade_status), 0);
    EXPECT_EQ(image_of(upgrade_status), (bytes{2, 1, 3, 4}));
    EXPECT_EQ(last_call(), json({"GetUpgradeStatus", "y", {9}}));

    answer("QueryRollbackStatus", "yyy", {1, 2, 3});
    bdbus_hpm1_rollback_status_rec rollback = {9, 0, 0};
    EXPECT_GE(bdbus_hpm1_query_rollback_status(&rollback), 0);
    EXPECT_EQ(image_of(rollback), (bytes{2, 1, 3}));
    EXPECT_EQ(last_call(), json({"QueryRollbackStatus", "y", {9}}));
}

TEST_F(hpm1, takes_a_property_into_its_room_whatever_its_length)
{
    for (const size_t length : {0U, 3U, 12U, 13U, 4000U}) {
        const bytes property = pattern(length);
        answer("GetComponentProps", "yyay", {0, 5, property});
        struct {
            bdbus_hpm1_component_props_rec record = {1, 6, 4, 0xFF, {}};
            uint8_t behind[4] = {0xEE, 0xEE, 0xEE, 0xEE};
        } room;
        memset(room.record.data, 0xCC, sizeof(room.record.data));
        EXPECT_GE(bdbus_hpm1_component_props(&room.record), 0);

        bytes expected(12, 0xCC);
        std::copy_n(property.begin(), std::min<size_t>(length, 12), expected.begin());
        EXPECT_EQ(bytes(room.record.data, room.record.data + 12), expected) << length;
        EXPECT_EQ(json(room.behind), json({0xEE, 0xEE, 0xEE, 0xEE}));
        EXPECT_EQ(room.record.picmg_id, 5);
        EXPECT_EQ(last_call(), json({"GetComponentProps", "yyy", {1, 6, 4}}));
    }
}

TEST_F(hpm1, sends_a_block_of_any_length_up_to_its_room)
{
    bdbus_hpm1_upload_block_rec record = {};
    const bytes data = pattern(sizeof(record.data));
    memcpy(record.data, data.data(), sizeof(record.data));
    for (const uint32_t length : {0U, 1U, 1530U}) {
        record.picmg_id = 3;
        record.block_number = 255;
        record.length = length;
        answer("UploadFirmwareBlock", "yy", {0xC7, 9});
        EXPECT_GE(bdbus_hpm1_upload_fw_block(&record), 0);
        EXPECT_EQ(record.completion_code, 0xC7);
        EXPECT_EQ(record.picmg_id, 9);
        const json call = last_call();
        EXPECT_EQ(call[1], "yyuay");
        EXPECT_EQ(call[2][0], 3);
        EXPECT_EQ(call[2][1], 255);
        EXPECT_EQ(call[2][2], length);
        EXPECT_EQ(call[2][3]["length"], length);
    }
    simulator::clear_calls();
    record.length = 1531;
    EXPECT_EQ(bdbus_hpm1_upload_fw_block(&record), -EINVAL);
    EXPECT_TRUE(simulator::calls("Upgrade1").empty());
}

TEST_F(hpm1, reads_the_self_test_from_the_bmc_service)
{
    answer("BmcPost", "ay", {pattern(2, 0x55)}, "Bmc1");
    bdbus_hpm1_self_test_rec record = {9, 9, 9, 9};
    EXPECT_GE(bdbus_hpm1_query_self_test_results(&record), 0);
    EXPECT_EQ(image_of(record), (bytes{0, 0, 0x55, 0x5C}));

    answer("BmcPost", "ay", {{0x57}}, "Bmc1");
    record = {9, 9, 9, 9};
    EXPECT_GE(bdbus_hpm1_query_self_test_results(&record), 0);
    EXPECT_EQ(image_of(record), (bytes{0, 0, 0x57, 9}));

    simulator::fault({{"service", "Bmc1"}, {"member", "BmcPost"}, {"count", 1}, {"oversize", 100}});
    bdbus_hpm1_self_test_rec two[2] = {{9, 9, 9, 9}, {9, 9, 9, 9}};
    EXPECT_GE(bdbus_hpm1_query_self_test_results(&two[0]), 0);
    EXPECT_EQ(image_of(two), (bytes{0, 0, 0x55, 0, 9, 9, 9, 9}));

    const stderr_capture said;
    simulator::stop("Bmc1");
    record = {9, 9, 9, 9};
    EXPECT_LT(bdbus_hpm1_query_self_test_results(&record), 0);
    EXPECT_EQ(image_of(record), (bytes{0, 9, 9, 9}));
    EXPECT_EQ(said.text(), "Failed to get property BmcPost: No route to host\n");
}

TEST_F(hpm1, writes_what_came_before_the_end_of_a_reply_that_breaks_off)
{
    for (size_t kept = 0; kept < 9; kept++) {
        simulator::fault(
            {{"service", "Upgrade1"}, {"member", "GetTargetUpgradeCaps"}, {"count", 1}, {"truncate", kept}});
        bdbus_hpm1_target_caps_rec record;
        memset(&record, 0xEE, sizeof(record));
        const stderr_capture said;
        EXPECT_LT(bdbus_hpm1_target_upgrade_caps(&record), 0);
        EXPECT_EQ(said.text(), "Failed to parse response message: No such device or address\n");
        const bytes image = image_of(record);
        EXPECT_EQ(image[1] == 0xEE, kept < 1); // the completion code comes first
        EXPECT_EQ(image[0] == 0xEE, kept < 2);
        for (size_t field = 2; field < 9; field++) {
            EXPECT_EQ(image[field] == 0xEE, kept <= field) << kept;
        }
    }
    answer("GetComponentProps", "yy", {0x31, 0x32});
    bdbus_hpm1_component_props_rec props = {};
    const stderr_capture said;
    EXPECT_LT(bdbus_hpm1_component_props(&props), 0);
    EXPECT_EQ(said.text(), "Failed to read array message: No such device or address\n");
    EXPECT_EQ(props.completion_code, 0x31);
}

TEST_F(hpm1, tells_every_failure_of_a_call_and_of_an_upload)
{
    expect_every_failure_is_told({.service = "Upgrade1",
                                  .member = "QueryRollbackStatus",
                                  .call =
                                      [] {
                                          bdbus_hpm1_rollback_status_rec record = {0, 8, 9};
                                          const bool done = bdbus_hpm1_query_rollback_status(&record) >= 0;
                                          EXPECT_TRUE(done || record.rollback_status == 9);
                                          return done;
                                      },
                                  .issue_text = "Failed to issue method call",
                                  .prints_error_text = true,
                                  .parse_text = "Failed to parse response message"});
}

TEST_F(hpm1, reports_a_failed_upload_with_the_errno_text)
{
    bdbus_hpm1_upload_block_rec record = {};
    simulator::fault({{"service", "Upgrade1"},
                      {"member", "UploadFirmwareBlock"},
                      {"count", 1},
                      {"error", {{"name", "org.freedesktop.DBus.Error.AccessDenied"}, {"message", "not this text"}}}});
    const stderr_capture said;
    EXPECT_EQ(bdbus_hpm1_upload_fw_block(&record), -EACCES);
    EXPECT_EQ(said.text(), "Failed bus call: Permission denied\n");
    EXPECT_GE(bdbus_hpm1_upload_fw_block(&record), 0);
}

TEST_F(hpm1, refuses_null_records_without_bus_traffic)
{
    EXPECT_EQ(bdbus_hpm1_target_upgrade_caps(nullptr), -EINVAL);
    EXPECT_EQ(bdbus_hpm1_component_props(nullptr), -EINVAL);
    EXPECT_EQ(bdbus_hpm1_abort_fw_upgrade(nullptr), -EINVAL);
    EXPECT_EQ(bdbus_hpm1_init_upgrade_action(nullptr), -EINVAL);
    EXPECT_EQ(bdbus_hpm1_upload_fw_block(nullptr), -EINVAL);
    EXPECT_EQ(bdbus_hpm1_finish_fw_upload(nullptr), -EINVAL);
    EXPECT_EQ(bdbus_hpm1_get_upgrade_status(nullptr), -EINVAL);
    EXPECT_EQ(bdbus_hpm1_query_self_test_results(nullptr), -EINVAL);
    EXPECT_EQ(bdbus_hpm1_query_rollback_status(nullptr), -EINVAL);
    EXPECT_TRUE(simulator::calls("").empty());
}

TEST(hpm1_arithmetic, sums_bytes_modulo_256)
{
    const uint8_t data[] = {0x80, 0x80, 0x01, 0xFF};
    EXPECT_EQ(bdbus_hpm1_checksum(data, 0), 0);
    EXPECT_EQ(bdbus_hpm1_checksum(data, -5), 0);
    EXPECT_EQ(bdbus_hpm1_checksum(data, 3), 1);
    EXPECT_EQ(bdbus_hpm1_checksum(data, 4), 0);
    EXPECT_EQ(bdbus_hpm1_checksum(nullptr, 4), 0);
}

TEST(hpm1_arithmetic, takes_the_highest_bit_of_a_mask)
{
    const uint32_t cases[][2] = {{0, 0}, {1, 0},    {2, 1},    {3, 1},          {4, 2},
                                 {7, 2}, {0x80, 7}, {0xFF, 7}, {0x80000000, 31}};
    for (const auto &[mask, id] : cases) {
        EXPECT_EQ(bdbus_hpm1_component_mask_to_id_conversion(mask), id) << mask;
    }
}

TEST(hpm1_arithmetic, orders_versions_as_plain_unsigned_numbers)
{
    const struct {
        uint8_t a[2];
        uint8_t b[2];
        int32_t newer;
    } cases[] = {{{1, 5}, {1, 5}, 0},         {{1, 6}, {1, 5}, 1},       {{2, 0}, {1, 0x99}, 1},
                 {{1, 0x99}, {2, 0}, 0},      {{1, 0x80}, {1, 0x7F}, 1}, {{0x7F, 0xFF}, {0x80, 0}, 0},
                 {{0x80, 0}, {0x7F, 0xFF}, 1}};
    for (const auto &one : cases) {
        EXPECT_EQ(bdbus_upgrade_version_compare(one.a, one.b), one.newer);
    }
}
