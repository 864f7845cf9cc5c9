// SPDX-License-Identifier: LGPL-2.1-or-later
#include "support/capture.hpp"
#include "support/image.hpp"
#include "support/simulator.hpp"
#include "support/timeout.hpp"
#include "support/wait.hpp"

#include <bdbus/bdbus.h>

#include <cctype>
#include <cerrno>
#include <fstream>
#include <regex>

using upgrade = controller_test;

static const struct {
    const char *property;
    const char *component;
    const char *field;
    int32_t (*get)(uint8_t *);
} versions[] = {
    {"BmcUbootVersion", "0", "version", bdbus_upgrade_bmc_uboot_get_version},
    {"BmcFwVersion", "1", "version", bdbus_upgrade_bmc_fw_get_version},
    {"BmcConfVersion", "2", "version", bdbus_upgrade_bmc_conf_get_version},
    {"FpgaVersion", "3", "version", bdbus_upgrade_fpga_get_version},
    {"BiosVersion", "4", "version", bdbus_upgrade_bios_get_version},
    {"NvramVersion", "5", "version", bdbus_upgrade_nvram_get_version},
    {"CpldVersion", "6", "version", bdbus_upgrade_cpld_get_version},
    {"BmcFwBackupVersion", "1", "rollback_version", bdbus_upgrade_bmc_fw_get_backup_version},
    {"FpgaBackupVersion", "3", "rollback_version", bdbus_upgrade_fpga_get_backup_version},
    {"BiosBackupVersion", "4", "rollback_version", bdbus_upgrade_bios_get_backup_version},
    {"CpldBackupVersion", "6", "rollback_version", bdbus_upgrade_cpld_get_backup_version},
};

static const struct {
    const char *component;
    int32_t (*get)(int32_t *);
} rollback_flags[] = {
    {"BmcUboot", bdbus_upgrade_bmc_uboot_get_rollback_flag}, {"BmcFw", bdbus_upgrade_bmc_fw_get_rollback_flag},
    {"BmcConf", bdbus_upgrade_bmc_conf_get_rollback_flag},   {"Fpga", bdbus_upgrade_fpga_get_rollback_flag},
    {"Bios", bdbus_upgrade_bios_get_rollback_flag},          {"Nvram", bdbus_upgrade_nvram_get_rollback_flag},
    {"Cpld", bdbus_upgrade_cpld_get_rollback_flag},
};

/** A version getter's buffer, with bytes behind it that must stay as they are. */
struct guarded_buffer {
    bytes data = bytes(BDBUS_UPGRADE_VERSION_MAX + 16, 0xEE);

    [[nodiscard]] bytes first(size_t count) const
    {
        return {data.begin(), data.begin() + static_cast<ptrdiff_t>(count)};
    }
    [[nodiscard]] bool untouched_from(size_t offset) const
    {
        return std::all_of(data.begin() + static_cast<ptrdiff_t>(offset), data.end(),
                           [](uint8_t b) { return b == 0xEE; });
    }
};

TEST_F(upgrade, reads_every_version_from_its_own_property)
{
    for (size_t i = 0; i < std::size(versions); i++) {
        const auto &one = versions[i];
        SCOPED_TRACE(one.property);
        const bytes version = pattern(6, static_cast<uint8_t>(i + 1));
        simulator::set({{"target", {{"components", {{one.component, {{one.field, version}}}}}}}});
        simulator::clear_calls();

        guarded_buffer buffer;
        EXPECT_GT(one.get(buffer.data.data()), 0);
        EXPECT_EQ(buffer.first(6), version);
        EXPECT_TRUE(buffer.untouched_from(6));

        uint8_t bounded[4] = {};
        uint32_t length = 0;
        EXPECT_GT(bdbus_upgrade_get_version(static_cast<bdbus_upgrade_version>(i), bounded, 4, &length), 0);
        EXPECT_TRUE(std::equal(bounded, bounded + 4, version.begin()));
        EXPECT_EQ(length, 6U);

        for (const json &call : simulator::calls("Upgrade1")) {
            EXPECT_EQ(call["member"], one.property);
            EXPECT_EQ(call["interface"], "com.brisemont.Upgrade1");
        }
    }
}

