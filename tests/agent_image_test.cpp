// SPDX-License-Identifier: LGPL-2.1-or-later
// The agent's image and context: no bus is needed for any of this.
#include "support/capture.hpp"
#include "support/image.hpp"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syslog.h>
#include <unistd.h>

static const bytes version = {2, 0x34, 1, 2, 3, 4};

/** An image with every kind of record. */
static image_builder sound()
{
    image_builder builder;
    return builder.backup(0x02).prepare(0x02).upload(0x02, version, pattern(100)).upload(0x10, version, pattern(50));
}

static int32_t verdict(const bytes &image)
{
    return bdbus_upgrade_agent_validate_image_integrity(agent_context(image));
}

/** The verdict, and that the one line logged is this. */
static void expect_verdict(const bytes &image, int32_t result, const std::string &line)
{
    take_log();
    EXPECT_EQ(verdict(image), result) << line;
    EXPECT_EQ(take_log(), (std::vector<log_entry>{{LOG_ERR, line}}));
}

/** Whether an image gets through every walker, or what the first one said. */
static std::string walked(const bytes &image)
{
    const agent_context context(image);
    context->target_caps.components_present = 0xFF;
    for (bdbus_hpm1_component_props_rec &properties : context->component_props) {
        properties.data[0] = 0x06; // backup and preparation are allowed everywhere
    }
    take_log();
    if (bdbus_upgrade_agent_upgrade_stage(context) == 0) { // nothing is marked: nothing is sent
        return bdbus_upgrade_agent_pre_upgrade_check(context) == 0 ? "walked" : take_log_text();
    }
    EXPECT_EQ(bdbus_upgrade_agent_get_brs_header(context), nullptr);
    EXPECT_EQ(bdbus_upgrade_agent_pre_upgrade_check(context), -1);
    std::vector<log_entry> log = take_log();
    std::erase_if(log, [](const log_entry &entry) { return entry.priority != LOG_ERR; }); // skipped components
    EXPECT_EQ(log.size(), 3U) << "each walker says it";
    return log.empty() ? "" : log.front().text;
}

TEST(agent_image, accepts_sound_images_of_every_shape)
{
    EXPECT_EQ(verdict(sound().build()), 0);
    EXPECT_EQ(verdict(image_builder().build()), 0) << "no records";
    image_builder oem = sound();
    oem.oem = pattern(0x0203);
    EXPECT_EQ(verdict(oem.build()), 0);
    oem.oem = pattern(0xFFFF);
    EXPECT_EQ(verdict(oem.build()), 0);
}

TEST(agent_image, tells_each_fault_by_its_own_code_and_line)
{
    const bytes good = sound().build();
    for (size_t i = 0; i < good.size(); i++) {
        bytes flipped = good;
        flipped[i] ^= 0x40;
        ASSERT_EQ(verdict(flipped), -4) << i;
    }
    bytes other = good;
    other[0] ^= 1;
    expect_verdict(other, -4, "Invalid MD5 signature\n");

    image_builder builder = sound();
    builder.signature = "PICMGFWX";
    expect_verdict(builder.build(), -5, "Invalid image signature\n");
    builder = sound();
    builder.format_version = 0xAB;
    expect_verdict(builder.build(), -6, "Invalid image header version 0xAB\n");
    other = good;
    other[20] = static_cast<uint8_t>(other[20] + 0x1C);
    seal(other);
    expect_verdict(other, -7, "Invalid HPM.1 image header checksum 0x1C\n");
}

TEST(agent_image, refuses_a_file_cut_at_any_byte)
{
    const bytes good = sound().build();
    for (size_t length = 1; length < good.size(); length++) {
        const bytes cut(good.begin(), good.begin() + static_cast<ptrdiff_t>(length));
        const agent_context context(cut);
        context->options = BDBUS_UPGRADE_AGENT_VERBOSE;
        EXPECT_EQ(bdbus_upgrade_agent_validate_image_integrity(context), length < 51 ? -8 : -4) << length;
        EXPECT_EQ(bdbus_upgrade_agent_get_hpm1_header(context), context->image_data);
        bdbus_upgrade_agent_get_brs_header(context);
        bdbus_upgrade_agent_upgrade_stage(context);
        bdbus_upgrade_agent_pre_upgrade_check(context);
        if (length < 51) {
            EXPECT_EQ(bdbus_upgrade_agent_preparation_stage(context), -1);
        }
    }
}

