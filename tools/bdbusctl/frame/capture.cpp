// SPDX-License-Identifier: LGPL-2.1-or-later
// The library writes with the C library's stream for the standard error, which is a variable: ours stands in for it.
// What the descriptor gets otherwise is not touched. The system log goes on as ever, and its lines are kept as well,
// with their priority before them as services write it: "<3>text".
#include "frame/capture.hpp"

#include "frame/text.hpp"

#include <syslog.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <mutex>
#include <string_view>
#include <system_error>
#include <utility>

namespace bdbusctl
{

namespace
{

/**
 * Keeps what is written to the standard error while somebody captures, and hands it on otherwise. Never destroyed: a
 * call that was left behind on its thread may still write when main has ended.
 */
class error_stream
{
public:
    static error_stream &get()
    {
        static auto *const only = new error_stream;
        return *only;
    }

    void begin()
    {
        const std::scoped_lock held(lock_);
        capturing_ = true;
    }

    /** @return what was kept. */
    std::string end()
    {
        const std::scoped_lock held(lock_);
        capturing_ = false;
        return std::exchange(text_, {});
    }

    /** @return whether it was kept. */
    bool keep(std::string_view text)
    {
        const std::scoped_lock held(lock_);
        if (capturing_) {
            text_ += text;
        }
        return capturing_;
    }

private:
    error_stream() : original_(stderr)
    {
        FILE *const stream = fopencookie(this, "w", {nullptr, write, nullptr, nullptr});
        if (stream == nullptr) {
            throw std::system_error(errno, std::generic_category(), "cannot keep what is reported");
        }
        setvbuf(stream, nullptr, _IONBF, 0);
        stderr = stream;
    }

    static ssize_t write(void *cookie, const char *bytes, size_t size)
    {
        auto *const self = static_cast<error_stream *>(cookie);
        return static_cast<ssize_t>(self->keep({bytes, size}) ? size : fwrite(bytes, 1, size, self->original_));
    }

    FILE *original_;
    std::mutex lock_;
    bool capturing_ = false;
    std::string text_;
};

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

[[gnu::format(printf, 2, 0)]] void log_line(int priority, const char *pattern, va_list arguments)
{
    va_list again;
    va_copy(again, arguments);
    vsyslog(priority, pattern, again);
    va_end(again);
    std::string text = format_list(pattern, arguments);
    text.erase(text.find_last_not_of('\n') + 1);
    error_stream::get().keep(format("<%d>%s\n", LOG_PRI(priority), one_line(text).c_str()));
}

} // namespace

capture::capture()
{
    error_stream::get().begin();
}

capture::~capture()
{
    error_stream::get().end();
}

std::vector<reported_line> capture::end()
{
    const std::string text = error_stream::get().end();
    std::vector<reported_line> lines;
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
    const capture running;
    const int32_t result = call();
    return {result, capture::end()};
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
