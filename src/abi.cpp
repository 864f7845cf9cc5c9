// SPDX-License-Identifier: LGPL-2.1-or-later
// The layout of every record that crosses the interface, for both word sizes. A change here breaks programs that were
// built before it.
#include <bdbus/bdbus.h>

#include <cstddef>

#define BDBUS_AT(record, field, offset) static_assert(offsetof(record, field) == (offset))

BDBUS_AT(bdbus_hpm1_target_caps_rec, components_present, 8);
static_assert(sizeof(bdbus_hpm1_target_caps_rec) == 9);

BDBUS_AT(bdbus_hpm1_component_props_rec, selector, 2);
BDBUS_AT(bdbus_hpm1_component_props_rec, completion_code, 3);
BDBUS_AT(bdbus_hpm1_component_props_rec, data, 4);
static_assert(sizeof(bdbus_hpm1_component_props_rec) == 16);

BDBUS_AT(bdbus_hpm1_basic_rec, completion_code, 1);
static_assert(sizeof(bdbus_hpm1_basic_rec) == 2);

BDBUS_AT(bdbus_hpm1_upgrade_action_rec, components, 1);
BDBUS_AT(bdbus_hpm1_upgrade_action_rec, action, 2);
BDBUS_AT(bdbus_hpm1_upgrade_action_rec, completion_code, 3);
static_assert(sizeof(bdbus_hpm1_upgrade_action_rec) == 4);

BDBUS_AT(bdbus_hpm1_upload_block_rec, block_number, 1);
BDBUS_AT(bdbus_hpm1_upload_block_rec, data, 2);
BDBUS_AT(bdbus_hpm1_upload_block_rec, length, 1532);
BDBUS_AT(bdbus_hpm1_upload_block_rec, completion_code, 1536);
static_assert(sizeof(bdbus_hpm1_upload_block_rec) == 1540);

BDBUS_AT(bdbus_hpm1_finish_upload_rec, component_id, 1);
BDBUS_AT(bdbus_hpm1_finish_upload_rec, image_length, 4);
BDBUS_AT(bdbus_hpm1_finish_upload_rec, completion_code, 8);
static_assert(sizeof(bdbus_hpm1_finish_upload_rec) == 12);

BDBUS_AT(bdbus_hpm1_upgrade_status_rec, command_in_progress, 2);
BDBUS_AT(bdbus_hpm1_upgrade_status_rec, last_completion_code, 3);
static_assert(sizeof(bdbus_hpm1_upgrade_status_rec) == 4);

BDBUS_AT(bdbus_hpm1_self_test_rec, result1, 2);
BDBUS_AT(bdbus_hpm1_self_test_rec, result2, 3);
static_assert(sizeof(bdbus_hpm1_self_test_rec) == 4);

BDBUS_AT(bdbus_hpm1_rollback_status_rec, rollback_status, 2);
static_assert(sizeof(bdbus_hpm1_rollback_status_rec) == 3);

constexpr std::size_t word = sizeof(void *);

BDBUS_AT(bnetwork_node_list, names, word);
static_assert(sizeof(bnetwork_node_list) == 2 * word && sizeof(*bnetwork_node_list::names) == 64);

BDBUS_AT(bnetwork_node, pci_sub_id, 4);
BDBUS_AT(bnetwork_node, pci_vendor_id, 8);
BDBUS_AT(bnetwork_node, pci_sub_vendor_id, 12);
BDBUS_AT(bnetwork_node, chassis_id, 16);
BDBUS_AT(bnetwork_node, chassis_id_subtype, 48);
BDBUS_AT(bnetwork_node, port_id, 52);
BDBUS_AT(bnetwork_node, port_id_subtype, 84);
BDBUS_AT(bnetwork_node, port_descr, 88);
BDBUS_AT(bnetwork_node, sys_name, 216);
BDBUS_AT(bnetwork_node, sys_descr, 248);
BDBUS_AT(bnetwork_node, ttl, 376);
BDBUS_AT(bnetwork_node, reserved, 380);
BDBUS_AT(bnetwork_node, lldp_enabled, 384);
BDBUS_AT(bnetwork_node, lldp_support, 388);
BDBUS_AT(bnetwork_node, link_status, 392);
static_assert(sizeof(bnetwork_node) == 396);

BDBUS_AT(bdbus_sdr_event, assertion_mask, 2);
BDBUS_AT(bdbus_sdr_event, deassertion_mask, 4);
static_assert(sizeof(bdbus_sdr_hysteresis) == 2 && sizeof(bdbus_sdr_thresholds) == 7);

BDBUS_AT(bdbus_sdr_record, sdr, 2);
BDBUS_AT(bdbus_sdr_record, event_enable, 66);
BDBUS_AT(bdbus_sdr_record, event_status, 72);
BDBUS_AT(bdbus_sdr_record, hysteresis, 78);
BDBUS_AT(bdbus_sdr_record, reading, 80);
BDBUS_AT(bdbus_sdr_record, thresholds, 81);
BDBUS_AT(bdbus_sdr_record, context, 88);
static_assert(sizeof(bdbus_sdr_record) == 88 + word);

