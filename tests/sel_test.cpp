// SPDX-License-Identifier: LGPL-2.1-or-later
#include "support/capture.hpp"
#include "support/simulator.hpp"
#include "support/wait.hpp"

#include <bdbus/sel.h>

#include <dlfcn.h>
#include <systemd/sd-bus.h>

#include <atomic>
#include <cerrno>
#include <cstring>

using sel = controller_test;

static std::atomic<bool> out_of_memory;

extern "C" int sd_bus_message_append_array(sd_bus_message *message, char type, const void *data, size_t size)
{
    static const auto real =
        reinterpret_cast<decltype(&sd_bus_message_append_array)>(dlsym(RTLD_NEXT, "sd_bus_message_append_array"));
    return out_of_memory ? -ENOMEM : real(message, type, data, size);
}

static void answer(const char *member, const char *signature, const json &values)
{
    simulator::fault({{"service", "SystemEventLog1"},
                      {"member", member},
                      {"count", 1},
                      {"reply", {{"signature", signature}, {"values", values}}}});
}

/** The last call, as [member, signature, arguments]. */
static json last_call()
{
    const json call = simulator::calls("SystemEventLog1").back();
    EXPECT_EQ(call["path"], "/com/brisemont/SystemEventLog1");
    EXPECT_EQ(call["interface"], "com.brisemont.SystemEventLog1");
    return {call["member"], call["signature"], call["args"]};
}

TEST_F(sel, sends_and_reads_every_call_field_by_field)
{
    bdbus_sel_new_entry added = {{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16}, 0, 0};
    answer("AddSelEntry", "yq", {0xC4, 0x1234});
    EXPECT_GT(bdbus_sel_add_entry(&added), 0) << "a completion code is no failure";
    EXPECT_EQ(added.completion_code, 0xC4);
    EXPECT_EQ(added.record_id, 0x1234);
    EXPECT_EQ(last_call()[1], "ay");
    EXPECT_EQ(last_call()[2][0], json({{"length", 16}, {"hex", "0102030405060708090a0b0c0d0e0f10"}}));

    bdbus_sel_clear_request clear = {0xBEEF, {'C', 'L', 'R'}, 0xAA, 0, 0};
    answer("ClearSel", "yy", {1, 2});
    EXPECT_GT(bdbus_sel_clear(&clear), 0);
    EXPECT_EQ(clear.completion_code, 1);
    EXPECT_EQ(clear.erase_progress, 2);
    EXPECT_EQ(last_call(), json({"ClearSel", "qyyyy", {0xBEEF, 'C', 'L', 'R', 0xAA}}));

    bdbus_sel_alloc_info allocation = {};
    answer("GetSelAllocInfo", "yqqqqy", {1, 0x0203, 0x0405, 0x0607, 0x0809, 10});
    EXPECT_GT(bdbus_sel_get_alloc_info(&allocation), 0);
    EXPECT_EQ(json({allocation.completion_code, allocation.possible_units, allocation.unit_size, allocation.free_units,
                    allocation.largest_free_block, allocation.max_record_size}),
              json({1, 0x0203, 0x0405, 0x0607, 0x0809, 10}));
    EXPECT_EQ(last_call(), json({"GetSelAllocInfo", "", json::array()}));

    bdbus_sel_info info = {};
    answer("GetSelInfo", "yyqquuy", {1, 2, 3, 4, 0xFFFFFFFF, 0x20000000, 7});
    EXPECT_EQ(bdbus_sel_get_info(&info), 1);
    EXPECT_EQ(json({info.completion_code, info.version, info.entries, info.free_space, info.addition_timestamp,
                    info.erase_timestamp, info.operation_support}),
              json({1, 2, 3, 4, 0xFFFFFFFF, 0x20000000, 7}));

    bdbus_sel_reservation reservation = {};
    answer("ReserveSel", "yq", {5, 0x6789});
    EXPECT_GT(bdbus_sel_reserve(&reservation), 0);
    EXPECT_EQ(reservation.completion_code, 5);
    EXPECT_EQ(reservation.reservation_id, 0x6789);
}

TEST_F(sel, takes_an_entry_into_its_room_whatever_its_length)
{
    for (const size_t length : {0U, 5U, 16U, 17U, 3000U}) {
        answer("GetSelEntry", "yqay", {3, 0x0102, std::vector<int>(length, 0x5A)});
        struct {
            bdbus_sel_entry entry;
            uint8_t behind[4];
        } room;
        memset(&room, 0xEE, sizeof(room));
        room.entry.reservation_id = 0x1111;
        room.entry.record_id = 0x2222;
        room.entry.offset = 3;
        room.entry.bytes_to_read = 0xFF;
        EXPECT_GT(bdbus_sel_get_entry(&room.entry), 0);
        EXPECT_EQ(room.entry.completion_code, 3);
        EXPECT_EQ(room.entry.next_record_id, 0x0102);
        for (size_t i = 0; i < sizeof(room.entry.data); i++) {
            EXPECT_EQ(room.entry.data[i], i < length ? 0x5A : 0xEE) << length;
        }
        EXPECT_EQ(json(room.behind), json({0xEE, 0xEE, 0xEE, 0xEE}));
        EXPECT_EQ(last_call(), json({"GetSelEntry", "qqyy", {0x1111, 0x2222, 3, 0xFF}}));
    }
}

