// SPDX-License-Identifier: LGPL-2.1-or-later
// The HPM.1 commands, as methods of the upgrade service. A reply's first byte is the completion code, its second the
// PICMG identifier; both go into the record, and judging them is the caller's.
#include "upgrade/connection.hpp"

#include <bdbus/hpm1.h>

#include <cerrno>

namespace bdbus
{

namespace
{

constexpr service bmc_service = {
    .name = "com.brisemont.Bmc1",
    .path = "/com/brisemont/Bmc1",
    .interface = "com.brisemont.Bmc1",
};

/** A command whose request is its record's PICMG identifier and the named bytes, and whose reply has no more than the
 * two. */
template <signature Sig, typename Record, typename... Values>
int32_t basic_command(const char *member, Record *rec, Values Record::*...request)
{
    if (rec == nullptr) {
        return -EINVAL;
    }
    upgrade_call call;
    call.invoke<Sig>(member, rec->picmg_id, rec->*request...);
    return call.read<"yy">(&rec->completion_code, &rec->picmg_id);
}

} // namespace

} // namespace bdbus

int32_t bdbus_hpm1_target_upgrade_caps(bdbus_hpm1_target_caps_rec *rec)
{
    if (rec == nullptr) {
        return -EINVAL;
    }
    bdbus::upgrade_call call;
    call.invoke<"y">("GetTargetUpgradeCaps", rec->picmg_id);
    return call.read<"yyyyyyyyy">(&rec->completion_code, &rec->picmg_id, &rec->hpm_version, &rec->global_capabilities,
                                  &rec->upgrade_timeout, &rec->self_test_timeout, &rec->rollback_timeout,
                                  &rec->inaccessibility_timeout, &rec->components_present);
}

int32_t bdbus_hpm1_component_props(bdbus_hpm1_component_props_rec *rec)
{
    if (rec == nullptr) {
        return -EINVAL;
    }
    bdbus::upgrade_call call;
    call.invoke<"yyy">("GetComponentProps", rec->picmg_id, rec->component_id, rec->selector);
    call.read<"yy">(&rec->completion_code, &rec->picmg_id);
    return call.read_bytes(rec->data, sizeof(rec->data));
}

int32_t bdbus_hpm1_abort_fw_upgrade(bdbus_hpm1_basic_rec *rec)
{
    return bdbus::basic_command<"y">("AbortFirmwareUpgrade", rec);
}

int32_t bdbus_hpm1_init_upgrade_action(bdbus_hpm1_upgrade_action_rec *rec)
{
    return bdbus::basic_command<"yyy">("InitiateUpgradeAction", rec, &bdbus_hpm1_upgrade_action_rec::components,
                                       &bdbus_hpm1_upgrade_action_rec::action);
}

int32_t bdbus_hpm1_upload_fw_block(bdbus_hpm1_upload_block_rec *rec)
{
    if (rec == nullptr || rec->length > sizeof(rec->data)) {
        return -EINVAL;
    }
    bdbus::upgrade_call call;
    call.create("UploadFirmwareBlock");
    call.append<"yyu">(rec->picmg_id, rec->block_number, rec->length);
    call.append_bytes(rec->data, rec->length);
    call.send(bdbus::call_frame::no_timeout);
    return call.read<"yy">(&rec->completion_code, &rec->picmg_id);
}

int32_t bdbus_hpm1_finish_fw_upload(bdbus_hpm1_finish_upload_rec *rec)
{
    return bdbus::basic_command<"yyu">("FinishFirmwareUpload", rec, &bdbus_hpm1_finish_upload_rec::component_id,
                                       &bdbus_hpm1_finish_upload_rec::image_length);
}

int32_t bdbus_hpm1_get_upgrade_status(bdbus_hpm1_upgrade_status_rec *rec)
{
    if (rec == nullptr) {
        return -EINVAL;
    }
    bdbus::upgrade_call call;
    call.invoke<"y">("GetUpgradeStatus", rec->picmg_id);
    return call.read<"yyyy">(&rec->completion_code, &rec->picmg_id, &rec->command_in_progress,
                             &rec->last_completion_code);
}

int32_t bdbus_hpm1_activate_fw(bdbus_hpm1_basic_rec *rec)
{
    return bdbus::basic_command<"y">("ActivateFirmware", rec);
}

int32_t bdbus_hpm1_query_self_test_results(bdbus_hpm1_self_test_rec *rec)
{
    if (rec == nullptr) {
        return -EINVAL;
    }
    bdbus::upgrade_call call(bdbus::bmc_service);
    if (call.failed()) {
        return call.result();
    }
    rec->picmg_id = 0;
    call.get_property("BmcPost", "ay");
    if (call.failed()) {
        return call.result();
    }
    uint8_t results[2] = {rec->result1, rec->result2};
    const int32_t result = call.read_bytes(results, sizeof(results));
    rec->completion_code = result < 0 ? BDBUS_HPM1_CC_NOT_IN_THIS_STATE : BDBUS_HPM1_CC_SUCCESS;
    rec->result1 = results[0];
    rec->result2 = results[1];
    return result;
}

int32_t bdbus_hpm1_query_rollback_status(bdbus_hpm1_rollback_status_rec *rec)
{
    if (rec == nullptr) {
        return -EINVAL;
    }
    bdbus::upgrade_call call;
    call.invoke<"y">("QueryRollbackStatus", rec->picmg_id);
    return call.read<"yyy">(&rec->completion_code, &rec->picmg_id, &rec->rollback_status);
}

int32_t bdbus_hpm1_init_manual_rollback(bdbus_hpm1_basic_rec *rec)
{
    return bdbus::basic_command<"y">("InitiateManualRollback", rec);
}
