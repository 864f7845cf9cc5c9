// SPDX-License-Identifier: LGPL-2.1-or-later
// What the library reports during a call: lines on stderr, each of which is a fault, and the upgrade agent's lines for
// the system log, whose priorities tell faults from progress. While a capture lives, both end up in it.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace bdbusctl
{

inline constexpr const char *program_name = "bdbusctl";

struct reported_line {
    std::string text;
    bool fault = true;
};

class capture
{
public:
    capture();
    ~capture();
    capture(const capture &) = delete;
    capture &operator=(const capture &) = delete;

    /** Ends it. @return the lines that were caught, without empty ones. */
    static std::vector<reported_line> end();
};

struct outcome {
    int32_t result;
    std::vector<reported_line> lines;

    /** The texts of the faults; one that comes several times in a row is there once. */
    std::vector<std::string> faults() const;

    bool bus_unreachable() const;
};

/** Calls the library and captures what it reports. */
outcome observe(const std::function<int32_t()> &call);

} // namespace bdbusctl
