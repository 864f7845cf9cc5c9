// SPDX-License-Identifier: LGPL-2.1-or-later
// A call of each family and connection, for what all of them have in common.
#pragma once

#include <bdbus/bdbus.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>

struct sample_call {
    const char *name;
    const char *service;
    const char *member;
    bool keeps_connection;
    int (*make)(); // 0, or a negative code; an errno where the function tells it
    bool prints = true;
    const char *property_line = ""; // printed besides when the connection could not be had
};

inline constexpr sample_call sample_calls[] = {
    // A state in which its answer is not 0 tells that from a failure.
    {"bypass", "AdvancedBypass", "SetGlobalReset", false,
     [] {
         return bdbus_abp_set_global_reset(1) != 0 ? 0 : -EINTR;
     }},
    {"configuration", "Config1", "Generic_Index", true,
     [] { return -(bdbus_config_set_unsigned("Generic_Index", 1) & 0xFFF); }, false},
    {"network", "Network.Host1", "Introspect", false,
     [] {
         bnetwork_node_list list = {};
         const int result = bnetwork_nodes_list_get(&list);
         free(list.names);
         return -(result & 0xFFF);
     },
     false},
    {"event log", "SystemEventLog1", "GetSelInfo", true,
     [] {
         bdbus_sel_info info = {};
         return std::min<int>(bdbus_sel_get_info(&info), 0);
     }},
    {"RAID", "RAIDMgmt", "GetVirtualDriveList", false,
     [] {
         return bdbus_storectrl_get_virtual_drive_list().count > 0 ? 0 : -EINTR;
     }},
    {"upgrade", "Upgrade1", "ComponentCount", true,
     [] {
         int32_t count = 0;
         return std::min<int>(bdbus_upgrade_component_count(&count), 0);
     }},
    {"accounts", "AuthLog1", "AuthLogAddEntry", true,
     [] {
         bdbus_authlog_request request = {};
         return std::min<int>(bdbus_user_authlog_add_entry(&request), 0);
     }},
    {"disk queries", "RStorage1", "MediaType", true,
     [] {
         uint8_t type = 0;
         return static_cast<int>(bdbus_rstorage_disk_get_media_type(1, &type));
     },
     true, "Failed to get property MediaType"},
    {"disk actions", "RStorage1", "GadgetStop", true,
     [] {
         int32_t answer = 0;
         return std::min<int>(bdbus_rstorage_disk_gadget_stop(1, &answer), 0);
     }},
};
