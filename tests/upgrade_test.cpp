// SPDX-License-Identifier: LGPL-2.1-or-later
#include "support/image.hpp"
#include "support/simulator.hpp"
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

static const std::pair<const char *, int32_t (*)(int32_t *)> rollback_flags[] = {
    {"BmcUboot", bdbus_upgrade_bmc_uboot_get_rollback_flag}, {"BmcFw", bdbus_upgrade_bmc_fw_get_rollback_flag},
    {"BmcConf", bdbus_upgrade_bmc_conf_get_rollback_flag},   {"Fpga", bdbus_upgrade_fpga_get_rollback_flag},
    {"Bios", bdbus_upgrade_bios_get_rollback_flag},          {"Nvram", bdbus_upgrade_nvram_get_rollback_flag},
    {"Cpld", bdbus_upgrade_cpld_get_rollback_flag},
};

TEST_F(upgrade, reads_every_version_from_its_own_property)
{
    for (size_t i = 0; i < std::size(versions); i++) {
        const auto &one = versions[i];
        SCOPED_TRACE(one.property);
        const bytes version = pattern(6, static_cast<uint8_t>(i + 1));
        simulator::set({{"target", {{"components", {{one.component, {{one.field, version}}}}}}}});
        bytes whole(6);
        EXPECT_GT(one.get(whole.data()), 0);
        EXPECT_EQ(whole, version);
        EXPECT_EQ(simulator::last_call("Upgrade1")[0], one.property);
        EXPECT_EQ(one.get(nullptr), -EINVAL);

        bytes first(4);
        uint32_t length = 0;
        EXPECT_GT(bdbus_upgrade_get_version(static_cast<bdbus_upgrade_version>(i), first.data(), 4, &length), 0);
        EXPECT_EQ(first, bytes(version.begin(), version.begin() + 4));
        EXPECT_EQ(length, 6U);
        EXPECT_EQ(simulator::last_call("Upgrade1")[0], one.property);
    }
}

TEST_F(upgrade, keeps_a_version_of_any_length_in_its_room)
{
    for (const uint32_t length : {0U, 1U, 64U, 65U, 5000U}) {
        for (const uint32_t room : {0U, 1U, 6U, 64U}) {
            simulator::answer("Upgrade1", "BiosVersion", "ay", {pattern(length)});
            bytes buffer(80, 0xEE);
            bytes expected = buffer;
            std::ranges::copy(pattern(std::min(length, room)), expected.begin());
            uint32_t whole = length;
            EXPECT_GE(room == 64 ? bdbus_upgrade_bios_get_version(buffer.data())
                                 : bdbus_upgrade_get_version(BDBUS_UPGRADE_VERSION_BIOS, buffer.data(), room, &whole),
                      0);
            EXPECT_EQ(buffer, expected) << length << " into " << room;
            EXPECT_EQ(whole, length);
        }
    }
    EXPECT_GT(bdbus_upgrade_get_version(BDBUS_UPGRADE_VERSION_BIOS, nullptr, 0, nullptr), 0);
    simulator::clear_calls();
    EXPECT_EQ(bdbus_upgrade_get_version(BDBUS_UPGRADE_VERSION_BIOS, nullptr, 1, nullptr), -EINVAL);
    uint8_t byte = 0;
    EXPECT_EQ(bdbus_upgrade_get_version(static_cast<bdbus_upgrade_version>(11), &byte, 1, nullptr), -EINVAL);
    EXPECT_EQ(simulator::calls("Upgrade1"), json::array());
}

/** Read a property that holds a value, of the type of the output. */
template <typename Value>
static void expect_read(const std::string &property, const char *type, const json &value, int32_t (*get)(Value *))
{
    simulator::answer("Upgrade1", property, type, {value});
    Value around[3] = {77, 77, 77};
    EXPECT_EQ(get(&around[1]), 0);
    EXPECT_EQ(json(around), json({77, value.get<Value>(), 77})) << property;
    EXPECT_EQ(get(nullptr), -EINVAL);
}

