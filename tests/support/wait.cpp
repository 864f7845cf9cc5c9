// SPDX-License-Identifier: LGPL-2.1-or-later
#include "support/wait.hpp"

#include <poll.h>

#include <chrono>

bool eventually(const std::function<bool()> &condition)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::minutes(3);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        poll(nullptr, 0, 1); // nanosleep() is the tests' own
    }
    return true;
}
