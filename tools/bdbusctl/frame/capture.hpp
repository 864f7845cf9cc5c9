// SPDX-License-Identifier: LGPL-2.1-or-later
// What the library says. It names its reasons on stderr, and the upgrade agent in the system log; while a capture
// lives, both end up in it instead of on the terminal (the log through LOG_PERROR, which main sets).
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace bdbusctl
{

inline constexpr const char *program_name = "bdbusctl";

class capture
{
public:
    capture();
    ~capture();
    capture(const capture &) = delete;
    capture &operator=(const capture &) = delete;

    /** The standard error that was there before, for who must write to it meanwhile. */
    int original_stderr() const { return original_; }

    /** Puts the standard error back and gives the lines that were caught. */
    std::vector<std::string> end();

private:
    int original_;
    int memory_;
};

struct outcome {
    int32_t result;
    std::vector<std::string> lines;

    /** The lines that name a fault, without those by which the agent tells how it gets on. */
    std::vector<std::string> faults() const;

    bool bus_unreachable() const;
};

outcome observe(const std::function<int32_t()> &call);

} // namespace bdbusctl
