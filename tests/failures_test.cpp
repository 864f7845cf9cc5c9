// SPDX-License-Identifier: LGPL-2.1-or-later
// What fails outside of the library, as each family tells it: no bus, and every way in which a service fails a call.
#include "support/calls.hpp"
#include "support/capture.hpp"
#include "support/simulator.hpp"
#include "support/timeout.hpp"
#include "support/wait.hpp"

#include <memory>

using failures = controller_test;
using no_bus = controller_test;

static const std::string no_such_bus = "Failed to connect to system bus: No such file or directory\n";

/** The handlers' notices, which go over the connection as it is. */
static void expect_change_handles(bool has_connection)
{
    for (int32_t (*handle)() :
         {bdbus_upgrade_fpga_change_handle, bdbus_upgrade_bios_change_handle, bdbus_upgrade_nvram_change_handle}) {
        const stderr_capture said;
        const int32_t result = handle();
        EXPECT_TRUE(has_connection ? result > 0 : result == -ENOTCONN) << result;
        EXPECT_EQ(said.text(), has_connection ? "" : "Failed to send signal: Transport endpoint is not connected\n");
    }
}

TEST_F(no_bus, is_told_each_time_and_opened_once_it_is_there)
{
    expect_change_handles(false);
    without_bus([] {
        const stderr_capture said;
        uint32_t value = 9;
        char text[] = "kept";
        bdbus_upgrade_version_update version = {};
        EXPECT_EQ(bdbus_config_get_unsigned("Firmware.Major", &value), 205);
        EXPECT_EQ(bdbus_config_set_unsigned("Generic_Index", 1), 205);
        EXPECT_EQ(bdbus_config_set_bool("Hpm2.Enabled", 1), 203);
        EXPECT_EQ(bdbus_config_get_bool("Hpm2.Enabled"), 0);
        for (const int32_t result :
             {bdbus_upgrade_bios_set_version(&version), bdbus_upgrade_bmc_sensors_ready(),
              bdbus_upgrade_signal_process(), bdbus_user_event_process(), bdbus_rstorage_disk_get_domain(3, text, 5)}) {
            EXPECT_EQ(result, -ENOENT);
        }
        std::string expected = "Failed to get property Domain: No such file or directory\n";
        for (int i = 0; i < 5; i++) {
            expected.insert(0, no_such_bus);
        }
        EXPECT_EQ(said.text(), expected);
        EXPECT_STREQ(text, "kept");
        EXPECT_EQ(value, 9U);
    });
    expect_change_handles(false);

    simulator::set({{"bypass", {{"answer", 5}}}});
    for (const sample_call &call : sample_calls) {
        SCOPED_TRACE(call.name);
        const stderr_capture said;
        without_bus([&call] { EXPECT_LT(call.make(), 0); });
        EXPECT_EQ(call.make(), 0);
        EXPECT_EQ(said.text().starts_with(no_such_bus + call.property_line), call.prints) << said.text();
    }
    expect_change_handles(true);
}

// After the test above.
TEST_F(no_bus, leaves_one_subscription_however_often_the_open_failed)
{
    static int notices;
    static const bdbus_upgrade_callback_table table = {.bmc_reset = [](sd_bus_message *, void *, sd_bus_error *) {
        return ++notices;
    }};
    bdbus_upgrade_callbacks(&table);
    bdbus_upgrade_signal_process();
    simulator::emit({{"service", "Upgrade1"}, {"member", "BmcReset"}});
    EXPECT_TRUE(eventually([] { return bdbus_upgrade_signal_process() == 0 && notices > 0; }));
    for (int i = 0; i < 100; i++) {
        bdbus_upgrade_signal_process();
    }
    EXPECT_EQ(notices, 1);
    bdbus_upgrade_callbacks(nullptr);
}