TEST_F(upgrade, never_writes_past_the_room_of_a_version)
{
    simulator::fault({{"service", "Upgrade1"}, {"member", "BiosVersion"}, {"count", 0}, {"oversize", 5000}});
    guarded_buffer buffer;
    EXPECT_GT(bdbus_upgrade_bios_get_version(buffer.data.data()), 0);
    EXPECT_EQ(buffer.first(BDBUS_UPGRADE_VERSION_MAX).back(), 0xA5);
    EXPECT_TRUE(buffer.untouched_from(BDBUS_UPGRADE_VERSION_MAX));

    uint32_t length = 0;
    guarded_buffer bounded;
    EXPECT_GT(bdbus_upgrade_get_version(BDBUS_UPGRADE_VERSION_BIOS, bounded.data.data(), 1, &length), 0);
    EXPECT_TRUE(bounded.untouched_from(1));
    EXPECT_EQ(length, 5000U);
    EXPECT_GT(bdbus_upgrade_get_version(BDBUS_UPGRADE_VERSION_BIOS, nullptr, 0, &length), 0);
}

TEST_F(upgrade, copies_nothing_of_an_empty_version)
{
    simulator::fault({{"service", "Upgrade1"},
                      {"member", "CpldVersion"},
                      {"count", 0},
                      {"reply", {{"signature", "ay"}, {"values", {json::array()}}}}});
    guarded_buffer buffer;
    EXPECT_GE(bdbus_upgrade_cpld_get_version(buffer.data.data()), 0);
    EXPECT_TRUE(buffer.untouched_from(0));
}

TEST_F(upgrade, reads_flags_count_and_state_in_their_widths)
{
    simulator::set(
        {{"upgrade", {{"component_id", 0x81}, {"in_progress", 0xFF}, {"bmc_flash", 0x82}, {"bios_flash", 1}}}});
    for (const auto &one : rollback_flags) {
        for (const bool set : {true, false}) {
            simulator::set({{"upgrade", {{"rollback_flags", {{one.component, set}}}}}});
            int32_t flag = -1;
            EXPECT_EQ(one.get(&flag), 0);
            EXPECT_EQ(flag, set ? 1 : 0) << one.component;
        }
    }
    EXPECT_EQ(simulator::members("Upgrade1")[2], "BmcFwRollbackFlag");
    int32_t count = -1;
    EXPECT_EQ(bdbus_upgrade_component_count(&count), 0);
    EXPECT_EQ(count, 7);
    uint8_t around[3] = {0xEE, 0xEE, 0xEE};
    EXPECT_EQ(bdbus_upgrade_component_id(&around[1]), 0);
    EXPECT_EQ(json(around), json({0xEE, 0x81, 0xEE}));
    EXPECT_EQ(bdbus_upgrade_in_progress(&around[1]), 0);
    EXPECT_EQ(json(around), json({0xEE, 0xFF, 0xEE}));
    EXPECT_EQ(bdbus_upgrade_bmc_get_flash(&around[1]), 0);
    EXPECT_EQ(json(around), json({0xEE, 0x82, 0xEE}));
    EXPECT_EQ(bdbus_upgrade_bios_get_flash(&around[1]), 0);
    EXPECT_EQ(json(around), json({0xEE, 1, 0xEE}));
}

