// SPDX-License-Identifier: LGPL-2.1-or-later
// RAID management: eleven queries whose columns become records, eleven operations answered with one integer. A
// connection for each call.
#include "bus/call.hpp"
#include "bus/connection.hpp"

#include <bdbus/storectrl.h>

#include <algorithm>
#include <cstring>

namespace bdbus
{

namespace
{

constexpr service raid_service = {
    .name = "com.brisemont.RAIDMgmt",
    .path = "/com/brisemont/RAIDMgmt",
    .interface = "com.brisemont.RAIDMgmt",
};

constinit pthread_mutex_t raid_lock = PTHREAD_MUTEX_INITIALIZER;

class raid_call : call_report, call_connection, public call_frame
{
public:
    explicit raid_call(const call_texts &texts = raid_texts)
        : call_connection(raid_lock, *this), call_frame(*this, raid_service, texts, bus(), acquired())
    {
    }

    /** End a request with the first entries of its columns, send it and wait for the answer without limit. */
    template <typename... Columns>
    void send_columns(uint8_t count, const Columns &...columns)
    {
        (append_array(columns, count), ...);
        send(no_timeout);
    }
};

/** The entries that are sent of a record's column: as many as the caller says, and as there are. */
template <typename Element, size_t Capacity>
uint8_t entries_of(const Element (&)[Capacity], uint8_t count)
{
    static_assert(Capacity <= UINT8_MAX);
    return static_cast<uint8_t>(std::min<size_t>(count, Capacity));
}

/** A record's text, ended where its room ends if not before. */
template <size_t Room>
class bounded_text
{
public:
    explicit bounded_text(const char (&field)[Room]) { memcpy(text_, field, Room); }
    [[nodiscard]] const char *c_str() const { return text_; }

private:
    char text_[Room + 1] = {};
};

/** The two lists that differ in the width of their ids and in their capacity. */
template <typename List, typename Ids>
void read_progress_list(raid_call &call, List &list, Ids &ids)
{
    call.read<"y">(&list.count);
    call.read_column(ids);
    call.read_column(list.sizes);
    for (auto &column : list.progress) {
        call.read_column(column);
    }
    call.read<"i">(&list.status);
}

/** An operation on plain values. */
template <signature Sig, typename... Values>
int32_t raid_operation(const char *member, Values... values)
{
    raid_call call;
    int32_t answer = 0;
    call.invoke<Sig>(member, values...);
    call.read<"i">(&answer);
    return answer;
}

/** An operation on the first entries of columns, whose number goes before them. */
template <typename First, typename... Columns>
int32_t raid_operation_on(const char *member, uint8_t count, const First &first, const Columns &...columns)
{
    const uint8_t entries = entries_of(first, count);
    raid_call call(raid_request_texts);
    int32_t answer = 0;
    call.create(member);
    call.append<"y">(entries);
    call.send_columns(entries, first, columns...);
    call.read<"i">(&answer);
    return answer;
}

} // namespace

} // namespace bdbus

bdbus_storectrl_vd_progress_list bdbus_storectrl_get_vd_list_w_progress_status(void)
{
    bdbus_storectrl_vd_progress_list list = {};
    bdbus::raid_call call;
    call.invoke<"">("GetVirtualDriveListWithProgressStatus");
    bdbus::read_progress_list(call, list, list.vd_ids);
    return list;
}

bdbus_storectrl_pd_progress_list bdbus_storectrl_get_pd_list_w_progress_status(void)
{
    bdbus_storectrl_pd_progress_list list = {};
    bdbus::raid_call call;
    call.invoke<"">("GetPhysicalDriveListWithProgressStatus");
    bdbus::read_progress_list(call, list, list.pd_ids);
    return list;
}

bdbus_storectrl_vd_list bdbus_storectrl_get_virtual_drive_list(void)
{
    bdbus_storectrl_vd_list list = {};
    bdbus::raid_call call;
    call.invoke<"">("GetVirtualDriveList");
    call.read<"y">(&list.count);
    call.read_column(list.vd_ids);
    call.read_column(list.sizes);
    call.read<"i">(&list.status);
    return list;
}

bdbus_storectrl_unconfig_list bdbus_storectrl_get_unconfig_drive_list(void)
{
    bdbus_storectrl_unconfig_list list = {};
    bdbus::raid_call call;
    call.invoke<"">("GetUnconfigDriveList");
    call.read<"y">(&list.count);
    call.read_column(list.pd_ids);
    call.read_column(list.sizes);
    call.read<"i">(&list.status);
    return list;
}

bdbus_storectrl_drive_group_list bdbus_storectrl_get_drive_group_list(void)
{
    bdbus_storectrl_drive_group_list list = {};
    bdbus::raid_call call;
    call.invoke<"">("GetDriveGroupList");
    call.read<"yy">(&list.head1, &list.head2);
    call.read_column(list.column1);
    call.read_column(list.column2);
    call.read<"y">(&list.head3);
    call.read_column(list.column3);
    call.read_column(list.column4);
    call.read<"i">(&list.status);
    return list;
}

bdbus_storectrl_hot_spare_list bdbus_storectrl_get_hot_spare_drive_list(void)
{
    bdbus_storectrl_hot_spare_list list = {};
    bdbus::raid_call call;
    call.invoke<"">("GetHotSpareDriveList");
    call.read<"yyy">(&list.head1, &list.head2, &list.head3);
    call.read_column(list.pd_ids);
    call.read_column(list.column1);
    call.read_column(list.column2);
    call.read<"i">(&list.status);
    return list;
}

