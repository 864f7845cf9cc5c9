// SPDX-License-Identifier: LGPL-2.1-or-later
// HPM.1 commands with their answers judged: 0, a command's negative result, or -1 for a completion code; each failure
// is logged.
#pragma once

#include <bdbus/upgrade_agent.h>

namespace bdbus
{

int32_t bdbus_upgrade_agent_get_target_caps(bdbus_hpm1_target_caps_rec *record);

/** Sets the PICMG identifier to 0 itself. */
int32_t bdbus_upgrade_agent_get_upgrade_status(bdbus_hpm1_upgrade_status_rec *record);

/** Start an action; one that goes on in the background is waited for. */
int32_t bdbus_upgrade_agent_initiate_action(bdbus_hpm1_upgrade_action_rec *record,
                                            const bdbus_upgrade_agent_context *context);

/**
 * Poll, every 2 seconds, until the long-duration command has ended, the target's time limit has passed, or the fourth
 * strike: a failed poll or a last completion code that is an error.
 *
 * @param context for the time limit; without one the target is asked.
 * @return 0 when the command ended well; -1, or the result of a failed poll.
 */
int32_t bdbus_upgrade_agent_wait_long_duration_cmd(const bdbus_upgrade_agent_context *context);

/** The two lines of a command that did not succeed. */
void log_command_fail(const char *what, int32_t result);
void log_completion_code(const char *what, uint8_t code);

} // namespace bdbus