TEST_F(upgrade, names_the_property_of_every_failed_read_and_touches_nothing)
{
    expect_every_failure_is_told({.service = "Upgrade1",
                                  .member = "FpgaVersion",
                                  .call =
                                      [] {
                                          guarded_buffer buffer;
                                          const bool read = bdbus_upgrade_fpga_get_version(buffer.data.data()) > 0;
                                          EXPECT_TRUE(read || buffer.untouched_from(0));
                                          return read;
                                      },
                                  .issue_text = "Failed to get property FpgaVersion",
                                  .prints_error_text = false,
                                  .parse_text = "Failed to get property FpgaVersion"});
    expect_every_failure_is_told({.service = "Upgrade1",
                                  .member = "NvramRollbackFlag",
                                  .call =
                                      [] {
                                          int32_t flag = 77;
                                          const bool read = bdbus_upgrade_nvram_get_rollback_flag(&flag) == 0;
                                          EXPECT_TRUE(read || flag == 77);
                                          return read;
                                      },
                                  .issue_text = "Failed to get property NvramRollbackFlag",
                                  .prints_error_text = false,
                                  .parse_text = "Failed to get property NvramRollbackFlag"});
}

TEST_F(upgrade, refuses_null_outputs_and_unknown_versions_without_bus_traffic)
{
    EXPECT_EQ(bdbus_upgrade_nvram_get_version(nullptr), -EINVAL);
    EXPECT_EQ(bdbus_upgrade_bios_get_rollback_flag(nullptr), -EINVAL);
    EXPECT_EQ(bdbus_upgrade_component_count(nullptr), -EINVAL);
    EXPECT_EQ(bdbus_upgrade_component_id(nullptr), -EINVAL);
    EXPECT_EQ(bdbus_upgrade_get_version(BDBUS_UPGRADE_VERSION_BIOS, nullptr, 1, nullptr), -EINVAL);
    uint8_t byte = 0;
    EXPECT_EQ(bdbus_upgrade_get_version(static_cast<bdbus_upgrade_version>(11), &byte, 1, nullptr), -EINVAL);
    EXPECT_TRUE(simulator::calls("Upgrade1").empty());
}

/** The signals' names in the order of the table's slots, as the header names the slots: bmc_reset is BmcReset. */
static std::vector<std::string> slot_names()
{
    std::ifstream header(UPGRADE_HEADER);
    const std::regex slot("    sd_bus_message_handler_t ([a-z0-9_]+);");
    std::vector<std::string> names;
    std::smatch match;
    for (std::string line; std::getline(header, line);) {
        if (!std::regex_match(line, match, slot)) {
            continue;
        }
        std::string name;
        bool upper = true;
        for (const char c : match[1].str()) {
            name += upper ? static_cast<char>(toupper(c)) : c;
            upper = c == '_';
        }
        std::erase(name, '_');
        names.push_back(name);
    }
    return names;
}

namespace
{
std::vector<size_t> delivered;

template <size_t Slot>
int record(sd_bus_message *signal, void *userdata, sd_bus_error * /*error*/)
{
    EXPECT_NE(signal, nullptr);
    EXPECT_EQ(userdata, nullptr);
    delivered.push_back(Slot);
    return Slot % 2 == 0 ? -EIO : 1; // means nothing
}

template <size_t... Slots>
bdbus_upgrade_callback_table recorders(std::index_sequence<Slots...> /*slots*/)
{
    return {record<Slots>...};
}

/** Process until so many notices were delivered, and a little longer, for those that should not be. */
void process(size_t expected)
{
    EXPECT_TRUE(eventually([expected] {
        for (int i = 0; i < 100; i++) {
            EXPECT_EQ(bdbus_upgrade_signal_process(), 0);
        }
        return delivered.size() >= expected;
    }));
    for (int i = 0; i < 200; i++) {
        EXPECT_EQ(bdbus_upgrade_signal_process(), 0);
    }
}

void emit(const std::string &member)
{
    simulator::emit({{"service", "Upgrade1"}, {"member", member}});
}
} // namespace

