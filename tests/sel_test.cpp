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

TEST_F(sel, sends_and_reads_every_call_field_by_field)
{
    const json none = json::array();
    using added = bdbus_sel_new_entry;
    expect_exchange({"SystemEventLog1",
                     "AddSelEntry",
                     "ay",
                     {{{"length", 16}, {"hex", "0102030405060708090a0b0c0d0e0f10"}}},
                     "yq",
                     {0xC4, 0x1234}},
                    bdbus_sel_add_entry, added{{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16}, 0, 0},
                    &added::completion_code, &added::record_id);
    using clear = bdbus_sel_clear_request;
    expect_exchange({"SystemEventLog1", "ClearSel", "qyyyy", {0xBEEF, 'C', 'L', 'R', 0xAA}, "yy", {1, 2}},
                    bdbus_sel_clear, clear{0xBEEF, {'C', 'L', 'R'}, 0xAA, 0, 0}, &clear::completion_code,
                    &clear::erase_progress);
    using allocation = bdbus_sel_alloc_info;
    expect_exchange({"SystemEventLog1", "GetSelAllocInfo", "", none, "yqqqqy", {1, 0x0203, 0x0405, 0x0607, 0x0809, 10}},
                    bdbus_sel_get_alloc_info, allocation{}, &allocation::completion_code, &allocation::possible_units,
                    &allocation::unit_size, &allocation::free_units, &allocation::largest_free_block,
                    &allocation::max_record_size);
    using info = bdbus_sel_info;
    expect_exchange({"SystemEventLog1", "GetSelInfo", "", none, "yyqquuy", {1, 2, 3, 4, 0xFFFFFFFF, 0x20000000, 7}},
                    bdbus_sel_get_info, info{}, &info::completion_code, &info::version, &info::entries,
                    &info::free_space, &info::addition_timestamp, &info::erase_timestamp, &info::operation_support);
    using reservation = bdbus_sel_reservation;
    expect_exchange({"SystemEventLog1", "ReserveSel", "", none, "yq", {5, 0x6789}}, bdbus_sel_reserve, reservation{},
                    &reservation::completion_code, &reservation::reservation_id);
}

TEST_F(sel, takes_an_entry_into_its_room_whatever_its_length)
{
    for (const size_t length : {0U, 5U, 16U, 17U, 3000U}) {
        simulator::answer("SystemEventLog1", "GetSelEntry", "yqay", {3, 0x0102, std::vector<int>(length, 0x5A)});
        bdbus_sel_entry room[2];
        memset(room, 0xEE, sizeof(room));
        bdbus_sel_entry expected[2];
        memset(expected, 0xEE, sizeof(expected));
        EXPECT_GT(bdbus_sel_get_entry(room), 0);
        expected[0].completion_code = 3;
        expected[0].next_record_id = 0x0102;
        memset(expected[0].data, 0x5A, std::min(length, sizeof(expected[0].data)));
        EXPECT_EQ(memcmp(room, expected, sizeof(room)), 0) << length;
        EXPECT_EQ(simulator::last_call("SystemEventLog1"), json({"GetSelEntry", "qqyy", {0xEEEE, 0xEEEE, 0xEE, 0xEE}}));
    }
    EXPECT_EQ(bdbus_sel_get_entry(nullptr), -EINVAL);
}

TEST_F(sel, tells_an_entry_that_breaks_off_and_one_that_cannot_be_built)
{
    simulator::answer("SystemEventLog1", "GetSelEntry", "yq", {0x31, 7});
    bdbus_sel_entry entry = {};
    bdbus_sel_new_entry added = {};
    const stderr_capture said;
    EXPECT_EQ(bdbus_sel_get_entry(&entry), -ENXIO);
    EXPECT_EQ(entry.completion_code, 0x31);
    out_of_memory = true;
    EXPECT_EQ(bdbus_sel_add_entry(&added), -ENOMEM);
    out_of_memory = false;
    EXPECT_EQ(said.text(), "Failed to parse response message: No such device or address\n"
                           "Failed to issue method call: Cannot allocate memory\n");
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
