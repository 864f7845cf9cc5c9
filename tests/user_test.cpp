// SPDX-License-Identifier: LGPL-2.1-or-later
#include "support/capture.hpp"
#include "support/simulator.hpp"

#include <bdbus/user.h>

#include <cerrno>
#include <cstring>
#include <numeric>

using user = controller_test;

namespace
{

bdbus_authlog_request counted_request()
{
    bdbus_authlog_request request = {};
    std::iota(std::begin(request.data), std::end(request.data), uint8_t{0xA0});
    request.completion_code = 9;
    request.value = 9;
    return request;
}

void answer(const char *member, const char *signature, const json &values)
{
    simulator::fault({{"service", "AuthLog1"},
                      {"member", member},
                      {"count", 1},
                      {"reply", {{"signature", signature}, {"values", values}}}});
}

/** The only call since the last look must have been this one, of 64 bytes that begin with these and end in zeros. */
void expect_sent(const char *member, std::string hex)
{
    const json calls = simulator::calls("AuthLog1");
    ASSERT_EQ(calls.size(), 1U);
    hex.resize(128, '0');
    json expected = {{"service", "AuthLog1"},
                     {"kind", "call"},
                     {"path", "/com/brisemont/AuthLog1"},
                     {"interface", "com.brisemont.AuthLog1"},
                     {"member", member},
                     {"signature", "ay"},
                     {"args", {{{"length", 64}, {"hex", hex}}}},
                     {"sender", calls[0]["sender"]}};
    EXPECT_EQ(calls[0], expected);
    simulator::clear_calls();
}

} // namespace

TEST_F(user, tells_that_there_is_no_bus_and_opens_once_there_is)
{
    bdbus_authlog_request request = counted_request();
    without_bus([&request] {
        const stderr_capture said;
        EXPECT_EQ(bdbus_user_authlog_add_entry(&request), -ENOENT);
        EXPECT_EQ(bdbus_user_event_process(), -ENOENT);
        const std::string line = "Failed to connect to system bus: No such file or directory\n";
        EXPECT_EQ(said.text(), line + line);
    });
    EXPECT_EQ(request.completion_code, 9);
    EXPECT_GT(bdbus_user_authlog_add_entry(&request), 0);
    for (int i = 0; i < 3; i++) {
        EXPECT_EQ(bdbus_user_event_process(), 0) << "also with nothing queued";
    }
}

TEST_F(user, sends_64_bytes_with_zeros_at_the_end_and_takes_the_reply)
{
    struct {
        bdbus_authlog_request request;
        uint8_t behind[64];
    } log = {counted_request(), {}};
    memset(log.behind, 0xEE, sizeof(log.behind)); // would show in a request that reads on
    const struct {
        int32_t (*call)(bdbus_authlog_request *);
        const char *member;
        const char *hex;
    } calls[] = {
        {bdbus_user_authlog_add_entry, "AuthLogAddEntry",
         "a0a1a2a3a4a5a6a7a8a9aaabacadaeafb0b1b2b3b4b5b6b7b8b9babbbcbdbebfc0c1c2c3c4c5c6"},
        {bdbus_user_authlog_del_entry, "AuthLogDelEntry", "a0a1"},
        {bdbus_user_authlog_clear, "AuthLogClear", "a2a3a4a5"},
    };
    for (const auto &[call, member, hex] : calls) {
        answer(member, "yq", {0xC1, 0xFEDC});
        EXPECT_EQ(call(&log.request), 1) << "a completion code is no failure";
        EXPECT_EQ(log.request.completion_code, 0xC1);
        EXPECT_EQ(log.request.value, 0xFEDC);
        expect_sent(member, hex);
    }

    bdbus_user_update update = {0x1234, 0xABCD, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17}, 0, 0};
    answer("UserUpdate", "yq", {7, 0x0102});
    EXPECT_EQ(bdbus_user_update_send_event(&update), 1);
    EXPECT_EQ(update.completion_code, 7);
    EXPECT_EQ(update.value, 0x0102);
    expect_sent("UserUpdate", "3412cdab0102030405060708090a0b0c0d0e0f1011");
}

TEST_F(user, tells_every_failure_and_goes_on)
{
    expect_every_failure_is_told({.service = "AuthLog1",
                                  .member = "UserUpdate",
                                  .call =
                                      [] {
                                          bdbus_user_update update = {1, 2, {}, 9, 9};
                                          const bool taken = bdbus_user_update_send_event(&update) > 0;
                                          EXPECT_TRUE(taken || (update.completion_code == 9 && update.value == 9));
                                          return taken;
                                      },
                                  .issue_text = "Failed to issue method call",
                                  .prints_error_text = true,
                                  .parse_text = "Failed to parse response message"});
    answer("AuthLogClear", "y", {0x31});
    bdbus_authlog_request request = counted_request();
    const stderr_capture said;
    EXPECT_EQ(bdbus_user_authlog_clear(&request), -ENXIO);
    EXPECT_EQ(said.text(), "Failed to parse response message: No such device or address\n");
    EXPECT_EQ(request.completion_code, 0x31);
    EXPECT_EQ(request.value, 9);

    simulator::clear_calls();
    EXPECT_EQ(bdbus_user_authlog_add_entry(nullptr), -EINVAL);
    EXPECT_EQ(bdbus_user_authlog_del_entry(nullptr), -EINVAL);
    EXPECT_EQ(bdbus_user_authlog_clear(nullptr), -EINVAL);
    EXPECT_EQ(bdbus_user_update_send_event(nullptr), -EINVAL);
    EXPECT_EQ(simulator::calls("AuthLog1"), json::array());
}