BDBUS_AT(bdbus_sel_callback_table, sel_full, 2 * word);
BDBUS_AT(bdbus_sel_new_entry, completion_code, 16);
BDBUS_AT(bdbus_sel_new_entry, record_id, 18);
BDBUS_AT(bdbus_sel_clear_request, confirm, 2);
BDBUS_AT(bdbus_sel_clear_request, erase_progress, 7);
BDBUS_AT(bdbus_sel_alloc_info, possible_units, 2);
BDBUS_AT(bdbus_sel_alloc_info, max_record_size, 10);
BDBUS_AT(bdbus_sel_entry, completion_code, 6);
BDBUS_AT(bdbus_sel_entry, next_record_id, 8);
BDBUS_AT(bdbus_sel_entry, data, 10);
BDBUS_AT(bdbus_sel_info, entries, 2);
BDBUS_AT(bdbus_sel_info, addition_timestamp, 8);
BDBUS_AT(bdbus_sel_info, operation_support, 16);
BDBUS_AT(bdbus_sel_reservation, reservation_id, 2);

BDBUS_AT(bdbus_storectrl_vd_progress_list, vd_ids, 1);
BDBUS_AT(bdbus_storectrl_vd_progress_list, sizes, 72);
BDBUS_AT(bdbus_storectrl_vd_progress_list, progress, 584);
BDBUS_AT(bdbus_storectrl_vd_progress_list, status, 1032);
static_assert(sizeof(bdbus_storectrl_vd_progress_list) == 1040);

BDBUS_AT(bdbus_storectrl_pd_progress_list, pd_ids, 2);
BDBUS_AT(bdbus_storectrl_pd_progress_list, sizes, 264);
BDBUS_AT(bdbus_storectrl_pd_progress_list, progress, 1288);
BDBUS_AT(bdbus_storectrl_pd_progress_list, status, 2184);
static_assert(sizeof(bdbus_storectrl_pd_progress_list) == 2192);

BDBUS_AT(bdbus_storectrl_vd_list, vd_ids, 1);
BDBUS_AT(bdbus_storectrl_vd_list, sizes, 72);
BDBUS_AT(bdbus_storectrl_vd_list, status, 584);
static_assert(sizeof(bdbus_storectrl_vd_list) == 592);

BDBUS_AT(bdbus_storectrl_unconfig_list, pd_ids, 2);
BDBUS_AT(bdbus_storectrl_unconfig_list, reserved, 258);
BDBUS_AT(bdbus_storectrl_unconfig_list, sizes, 4360);
BDBUS_AT(bdbus_storectrl_unconfig_list, status, 5384);
static_assert(sizeof(bdbus_storectrl_unconfig_list) == 5392);

BDBUS_AT(bdbus_storectrl_drive_group_list, head2, 1);
BDBUS_AT(bdbus_storectrl_drive_group_list, column1, 2);
BDBUS_AT(bdbus_storectrl_drive_group_list, column2, 66);
BDBUS_AT(bdbus_storectrl_drive_group_list, head3, 130);
BDBUS_AT(bdbus_storectrl_drive_group_list, column3, 131);
BDBUS_AT(bdbus_storectrl_drive_group_list, column4, 195);
BDBUS_AT(bdbus_storectrl_drive_group_list, status, 260);
static_assert(sizeof(bdbus_storectrl_drive_group_list) == 264);

BDBUS_AT(bdbus_storectrl_hot_spare_list, head3, 2);
BDBUS_AT(bdbus_storectrl_hot_spare_list, pd_ids, 4);
BDBUS_AT(bdbus_storectrl_hot_spare_list, column1, 260);
BDBUS_AT(bdbus_storectrl_hot_spare_list, column2, 388);
BDBUS_AT(bdbus_storectrl_hot_spare_list, status, 516);
static_assert(sizeof(bdbus_storectrl_hot_spare_list) == 520);

BDBUS_AT(bdbus_storectrl_raid_levels, column1, 1);
BDBUS_AT(bdbus_storectrl_raid_levels, head2, 9);
BDBUS_AT(bdbus_storectrl_raid_levels, column2, 10);
BDBUS_AT(bdbus_storectrl_raid_levels, column3, 18);
BDBUS_AT(bdbus_storectrl_raid_levels, column4, 26);
BDBUS_AT(bdbus_storectrl_raid_levels, status, 36);
static_assert(sizeof(bdbus_storectrl_raid_levels) == 40);

BDBUS_AT(bdbus_storectrl_min_pd, min_pd, 2);
BDBUS_AT(bdbus_storectrl_min_pd, status, 4);
static_assert(sizeof(bdbus_storectrl_min_pd) == 8);

BDBUS_AT(bdbus_storectrl_max_size, pd_count, 3);
BDBUS_AT(bdbus_storectrl_max_size, pd_ids, 4);
BDBUS_AT(bdbus_storectrl_max_size, max_size, 264);
BDBUS_AT(bdbus_storectrl_max_size, status, 272);
static_assert(sizeof(bdbus_storectrl_max_size) == 280);

