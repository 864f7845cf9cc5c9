// SPDX-License-Identifier: LGPL-2.1-or-later
#include "support/capture.hpp"
#include "support/simulator.hpp"

#include <bdbus/storectrl.h>

#include <algorithm>
#include <cstring>
#include <numeric>
#include <set>

using raid = controller_test;

namespace
{

enum form { one_step, built };

/** One function of the family: what it sends, and the reply that it is to read. */
struct raid_function {
    const char *member;
    form how;
    const char *in;
    json args;
    const char *out;
    json reply;
    std::function<json()> call; // gives the result's fields in the order of the reply, and then those that stay zero
};

json numbers(uint64_t first, size_t count)
{
    std::vector<uint64_t> made(count);
    std::iota(made.begin(), made.end(), first);
    return made;
}

json bytes(size_t length, const std::string &hex)
{
    return {{"length", length}, {"hex", hex}};
}

template <typename List, typename Ids>
json progress_items(const List &list, const Ids &ids)
{
    json items = {list.count, ids, list.sizes};
    for (const auto &column : list.progress) {
        items.push_back(column);
    }
    items.push_back(list.status);
    return items;
}

constexpr uint64_t wide = 0x1122334455667788;

bdbus_storectrl_vd new_drive()
{
    return {1, 2, 3, 4, wide, "name\0hidden", 5, 6, 7, 8, 9, 10, 11, 12, 13, 99, 3, {0x0203, 4, 0xFFFD, 8}};
}

class function_table
{
public:
    function_table()
    {
        add_queries();
        add_operations();
    }

    std::vector<raid_function> all;

private:
    void add_queries();
    void add_operations();

    void list(const char *member, const char *out, json reply, std::function<json()> call)
    {
        query(member, one_step, "", json::array(), out, std::move(reply), std::move(call));
    }

    void query(const char *member, form how, const char *in, json args, const char *out, json reply,
               std::function<json()> call)
    {
        all.push_back({member, how, in, std::move(args), out, std::move(reply), std::move(call)});
    }

