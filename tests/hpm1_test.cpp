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

TEST_F(hpm1, sends_and_reads_every_command_field_by_field)
{
    using caps = bdbus_hpm1_target_caps_rec;
    expect_exchange({"Upgrade1", "GetTargetUpgradeCaps", "y", {0x42}, "yyyyyyyyy", {0x80, 2, 3, 4, 5, 6, 7, 8, 9}},
                    bdbus_hpm1_target_upgrade_caps, caps{.picmg_id = 0x42}, &caps::completion_code, &caps::picmg_id,
                    &caps::hpm_version, &caps::global_capabilities, &caps::upgrade_timeout, &caps::self_test_timeout,
                    &caps::rollback_timeout, &caps::inaccessibility_timeout, &caps::components_present);
    using basic = bdbus_hpm1_basic_rec;
    const std::pair<const char *, int32_t (*)(basic *)> basic_commands[] = {
        {"AbortFirmwareUpgrade", bdbus_hpm1_abort_fw_upgrade},
        {"ActivateFirmware", bdbus_hpm1_activate_fw},
        {"InitiateManualRollback", bdbus_hpm1_init_manual_rollback},
    };
    for (const auto &[member, command] : basic_commands) {
        expect_exchange({"Upgrade1", member, "y", {1}, "yy", {0xD5, 7}}, command, basic{1, 1}, &basic::completion_code,
                        &basic::picmg_id);
    }
    using action = bdbus_hpm1_upgrade_action_rec;
    expect_exchange({"Upgrade1", "InitiateUpgradeAction", "yyy", {1, 0x81, 2}, "yy", {0x80, 7}},
                    bdbus_hpm1_init_upgrade_action, action{1, 0x81, 2, 0}, &action::completion_code, &action::picmg_id);
    using finish = bdbus_hpm1_finish_upload_rec;
    expect_exchange({"Upgrade1", "FinishFirmwareUpload", "yyu", {1, 6, 0xFEDCBA98}, "yy", {0x83, 7}},
                    bdbus_hpm1_finish_fw_upload, finish{1, 6, 0xFEDCBA98, 0}, &finish::completion_code,
                    &finish::picmg_id);
    using block = bdbus_hpm1_upload_block_rec;
    expect_exchange(
        {"Upgrade1", "UploadFirmwareBlock", "yyuay", {3, 255, 2, {{"length", 2}, {"hex", "a1a2"}}}, "yy", {0xC7, 9}},
        bdbus_hpm1_upload_fw_block, block{3, 255, {0xA1, 0xA2, 0xA3}, 2, 0}, &block::completion_code, &block::picmg_id);
    using status = bdbus_hpm1_upgrade_status_rec;
    expect_exchange({"Upgrade1", "GetUpgradeStatus", "y", {9}, "yyyy", {1, 2, 3, 4}}, bdbus_hpm1_get_upgrade_status,
                    status{9, 0, 0, 0}, &status::completion_code, &status::picmg_id, &status::command_in_progress,
                    &status::last_completion_code);
    using rollback = bdbus_hpm1_rollback_status_rec;
    expect_exchange({"Upgrade1", "QueryRollbackStatus", "y", {9}, "yyy", {1, 2, 3}}, bdbus_hpm1_query_rollback_status,
                    rollback{9, 0, 0}, &rollback::completion_code, &rollback::picmg_id, &rollback::rollback_status);
}

TEST_F(hpm1, takes_a_property_into_its_room_whatever_its_length)
{
    for (const size_t length : {0U, 3U, 12U, 13U, 4000U}) {
        const bytes property = pattern(length);
        simulator::answer("Upgrade1", "GetComponentProps", "yyay", {7, 5, property});
        bdbus_hpm1_component_props_rec room[2];
        memset(room, 0xEE, sizeof(room));
        bytes expected = image_of(room);
        EXPECT_GT(bdbus_hpm1_component_props(room), 0);
        expected[offsetof(bdbus_hpm1_component_props_rec, picmg_id)] = 5;
        expected[offsetof(bdbus_hpm1_component_props_rec, completion_code)] = 7;
        std::copy_n(property.begin(), std::min<size_t>(length, 12),
                    expected.begin() + offsetof(bdbus_hpm1_component_props_rec, data));
        EXPECT_EQ(image_of(room), expected) << length;
        EXPECT_EQ(simulator::last_call("Upgrade1"), json({"GetComponentProps", "yyy", {0xEE, 0xEE, 0xEE}}));
    }
}

