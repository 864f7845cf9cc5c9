// SPDX-License-Identifier: LGPL-2.1-or-later
// The standard error is led into a file in memory. The system log goes on as ever, and its lines go there as well, with
// their priority before them as services write it: "<3>text".
#include "frame/capture.hpp"

#include "frame/text.hpp"

#include <fcntl.h>
#include <sys/mman.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <string_view>

namespace bdbusctl
{

namespace
{

constinit std::atomic<bool> capturing{false};

/** Lines of the log that their priority is misleading about. */
struct exceptional_line {
    std::string_view beginning;
    bool fault;
};
constexpr exceptional_line exceptional_lines[] = {
    {"Getting rollback status...", false},                     // an error, but one that was reported before
    {"Rollback occurred on component mask", true},             // a notice, but the old firmware runs again
    {"Upload error", true},                                    // a notice, but the upload is over
    {"bdbus_upgrade_agent_wait_long_duration_cmd fail", true}, // a notice, but the target failed
};

bool is_fault(int priority, std::string_view text)
{
    const auto *const found =
        std::find_if(std::begin(exceptional_lines), std::end(exceptional_lines),
                     [text](const exceptional_line &line) { return text.starts_with(line.beginning); });
    return found == std::end(exceptional_lines) ? priority <= LOG_ERR : found->fault;
}

/** A line of stderr, or one of the log behind "<PRIORITY>". */
reported_line parse_line(std::string_view line)
{
    const bool logged = line.size() >= 3 && line[0] == '<' && line[2] == '>';
    std::string text = one_line(logged ? line.substr(3) : line);
    const bool fault = !logged || is_fault(line[1] - '0', text);
    return {std::move(text), fault};
}

std::string read_all(int fd)
{
    std::string text;
    char buffer[4096];
    for (ssize_t got; (got = pread(fd, buffer, sizeof buffer, static_cast<off_t>(text.size()))) > 0;) {
        text.append(buffer, static_cast<size_t>(got));
    }
    return text;
}

[[gnu::format(printf, 2, 0)]] void log_line(int priority, const char *pattern, va_list arguments)
{
    va_list again;
    va_copy(again, arguments);
    vsyslog(priority, pattern, again);
    va_end(again);
    if (capturing) {
        std::string text = format_list(pattern, arguments);
        text.erase(text.find_last_not_of('\n') + 1);
        dprintf(STDERR_FILENO, "<%d>%s\n", LOG_PRI(priority), one_line(text).c_str());
    }
}

} // namespace

capture::capture()
    : original_(bdbus_tools::check_errno(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0), "cannot keep the standard error")),
      memory_(bdbus_tools::check_errno(memfd_create("bdbusctl-stderr", MFD_CLOEXEC), "cannot keep what is reported"))
{
    bdbus_tools::check_errno(dup2(memory_.get(), STDERR_FILENO), "cannot redirect the standard error");
    capturing = true;
}

capture::~capture()
{
    end();
}

std::vector<reported_line> capture::end()
{
    std::vector<reported_line> lines;
    if (memory_.get() < 0) {
        return lines;
    }
    capturing = false;
    dup2(original_.get(), STDERR_FILENO);
    const std::string text = read_all(memory_.get());
    original_.reset();
    memory_.reset();

    for (size_t start = 0, stop; start < text.size(); start = stop + 1) {
        stop = std::min(text.find('\n', start), text.size());
        reported_line line = parse_line(std::string_view(text).substr(start, stop - start));
        if (!line.text.empty()) {
            lines.push_back(std::move(line));
        }
    }
    return lines;
}

std::vector<std::string> outcome::faults() const
{
    std::vector<std::string> texts;
    for (const auto &[text, fault] : lines) {
        if (fault && (texts.empty() || texts.back() != text)) {
            texts.push_back(text);
        }
    }
    return texts;
}

bool outcome::bus_unreachable() const
{
    // Without a connection it is the first fault; behind another one it is a service's own text.
    const auto texts = faults();
    return !texts.empty() && texts.front().starts_with("Failed to connect to system bus");
}

outcome observe(const std::function<int32_t()> &call)
{
    capture caught;
    const int32_t result = call();
    return {result, caught.end()};
}

} // namespace bdbusctl

// The program stands before the C library: these are what the library's calls of syslog() find, plain or fortified.
extern "C" {
[[gnu::visibility("default"), gnu::format(printf, 2, 3)]] void log_plainly(int priority, const char *pattern,
                                                                           ...) __asm__("syslog");
[[gnu::visibility("default"), gnu::format(printf, 3, 4)]] void log_checked(int priority, int flag, const char *pattern,
                                                                           ...) __asm__("__syslog_chk");

void log_plainly(int priority, const char *pattern, ...)
{
    va_list arguments;
    va_start(arguments, pattern);
    bdbusctl::log_line(priority, pattern, arguments);
    va_end(arguments);
}

void log_checked(int priority, int /*flag*/, const char *pattern, ...)
{
    va_list arguments;
    va_start(arguments, pattern);
    bdbusctl::log_line(priority, pattern, arguments);
    va_end(arguments);
}
}