    template <typename... Parameters, typename... Given>
    void operation(const char *member, form how, const char *in, json args, int32_t (*function)(Parameters...),
                   const Given &...given)
    {
        const int32_t answer = INT32_MIN + static_cast<int32_t>(all.size());
        query(member, how, in, std::move(args), "i", json::array({answer}),
              [=] { return json::array({function(static_cast<Parameters>(given)...)}); });
    }
};

void function_table::add_queries()
{
    const auto with_progress = [](json items) {
        for (uint64_t i = 1; i <= BDBUS_STORECTRL_PROGRESS_COLUMNS; i++) {
            items.push_back(numbers(10 * i, 3));
        }
        items.push_back(-7);
        return items;
    };
    list("GetVirtualDriveListWithProgressStatus", "yayatayayayayayayayi",
         with_progress({3, numbers(1, 3), numbers(wide, 3)}), [] {
             const auto list = bdbus_storectrl_get_vd_list_w_progress_status();
             return progress_items(list, list.vd_ids);
         });
    list("GetPhysicalDriveListWithProgressStatus", "yaqatayayayayayayayi",
         with_progress({4, numbers(0x1234, 3), numbers(wide, 3)}), [] {
             const auto list = bdbus_storectrl_get_pd_list_w_progress_status();
             return progress_items(list, list.pd_ids);
         });
    // The count bounds nothing.
    list("GetVirtualDriveList", "yayati", {255, numbers(1, 3), numbers(wide, 2), 0x12345678}, [] {
        const auto list = bdbus_storectrl_get_virtual_drive_list();
        return json{list.count, list.vd_ids, list.sizes, list.status};
    });
    list("GetUnconfigDriveList", "yaqati", {0, numbers(0xFF01, 3), numbers(wide, 4), -1}, [] {
        const auto list = bdbus_storectrl_get_unconfig_drive_list();
        return json{list.count, list.pd_ids, list.sizes, list.status, list.reserved};
    });
    list("GetDriveGroupList", "yyayayyayayi",
         {1, 2, numbers(10, 3), numbers(20, 2), 3, numbers(30, 4), numbers(40, 1), 5}, [] {
             const auto list = bdbus_storectrl_get_drive_group_list();
             return json{list.head1, list.head2,   list.column1, list.column2,
                         list.head3, list.column3, list.column4, list.status};
         });
    list("GetHotSpareDriveList", "yyyaqayayi", {1, 2, 3, numbers(0x0405, 3), numbers(20, 2), numbers(30, 4), 5}, [] {
        const auto list = bdbus_storectrl_get_hot_spare_drive_list();
        return json{list.head1, list.head2, list.head3, list.pd_ids, list.column1, list.column2, list.status};
    });
    list("GetAvailableRaidLevel", "yayyayayayi",
         {1, numbers(10, 3), 2, numbers(20, 4), numbers(30, 5), numbers(40, 6), 5}, [] {
             const auto levels = bdbus_storectrl_get_available_raid_level();
             return json{levels.head1,   levels.column1, levels.head2, levels.column2,
                         levels.column3, levels.column4, levels.status};
         });
    query("GetMinPdNeeded", one_step, "yy", {8, 9}, "yi", {3, -4}, [] {
        const auto found = bdbus_storectrl_get_min_pd_needed({8, 9, 10, 11});
        return json{found.min_pd, found.status, found.param1, found.param2};
    });
    query("GetMaxAvailableSize", built, "yyyyaq", {1, 2, 3, 2, {0x0102, 0xFFFF}}, "ti", {wide, -4}, [] {
        const auto found = bdbus_storectrl_get_max_available_size({1, 2, 3, 2, {0x0102, 0xFFFF, 9}, 10, 11});
        return json{found.max_size, found.status,   found.param1, found.param2,
                    found.param3,   found.pd_count, found.pd_ids};
    });
    query("GetCtrlOOBInitState", one_step, "is", {-2, "a text"}, "yi", {3, -4}, [] {
        const auto found = bdbus_storectrl_get_ctrl_oob_init_state({-2, "a text\0hidden", 10, 11});
        return json{found.state, found.status, found.param, found.text[0]};
    });
    query("GetVirtualDriveInfo", one_step, "sy", {"", 200}, "ytyyyyyyyiyaq",
          {1, wide, 2, 3, 4, 5, 6, 7, 8, -9, 10, numbers(0x0B0C, 3)}, [] {
              const auto drive = bdbus_storectrl_get_virtual_drive_info({"", 200});
              return json{drive.param1,  drive.size,    drive.option1, drive.option2, drive.option3,  drive.option4,
                          drive.option5, drive.option6, drive.option9, drive.value,   drive.pd_count, drive.pd_ids,
                          drive.param2,  drive.param3,  drive.param4,  drive.text[0], drive.option7,  drive.option8};
          });
}

void function_table::add_operations()
{
    const bdbus_storectrl_locate_vd vds = {3, {0x0101, 2, 0xFFFF, 9}, {7, 8, 0xF9, 10}};
    const bdbus_storectrl_locate_pd pds = {3, {0x0102, 3, 0xFFFE, 9}, {4, 5, 0xF6, 10}};
    const json vd_ids = {0x0101, 2, 0xFFFF};
    const json pd_ids = {0x0102, 3, 0xFFFE};
    operation("ClearConfiguration", one_step, "", json::array(), bdbus_storectrl_clear_configuration);
    operation("AssignGlobalHotSpareDrive", one_step, "q", {0xFEDC}, bdbus_storectrl_assign_global_hot_spare_drive,
              0xFEDC);
    operation("RemoveGlobalHotSpareDrive", one_step, "q", {0x0102}, bdbus_storectrl_remove_global_hot_spare_drive,
              0x0102);
    operation("RemoveDedicatedHotSpareDrive", one_step, "q", {0x0304}, bdbus_storectrl_remove_dedicated_hot_spare_drive,
              0x0304);
    operation("AssignDedicatedHotSpareDrive", one_step, "yqy", {1, 0x0203, 4},
              bdbus_storectrl_assign_dedicated_hot_spare_drive, bdbus_storectrl_spare_target{1, 0x0203}, 4);
    operation("StartLocateVirtualDrive", built, "yaqay", {3, vd_ids, bytes(3, "0708f9")},
              bdbus_storectrl_start_locate_vd, vds);
    operation("StopLocateVirtualDrive", built, "yaq", {3, vd_ids}, bdbus_storectrl_stop_locate_vd, vds);
    operation("StartLocatePhysicalDrive", built, "yaqay", {3, pd_ids, bytes(3, "0405f6")},
              bdbus_storectrl_start_locate_pd, pds);
    operation("StopLocatePhysicalDrive", built, "yaq", {3, pd_ids}, bdbus_storectrl_stop_locate_pd, pds);
    operation("DeleteVirtualDrive", built, "yay", {2, bytes(2, "fe03")}, bdbus_storectrl_delete_virtual_drive,
              bdbus_storectrl_vd_ids{2, {0xFE, 3, 4}});
    operation("CreateVirtualDrive", built, "yyyytsyyyyyyyyyyaq",
              {1, 2, 3, 4, wide, "name", 5, 6, 7, 8, 9, 10, 11, 12, 13, 3, {0x0203, 4, 0xFFFD}},
              bdbus_storectrl_create_virtual_drive, new_drive());
}

const std::vector<raid_function> &functions()
{
    static const function_table table;
    return table.all;
}

/** The complete types of a signature of basic types and their arrays. */
std::vector<std::string> items_of(const std::string &signature)
{
    std::vector<std::string> items;
    for (size_t i = 0; i < signature.size(); i += items.back().size()) {
        items.push_back(signature.substr(i, signature[i] == 'a' ? 2 : 1));
    }
    return items;
}

/** What a failed read of an item prints. */
std::string unread(const raid_function &function, const std::string &item)
{
    const bool operation = strcmp(function.out, "i") == 0;
    return std::string(item.size() == 2                     ? "Failed to parse response message array item"
                       : function.how == built && operation ? "Failed to read message"
                                                            : "Failed to parse response message") +
           ": No such device or address\n";
}

/** Call a function that gets the first items of a reply: those and no others must be filled. */
void expect_reading(const raid_function &function, json reply, size_t items)
{
    SCOPED_TRACE(std::string(function.member) + ", items: " + std::to_string(items));
    const std::vector<std::string> types = items_of(function.out);
    reply.erase(reply.begin() + static_cast<long>(items), reply.end());
    const std::string signature =
        std::accumulate(types.begin(), types.begin() + static_cast<long>(items), std::string());
    simulator::answer("RAIDMgmt", function.member, signature.c_str(), reply);
    const stderr_capture said;
    const json result = function.call();
    EXPECT_EQ(said.text(), items == types.size() ? "" : unread(function, types[items]));
    ASSERT_GE(result.size(), types.size());
    for (size_t i = 0; i < result.size(); i++) {
        json expected = i < items ? reply[i] : json(0);
        if (result[i].is_array()) {
            expected = expected.is_array() ? expected : json::array();
            expected.get_ref<json::array_t &>().resize(result[i].size(), 0);
        }
        EXPECT_EQ(result[i], expected) << i;
    }
}

} // namespace