TEST_F(upgrade, reads_flags_count_and_state_in_their_widths)
{
    for (const auto &[component, get] : rollback_flags) {
        expect_read(component + std::string("RollbackFlag"), "b", true, get);
        expect_read(component + std::string("RollbackFlag"), "b", false, get);
    }
    expect_read("ComponentCount", "i", -7, bdbus_upgrade_component_count);
    expect_read("UpgradeComponentId", "y", 0x81, bdbus_upgrade_component_id);
    expect_read("UpgradeInProgress", "y", 0xFF, bdbus_upgrade_in_progress);
    expect_read("BmcFlashSelect", "y", 0x82, bdbus_upgrade_bmc_get_flash);
    expect_read("BiosFlashSelect", "y", 0xFE, bdbus_upgrade_bios_get_flash);
    EXPECT_EQ(simulator::calls("Upgrade1").size(), 19U) << "nothing is asked for without an output";
}

/** The signals' names in the order of the table's slots, as the header names the slots: bmc_reset is BmcReset. */
static std::vector<std::string> slot_names()
{
    std::ifstream header(UPGRADE_HEADER);
    const std::regex slot("    sd_bus_message_handler_t ([a-z0-9_]+);");
    std::vector<std::string> names;
    std::smatch match;
    for (std::string line; std::getline(header, line);) {
        if (std::regex_match(line, match, slot)) {
            std::string name;
            for (const char c : '_' + match[1].str()) {
                name += name.ends_with('_') ? static_cast<char>(toupper(c)) : c;
            }
            std::erase(name, '_');
            names.push_back(name);
        }
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
    bdbus_upgrade_callback_table table = {};
    const std::vector<std::string> names = slot_names();
    ASSERT_EQ(names.size(), 80U);
    delivered.clear();
    bdbus_upgrade_signal_process();
    emit("BmcReset"); // no table
    process(0);
    bdbus_upgrade_callbacks(&table);
    emit("BmcReset"); // no slot
    process(0);
    table = recorders(std::make_index_sequence<BDBUS_UPGRADE_SIGNALS>());
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

namespace
{
bdbus_upgrade_callback_table turns[2] = {};

/** Take the notice, and hand over to the other table; after three, to none. */
template <size_t Turn>
int take_turns(sd_bus_message * /*signal*/, void * /*userdata*/, sd_bus_error * /*error*/)
{
    delivered.push_back(Turn);
    turns[1 - Turn].bmc_change = take_turns<1 - Turn>;
    bdbus_upgrade_callbacks(delivered.size() < 3 ? &turns[1 - Turn] : nullptr);
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
    for (int i = 0; i < 5; i++) {
        emit("BmcChange");
    }
    process(3);
    EXPECT_EQ(delivered, (std::vector<size_t>{0, 1, 0}));
}

TEST_F(upgrade, sends_its_notices_also_from_within_a_handler)
{
    EXPECT_GT(bdbus_upgrade_bmc_sensors_ready(), 0);
    bdbus_upgrade_callback_table table = {};
    table.fpga_change = table.bios_flash_swap_finished = handle_changes;
    bdbus_upgrade_callbacks(&table);
    delivered.clear();
    emit("FpgaChange");
    emit("BiosFlashSwapFinished");
    process(2);
    const json expected = {
        {"BmcSensorsReady", 1}, {"FpgaChangeHandle", 2}, {"BiosChangeHandle", 2}, {"NvramChangeHandle", 2}};
    EXPECT_TRUE(eventually([&expected] { return simulator::state()["upgrade"]["notices"] == expected; }));
    int32_t count = 0;
    EXPECT_EQ(bdbus_upgrade_component_count(&count), 0) << "the connection goes on";
    bdbus_upgrade_callbacks(nullptr);
}

TEST_F(upgrade, sends_every_setting_field_by_field)
{
    const auto sends = [](const char *member, const char *in, const json &value, uint8_t result) {
        return exchange{"Upgrade1", member, in, {value}, "y", {result}};
    };
    using flash = bdbus_upgrade_flash_select;
    expect_exchange(sends("SetBmcFlashSelect", "u", 0xFEDCBA98, 0x81), bdbus_upgrade_bmc_set_flash,
                    flash{0xFEDCBA98, 9}, &flash::result);
    expect_exchange(sends("SetBiosFlashSelect", "u", 1, 0), bdbus_upgrade_bios_set_flash, flash{1, 9}, &flash::result);
    using version = bdbus_upgrade_version_update;
    expect_exchange(sends("SetBiosVersion", "ay", {{"length", 6}, {"hex", "000000000000"}}, 0xFE),
                    bdbus_upgrade_bios_set_version, version{{}, 7}, &version::result);
    expect_exchange(sends("SetNvramVersion", "ay", {{"length", 6}, {"hex", "01020304fffe"}}, 0xFE),
                    bdbus_upgrade_nvram_set_version, version{{1, 2, 3, 4, 0xFF, 0xFE}, 7}, &version::result);
    using mode = bdbus_upgrade_factory_mode;
    expect_exchange(sends("BmcFactoryModeNotify", "y", 0xAB, 3), bdbus_upgrade_factory_mode_setting, mode{0xAB, 9},
                    &mode::result);
}

TEST_F(upgrade, hears_a_whole_upgrade_in_its_order)
{
    const bdbus_upgrade_callback_table table = recorders(std::make_index_sequence<BDBUS_UPGRADE_SIGNALS>());
    process(0); // what came before
    bdbus_upgrade_callbacks(&table);
    delivered.clear();
    const bytes data = pattern(4000, 2);
    const agent_context image(
        image_builder().prepare(0x0A).upload(0x02, bytes(6), data).upload(0x08, bytes(6), data).build());
    const auto upload = [&image] {
        bdbus_upgrade_agent_target_check();
        bdbus_upgrade_agent_preparation_stage(image);
        image->upgrade_mask = 0x0A;
        return bdbus_upgrade_agent_upgrade_stage(image);
    };
    const auto expect_heard = [names = slot_names()](const std::vector<std::string> &expected) {
        process(expected.size());
        std::vector<std::string> heard;
        for (const size_t slot : std::exchange(delivered, {})) {
            heard.push_back(names.at(slot));
        }
        EXPECT_EQ(heard, expected);
    };
    EXPECT_EQ(upload(), 0);
    EXPECT_EQ(bdbus_upgrade_agent_activation_stage(image), 0);
    expect_heard({"BmcSignVerifyPass", "FpgaSignVerifyPass", "FpgaUpdatePending", "FpgaUpdateStart", "BmcUpdateSucceed",
                  "BmcVersion", "BmcChange", "FpgaUpdateEnd", "FpgaUpdateSucceed", "FpgaVersion", "FpgaChange",
                  "BmcReset"});
    bdbus_hpm1_basic_rec record = {};
    bdbus_hpm1_init_manual_rollback(&record);
    expect_heard({"BmcManualRollbackInitiated", "BmcManualRollbackSucceed", "BmcVersion", "BmcChange",
                  "FpgaManualRollbackInitiated", "FpgaManualRollbackSucceed", "FpgaVersion", "FpgaChange", "BmcReset"});
    simulator::set({{"target", {{"bad_signatures", 8}}}});
    EXPECT_NE(upload(), 0);
    bdbus_hpm1_abort_fw_upgrade(&record);
    expect_heard(
        {"BmcSignVerifyPass", "FpgaSignVerifyFail", "FpgaUpdateFail", "BmcUpdateAborted", "FpgaUpdateAborted"});
    bdbus_upgrade_callbacks(nullptr);
}
