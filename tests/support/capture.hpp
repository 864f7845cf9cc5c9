// SPDX-License-Identifier: LGPL-2.1-or-later
// What the library says: its lines on stderr, and its syslog messages with their priorities.
#pragma once

#include <string>
#include <vector>

/** Everything that is written to stderr while this lives. */
class stderr_capture
{
public:
    stderr_capture();
    ~stderr_capture();
    stderr_capture(const stderr_capture &) = delete;
    stderr_capture &operator=(const stderr_capture &) = delete;

    [[nodiscard]] std::string text() const;

private:
    int saved_;
    int memory_;
};

struct log_entry {
    int priority;
    std::string text;
    bool operator==(const log_entry &) const = default;
};

/** The syslog messages since the last call. The test programs stand in for the C library's syslog(). */
std::vector<log_entry> take_log();

/** The same without priorities, one after another. */
std::string take_log_text();

void PrintTo(const log_entry &entry, std::ostream *out);