TEST_F(upgrade, delivers_each_notice_to_its_own_slot_and_no_other)
{
    const bdbus_upgrade_callback_table table = recorders(std::make_index_sequence<BDBUS_UPGRADE_SIGNALS>());
    const std::vector<std::string> names = slot_names();
    ASSERT_EQ(names.size(), 80U);
    delivered.clear();
    bdbus_upgrade_callbacks(&table);
    bdbus_upgrade_signal_process();
    std::vector<size_t> expected;
    for (size_t slot = 0; slot < names.size(); slot++) {
        emit(names[slot]);
        expected.push_back(slot);
    }
    emit("BmcUnheardOf");
    simulator::emit({{"service", "Upgrade1"}, {"member", "BmcReset"}, {"path", "/com/brisemont/Upgrade"}});
    simulator::emit({{"service", "Upgrade1"}, {"member", "BmcReset"}, {"interface", "com.brisemont.Upgrade2"}});
    simulator::emit({{"service", "Upgrade1"}, {"member", "BmcChange"}, {"stranger", true}});
    expected.push_back(12);
    process(expected.size());
    EXPECT_EQ(delivered, expected);
    bdbus_upgrade_callbacks(nullptr);
}

TEST_F(upgrade, drops_notices_without_a_table_or_a_slot)
{
    bdbus_upgrade_callback_table table = {};
    delivered.clear();
    bdbus_upgrade_signal_process();
    emit("BmcReset"); // no table
    process(0);
    bdbus_upgrade_callbacks(&table);
    emit("BmcReset"); // no slot
    process(0);
    table.bmc_change = record<12>;
    emit("BmcReset");
    emit("BmcChange");
    process(1);
    EXPECT_EQ(delivered, std::vector<size_t>{12});
    bdbus_upgrade_callbacks(nullptr);
}

namespace
{
bdbus_upgrade_callback_table turns[2] = {};

/** Take the notice, and hand over to the other table; after a hundred, to none. */
template <size_t Turn>
int take_turns(sd_bus_message * /*signal*/, void * /*userdata*/, sd_bus_error * /*error*/)
{
    delivered.push_back(Turn);
    turns[Turn].bmc_change = nullptr;
    turns[1 - Turn].bmc_change = take_turns<1 - Turn>;
    bdbus_upgrade_callbacks(delivered.size() < 100 ? &turns[1 - Turn] : nullptr);
    return 0;
}

int handle_changes(sd_bus_message * /*signal*/, void * /*userdata*/, sd_bus_error * /*error*/)
{
    delivered.push_back(0);
    EXPECT_GT(bdbus_upgrade_fpga_change_handle(), 0);
    EXPECT_GT(bdbus_upgrade_bios_change_handle(), 0);
    EXPECT_GT(bdbus_upgrade_nvram_change_handle(), 0);
    return 0;
}
} // namespace

TEST_F(upgrade, lets_handlers_change_tables_and_slots_while_notices_come)
{
    turns[0].bmc_change = take_turns<0>;
    bdbus_upgrade_callbacks(&turns[0]);
    delivered.clear();
    bdbus_upgrade_signal_process();
    std::vector<size_t> expected;
    for (size_t i = 0; i < 150; i++) {
        emit("BmcChange");
        expected.push_back(i % 2);
    }
    expected.resize(100);
    process(expected.size());
    EXPECT_EQ(delivered, expected);
}

