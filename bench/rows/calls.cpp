// SPDX-License-Identifier: LGPL-2.1-or-later
// Calls that are calls and no more: on a connection that is kept, and on one for each.
#include "bare.hpp"
#include "row.hpp"

#include <bdbus/bdbus.h>

#include <algorithm>
#include <cstring>

namespace bench
{

namespace
{

bool library_auth_log()
{
    static bdbus_authlog_request entry = {};
    return bdbus_user_authlog_add_entry(&entry) >= 0;
}

bool bare_auth_log()
{
    static uint8_t entry[39] = {};
    uint8_t bytes[64] = {};
    memcpy(bytes, entry, sizeof(entry));
    call add;
    uint8_t code = 0;
    uint16_t value = 0;
    return add.create(kept_bus(), auth_log, "AuthLogAddEntry") &&
           sd_bus_message_append_array(add.request, 'y', bytes, sizeof(bytes)) >= 0 && add.send(kept_bus()) &&
           sd_bus_message_read(add.reply, "yq", &code, &value) >= 0;
}

bool library_sel_reserve()
{
    bdbus_sel_reservation reservation = {};
    return bdbus_sel_reserve(&reservation) >= 0;
}

bool bare_sel_reserve()
{
    call reserve;
    uint8_t code = 0;
    uint16_t id = 0;
    return reserve.invoke(kept_bus(), sel, "ReserveSel", nullptr) &&
           sd_bus_message_read(reserve.reply, "yq", &code, &id) >= 0;
}

bool library_sel_entry()
{
    bdbus_sel_entry entry = {};
    entry.bytes_to_read = 0xFF;
    return bdbus_sel_get_entry(&entry) >= 0;
}

bool bare_sel_entry()
{
    call get;
    bdbus_sel_entry entry = {};
    const void *bytes = nullptr;
    size_t count = 0;
    if (!get.invoke(kept_bus(), sel, "GetSelEntry", "qqyy", 0, 0, 0, 0xFF) ||
        sd_bus_message_read(get.reply, "yq", &entry.completion_code, &entry.next_record_id) < 0 ||
        sd_bus_message_read_array(get.reply, 'y', &bytes, &count) < 0) {
        return false;
    }
    memcpy(entry.data, bytes, std::min(count, sizeof(entry.data)));
    return true;
}

bool library_sel_add()
{
    bdbus_sel_new_entry entry = {};
    return bdbus_sel_add_entry(&entry) >= 0;
}

bool bare_sel_add()
{
    call add;
    bdbus_sel_new_entry entry = {};
    return add.create(kept_bus(), sel, "AddSelEntry") &&
           sd_bus_message_append_array(add.request, 'y', entry.data, sizeof(entry.data)) >= 0 && add.send(kept_bus()) &&
           sd_bus_message_read(add.reply, "yq", &entry.completion_code, &entry.record_id) >= 0;
}

bool library_bypass()
{
    return bdbus_abp_set_global_reset(1) == 1;
}

bool bare_bypass()
{
    const own_bus bus;
    call set;
    int32_t answer = 0;
    return set.invoke(bus, bypass, "SetGlobalReset", "y", 1) && sd_bus_message_read(set.reply, "i", &answer) >= 0 &&
           answer == 1;
}

template <typename Element, size_t Capacity>
bool read_column(sd_bus_message *reply, char type, Element (&column)[Capacity])
{
    const void *data = nullptr;
    size_t bytes = 0;
    if (sd_bus_message_read_array(reply, type, &data, &bytes) < 0) {
        return false;
    }
    memcpy(column, data, std::min(bytes, sizeof(column)));
    return true;
}

bool library_raid_list()
{
    return bdbus_storectrl_get_virtual_drive_list().count > 0;
}

bool bare_raid_list()
{
    bdbus_storectrl_vd_list list = {};
    const own_bus bus;
    call get;
    return get.invoke(bus, raid, "GetVirtualDriveList", nullptr) &&
           sd_bus_message_read(get.reply, "y", &list.count) >= 0 && read_column(get.reply, 'y', list.vd_ids) &&
           read_column(get.reply, 't', list.sizes) && sd_bus_message_read(get.reply, "i", &list.status) >= 0 &&
           list.count > 0;
}

bool library_raid_drives()
{
    return bdbus_storectrl_get_pd_list_w_progress_status().count > 0;
}

bool bare_raid_drives()
{
    bdbus_storectrl_pd_progress_list list = {};
    const own_bus bus;
    call get;
    bool done = get.invoke(bus, raid, "GetPhysicalDriveListWithProgressStatus", nullptr) &&
                sd_bus_message_read(get.reply, "y", &list.count) >= 0 && read_column(get.reply, 'q', list.pd_ids) &&
                read_column(get.reply, 't', list.sizes);
    for (auto &column : list.progress) {
        done = done && read_column(get.reply, 'y', column);
    }
    return done && sd_bus_message_read(get.reply, "i", &list.status) >= 0 && list.count > 0;
}

constexpr bdbus_storectrl_max_size question = {0, 0, 0, 2, {267, 268}, 0, 0};

bool library_raid_size()
{
    return bdbus_storectrl_get_max_available_size(question).max_size > 0;
}

bool bare_raid_size()
{
    bdbus_storectrl_max_size found = {};
    const own_bus bus;
    call get;
    return get.create(bus, raid, "GetMaxAvailableSize") &&
           sd_bus_message_append(get.request, "yyyy", question.param1, question.param2, question.param3,
                                 question.pd_count) >= 0 &&
           sd_bus_message_append_array(get.request, 'q', question.pd_ids, question.pd_count * sizeof(uint16_t)) >= 0 &&
           get.send(bus, UINT64_MAX) && sd_bus_message_read(get.reply, "ti", &found.max_size, &found.status) >= 0 &&
           found.max_size > 0;
}

constexpr row rows[] = {
    {"auth-log", "authentication log, 64 bytes", library_auth_log, bare_auth_log, 1.02},
    {"sel-reserve", "event log: reserve", library_sel_reserve, bare_sel_reserve, 1.0},
    {"sel-entry", "event log: get entry", library_sel_entry, bare_sel_entry, 1.0},
    {"sel-add", "event log: add entry", library_sel_add, bare_sel_add, 1.0},
    {"bypass", "bypass, own connection", library_bypass, bare_bypass, 1.0},
    {"raid-list", "RAID: virtual drives", library_raid_list, bare_raid_list, 1.0},
    {"raid-drives", "RAID: drives with progress", library_raid_drives, bare_raid_drives, 1.0},
    {"raid-size", "RAID: greatest size", library_raid_size, bare_raid_size, 1.0},
};

} // namespace

const std::span<const row> call_rows = rows;

} // namespace bench
