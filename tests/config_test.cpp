// SPDX-License-Identifier: LGPL-2.1-or-later
#include "support/capture.hpp"
#include "support/simulator.hpp"
#include "support/wait.hpp"

#include <bdbus/config.h>

#include <atomic>
#include <cerrno>
#include <thread>

using strings = std::vector<std::string>;

class config : public controller_test
{
protected:
    void SetUp() override
    {
        controller_test::SetUp();
        drop_cache();
    }

    /** Have the service announce a change, and handle notices until a cached key is asked for again. */
    static void drop_cache()
    {
        bdbus_config_get_bool("Hpm3.Enabled");
        announce();
        simulator::clear_calls();
        EXPECT_TRUE(eventually([] {
            bdbus_config_get_bool("Hpm3.Enabled");
            return !simulator::calls("Config1").empty();
        }));
        simulator::clear_calls();
    }

    static void announce() { simulator::emit({{"service", "Config1"}, {"member", "PropertiesChanged"}}); }

    static int32_t major()
    {
        uint32_t value = 0;
        EXPECT_EQ(bdbus_config_get_unsigned("Firmware.Major", &value), 0);
        return static_cast<int32_t>(value);
    }
};

TEST_F(config, reads_every_key_from_its_own_interface_and_property)
{
    const json state = simulator::state()["config"];
    ASSERT_EQ(state.size(), 15U);
    for (const auto &[key, value] : state.items()) {
        simulator::clear_calls();
        SCOPED_TRACE(key);
        if (value.is_string()) {
            char text[64] = {};
            EXPECT_EQ(bdbus_config_get_string(key.c_str(), text, sizeof(text)), 0);
            EXPECT_EQ(text, value);
        } else {
            uint32_t number = 0xDEADBEEF;
            EXPECT_EQ(bdbus_config_get(key.c_str(), value.is_boolean() ? "b" : "u", &number), 0);
            EXPECT_EQ(number, value.get<uint32_t>());
        }
        if (key == "Hpm3.Enabled") {
            continue; // the fixture has it in the cache
        }
        const size_t dot = key.find('.');
        const json call = simulator::calls("Config1").at(0);
        EXPECT_EQ(call["kind"], "get");
        EXPECT_EQ(call["interface"],
                  dot == std::string::npos ? "com.brisemont.Config1" : "com.brisemont.Config1." + key.substr(0, dot));
        EXPECT_EQ(call["member"], dot == std::string::npos ? key : key.substr(dot + 1));
    }
}

TEST_F(config, asks_the_service_once_until_it_announces_a_change)
{
    const int32_t first = major();
    simulator::set({{"config", {{"Firmware.Major", first + 1}}}}); // the service announces it
    EXPECT_TRUE(eventually([first] { return major() == first + 1; }));
    EXPECT_EQ(simulator::calls("Config1").size(), 2U);
}

TEST_F(config, drops_every_key_for_one_notice_whatever_it_says)
{
    for (const auto &asked : {strings{"Major", "Enabled"}, strings{}}) {
        major();
        bdbus_config_get_bool("Hpm2.Enabled");
        EXPECT_EQ(simulator::members("Config1"), asked);
        simulator::clear_calls();
    }
    drop_cache();
    major();
    bdbus_config_get_bool("Hpm2.Enabled");
    EXPECT_EQ(simulator::members("Config1"), (strings{"Major", "Enabled"}));
}

TEST_F(config, sets_the_index_and_reads_it_back_from_the_service)
{
    uint32_t index = 0;
    EXPECT_EQ(bdbus_config_get_unsigned("Generic_Index", &index), 0);
    EXPECT_EQ(bdbus_config_set_unsigned("Generic_Index", 0xFFFFFFFF), 0);
    EXPECT_EQ(simulator::last_call("Config1"), json({"Generic_Index", "u", {0xFFFFFFFF}}));
    EXPECT_EQ(bdbus_config_get_unsigned("Generic_Index", &index), 0);
    EXPECT_EQ(index, 0xFFFFFFFF);
    EXPECT_EQ(simulator::calls("Config1").size(), 3U);
}

