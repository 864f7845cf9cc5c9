// SPDX-License-Identifier: LGPL-2.1-or-later
#pragma once

/** Have the next reads wait for so many signals. Nothing but calls' answers is waited for otherwise. */
void expect_signals(unsigned count);