TEST_F(raid, sends_just_what_it_is_given_each_time_on_a_connection_of_its_own)
{
    ASSERT_EQ(functions().size(), 22U);
    std::set<std::string> senders;
    for (const raid_function &function : functions()) {
        function.call();
        EXPECT_EQ(simulator::last_call("RAIDMgmt"), json({function.member, function.in, function.args}));
        senders.insert(simulator::calls("RAIDMgmt").back()["sender"]);
    }
    EXPECT_EQ(senders.size(), 22U);
    EXPECT_EQ(simulator::calls("RAIDMgmt").size(), 22U);
}

TEST_F(raid, keeps_of_a_reply_what_comes_before_its_end)
{
    for (const raid_function &function : functions()) {
        for (size_t items = 0; items <= function.reply.size(); items++) {
            expect_reading(function, function.reply, items);
        }
    }
}

TEST_F(raid, takes_columns_of_any_length_into_their_room)
{
    for (const raid_function &function : functions()) {
        for (const size_t length : {0U, 8U, 9U, 64U, 65U, 128U, 129U, 5000U}) {
            std::vector<size_t> column;
            for (size_t i = 0; i < length; i++) {
                column.push_back(1 + i % 255);
            }
            json reply = function.reply;
            for (json &item : reply) {
                item = item.is_array() ? json(column) : item;
            }
            expect_reading(function, reply, reply.size());
        }
    }
}

TEST_F(raid, sends_no_more_than_a_record_holds)
{
    const auto sent_by = [](const auto & /*result*/) {
        return simulator::last_call("RAIDMgmt")[2];
    };
    const json entries = numbers(0x0200, 128);
    const std::string zeros(128, '0'); // at most 64 bytes of an array are shown
    bdbus_storectrl_locate_pd pds = {129, {}, {}};
    std::copy(entries.begin(), entries.end(), pds.pd_ids);
    EXPECT_EQ(sent_by(bdbus_storectrl_start_locate_pd(pds)), json({128, entries, bytes(128, zeros)}));
    EXPECT_EQ(sent_by(bdbus_storectrl_start_locate_pd({0, {1}, {2}})), json({0, json::array(), bytes(0, "")}));
    EXPECT_EQ(sent_by(bdbus_storectrl_stop_locate_vd({255, {}, {}})), json({64, std::vector<int>(64)}));
    EXPECT_EQ(sent_by(bdbus_storectrl_delete_virtual_drive({65, {}})), json({64, bytes(64, zeros)}));

    bdbus_storectrl_max_size size = {1, 2, 3, 200, {}, 0, 0};
    std::copy(entries.begin(), entries.end(), size.pd_ids);
    EXPECT_EQ(sent_by(bdbus_storectrl_get_max_available_size(size)), json({1, 2, 3, 128, entries}));

    bdbus_storectrl_vd drive = {};
    memset(&drive, 0xFF, sizeof(drive));
    memset(drive.text, 'x', sizeof(drive.text));
    const json args = sent_by(bdbus_storectrl_create_virtual_drive(drive));
    EXPECT_EQ(json({args[5], args[15], args[16].size()}), json({std::string(16, 'x'), 128, 128}));

    bdbus_storectrl_vd_query query = {};
    memset(&query, 'y', sizeof(query));
    EXPECT_EQ(sent_by(bdbus_storectrl_get_virtual_drive_info(query)), json({std::string(16, 'y'), 'y'}));
    bdbus_storectrl_oob_init state = {};
    memset(&state, 'z', sizeof(state));
    EXPECT_EQ(sent_by(bdbus_storectrl_get_ctrl_oob_init_state(state))[1], std::string(32, 'z'));
}