TEST_F(hpm1, reads_the_self_test_from_the_bmc_service)
{
    const auto read = [](const json &values) {
        simulator::answer("Bmc1", "BmcPost", "ay", {values});
        bdbus_hpm1_self_test_rec records[2] = {{9, 9, 9, 9}, {9, 9, 9, 9}};
        EXPECT_GT(bdbus_hpm1_query_self_test_results(records), 0);
        return json(image_of(records));
    };
    EXPECT_EQ(read({0x55, 0x5C}), json({0, 0, 0x55, 0x5C, 9, 9, 9, 9}));
    EXPECT_EQ(read({0x57}), json({0, 0, 0x57, 9, 9, 9, 9, 9}));
    EXPECT_EQ(read(bytes(100, 7)), json({0, 0, 7, 7, 9, 9, 9, 9}));

    const stderr_capture said;
    simulator::stop("Bmc1");
    bdbus_hpm1_self_test_rec record = {9, 9, 9, 9};
    EXPECT_LT(bdbus_hpm1_query_self_test_results(&record), 0);
    EXPECT_EQ(image_of(record), (bytes{0, 9, 9, 9}));
    EXPECT_EQ(said.text(), "Failed to get property BmcPost: No route to host\n");
}

TEST_F(hpm1, writes_what_came_before_the_end_of_a_reply_that_breaks_off)
{
    for (size_t kept = 0; kept < 9; kept++) {
        bytes values;
        bytes expected(9, 0xEE);
        for (size_t i = 0; i < kept; i++) { // the completion code comes first
            values.push_back(static_cast<uint8_t>(i));
            expected[i < 2 ? 1 - i : i] = static_cast<uint8_t>(i);
        }
        simulator::answer("Upgrade1", "GetTargetUpgradeCaps", std::string(kept, 'y').c_str(), values);
        bdbus_hpm1_target_caps_rec record;
        memset(&record, 0xEE, sizeof(record));
        const stderr_capture said;
        EXPECT_EQ(bdbus_hpm1_target_upgrade_caps(&record), -ENXIO);
        EXPECT_EQ(image_of(record), expected);
        EXPECT_EQ(said.text(), "Failed to parse response message: No such device or address\n");
    }
    simulator::answer("Upgrade1", "GetComponentProps", "yy", {0x31, 0x32});
    bdbus_hpm1_component_props_rec props = {};
    const stderr_capture said;
    EXPECT_EQ(bdbus_hpm1_component_props(&props), -ENXIO);
    EXPECT_EQ(said.text(), "Failed to read array message: No such device or address\n");
}

TEST_F(hpm1, refuses_what_it_cannot_send_without_bus_traffic)
{
    bdbus_hpm1_upload_block_rec too_long = {.length = 1531};
    EXPECT_EQ(bdbus_hpm1_upload_fw_block(&too_long), -EINVAL);
    EXPECT_EQ(bdbus_hpm1_component_props(nullptr), -EINVAL);
    EXPECT_EQ(bdbus_hpm1_query_self_test_results(nullptr), -EINVAL);
    EXPECT_EQ(simulator::calls(""), json::array());
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
    const uint8_t pairs[][2][2] = {
        {{1, 6}, {1, 5}}, {{2, 0}, {1, 0x99}}, {{1, 0x80}, {1, 0x7F}}, {{0x80, 0}, {0x7F, 0xFF}}};
    for (const auto &[newer, older] : pairs) {
        EXPECT_EQ(bdbus_upgrade_version_compare(newer, older), 1);
        EXPECT_EQ(bdbus_upgrade_version_compare(older, newer), 0);
        EXPECT_EQ(bdbus_upgrade_version_compare(newer, newer), 0);
    }
}