namespace
{

/** What a failed call prints before the reason. */
struct words {
    std::string issue;      // of a call that got no reply, or an error
    bool prints_error_text; // or the errno text
    std::string parse;      // of a reply that cannot be read
    bool has_limit = true;  // of the time that it waits for a reply
};

const words plain = {"Failed to issue method call", true, "Failed to parse response message"};
const words built = {"Failed bus call", false, plain.parse, false};
const words built_query = {"Failed to bus call", false, plain.parse, false}; // of RAID management
const words built_operation = {"Failed to bus call", false, "Failed to read message", false};
const words mount = {"failed to issue method call", true, "failed to parse response message"};

words property(const std::string &name)
{
    return {"Failed to get property " + name, false, "Failed to get property " + name};
}

struct outcome {
    bool succeeded;
    bool is_untouched = true; // what a call that succeeds would have written
};

struct failing_call {
    const char *service;
    const char *member;
    words told;
    outcome (*make)();
};

const failing_call failing_calls[] = {
    {"AdvancedBypass", "SetPermanentBypass", plain,
     [] {
         return outcome{bdbus_abp_set_permanent_bypass(1, 2) == 5};
     }},
    {"Upgrade1", "QueryRollbackStatus", plain,
     [] {
         bdbus_hpm1_rollback_status_rec record = {0, 8, 9};
         return outcome{bdbus_hpm1_query_rollback_status(&record) > 0, record.rollback_status == 9};
     }},
    {"Upgrade1", "UploadFirmwareBlock", built,
     [] {
         bdbus_hpm1_upload_block_rec record = {};
         return outcome{bdbus_hpm1_upload_fw_block(&record) > 0};
     }},
    {"Upgrade1", "FpgaVersion", property("FpgaVersion"),
     [] {
         uint8_t version[BDBUS_UPGRADE_VERSION_MAX] = {0xEE};
         return outcome{bdbus_upgrade_fpga_get_version(version) > 0, version[0] == 0xEE};
     }},
    {"Upgrade1", "NvramRollbackFlag", property("NvramRollbackFlag"),
     [] {
         int32_t flag = 77;
         return outcome{bdbus_upgrade_nvram_get_rollback_flag(&flag) == 0, flag == 77};
     }},
    {"Upgrade1", "SetBiosVersion", built,
     [] {
         bdbus_upgrade_version_update request = {{}, 77};
         return outcome{bdbus_upgrade_bios_set_version(&request) > 0, request.result == 77};
     }},
    {"SensorDataRepository1", "AddSdr", plain,
     [] {
         const uint8_t sdr[BDBUS_SDR_BYTES] = {};
         uint16_t id = 0xFFFE;
         return outcome{bdbus_sdr_add(sdr, sizeof(sdr), &id, 0) == 0, id == 0xFFFE};
     }},
    {"SystemEventLog1", "GetSelInfo", plain,
     [] {
         bdbus_sel_info info = {9, 9, 9, 9, 9, 9, 9};
         return outcome{bdbus_sel_get_info(&info) > 0, info.operation_support == 9};
     }},
    {"SystemEventLog1", "AddSelEntry", plain,
     [] {
         bdbus_sel_new_entry entry = {};
         return outcome{bdbus_sel_add_entry(&entry) > 0};
     }},
    {"RAIDMgmt", "GetVirtualDriveList", plain,
     [] {
         return outcome{bdbus_storectrl_get_virtual_drive_list().count == 3};
     }},
    {"RAIDMgmt", "GetMaxAvailableSize", built_query,
     [] {
         return outcome{bdbus_storectrl_get_max_available_size({0, 0, 0, 1, {267}, 0, 0}).max_size > 0};
     }},
    {"RAIDMgmt", "DeleteVirtualDrive", built_operation,
     [] {
         return outcome{bdbus_storectrl_delete_virtual_drive({1, {99}}) == 1};
     }},
    {"RStorage1", "ProcotolType", property("ProcotolType"),
     [] {
         uint8_t type = 77;
         return outcome{bdbus_rstorage_disk_get_proto_type(1, &type) == 0, type == 77};
     }},
    {"RStorage1", "ImageURL", property("ImageURL"),
     [] {
         char url[64] = "#";
         return outcome{bdbus_rstorage_disk_get_image_url(1, url, sizeof(url)) == 0, url[0] == '#'};
     }},
    {"RStorage1", "Status", plain,
     [] {
         int32_t answer = 0;
         return outcome{bdbus_rstorage_disk_get_status(1, 0, &answer) > 0};
     }},
    {"RStorage1", "Mount", mount,
     [] {
         int32_t answer = 77;
         return outcome{bdbus_rstorage_disk_mount(1, "", &answer, nullptr, 0) > 0, answer == 77};
     }},
    {"AuthLog1", "UserUpdate", plain,
     [] {
         bdbus_user_update update = {1, 2, {}, 9, 9};
         return outcome{bdbus_user_update_send_event(&update) > 0, update.value == 9};
     }},
};

/** Have the next call end so: it must print one line that begins like this, and the one after it must go through. */
void expect_told(const failing_call &subject, const json &action, const std::string &line)
{
    SCOPED_TRACE(action);
    simulator::fault(subject.service, subject.member, action);
    const stderr_capture said;
    {
        const auto timeout = action.contains("no_reply") ? std::make_unique<short_timeout>() : nullptr;
        const outcome failed = subject.make();
        EXPECT_FALSE(failed.succeeded);
        EXPECT_TRUE(failed.is_untouched);
    }
    const std::string text = said.text();
    EXPECT_EQ(text.substr(0, line.size()), line);
    EXPECT_EQ(text.find('\n') + 1, text.size()) << text;
    simulator::start(subject.service); // returns once the service is back
    EXPECT_TRUE(subject.make().succeeded);
    EXPECT_EQ(said.text(), text);
}

/** A call that waits without a limit: as long as others do not. */
void expect_patience(const failing_call &subject)
{
    const short_timeout of_other_calls;
    simulator::fault(subject.service, subject.member, {{"delay_ms", 300}});
    EXPECT_TRUE(subject.make().succeeded);
}

json reply(const char *signature, const json &values)
{
    return {{"reply", {{"signature", signature}, {"values", values}}}};
}

} // namespace

TEST_F(failures, are_told_in_one_line_and_pass)
{
    ASSERT_EQ(bdbus_sdr_init(), 0);
    simulator::set({{"bypass", {{"answer", 5}}}});
    for (const failing_call &subject : failing_calls) {
        SCOPED_TRACE(subject.member);
        const words &told = subject.told;
        const std::string denied = told.issue + ": Permission denied\n";
        const auto line = [&](const std::string &text) {
            return told.prints_error_text ? told.issue + ": " + text + '\n' : denied;
        };
        expect_told(subject, simulator::refusal("the text, verbatim: %s"), line("the text, verbatim: %s"));
        expect_told(subject, simulator::refusal("a\nb\r\x1b[2J\x7f\u009Bc"), line("a b  [2J   c"));
        for (const json &no_text : {json(nullptr), json(""), json(7)}) {
            expect_told(subject, simulator::refusal(no_text), denied);
        }
        expect_told(subject, {{"die", true}, {"return_after_ms", 0}}, told.issue + ": ");
        expect_told(subject, reply("d", {0.5}), told.parse + ": ");
        expect_told(subject, reply("", json::array()), told.parse + ": ");
        if (told.has_limit) {
            expect_told(subject, {{"no_reply", true}}, told.issue + ": ");
        } else {
            expect_patience(subject);
        }
    }
}