TEST(agent_image, refuses_lengths_that_reach_past_the_digest)
{
    const std::string truncated = "Truncated HPM.1 image\n";
    const bytes good = sound().build();
    const size_t last_record = good.size() - 16 - 84;

    for (const uint32_t length : {51U, 66U, 67U, 0x7FFFFFFFU, 0xFFFFFFDEU, 0xFFFFFFFFU}) {
        bytes longer = good;
        for (size_t i = 0; i < 4; i++) {
            longer[last_record + 30 + i] = static_cast<uint8_t>(length >> (8 * i));
        }
        seal(longer);
        expect_verdict(longer, -8, truncated);
        EXPECT_EQ(walked(longer), truncated) << length;
    }

    bytes oem = good;
    oem[33] = 0x40; // OEM data of 16 KiB that are not there
    oem[34] = static_cast<uint8_t>(oem[34] - 0x40);
    seal(oem);
    expect_verdict(oem, -8, truncated);
    EXPECT_EQ(walked(oem), truncated);

    for (const size_t stub : {1U, 2U, 10U, 33U}) { // a last record that is only begun
        image_builder builder;
        builder.upload(0x01, version, {});
        builder.records.resize(stub);
        builder.components = 0;
        expect_verdict(builder.build(), -8, truncated);
        EXPECT_EQ(walked(builder.build()), truncated) << stub;
    }
}

TEST(agent_image, accepts_either_form_of_an_upload_records_checksum_and_one_of_a_short_record)
{
    const auto with_checksum = [](int correction, size_t summed) {
        image_builder builder;
        builder.upload(0x01, version, pattern(20));
        uint8_t sum = 0;
        for (size_t i = 0; i < summed; i++) {
            sum = static_cast<uint8_t>(sum + (i == 2 ? 0 : builder.records[i]));
        }
        builder.records[2] = static_cast<uint8_t>(correction - sum);
        return builder.build();
    };
    EXPECT_EQ(walked(with_checksum(0, 3)), "walked");
    EXPECT_EQ(walked(with_checksum(0, 34)), "walked");
    EXPECT_EQ(walked(with_checksum(1, 34)), "Invalid HPM.1 action record checksum\n");

    image_builder backup;
    backup.backup(0);
    EXPECT_EQ(verdict(backup.build()), 0);
    backup.records[2]++;
    EXPECT_EQ(verdict(backup.build()), 0) << "what a record says is for its walkers to judge";
    EXPECT_EQ(walked(backup.build()), "Invalid HPM.1 action record checksum\n");
}

TEST(agent_image, finds_the_vendor_header_of_the_last_upload)
{
    const bytes image = sound().build();
    const agent_context context(image);
    EXPECT_EQ(bdbus_upgrade_agent_get_brs_header(context), context->image_data + image.size() - 16 - 84 + 40);

    image_builder with_oem = sound();
    with_oem.oem = pattern(300);
    const agent_context later(with_oem.build());
    EXPECT_EQ(bdbus_upgrade_agent_get_brs_header(later) - later->image_data,
              300 + static_cast<long>(image.size()) - 60);

    EXPECT_EQ(bdbus_upgrade_agent_get_brs_header(agent_context(image_builder().backup(1).build())), nullptr);
    EXPECT_EQ(bdbus_upgrade_agent_get_brs_header(agent_context(sound().action(3, 1).build())), nullptr);
}

