// SPDX-License-Identifier: LGPL-2.1-or-later
#include "support/wait.hpp"

#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

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

int in_child(const std::function<int()> &body)
{
    const pid_t child = fork();
    if (child == 0) {
        alarm(180);
        _exit(body());
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}
