// SPDX-License-Identifier: LGPL-2.1-or-later
// Waiting for what another thread or process does.
#pragma once

#include <functional>

/** Wait for a condition. @return whether it came true; false only after minutes, which nothing but a fault takes. */
bool eventually(const std::function<bool()> &condition);

/** What a child process says of itself; one that hangs is ended. @return its exit status, or minus its signal. */
int in_child(const std::function<int()> &body);
