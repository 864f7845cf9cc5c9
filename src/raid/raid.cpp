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

constinit bus_module raid_module;

int32_t raid_bus_acquire()
{
    return per_call_acquire(raid_module, connect_text);
}

void raid_bus_release()
{
    per_call_release(raid_module);
}

using raid_hold = module_hold<raid_module, raid_bus_acquire, raid_bus_release>;

class raid_call : public module_call<raid_hold>
{
public:
    explicit raid_call(const call_texts &texts = raid_texts) : module_call(raid_service, texts) {}

    /** Read the reply into a record, field by field. The signature names what the fields hold, an array for a column.
     */
    template <signature Sig, typename Record, typename... Fields>
    void answer(Record &rec, Fields Record::*...fields)
    {
        static_assert(holds<Sig, Fields...>(), "the fields do not match the signature that they are read under");
        (read_field(rec.*fields), ...);
    }

    /** End a request with the first entries of its columns, send it and wait for the answer without limit. */
    template <typename... Columns>
    void send_columns(uint8_t count, const Columns &...columns)
    {
        (append_array(columns, count), ...);
        send(no_timeout);
    }

private:
    void read_field(uint8_t &value) { read<"y">(&value); }
    void read_field(int32_t &value) { read<"i">(&value); }
    void read_field(uint64_t &value) { read<"t">(&value); }

    template <typename Element, std::size_t Count>
    void read_field(Element (&column)[Count])
    {
        if constexpr (std::is_array_v<Element>) {
            for (auto &one : column) {
                read_field(one);
            }
        } else {
            read_column(column);
        }
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

/** A query without arguments, and the fields of its record in the order of the reply. */
template <signature Sig, typename Record, typename... Fields>
Record raid_query(const char *member, Fields Record::*...fields)
{
    Record rec = {};
    raid_call call;
    call.invoke<"">(member);
    call.answer<Sig>(rec, fields...);
    return rec;
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
    using record = bdbus_storectrl_vd_progress_list;
    return bdbus::raid_query<"yayatayayayayayayayi">("GetVirtualDriveListWithProgressStatus", &record::count,
                                                     &record::vd_ids, &record::sizes, &record::progress,
                                                     &record::status);
}

bdbus_storectrl_pd_progress_list bdbus_storectrl_get_pd_list_w_progress_status(void)
{
    using record = bdbus_storectrl_pd_progress_list;
    return bdbus::raid_query<"yaqatayayayayayayayi">("GetPhysicalDriveListWithProgressStatus", &record::count,
                                                     &record::pd_ids, &record::sizes, &record::progress,
                                                     &record::status);
}

bdbus_storectrl_vd_list bdbus_storectrl_get_virtual_drive_list(void)
{
    using record = bdbus_storectrl_vd_list;
    return bdbus::raid_query<"yayati">("GetVirtualDriveList", &record::count, &record::vd_ids, &record::sizes,
                                       &record::status);
}

bdbus_storectrl_unconfig_list bdbus_storectrl_get_unconfig_drive_list(void)
{
    using record = bdbus_storectrl_unconfig_list;
    return bdbus::raid_query<"yaqati">("GetUnconfigDriveList", &record::count, &record::pd_ids, &record::sizes,
                                       &record::status);
}

bdbus_storectrl_drive_group_list bdbus_storectrl_get_drive_group_list(void)
{
    using record = bdbus_storectrl_drive_group_list;
    return bdbus::raid_query<"yyayayyayayi">("GetDriveGroupList", &record::head1, &record::head2, &record::column1,
                                             &record::column2, &record::head3, &record::column3, &record::column4,
                                             &record::status);
}

bdbus_storectrl_hot_spare_list bdbus_storectrl_get_hot_spare_drive_list(void)
{
    using record = bdbus_storectrl_hot_spare_list;
    return bdbus::raid_query<"yyyaqayayi">("GetHotSpareDriveList", &record::head1, &record::head2, &record::head3,
                                           &record::pd_ids, &record::column1, &record::column2, &record::status);
}

bdbus_storectrl_raid_levels bdbus_storectrl_get_available_raid_level(void)
{
    using record = bdbus_storectrl_raid_levels;
    return bdbus::raid_query<"yayyayayayi">("GetAvailableRaidLevel", &record::head1, &record::column1, &record::head2,
                                            &record::column2, &record::column3, &record::column4, &record::status);
}

bdbus_storectrl_min_pd bdbus_storectrl_get_min_pd_needed(bdbus_storectrl_min_pd query)
{
    bdbus_storectrl_min_pd needed = {};
    bdbus::raid_call call;
    call.invoke<"yy">("GetMinPdNeeded", query.param1, query.param2);
    call.answer<"yi">(needed, &bdbus_storectrl_min_pd::min_pd, &bdbus_storectrl_min_pd::status);
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
    call.answer<"ti">(available, &bdbus_storectrl_max_size::max_size, &bdbus_storectrl_max_size::status);
    return available;
}

bdbus_storectrl_oob_init bdbus_storectrl_get_ctrl_oob_init_state(bdbus_storectrl_oob_init query)
{
    bdbus_storectrl_oob_init found = {};
    const bdbus::bounded_text text(query.text);
    bdbus::raid_call call;
    call.invoke<"is">("GetCtrlOOBInitState", query.param, text.c_str());
    call.answer<"yi">(found, &bdbus_storectrl_oob_init::state, &bdbus_storectrl_oob_init::status);
    return found;
}

bdbus_storectrl_vd bdbus_storectrl_get_virtual_drive_info(bdbus_storectrl_vd_query query)
{
    bdbus_storectrl_vd drive = {};
    const bdbus::bounded_text text(query.text);
    bdbus::raid_call call;
    call.invoke<"sy">("GetVirtualDriveInfo", text.c_str(), query.selector);
    using record = bdbus_storectrl_vd;
    call.answer<"ytyyyyyyyiyaq">(drive, &record::param1, &record::size, &record::option1, &record::option2,
                                 &record::option3, &record::option4, &record::option5, &record::option6,
                                 &record::option9, &record::value, &record::pd_count, &record::pd_ids);
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
