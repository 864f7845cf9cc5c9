// SPDX-License-Identifier: LGPL-2.1-or-later
#pragma once

/** Have the next reads wait for so many signals. Nothing but calls' answers is waited for otherwise. */
void expect_signals(unsigned count);

/** Wait until the thread that listens beside the caller, if there is one, has done what it was woken for. */
void await_listener();