TEST(agent_image, logs_the_header_only_when_asked_to)
{
    const agent_context context(sound().build());
    take_log();
    EXPECT_EQ(bdbus_upgrade_agent_get_hpm1_header(context), context->image_data);
    EXPECT_TRUE(take_log().empty());

    context->options = BDBUS_UPGRADE_AGENT_VERBOSE;
    bdbus_upgrade_agent_get_hpm1_header(context);
    const std::vector<log_entry> expected = {{LOG_NOTICE, "Image information:\n"},
                                             {LOG_NOTICE, "  Device ID         : 0x20\n"},
                                             {LOG_NOTICE, "  Product ID        : 0x3412\n"},
                                             {LOG_NOTICE, "  Manufacturer ID   : 0x00A2B3\n"},
                                             {LOG_NOTICE, "  Component Bit Mask: 0x12\n"},
                                             {LOG_NOTICE, "  Compatible version: 1.00\n"},
                                             {LOG_NOTICE, "  Firmware version  : 2.34.A1A2A3A4\n"},
                                             {LOG_NOTICE, "\n"}};
    EXPECT_EQ(take_log(), expected);

    const bytes whole = sound().build();
    const agent_context cut(bytes(whole.begin(), whole.begin() + 15));
    cut->options = BDBUS_UPGRADE_AGENT_VERBOSE;
    take_log();
    EXPECT_NE(bdbus_upgrade_agent_get_hpm1_header(cut), nullptr);
    EXPECT_EQ(take_log().size(), 5U) << "the heading, three fields that are there, the last line";
}

TEST(agent_image_context, refuses_what_is_no_image_file)
{
    const temporary_file empty({});
    const std::string directory = testing::TempDir();
    const std::string pipe = std::string(empty.path()) + ".pipe";
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    const std::pair<std::string, std::string> cases[] = {
        {empty.path(), "read fail (size 0 / return 0)\n"},
        {directory, "read fail (size "}, // whatever its file system says
        {pipe, "fseek fail at address 0\n"},
        {"/nonexistent/image", "open fail\n"},
    };
    for (const auto &[path, reason] : cases) {
        take_log();
        EXPECT_EQ(bdbus_upgrade_agent_initialization(path.c_str()), nullptr);
        const std::vector<log_entry> log = take_log();
        ASSERT_EQ(log.size(), 2U);
        EXPECT_EQ(log[0].priority, LOG_ERR);
        EXPECT_NE(log[0].text.find(path + ' ' + reason), std::string::npos) << log[0].text;
        EXPECT_EQ(log[1], (log_entry{LOG_ERR, "bdbus upgrade agent: file data read fail\n"}));
    }
    unlink(pipe.c_str());
}

TEST(agent_image_context, keeps_a_context_without_an_image_from_every_stage)
{
    take_log();
    bdbus_upgrade_agent_context *none = bdbus_upgrade_agent_initialization(nullptr);
    ASSERT_NE(none, nullptr);
    EXPECT_EQ(take_log_text(), "bdbus upgrade agent: file not found\n");
    for (bdbus_upgrade_agent_context *context : {none, static_cast<bdbus_upgrade_agent_context *>(nullptr)}) {
        EXPECT_EQ(bdbus_upgrade_agent_validate_image_integrity(context), -8);
        EXPECT_EQ(bdbus_upgrade_agent_preparation_stage(context), -1);
        EXPECT_EQ(bdbus_upgrade_agent_pre_upgrade_check(context), -1);
        EXPECT_EQ(bdbus_upgrade_agent_upgrade_stage(context), -1);
        EXPECT_EQ(bdbus_upgrade_agent_get_hpm1_header(context), nullptr);
        EXPECT_EQ(bdbus_upgrade_agent_get_brs_header(context), nullptr);
    }
    EXPECT_EQ(bdbus_upgrade_agent_activation_stage(nullptr), -1);
    bdbus_upgrade_agent_end(none);
}

TEST(agent_image_context, resets_the_status_at_both_ends)
{
    bdbus_upgrade_agent_context *context = nullptr;
    for (const bool at_end : {true, false}) {
        uint8_t stage = 9;
        uint8_t progress = 9;
        bdbus_upgrade_agent_upgrade_stage(nullptr);
        bdbus_upgrade_agent_get_upgrade_stage_status(&stage, nullptr);
        EXPECT_EQ(stage, BDBUS_UPGRADE_AGENT_STAGE_FAILED);
        if (at_end) {
            bdbus_upgrade_agent_end(nullptr);
        } else {
            context = bdbus_upgrade_agent_initialization(nullptr);
        }
        bdbus_upgrade_agent_get_upgrade_stage_status(&stage, &progress);
        EXPECT_EQ(stage, BDBUS_UPGRADE_AGENT_STAGE_IDLE);
        EXPECT_EQ(progress, 0);
    }
    bdbus_upgrade_agent_get_upgrade_stage_status(nullptr, nullptr);
    bdbus_upgrade_agent_end(context);
}