TEST_F(sel, tells_every_failure_and_goes_on)
{
    expect_every_failure_is_told({.service = "SystemEventLog1",
                                  .member = "GetSelInfo",
                                  .call =
                                      [] {
                                          bdbus_sel_info info = {9, 9, 9, 9, 9, 9, 9};
                                          const bool read = bdbus_sel_get_info(&info) > 0;
                                          EXPECT_TRUE(read || info.operation_support == 9);
                                          return read;
                                      },
                                  .issue_text = "Failed to issue method call",
                                  .prints_error_text = true,
                                  .parse_text = "Failed to parse response message"});
    expect_every_failure_is_told({.service = "SystemEventLog1",
                                  .member = "AddSelEntry",
                                  .call =
                                      [] {
                                          bdbus_sel_new_entry entry = {};
                                          return bdbus_sel_add_entry(&entry) > 0;
                                      },
                                  .issue_text = "Failed to issue method call",
                                  .prints_error_text = true,
                                  .parse_text = "Failed to parse response message"});
    answer("GetSelEntry", "yq", {0x31, 7});
    bdbus_sel_entry entry = {};
    const stderr_capture said;
    EXPECT_LT(bdbus_sel_get_entry(&entry), 0);
    EXPECT_EQ(said.text(), "Failed to parse response message: No such device or address\n");
    EXPECT_EQ(entry.completion_code, 0x31);

    bdbus_sel_new_entry added = {};
    out_of_memory = true;
    const stderr_capture complaint;
    EXPECT_EQ(bdbus_sel_add_entry(&added), -ENOMEM);
    EXPECT_EQ(complaint.text(), "Failed to issue method call: Cannot allocate memory\n");
    out_of_memory = false;

    EXPECT_EQ(bdbus_sel_add_entry(nullptr), -EINVAL);
    EXPECT_EQ(bdbus_sel_clear(nullptr), -EINVAL);
    EXPECT_EQ(bdbus_sel_get_alloc_info(nullptr), -EINVAL);
    EXPECT_EQ(bdbus_sel_get_entry(nullptr), -EINVAL);
    EXPECT_EQ(bdbus_sel_get_info(nullptr), -EINVAL);
    EXPECT_EQ(bdbus_sel_reserve(nullptr), -EINVAL);
}

namespace
{
std::string heard;

template <char Letter>
int hear(sd_bus_message *signal, void *userdata, sd_bus_error * /*error*/)
{
    EXPECT_NE(signal, nullptr);
    EXPECT_EQ(userdata, nullptr);
    heard += Letter;
    return -EIO; // means nothing
}

void process(size_t expected)
{
    EXPECT_TRUE(eventually([expected] {
        EXPECT_EQ(bdbus_sel_event_process(), 0);
        return heard.size() >= expected;
    }));
    for (int i = 0; i < 100; i++) {
        EXPECT_EQ(bdbus_sel_event_process(), 0);
    }
}
} // namespace

TEST_F(sel, delivers_notices_one_a_call_to_their_slots)
{
    bdbus_sel_callback_table table = {hear<'a'>, hear<'c'>, nullptr};
    const auto emit = [](const char *member) {
        simulator::emit({{"service", "SystemEventLog1"}, {"member", member}});
    };
    bdbus_sel_event_process();
    process(0);
    emit("SelFull"); // no table
    process(0);
    EXPECT_EQ(bdbus_sel_event_callbacks(&table), 0);
    for (const char *member : {"SelFull", "SelCleared", "SelAlmostFull", "SelCleared"}) {
        emit(member);
    }
    process(3);
    EXPECT_EQ(heard, "cac");

    table.sel_full = hear<'f'>;
    for (int i = 0; i < 3; i++) {
        emit("SelFull");
    }
    bdbus_sel_info info = {};
    bdbus_sel_get_info(&info); // its reply brings the notices with it: they wait in the queue
    heard.clear();
    for (size_t i = 1; i <= 3; i++) {
        EXPECT_EQ(bdbus_sel_event_process(), 0);
        EXPECT_EQ(heard.size(), i);
    }
    bdbus_sel_event_callbacks(nullptr);
}