BDBUS_AT(bdbus_storectrl_oob_init, text, 4);
BDBUS_AT(bdbus_storectrl_oob_init, state, 36);
BDBUS_AT(bdbus_storectrl_oob_init, status, 40);
static_assert(sizeof(bdbus_storectrl_oob_init) == 44);

BDBUS_AT(bdbus_storectrl_vd_query, selector, 16);
static_assert(sizeof(bdbus_storectrl_vd_query) == 17);

BDBUS_AT(bdbus_storectrl_vd, param4, 3);
BDBUS_AT(bdbus_storectrl_vd, size, 8);
BDBUS_AT(bdbus_storectrl_vd, text, 16);
BDBUS_AT(bdbus_storectrl_vd, option1, 32);
BDBUS_AT(bdbus_storectrl_vd, option9, 40);
BDBUS_AT(bdbus_storectrl_vd, value, 44);
BDBUS_AT(bdbus_storectrl_vd, pd_count, 48);
BDBUS_AT(bdbus_storectrl_vd, pd_ids, 50);
static_assert(sizeof(bdbus_storectrl_vd) == 312);

BDBUS_AT(bdbus_storectrl_locate_vd, ids, 2);
BDBUS_AT(bdbus_storectrl_locate_vd, values, 130);
static_assert(sizeof(bdbus_storectrl_locate_vd) == 194);

BDBUS_AT(bdbus_storectrl_locate_pd, pd_ids, 2);
BDBUS_AT(bdbus_storectrl_locate_pd, values, 258);
static_assert(sizeof(bdbus_storectrl_locate_pd) == 386);

BDBUS_AT(bdbus_storectrl_vd_ids, vd_ids, 1);
static_assert(sizeof(bdbus_storectrl_vd_ids) == 65);

BDBUS_AT(bdbus_storectrl_spare_target, pd_id, 2);
static_assert(sizeof(bdbus_storectrl_spare_target) == 4);

BDBUS_AT(bdbus_upgrade_agent_context, options, 1);
BDBUS_AT(bdbus_upgrade_agent_context, image_size, 4);
BDBUS_AT(bdbus_upgrade_agent_context, image_data, 8);
BDBUS_AT(bdbus_upgrade_agent_context, upgrade_mask, 8 + word);
BDBUS_AT(bdbus_upgrade_agent_context, fw_major, 9 + word);
BDBUS_AT(bdbus_upgrade_agent_context, fw_minor, 10 + word);
BDBUS_AT(bdbus_upgrade_agent_context, device_id, 11 + word);
BDBUS_AT(bdbus_upgrade_agent_context, manufacturer_id, 12 + word);
BDBUS_AT(bdbus_upgrade_agent_context, product_id, 15 + word);
BDBUS_AT(bdbus_upgrade_agent_context, target_caps, 17 + word);
BDBUS_AT(bdbus_upgrade_agent_context, component_props, 26 + word);
static_assert(sizeof(bdbus_upgrade_agent_context) == (word == 8 ? 168 : 160));

BDBUS_AT(bdbus_upgrade_callback_table, uboot_change, 0);
BDBUS_AT(bdbus_upgrade_callback_table, bmc_reset, 11 * word);
BDBUS_AT(bdbus_upgrade_callback_table, fwconf_update_succeed, 25 * word);
BDBUS_AT(bdbus_upgrade_callback_table, fpga_change, 31 * word);
BDBUS_AT(bdbus_upgrade_callback_table, bios_update_pending, 49 * word);
BDBUS_AT(bdbus_upgrade_callback_table, nvram_update_pending, 60 * word);
BDBUS_AT(bdbus_upgrade_callback_table, bp_cpld_manual_rollback_initiated, 66 * word);
BDBUS_AT(bdbus_upgrade_callback_table, bp_cpld_sign_verify_fail, 79 * word);
static_assert(sizeof(bdbus_upgrade_callback_table) == BDBUS_UPGRADE_SIGNALS * word);

BDBUS_AT(bdbus_upgrade_flash_select, result, 4);
static_assert(sizeof(bdbus_upgrade_flash_select) == 8);
BDBUS_AT(bdbus_upgrade_version_update, result, 6);
static_assert(sizeof(bdbus_upgrade_version_update) == 7);
BDBUS_AT(bdbus_upgrade_factory_mode, result, 1);
static_assert(sizeof(bdbus_upgrade_factory_mode) == 2);

BDBUS_AT(bdbus_authlog_request, completion_code, 39);
BDBUS_AT(bdbus_authlog_request, value, 40);
static_assert(sizeof(bdbus_authlog_request) == 42);

BDBUS_AT(bdbus_user_update, second_word, 2);
BDBUS_AT(bdbus_user_update, data, 4);
BDBUS_AT(bdbus_user_update, completion_code, 21);
BDBUS_AT(bdbus_user_update, value, 22);
static_assert(sizeof(bdbus_user_update) == 24);
