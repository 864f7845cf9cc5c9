// SPDX-License-Identifier: LGPL-2.1-or-later
#include "frame/capture.hpp"

#include "frame/text.hpp"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <string_view>
#include <system_error>

namespace bdbusctl
{

namespace
{

std::string read_all(int fd)
{
    std::string text;
    char buffer[4096];
    for (ssize_t got; (got = pread(fd, buffer, sizeof buffer, static_cast<off_t>(text.size()))) > 0;) {
        text.append(buffer, static_cast<size_t>(got));
    }
    return text;
}

/** LOG_PERROR puts the program's name before a line of the log. */
std::string without_log_prefix(std::string_view line)
{
    const std::string prefix = std::string(program_name) + ": ";
    return std::string(line.starts_with(prefix) ? line.substr(prefix.size()) : line);
}

bool tells_progress(std::string_view line)
{
    constexpr std::string_view beginnings[] = {
        "  ",
        "Image info",
        "Upload time:",
        "Upload retry",
        "Upload firmware block command retry",
        "Upload firmware block: retry with reduced length",
        "Try reduced buffer size:",
        "Query self test results ok",
        "Getting rollback status...",
        "No rollback occurred",
    };
    return line.ends_with(" skipped...") ||
           std::any_of(std::begin(beginnings), std::end(beginnings),
                       [line](std::string_view beginning) { return line.starts_with(beginning); });
}

} // namespace

capture::capture()
    : original_(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0)), memory_(memfd_create("bdbusctl-stderr", MFD_CLOEXEC))
{
    if (original_ < 0 || memory_ < 0 || dup2(memory_, STDERR_FILENO) < 0) {
        throw std::system_error(errno, std::generic_category(), "cannot redirect the standard error");
    }
}

capture::~capture()
{
    end();
}

std::vector<std::string> capture::end()
{
    std::vector<std::string> lines;
    if (memory_ < 0) {
        return lines;
    }
    dup2(original_, STDERR_FILENO);
    const std::string text = read_all(memory_);
    close(original_);
    close(memory_);
    memory_ = -1;

    for (size_t start = 0, stop; start < text.size(); start = stop + 1) {
        stop = std::min(text.find('\n', start), text.size());
        std::string line = without_log_prefix(one_line(std::string_view(text).substr(start, stop - start)));
        if (!line.empty()) {
            lines.push_back(std::move(line));
        }
    }
    return lines;
}

std::vector<std::string> outcome::faults() const
{
    std::vector<std::string> named;
    for (const auto &line : lines) {
        if (!tells_progress(line) && (named.empty() || named.back() != line)) {
            named.push_back(line);
        }
    }
    return named;
}

bool outcome::bus_unreachable() const
{
    // It is the first fault that the library tells; after another one, a service may say the same of itself.
    const auto told = faults();
    return !told.empty() && told.front().starts_with("Failed to connect to system bus");
}

outcome observe(const std::function<int32_t()> &call)
{
    capture caught;
    const int32_t result = call();
    return {result, caught.end()};
}

} // namespace bdbusctl
