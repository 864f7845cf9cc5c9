// SPDX-License-Identifier: LGPL-2.1-or-later
// The upgrade stage: the image's actions carried out in their order, each marked component uploaded block by block.
#include "bus/guard.hpp"
#include "upgrade_agent/clock.hpp"
#include "upgrade_agent/commands.hpp"
#include "upgrade_agent/image.hpp"
#include "upgrade_agent/state.hpp"

#include <syslog.h>

#include <algorithm>
#include <cstring>

namespace bdbus
{

namespace
{

/** Resends of a block that the target did not take, met so far; it is never reset. */
constinit std::atomic<int32_t> retry_allowance{0};
constexpr int32_t resends_granted = 3;

constinit std::atomic<int32_t> last_reported_percentage{-1};

/** What became of a block, besides a negative result. */
constexpr int32_t block_accepted = 0;
constexpr int32_t block_too_long = 1;
constexpr int32_t block_resend = 2;
constexpr int32_t block_refused = -2;

/** One component's upload. */
struct component_upload {
    bdbus_upgrade_agent_context &context;
    const uint8_t *image;
    uint32_t length;
    int64_t started;
    uint32_t block_bytes = BDBUS_HPM1_BLOCK_MAX; // what the target has taken, or is being tried
    uint32_t sent = 0;
    bool accepted_any = false;
    bdbus_hpm1_upload_block_rec block = {};
};

int32_t refuse_block(uint8_t code)
{
    log_completion_code("Upload firmware block", code);
    return block_refused;
}

/** Send the next block once. @return one of the outcomes above, or a negative result. */
int32_t send_block(component_upload &upload)
{
    bdbus_hpm1_upload_block_rec &block = upload.block;
    block.length = std::min(upload.block_bytes, upload.length - upload.sent);
    memcpy(block.data, upload.image + upload.sent, block.length);
    if (const int32_t result = bdbus_hpm1_upload_fw_block(&block); result < 0) {
        log_command_fail("Upload firmware block", result);
        return result;
    }
    switch (block.completion_code) {
    case BDBUS_HPM1_CC_SUCCESS:
        return block_accepted;
    case BDBUS_HPM1_CC_IN_PROGRESS:
        return bdbus_upgrade_agent_wait_long_duration_cmd(&upload.context);
    case BDBUS_HPM1_CC_RESEND:
    case BDBUS_HPM1_CC_RESEND_NUMBER:
        if (retry_allowance.fetch_add(1, std::memory_order_relaxed) >= resends_granted) {
            return refuse_block(block.completion_code);
        }
        syslog(LOG_INFO, "Upload firmware block command retry\n");
        return block_resend;
    case BDBUS_HPM1_CC_LENGTH_INVALID:
    case BDBUS_HPM1_CC_LENGTH_EXCEEDED:
        syslog(LOG_INFO, "Upload firmware block: retry with reduced length\n");
        return block_too_long;
    default:
        return refuse_block(block.completion_code);
    }
}

void report_percentage(uint32_t sent, uint32_t length)
{
    const auto percentage = static_cast<int32_t>(static_cast<float>(sent) / static_cast<float>(length) * 100.0F);
    if (percentage != last_reported_percentage.load(std::memory_order_relaxed)) {
        last_reported_percentage.store(percentage, std::memory_order_relaxed);
        current_status.progress.store(static_cast<uint8_t>(percentage), std::memory_order_relaxed);
    }
}

void count_block(component_upload &upload)
{
    const int64_t elapsed_s = agent_time_s() - upload.started;
    upload.sent += upload.block.length;
    report_percentage(upload.sent, upload.length);
    if (upload.sent == upload.length) {
        syslog(LOG_NOTICE, "Upload time: %02ld:%02ld, image size: %7d bytes\n", static_cast<long>(elapsed_s / 60),
               static_cast<long>(elapsed_s % 60), static_cast<int>(upload.length));
        last_reported_percentage.store(-1, std::memory_order_relaxed);
    }
    upload.block.block_number++;
    upload.accepted_any = true;
}

/** The block size is worn down to nothing: no block of this component will ever go through. */
int32_t give_up_on_size()
{
    syslog(LOG_NOTICE, "Upload error: %d\n", 0);
    return -1;
}

/** Send the component's blocks. Until the first is taken they may shrink. */
int32_t send_blocks(component_upload &upload)
{
    while (upload.sent < upload.length) {
        const int32_t outcome = send_block(upload);
        if (outcome == block_accepted) {
            if (upload.block.length == 0) {
                return give_up_on_size();
            }
            count_block(upload);
        } else if (outcome == block_too_long && !upload.accepted_any) {
            if (upload.block_bytes == 0) {
                return give_up_on_size();
            }
            upload.block_bytes--;
            syslog(LOG_NOTICE, "Try reduced buffer size: %d\n", static_cast<int>(upload.block_bytes));
        } else if (outcome == block_resend) {
            syslog(LOG_NOTICE, "Upload retry\n");
        } else {
            syslog(LOG_ERR, "Error in Upload Firmware command [r = %d]\n", outcome);
            syslog(LOG_ERR, "Total sent : 0x%x\n", upload.sent);
            return -2;
        }
    }
    return 0;
}

int32_t finish_upload(const bdbus_upgrade_agent_context &context, uint8_t component, uint32_t sent)
{
    bdbus_hpm1_finish_upload_rec finish = {};
    finish.component_id = component;
    finish.image_length = sent;
    if (const int32_t result = bdbus_hpm1_finish_fw_upload(&finish); result < 0) {
        log_command_fail("Finish firmware upload", result);
        return result;
    }
    switch (finish.completion_code) {
    case BDBUS_HPM1_CC_SUCCESS:
        return 0;
    case BDBUS_HPM1_CC_IN_PROGRESS:
        return bdbus_upgrade_agent_wait_long_duration_cmd(&context);
    case BDBUS_HPM1_CC_COPY_DIFFERS:
        syslog(LOG_ERR, "Component's active copy doesn't match the upgrade image\n");
        return -1;
    default:
        log_completion_code("Finish firmware upload", finish.completion_code);
        return -2;
    }
}

int32_t initiate(bdbus_upgrade_agent_context &context, uint8_t action, uint8_t components)
{
    bdbus_hpm1_upgrade_action_rec record = {};
    record.components = components;
    record.action = action;
    return bdbus_upgrade_agent_initiate_action(&record, &context);
}

void log_skipped(uint8_t component)
{
    syslog(LOG_NOTICE, "Component %d skipped...\n", component);
}

int32_t bdbus_upgrade_agent_upload_component(bdbus_upgrade_agent_context &context, const action_record &record)
{
    const uint8_t component = record.component();
    std::atomic_ref(context.component_id).store(component, std::memory_order_relaxed);
    if ((context.upgrade_mask >> component & 1) == 0) {
        log_skipped(component);
        return 0;
    }
    if (const int32_t result = initiate(context, BDBUS_HPM1_ACTION_UPLOAD, record.components()); result != 0) {
        syslog(LOG_ERR, "Initiate upgrade action fail (r: 0x%X), component skipped\n", static_cast<unsigned>(result));
        log_skipped(component);
        return result;
    }
    component_upload upload = {
        .context = context, .image = record.image(), .length = record.image_length(), .started = agent_time_s()};
    if (const int32_t result = send_blocks(upload); result != 0) {
        return result;
    }
    return finish_upload(context, component, upload.sent);
}

int32_t carry_out(bdbus_upgrade_agent_context &context, const action_record &record)
{
    switch (record.type()) {
    case BDBUS_HPM1_ACTION_BACKUP:
    case BDBUS_HPM1_ACTION_PREPARE: {
        const uint8_t marked = record.components() & context.upgrade_mask;
        return marked == 0 ? 0 : initiate(context, record.type(), marked);
    }
    case BDBUS_HPM1_ACTION_UPLOAD:
        return bdbus_upgrade_agent_upload_component(context, record);
    default:
        syslog(LOG_ERR, "Invalid action record action type\n");
        return -1;
    }
}

} // namespace

} // namespace bdbus

int32_t bdbus_upgrade_agent_upgrade_stage(bdbus_upgrade_agent_context *context)
{
    const bdbus::calls_in_a_row stage;
    bdbus::current_status.stage.store(BDBUS_UPGRADE_AGENT_STAGE_RUNNING, std::memory_order_relaxed);
    const int32_t result = bdbus::for_each_record(
        context, [context](const bdbus::action_record &record) { return bdbus::carry_out(*context, record); });
    bdbus::current_status.stage.store(result == 0 ? BDBUS_UPGRADE_AGENT_STAGE_DONE : BDBUS_UPGRADE_AGENT_STAGE_FAILED,
                                      std::memory_order_relaxed);
    return result;
}
