// SPDX-License-Identifier: LGPL-2.1-or-later
// Families that keep their connection, before they ever had one: each of these tests needs a process of its own, so
// this program runs them in one sequence.
#include "support/capture.hpp"
#include "support/simulator.hpp"
#include "support/wait.hpp"

#include <bdbus/bdbus.h>

#include <cerrno>

using no_bus = controller_test;

TEST_F(no_bus, configuration_reports_it_in_silence_and_opens_once_the_bus_is_there)
{
    uint32_t value = 9;
    without_bus([&value] {
        const stderr_capture said;
        EXPECT_EQ(bdbus_config_get_unsigned("Firmware.Major", &value), 205);
        EXPECT_EQ(bdbus_config_set_unsigned("Generic_Index", 1), 205);
        EXPECT_EQ(bdbus_config_set_bool("Hpm2.Enabled", 1), 203);
        EXPECT_EQ(bdbus_config_get_bool("Hpm2.Enabled"), 0);
        EXPECT_EQ(said.text(), "");
    });
    EXPECT_EQ(value, 9U);
    EXPECT_EQ(bdbus_config_get_unsigned("Firmware.Major", &value), 0);
}

TEST_F(no_bus, upgrade_prints_it_each_time_and_subscribes_once_the_bus_is_there)
{
    static int notices;
    static const bdbus_upgrade_callback_table table = {.bmc_reset = [](sd_bus_message *, void *, sd_bus_error *) {
        return ++notices;
    }};
    const std::string line = "Failed to connect to system bus: No such file or directory\n";
    int32_t count = 9;
    bdbus_hpm1_basic_rec record = {1, 2};
    const auto handle_changes = [](bool has_connection) {
        for (int32_t (*handle)() :
             {bdbus_upgrade_fpga_change_handle, bdbus_upgrade_bios_change_handle, bdbus_upgrade_nvram_change_handle}) {
            const stderr_capture said;
            const int32_t result = handle();
            EXPECT_EQ(has_connection ? result > 0 : result == -ENOTCONN, true) << result;
            EXPECT_EQ(said.text(),
                      has_connection ? "" : "Failed to send signal: Transport endpoint is not connected\n");
        }
    };
    handle_changes(false);
    without_bus([&] {
        const stderr_capture said;
        bdbus_upgrade_version_update version = {};
        EXPECT_EQ(bdbus_upgrade_component_count(&count), -ENOENT);
        EXPECT_EQ(bdbus_hpm1_activate_fw(&record), -ENOENT);
        EXPECT_EQ(bdbus_upgrade_bios_set_version(&version), -ENOENT);
        EXPECT_EQ(bdbus_upgrade_bmc_sensors_ready(), -ENOENT);
        EXPECT_EQ(bdbus_upgrade_signal_process(), -ENOENT);
        EXPECT_EQ(said.text(), line + line + line + line + line);
    });
    handle_changes(false);
    EXPECT_EQ(count, 9);
    EXPECT_EQ(record.picmg_id, 1);
    EXPECT_EQ(record.completion_code, 2);

    bdbus_upgrade_callbacks(&table);
    EXPECT_EQ(bdbus_upgrade_signal_process(), 0);
    handle_changes(true);
    simulator::emit({{"service", "Upgrade1"}, {"member", "BmcReset"}});
    EXPECT_TRUE(eventually([] {
        EXPECT_EQ(bdbus_upgrade_signal_process(), 0);
        return notices > 0;
    }));
    for (int i = 0; i < 100; i++) {
        bdbus_upgrade_signal_process();
    }
    EXPECT_EQ(notices, 1) << "one subscription, however often the open failed";
    bdbus_upgrade_callbacks(nullptr);
}
