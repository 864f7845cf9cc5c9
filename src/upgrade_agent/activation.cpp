// SPDX-License-Identifier: LGPL-2.1-or-later
// The activation stage: activate, follow the self test, roll back when it fails, and ask for the rollback status when
// something went wrong.
#include "bus/guard.hpp"
#include "upgrade_agent/clock.hpp"
#include "upgrade_agent/commands.hpp"
#include "upgrade_agent/image.hpp"
#include "upgrade_agent/state.hpp"

#include <syslog.h>

#include <algorithm>

namespace bdbus
{

namespace
{

constexpr uint32_t self_test_interval_ms = 2000;
constexpr uint32_t rollback_interval_ms = 1000;

/** Bits of the target's global capabilities. */
constexpr uint8_t global_self_test = 0x01;
constexpr uint8_t global_rollback = 0x02;

/** The longer of the target's and the image's time-out, both in units of 5 seconds. */
int64_t limit_s(uint8_t target_units, uint8_t image_units)
{
    return int64_t{5} * std::max(target_units, image_units);
}

/** Ask again, after each interval, while the target does not know yet and the limit has not passed. @return the last
 * result. */
template <typename Query, typename Unknown>
int32_t poll(uint32_t interval_ms, int64_t limit_s, Query query, Unknown unknown)
{
    const int64_t started = agent_time_s();
    int32_t result = 0;
    int64_t now = started;
    do {
        bdbus_upgrade_agent_sleep_ms(interval_ms);
        result = query();
        now = agent_time_s();
    } while (result >= 0 && unknown() && now - started < limit_s);
    return result;
}

/** Whether a rollback can be asked about: the target as a whole and the last component must have it. */
bool has_rollback(const bdbus_upgrade_agent_context &context)
{
    const uint8_t id = context.component_id;
    return (context.target_caps.global_capabilities & global_rollback) != 0 && id < BDBUS_UPGRADE_AGENT_COMPONENTS &&
           (context.component_props[id].data[0] & property_rollback) != 0;
}

/** Find out whether the target went back to its old firmware. @param failure the result when that cannot be asked. */
int32_t check_rollback(const bdbus_upgrade_agent_context &context, int32_t failure)
{
    if (!has_rollback(context)) {
        syslog(LOG_NOTICE, "Getting rollback status... not supported\n");
        return failure;
    }
    syslog(LOG_ERR, "Getting rollback status...\n");
    bdbus_hpm1_rollback_status_rec rollback = {};
    const int32_t result = poll(
        rollback_interval_ms,
        limit_s(context.target_caps.rollback_timeout, hpm1_image(&context).header_byte(header_rollback_timeout)),
        [&rollback] {
            rollback.picmg_id = 0;
            return bdbus_hpm1_query_rollback_status(&rollback);
        },
        [&rollback] {
            return rollback.completion_code == BDBUS_HPM1_CC_TIMEOUT ||
                   rollback.completion_code == BDBUS_HPM1_CC_IN_PROGRESS;
        });
    if (result < 0) {
        syslog(LOG_ERR, "Error getting rollback status (return %d)\n", result);
        return result;
    }
    switch (rollback.completion_code) {
    case BDBUS_HPM1_CC_SUCCESS:
        if (rollback.rollback_status != 0) {
            syslog(LOG_NOTICE, "Rollback occurred on component mask: 0x%02X\n", rollback.rollback_status);
        } else {
            syslog(LOG_NOTICE, "No rollback occurred\n");
        }
        return 0;
    case BDBUS_HPM1_CC_ROLLBACK_FAILED:
        syslog(LOG_ERR, "Rollback failed on component mask: 0x%02X\n", rollback.rollback_status);
        return -1;
    default:
        syslog(LOG_ERR, "Error getting rollback status, completion code 0x%X\n", rollback.completion_code);
        return -2;
    }
}

/** Start the way back. A target that took the command is left to it, whatever it answered. */
int32_t roll_back(const bdbus_upgrade_agent_context &context, int32_t failure)
{
    bdbus_hpm1_basic_rec record = {};
    const int32_t result = bdbus_hpm1_init_manual_rollback(&record);
    if (result >= 0) {
        return 0;
    }
    syslog(LOG_ERR, "HPM.1 manual rollback fail (return %d)\n", result);
    return check_rollback(context, failure);
}

int32_t follow_self_test(const bdbus_upgrade_agent_context &context)
{
    bdbus_hpm1_self_test_rec test = {};
    const int32_t result = poll(
        self_test_interval_ms,
        limit_s(context.target_caps.self_test_timeout, hpm1_image(&context).header_byte(header_self_test_timeout)),
        [&test] {
            test.picmg_id = 0;
            return bdbus_hpm1_query_self_test_results(&test);
        },
        [&test] { return test.completion_code == BDBUS_HPM1_CC_IN_PROGRESS; });
    if (result < 0) {
        syslog(LOG_ERR, "Error getting self test results\n");
        syslog(LOG_ERR, "Self test command failed - do manual rollback\n");
        return roll_back(context, -2);
    }
    if (test.completion_code != BDBUS_HPM1_CC_SUCCESS) {
        syslog(LOG_ERR, "Error getting self test results, completion code = 0x%X\n", test.completion_code);
        syslog(LOG_ERR, "Self test command failed - do manual rollback\n");
        return roll_back(context, -2);
    }
    syslog(LOG_INFO, "Query self test results ok (result 1: 0x%X / result 2: 0x%X)\n", test.result1, test.result2);
    if (test.result1 == BDBUS_HPM1_SELF_TEST_PASSED) {
        return 0;
    }
    syslog(LOG_ERR, "Self test failed: Result 1 = 0x%X, Result 2 = 0x%X - do manual rollback\n", test.result1,
           test.result2);
    return roll_back(context, -1);
}

/** Whether the component that was uploaded last wants its activation followed up. */
bool wants_followup(const bdbus_upgrade_agent_context &context)
{
    const uint8_t id = context.component_id;
    return id < BDBUS_UPGRADE_AGENT_COMPONENTS && component_table[id].activation_followup != 0;
}

bool has_self_test(const bdbus_upgrade_agent_context &context)
{
    return (hpm1_image(&context).header_byte(header_capabilities) & capability_self_test) != 0 ||
           (context.target_caps.global_capabilities & global_self_test) != 0;
}

int32_t activate(const bdbus_upgrade_agent_context &context)
{
    bdbus_hpm1_basic_rec record = {};
    if (const int32_t result = bdbus_hpm1_activate_fw(&record); result < 0) {
        log_command_fail("Upgrade activate FW", result);
        return check_rollback(context, result);
    }
    if (record.completion_code != BDBUS_HPM1_CC_SUCCESS && record.completion_code != BDBUS_HPM1_CC_IN_PROGRESS) {
        log_completion_code("FW activation", record.completion_code);
        return check_rollback(context, -1);
    }
    if (!wants_followup(context)) {
        return 0;
    }
    if (record.completion_code == BDBUS_HPM1_CC_IN_PROGRESS) {
        if (const int32_t result = bdbus_upgrade_agent_wait_long_duration_cmd(&context); result != 0) {
            return check_rollback(context, result);
        }
    }
    return has_self_test(context) ? follow_self_test(context) : 0;
}

} // namespace

} // namespace bdbus

int32_t bdbus_upgrade_agent_activation_stage(bdbus_upgrade_agent_context *context)
{
    if (context == nullptr) {
        bdbus::log_truncated();
        return -1;
    }
    const bdbus::calls_in_a_row stage;
    return bdbus::activate(*context);
}
