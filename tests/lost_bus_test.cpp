// SPDX-License-Identifier: LGPL-2.1-or-later
// A bus that goes away under connections that are open: in a process of its own, with a daemon of its own.
#include "support/capture.hpp"
#include "support/wait.hpp"

#include <bdbus/bdbus.h>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <ctime>

class lost_bus : public testing::Test
{
protected:
    void SetUp() override
    {
        int out[2] = {};
        ASSERT_EQ(pipe(out), 0);
        daemon_ = fork();
        if (daemon_ == 0) {
            dup2(out[1], STDOUT_FILENO);
            dup2(open("/dev/null", O_WRONLY), STDERR_FILENO);
            const std::string address = "--address=unix:abstract=bdbus-lost-bus-" + std::to_string(getpid());
            execlp("dbus-daemon", "dbus-daemon", "--session", "--nofork", "--nopidfile", address.c_str(),
                   "--print-address=1", nullptr);
            _exit(127);
        }
        close(out[1]);
        std::array<char, 256> line = {};
        const ssize_t got = read(out[0], line.data(), line.size() - 1);
        close(out[0]);
        ASSERT_GT(got, 1);
        setenv("DBUS_SYSTEM_BUS_ADDRESS", std::string(line.data(), static_cast<size_t>(got) - 1).c_str(), 1);
    }

    void TearDown() override
    {
        end(controller_);
        end(daemon_);
    }

    void end_daemon() { end(daemon_); }

    /** A simulated controller on this bus; it goes with the bus. */
    void start_controller()
    {
        controller_ = fork();
        if (controller_ == 0) {
            dup2(open("/dev/null", O_WRONLY), STDERR_FILENO);
            execl(getenv("BDBUS_SIM"), "bdbus-sim", nullptr);
            _exit(127);
        }
        const stderr_capture said; // until it is there
        int32_t count = 0;
        ASSERT_TRUE(eventually([&count] { return bdbus_upgrade_component_count(&count) >= 0; }));
        ASSERT_GT(count, 0);
    }

private:
    static void end(pid_t &child)
    {
        if (child > 0) {
            kill(child, SIGTERM);
            waitpid(child, nullptr, 0);
            child = -1;
        }
    }

    pid_t daemon_ = -1;
    pid_t controller_ = -1;
};

TEST_F(lost_bus, fails_every_later_call_with_its_line_and_blocks_nobody)
{
    const stderr_capture said;
    int32_t count = 5;
    uint32_t number = 5;
    EXPECT_EQ(bdbus_upgrade_component_count(&count), -EHOSTUNREACH) << "a bus without services";
    EXPECT_EQ(bdbus_config_get_unsigned("Firmware.Major", &number), 0x1000 | EHOSTUNREACH);
    end_daemon();

    const size_t before = said.text().size();
    for (int i = 0; i < 3; i++) {
        const int32_t result = bdbus_upgrade_component_count(&count);
        EXPECT_TRUE(result == -ECONNRESET || result == -ENOTCONN) << result;
        const int32_t status = bdbus_config_get_unsigned("Firmware.Major", &number);
        EXPECT_TRUE(status == (0x1000 | ECONNRESET) || status == (0x1000 | ENOTCONN)) << status;
        EXPECT_EQ(bdbus_upgrade_signal_process(), 0);
        EXPECT_EQ(bdbus_upgrade_bios_change_handle(), -ENOTCONN); // in silence
    }
    EXPECT_EQ(bdbus_abp_set_global_reset(1), 0);
    EXPECT_EQ(count, 5);
    EXPECT_EQ(number, 5U);
    const std::string text = said.text().substr(before);
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 4) << text;
    EXPECT_NE(text.find("Failed to connect to system bus: "), std::string::npos);
}

// BDBUS_IDLE_SECONDS makes it look for longer.
using lost_bus_sensors = lost_bus;

TEST_F(lost_bus_sensors, stay_readable_and_the_listener_idle)
{
    start_controller();
    ASSERT_EQ(bdbus_sdr_init(), 0);
    uint8_t reading = 0;
    ASSERT_EQ(bdbus_sdr_reading_get(1, &reading), 0);
    end_daemon();

    const stderr_capture said;
    const char *given = getenv("BDBUS_IDLE_SECONDS");
    const int seconds = given != nullptr ? atoi(given) : 1;
    EXPECT_TRUE(eventually([seconds] { // what it did when it lost the bus does not count
        const clock_t before = clock();
        usleep(static_cast<useconds_t>(seconds) * 1'000'000);
        return clock() - before < CLOCKS_PER_SEC / 100 * seconds;
    }));
    const auto next = static_cast<uint8_t>(reading + 1);
    EXPECT_LT(bdbus_sdr_reading_set(1, next), 0);
    EXPECT_EQ(bdbus_sdr_reading_get(1, &reading), 0);
    EXPECT_EQ(reading, next);
    const std::string text = said.text();
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1) << text;
}
