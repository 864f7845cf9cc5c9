// SPDX-License-Identifier: LGPL-2.1-or-later
// How a kept connection begins, towards buses that do not get far.
#include "support/bare-bus.hpp"
#include "support/calls.hpp"
#include "support/capture.hpp"
#include "support/simulator.hpp"
#include "support/wait.hpp"

#include <thread>

using opening = controller_test;
using opening_refused = controller_test;

namespace
{

/** The calls that open a connection and keep it. */
std::vector<sample_call> openers()
{
    std::vector<sample_call> openers = {
        {"notices", "Upgrade1", "", true, bdbus_upgrade_signal_process},
        {"sensors", "SensorDataRepository1", "", true, bdbus_sdr_init},
    };
    std::ranges::copy_if(sample_calls, std::back_inserter(openers), &sample_call::keeps_connection);
    return openers;
}

/** So many matches it asks for at least, not counting those beyond two. */
int matches_of(const sample_call &call)
{
    const std::string service = call.service;
    return service == "AuthLog1" || service == "RStorage1" ? 0 : service == "Config1" ? 1 : 2;
}

} // namespace

TEST_F(opening, leaves_the_child_of_a_fork_meanwhile_free_to_try)
{
    const std::string timeout = getenv("SYSTEMD_BUS_TIMEOUT");
    setenv("SYSTEMD_BUS_TIMEOUT", "300ms", 1);
    const stderr_capture said;
    for (const sample_call &call : openers()) {
        const bare_bus bus(0, bare_bus::ending::silence);
        std::thread opener([&call] { EXPECT_LT(call.make(), 0); });
        EXPECT_TRUE(eventually([&bus] { return bus.connections() == 1; }));
        const int status = in_child([&call] {
            setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/bus", 1);
            return call.make() < 0 ? 0 : 1;
        });
        EXPECT_EQ(status, 0) << call.name;
        opener.join();
    }
    setenv("SYSTEMD_BUS_TIMEOUT", timeout.c_str(), 1);
}

TEST_F(opening, counts_once_greeted_and_each_match_answered)
{
    const std::string timeout = getenv("SYSTEMD_BUS_TIMEOUT");
    setenv("SYSTEMD_BUS_TIMEOUT", "100ms", 1);
    for (const int answers : {0, 1, 2}) {
        for (const auto end : {bare_bus::ending::hang_up, bare_bus::ending::silence}) {
            for (const sample_call &call : openers()) {
                if (answers > matches_of(call)) {
                    continue; // it was opened
                }
                SCOPED_TRACE(std::string(call.name) + ", after " + std::to_string(answers));
                const bare_bus bus(answers, end);
                const stderr_capture said;
                EXPECT_LT(call.make(), 0);
                EXPECT_EQ(bus.connections(), 1);
                const std::string text = said.text();
                EXPECT_EQ(text.starts_with("Failed to connect to system bus: "), call.prints) << text;
                EXPECT_EQ(std::ranges::count(text, '\n'), int{call.prints} + int{*call.property_line != '\0'}) << text;
            }
        }
    }
    setenv("SYSTEMD_BUS_TIMEOUT", timeout.c_str(), 1);
    for (const sample_call &call : openers()) {
        EXPECT_EQ(call.make(), 0) << call.name;
    }
}

TEST_F(opening_refused, matches_leave_a_connection_that_works)
{
    const bare_bus bus(bare_bus::refuse_matches, bare_bus::ending::silence);
    for (const sample_call &call : openers()) {
        const stderr_capture said;
        const bool talks = *call.member != '\0';
        EXPECT_EQ(call.make(), talks ? -EHOSTUNREACH : 0) << call.name;
        EXPECT_EQ(said.text().find("connect"), std::string::npos) << said.text();
    }
    EXPECT_EQ(bus.connections(), 7);
}