TEST_F(upgrade, sends_its_notices_also_from_within_a_handler)
{
    const auto notices = [](size_t expected) {
        json heard;
        EXPECT_TRUE(eventually([&] { // what others sent is not in step with the control object
            heard = json::array();
            for (const json &call : simulator::calls("Upgrade1")) {
                if (call["kind"] == "signal") {
                    heard.push_back({call["path"], call["interface"], call["member"], call["signature"]});
                }
            }
            return heard.size() >= expected;
        }));
        return heard;
    };
    const auto notice = [](const char *member) {
        return json({"/com/brisemont/Upgrade1", "com.brisemont.Upgrade1", member, ""});
    };
    EXPECT_GT(bdbus_upgrade_bmc_sensors_ready(), 0);
    EXPECT_EQ(notices(1), json::array({notice("BmcSensorsReady")}));

    bdbus_upgrade_callback_table table = {};
    table.fpga_change = table.bios_flash_swap_finished = handle_changes;
    bdbus_upgrade_callbacks(&table);
    delivered.clear();
    simulator::clear_calls();
    emit("FpgaChange");
    emit("BiosFlashSwapFinished");
    process(2);
    const json one_round = {notice("FpgaChangeHandle"), notice("BiosChangeHandle"), notice("NvramChangeHandle")};
    json both = one_round;
    both.insert(both.end(), one_round.begin(), one_round.end());
    EXPECT_EQ(notices(6), both);
    EXPECT_EQ(simulator::state()["upgrade"]["notices"]["NvramChangeHandle"], 2);
    int32_t count = 0;
    EXPECT_EQ(bdbus_upgrade_component_count(&count), 0) << "the connection goes on";
    bdbus_upgrade_callbacks(nullptr);
}

static void answer(const char *member, uint8_t byte, int delay_ms = 0)
{
    simulator::fault({{"service", "Upgrade1"},
                      {"member", member},
                      {"delay_ms", delay_ms},
                      {"reply", {{"signature", "y"}, {"values", {byte}}}}});
}

TEST_F(upgrade, sends_every_setting_field_by_field)
{
    const auto last_call = [] {
        const json call = simulator::calls("Upgrade1").back();
        EXPECT_EQ(call["path"], "/com/brisemont/Upgrade1");
        EXPECT_EQ(call["interface"], "com.brisemont.Upgrade1");
        return json({call["member"], call["signature"], call["args"]});
    };
    const auto flash = [&](const char *member, int32_t (*set)(bdbus_upgrade_flash_select *), uint8_t result) {
        answer(member, result);
        bdbus_upgrade_flash_select request = {0xFEDCBA98, 9};
        EXPECT_GT(set(&request), 0);
        EXPECT_EQ(request.result, result);
        EXPECT_EQ(last_call(), json({member, "u", {0xFEDCBA98}}));
    };
    flash("SetBmcFlashSelect", bdbus_upgrade_bmc_set_flash, 0x81);
    flash("SetBiosFlashSelect", bdbus_upgrade_bios_set_flash, 0);

    const auto version = [&](const char *member, int32_t (*set)(bdbus_upgrade_version_update *), const char *hex,
                             bdbus_upgrade_version_update request) {
        const short_timeout of_other_calls;
        answer(member, 0xFE, 300);
        EXPECT_GT(set(&request), 0);
        EXPECT_EQ(request.result, 0xFE);
        EXPECT_EQ(last_call(), json({member, "ay", {{{"length", 6}, {"hex", hex}}}}));
    };
    version("SetBiosVersion", bdbus_upgrade_bios_set_version, "000000000000", {{}, 7});
    version("SetNvramVersion", bdbus_upgrade_nvram_set_version, "01020304fffe", {{1, 2, 3, 4, 0xFF, 0xFE}, 7});

    answer("BmcFactoryModeNotify", 3);
    bdbus_upgrade_factory_mode mode = {0xAB, 9};
    EXPECT_GT(bdbus_upgrade_factory_mode_setting(&mode), 0);
    EXPECT_EQ(mode.result, 3);
    EXPECT_EQ(last_call(), json({"BmcFactoryModeNotify", "y", {0xAB}}));
}

