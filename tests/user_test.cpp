// SPDX-License-Identifier: LGPL-2.1-or-later
#include "support/simulator.hpp"

#include <bdbus/user.h>

#include <numeric>

using user = controller_test;

/** What must be sent: 64 bytes that begin with these and end in zeros. */
static exchange sent(const char *member, std::string hex)
{
    hex.resize(128, '0');
    return {"AuthLog1", member, "ay", {{{"length", 64}, {"hex", hex}}}, "yq", {0xC1, 0xFEDC}};
}

TEST_F(user, sends_64_bytes_with_zeros_at_the_end_and_takes_the_reply)
{
    bdbus_authlog_request request = {};
    std::iota(std::begin(request.data), std::end(request.data), uint8_t{0xA0});
    const auto expect = [&request](const exchange &expected, int32_t (*call)(bdbus_authlog_request *)) {
        expect_exchange(expected, call, request, &bdbus_authlog_request::completion_code,
                        &bdbus_authlog_request::value);
    };
    expect(sent("AuthLogAddEntry", "a0a1a2a3a4a5a6a7a8a9aaabacadaeafb0b1b2b3b4b5b6b7b8b9babbbcbdbebfc0c1c2c3c4c5c6"),
           bdbus_user_authlog_add_entry);
    expect(sent("AuthLogDelEntry", "a0a1"), bdbus_user_authlog_del_entry);
    expect(sent("AuthLogClear", "a2a3a4a5"), bdbus_user_authlog_clear);

    const bdbus_user_update update = {
        0x1234, 0xABCD, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17}, 0, 0};
    expect_exchange(sent("UserUpdate", "3412cdab0102030405060708090a0b0c0d0e0f1011"), bdbus_user_update_send_event,
                    update, &bdbus_user_update::completion_code, &bdbus_user_update::value);
    EXPECT_EQ(bdbus_user_event_process(), 0) << "with nothing queued";
}