bdbus_storectrl_raid_levels bdbus_storectrl_get_available_raid_level(void)
{
    bdbus_storectrl_raid_levels levels = {};
    bdbus::raid_call call;
    call.invoke<"">("GetAvailableRaidLevel");
    call.read<"y">(&levels.head1);
    call.read_column(levels.column1);
    call.read<"y">(&levels.head2);
    call.read_column(levels.column2);
    call.read_column(levels.column3);
    call.read_column(levels.column4);
    call.read<"i">(&levels.status);
    return levels;
}

bdbus_storectrl_min_pd bdbus_storectrl_get_min_pd_needed(bdbus_storectrl_min_pd query)
{
    bdbus_storectrl_min_pd needed = {};
    bdbus::raid_call call;
    call.invoke<"yy">("GetMinPdNeeded", query.param1, query.param2);
    call.read<"yi">(&needed.min_pd, &needed.status);
    return needed;
}

bdbus_storectrl_max_size bdbus_storectrl_get_max_available_size(bdbus_storectrl_max_size query)
{
    bdbus_storectrl_max_size available = {};
    const uint8_t entries = bdbus::entries_of(query.pd_ids, query.pd_count);
    bdbus::raid_call call;
    call.create("GetMaxAvailableSize");
    call.append<"yyyy">(query.param1, query.param2, query.param3, entries);
    call.send_columns(entries, query.pd_ids);
    call.read<"ti">(&available.max_size, &available.status);
    return available;
}

bdbus_storectrl_oob_init bdbus_storectrl_get_ctrl_oob_init_state(bdbus_storectrl_oob_init query)
{
    bdbus_storectrl_oob_init found = {};
    const bdbus::bounded_text text(query.text);
    bdbus::raid_call call;
    call.invoke<"is">("GetCtrlOOBInitState", query.param, text.c_str());
    call.read<"yi">(&found.state, &found.status);
    return found;
}

bdbus_storectrl_vd bdbus_storectrl_get_virtual_drive_info(bdbus_storectrl_vd_query query)
{
    bdbus_storectrl_vd drive = {};
    const bdbus::bounded_text text(query.text);
    bdbus::raid_call call;
    call.invoke<"sy">("GetVirtualDriveInfo", text.c_str(), query.selector);
    call.read<"ytyyyyyyyiy">(&drive.param1, &drive.size, &drive.option1, &drive.option2, &drive.option3, &drive.option4,
                             &drive.option5, &drive.option6, &drive.option9, &drive.value, &drive.pd_count);
    call.read_column(drive.pd_ids);
    return drive;
}

int32_t bdbus_storectrl_clear_configuration(void)
{
    return bdbus::raid_operation<"">("ClearConfiguration");
}

int32_t bdbus_storectrl_assign_global_hot_spare_drive(uint16_t pd_id)
{
    return bdbus::raid_operation<"q">("AssignGlobalHotSpareDrive", pd_id);
}

int32_t bdbus_storectrl_remove_global_hot_spare_drive(uint16_t pd_id)
{
    return bdbus::raid_operation<"q">("RemoveGlobalHotSpareDrive", pd_id);
}

int32_t bdbus_storectrl_remove_dedicated_hot_spare_drive(uint16_t pd_id)
{
    return bdbus::raid_operation<"q">("RemoveDedicatedHotSpareDrive", pd_id);
}

int32_t bdbus_storectrl_assign_dedicated_hot_spare_drive(bdbus_storectrl_spare_target target, uint8_t param2)
{
    return bdbus::raid_operation<"yqy">("AssignDedicatedHotSpareDrive", target.param1, target.pd_id, param2);
}

int32_t bdbus_storectrl_start_locate_vd(bdbus_storectrl_locate_vd drives)
{
    return bdbus::raid_operation_on("StartLocateVirtualDrive", drives.count, drives.ids, drives.values);
}

int32_t bdbus_storectrl_stop_locate_vd(bdbus_storectrl_locate_vd drives)
{
    return bdbus::raid_operation_on("StopLocateVirtualDrive", drives.count, drives.ids);
}

int32_t bdbus_storectrl_start_locate_pd(bdbus_storectrl_locate_pd drives)
{
    return bdbus::raid_operation_on("StartLocatePhysicalDrive", drives.count, drives.pd_ids, drives.values);
}

int32_t bdbus_storectrl_stop_locate_pd(bdbus_storectrl_locate_pd drives)
{
    return bdbus::raid_operation_on("StopLocatePhysicalDrive", drives.count, drives.pd_ids);
}

int32_t bdbus_storectrl_delete_virtual_drive(bdbus_storectrl_vd_ids drives)
{
    return bdbus::raid_operation_on("DeleteVirtualDrive", drives.count, drives.vd_ids);
}

int32_t bdbus_storectrl_create_virtual_drive(bdbus_storectrl_vd drive)
{
    int32_t answer = 0;
    const bdbus::bounded_text text(drive.text);
    const uint8_t entries = bdbus::entries_of(drive.pd_ids, drive.pd_count);
    bdbus::raid_call call(bdbus::raid_request_texts);
    call.create("CreateVirtualDrive");
    call.append<"yyyytsyyyyyyyyyy">(drive.param1, drive.param2, drive.param3, drive.param4, drive.size, text.c_str(),
                                    drive.option1, drive.option2, drive.option3, drive.option4, drive.option5,
                                    drive.option6, drive.option7, drive.option8, drive.option9, entries);
    call.send_columns(entries, drive.pd_ids);
    call.read<"i">(&answer);
    return answer;
}