TEST_F(config, refuses_what_the_table_forbids_without_bus_traffic)
{
    uint32_t value = 77;
    EXPECT_EQ(bdbus_config_get("firmware.Major", "u", &value), 201);
    EXPECT_EQ(bdbus_config_get(nullptr, "u", &value), 201);
    EXPECT_EQ(bdbus_config_get("Firmware.Major", "s", &value, 4), 202);
    EXPECT_EQ(bdbus_config_get("Firmware.Major", "", &value), 202);
    EXPECT_EQ(bdbus_config_get("Firmware.Major", nullptr, &value), 202);
    EXPECT_EQ(bdbus_config_set("Nothing", "u", &value), 201);
    EXPECT_EQ(bdbus_config_set("Generic_Index", "b", &value), 202);
    EXPECT_EQ(bdbus_config_set("Generic.Device_Name", "s", "text"), 203);
    EXPECT_EQ(bdbus_config_set_bool("Hpm2.Enabled", 1), 203);
    EXPECT_EQ(bdbus_config_get_unsigned("Firmware.Major", nullptr), 0x1000 | EINVAL);
    EXPECT_EQ(bdbus_config_get_string("Generic.Device_Name", nullptr, 8), 0x1000 | EINVAL);
    EXPECT_EQ(bdbus_config_set("Generic_Index", "u", nullptr), 0x1000 | EINVAL);
    EXPECT_EQ(value, 77U);
    EXPECT_TRUE(simulator::calls("Config1").empty());

    EXPECT_EQ(bdbus_config_get("Firmware.Major", "ux", &value), 0) << "only the first character counts";
}

TEST_F(config, cuts_a_text_at_the_room_and_pads_a_shorter_one)
{
    simulator::set({{"config", {{"Generic.Device_Name", "abcdef"}}}});
    drop_cache();
    for (const uint32_t len : {0U, 3U, 6U, 9U}) {
        std::string room(10, 'x');
        EXPECT_EQ(bdbus_config_get_string("Generic.Device_Name", room.data(), len), 0);
        const std::string padded = std::string("abcdef") + std::string(4, '\0');
        EXPECT_EQ(room, padded.substr(0, len) + std::string(10 - len, 'x'));
    }
}

TEST_F(config, folds_every_failure_into_its_status_and_keeps_silent)
{
    const stderr_capture said;
    const auto get = [](const json &action) {
        simulator::fault("Config1", "Minor", action);
        uint32_t value = 0xAAAA5555;
        const int32_t status = bdbus_config_get_unsigned("Firmware.Minor", &value);
        EXPECT_TRUE(status == 0 || value == 0xAAAA5555);
        return status;
    };
    EXPECT_EQ(get(simulator::refusal()), 0x1000 | EACCES);
    EXPECT_EQ(get({{"reply", {{"signature", "s"}, {"values", {"text"}}}}}), 0x1000 | ENXIO);
    EXPECT_EQ(get({{"reply", {{"signature", ""}, {"values", json::array()}}}}), 0x1000 | ENXIO);
    EXPECT_EQ(get({{"delay_ms", 0}}), 0);
    simulator::fault("Config1", "Packet_Trace", simulator::refusal());
    EXPECT_EQ(bdbus_config_get_bool("Hpm2.Packet_Trace"), 0);

    simulator::stop("Config1");
    EXPECT_EQ(bdbus_config_set_unsigned("Generic_Index", 1), 0x1000 | EHOSTUNREACH);
    simulator::start("Config1");
    EXPECT_EQ(bdbus_config_set_unsigned("Generic_Index", 1), 0);
    EXPECT_EQ(said.text(), "");
}

TEST_F(config, stays_alive_and_truthful_under_threads_and_notices)
{
    std::atomic<bool> stop = false;
    std::atomic<int> wrong = 0;
    std::vector<std::jthread> threads;
    for (int i = 0; i < 3; i++) {
        threads.emplace_back([&stop, &wrong, i] {
            uint32_t last = 0;
            while (!stop) {
                uint32_t value = 0;
                if (bdbus_config_get_unsigned("Generic_Index", &value) != 0 || value < last) {
                    wrong++;
                }
                last = value;
                char name[16];
                bdbus_config_get_string("Generic.Device_Name", name, sizeof(name));
                if (i == 0) {
                    bdbus_config_set_unsigned("Generic_Index", value + 1);
                }
            }
        });
    }
    for (int i = 0; i < 200; i++) {
        announce();
    }
    stop = true;
    threads.clear(); // joins them
    EXPECT_EQ(wrong, 0);
}
