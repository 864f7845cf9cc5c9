// SPDX-License-Identifier: LGPL-2.1-or-later
// The commands as the agent needs them, and the wait for those that take long.
#include "upgrade_agent/commands.hpp"

#include "upgrade_agent/clock.hpp"

#include <syslog.h>

namespace bdbus
{

namespace
{

constexpr uint32_t poll_interval_ms = 2000;
constexpr int64_t default_limit_s = 60; // of a long-duration command, when the target does not say
constexpr int strikes_allowed = 3;

} // namespace

void log_command_fail(const char *what, int32_t result)
{
    syslog(LOG_ERR, "%s command fail (return %d)\n", what, result);
}

void log_completion_code(const char *what, uint8_t code)
{
    syslog(LOG_ERR, "%s fail, completion code 0x%X\n", what, code);
}

namespace
{

/** The judgement that the commands share. */
int32_t judge(const char *what, int32_t result, uint8_t completion_code)
{
    if (result < 0) {
        log_command_fail(what, result);
        return result;
    }
    if (completion_code != BDBUS_HPM1_CC_SUCCESS) {
        log_completion_code(what, completion_code);
        return -1;
    }
    return 0;
}

} // namespace

int32_t bdbus_upgrade_agent_get_target_caps(bdbus_hpm1_target_caps_rec *record)
{
    const int32_t result = bdbus_hpm1_target_upgrade_caps(record);
    return judge("Get target upgrade capabilities", result, record->completion_code);
}

int32_t bdbus_upgrade_agent_get_upgrade_status(bdbus_hpm1_upgrade_status_rec *record)
{
    record->picmg_id = 0;
    const int32_t result = bdbus_hpm1_get_upgrade_status(record);
    return judge("Get upgrade status", result, record->completion_code);
}

int32_t bdbus_upgrade_agent_initiate_action(bdbus_hpm1_upgrade_action_rec *record,
                                            const bdbus_upgrade_agent_context *context)
{
    const int32_t result = bdbus_hpm1_init_upgrade_action(record);
    if (result >= 0 && record->completion_code == BDBUS_HPM1_CC_IN_PROGRESS) {
        return bdbus_upgrade_agent_wait_long_duration_cmd(context);
    }
    return judge("Initiate upgrade action", result, record->completion_code);
}

namespace
{

int64_t long_duration_limit_s(const bdbus_upgrade_agent_context *context)
{
    if (context != nullptr) {
        return int64_t{5} * context->target_caps.upgrade_timeout;
    }
    bdbus_hpm1_target_caps_rec caps = {};
    return bdbus_upgrade_agent_get_target_caps(&caps) == 0 ? int64_t{5} * caps.upgrade_timeout : default_limit_s;
}

bool still_running(uint8_t last_completion_code)
{
    return last_completion_code == BDBUS_HPM1_CC_IN_PROGRESS || last_completion_code == BDBUS_HPM1_CC_NOT_IN_THIS_STATE;
}

} // namespace

int32_t bdbus_upgrade_agent_wait_long_duration_cmd(const bdbus_upgrade_agent_context *context)
{
    const int64_t limit_s = long_duration_limit_s(context);
    const int64_t started = agent_time_s();
    int64_t polled = started;
    int strikes = 0;
    bdbus_hpm1_upgrade_status_rec poll = {};
    int32_t result = bdbus_upgrade_agent_get_upgrade_status(&poll);
    const uint8_t &last = poll.last_completion_code;
    const auto log_poll = [&] {
        syslog(LOG_NOTICE, "%s fail (return %d), last completion code 0x%X, retry %d\n",
               "bdbus_upgrade_agent_wait_long_duration_cmd", result, last, strikes);
    };

    while (polled - started < limit_s) {
        if (result != 0 && ++strikes > strikes_allowed) {
            break;
        }
        if (last == BDBUS_HPM1_CC_SUCCESS) {
            return result;
        }
        if (!still_running(last) && ++strikes > strikes_allowed) {
            break;
        }
        bdbus_upgrade_agent_sleep_ms(poll_interval_ms);
        polled = agent_time_s();
        result = bdbus_upgrade_agent_get_upgrade_status(&poll);
        if (result != 0 || (last != BDBUS_HPM1_CC_SUCCESS && !still_running(last))) {
            log_poll();
        }
    }
    if (last == BDBUS_HPM1_CC_SUCCESS) {
        return result;
    }
    log_poll();
    return -1;
}

} // namespace bdbus

int32_t bdbus_upgrade_agent_get_component_properties(bdbus_hpm1_component_props_rec *record)
{
    const int32_t result = bdbus_hpm1_component_props(record);
    if (result < 0) {
        syslog(LOG_ERR, "Get component properties command fail (return %d, ID %d)\n", result,
               record != nullptr ? record->component_id : -1);
        return result;
    }
    if (record->completion_code != BDBUS_HPM1_CC_SUCCESS) {
        syslog(LOG_ERR, "Get component properties fail, completion code 0x%X (ID %d)\n", record->completion_code,
               record->component_id);
        return -1;
    }
    return 0;
}

int32_t bdbus_upgrade_agent_abort(void)
{
    bdbus_hpm1_basic_rec record = {};
    const int32_t result = bdbus_hpm1_abort_fw_upgrade(&record);
    return bdbus::judge("Upgrade abort", result, record.completion_code);
}