TEST_F(upgrade, tells_every_failure_of_a_setting)
{
    expect_every_failure_is_told({.service = "Upgrade1",
                                  .member = "SetBiosFlashSelect",
                                  .call =
                                      [] {
                                          bdbus_upgrade_flash_select request = {1, 77};
                                          const bool done = bdbus_upgrade_bios_set_flash(&request) > 0;
                                          EXPECT_TRUE(done || request.result == 77);
                                          return done;
                                      },
                                  .issue_text = "Failed to issue method call",
                                  .prints_error_text = true,
                                  .parse_text = "Failed to parse response message"});
    expect_every_failure_is_told({.service = "Upgrade1",
                                  .member = "SetBiosVersion",
                                  .call =
                                      [] {
                                          bdbus_upgrade_version_update request = {{}, 77};
                                          const bool done = bdbus_upgrade_bios_set_version(&request) > 0;
                                          EXPECT_TRUE(done || request.result == 77);
                                          return done;
                                      },
                                  .issue_text = "Failed bus call",
                                  .prints_error_text = false,
                                  .parse_text = "Failed to parse response message",
                                  .waits_without_limit = true});
    EXPECT_EQ(bdbus_upgrade_bmc_set_flash(nullptr), -EINVAL);
    EXPECT_EQ(bdbus_upgrade_nvram_set_version(nullptr), -EINVAL);
    EXPECT_EQ(bdbus_upgrade_factory_mode_setting(nullptr), -EINVAL);
    EXPECT_EQ(bdbus_upgrade_bmc_get_flash(nullptr), -EINVAL);
}

TEST_F(upgrade, hears_a_whole_upgrade_in_its_order)
{
    const bdbus_upgrade_callback_table table = recorders(std::make_index_sequence<BDBUS_UPGRADE_SIGNALS>());
    const std::vector<std::string> all_names = slot_names();
    process(0); // what came before
    bdbus_upgrade_callbacks(&table);
    const bytes data = pattern(4000, 2);
    const agent_context image(
        image_builder().prepare(0x0A).upload(0x02, bytes(6), data).upload(0x08, bytes(6), data).build());
    const auto heard = [&](size_t expected) {
        process(expected);
        std::vector<std::string> names;
        for (const size_t slot : std::exchange(delivered, {})) {
            names.push_back(all_names.at(slot));
        }
        return names;
    };
    const auto upload = [&] {
        bdbus_upgrade_agent_target_check();
        bdbus_upgrade_agent_preparation_stage(image);
        image->upgrade_mask = 0x0A;
        return bdbus_upgrade_agent_upgrade_stage(image);
    };
    delivered.clear();
    EXPECT_EQ(upload(), 0);
    EXPECT_EQ(bdbus_upgrade_agent_activation_stage(image), 0);
    EXPECT_EQ(heard(12), (std::vector<std::string>{"BmcSignVerifyPass", "FpgaSignVerifyPass", "FpgaUpdatePending",
                                                   "FpgaUpdateStart", "BmcUpdateSucceed", "BmcVersion", "BmcChange",
                                                   "FpgaUpdateEnd", "FpgaUpdateSucceed", "FpgaVersion", "FpgaChange",
                                                   "BmcReset"}));
    bdbus_hpm1_basic_rec record = {};
    bdbus_hpm1_init_manual_rollback(&record);
    EXPECT_EQ(heard(9),
              (std::vector<std::string>{"BmcManualRollbackInitiated", "BmcManualRollbackSucceed", "BmcVersion",
                                        "BmcChange", "FpgaManualRollbackInitiated", "FpgaManualRollbackSucceed",
                                        "FpgaVersion", "FpgaChange", "BmcReset"}));
    simulator::set({{"target", {{"bad_signatures", 8}}}});
    EXPECT_NE(upload(), 0);
    bdbus_hpm1_abort_fw_upgrade(&record);
    EXPECT_EQ(heard(5), (std::vector<std::string>{"BmcSignVerifyPass", "FpgaSignVerifyFail", "FpgaUpdateFail",
                                                  "BmcUpdateAborted", "FpgaUpdateAborted"}));
    bdbus_upgrade_callbacks(nullptr);
}
