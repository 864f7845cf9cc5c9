// SPDX-License-Identifier: LGPL-2.1-or-later
#include "support/capture.hpp"

#include <sys/mman.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <ostream>
#include <utility>

stderr_capture::stderr_capture() : saved_(dup(STDERR_FILENO)), memory_(memfd_create("stderr", MFD_CLOEXEC))
{
    dup2(memory_, STDERR_FILENO);
}

stderr_capture::~stderr_capture()
{
    dup2(saved_, STDERR_FILENO);
    close(saved_);
    close(memory_);
}

std::string stderr_capture::text() const
{
    std::string text(static_cast<size_t>(lseek(memory_, 0, SEEK_END)), '\0');
    text.resize(static_cast<size_t>(pread(memory_, text.data(), text.size(), 0)));
    return text;
}

static std::mutex log_mutex;
static std::vector<log_entry> log_entries;

__attribute__((format(printf, 2, 0))) static void log_message(int priority, const char *format, va_list arguments)
{
    char text[1024];
    vsnprintf(text, sizeof(text), format, arguments);
    const std::lock_guard guard(log_mutex);
    log_entries.push_back({priority, text});
}

extern "C" void syslog(int priority, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    log_message(priority, format, arguments);
    va_end(arguments);
}

extern "C" __attribute__((format(printf, 3, 4))) void __syslog_chk(int priority, int /*flag*/, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    log_message(priority, format, arguments);
    va_end(arguments);
}

std::vector<log_entry> take_log()
{
    const std::lock_guard guard(log_mutex);
    return std::exchange(log_entries, {});
}

std::string take_log_text()
{
    std::string text;
    for (const log_entry &entry : take_log()) {
        text += entry.text;
    }
    return text;
}

void PrintTo(const log_entry &entry, std::ostream *out)
{
    *out << "priority " << entry.priority << ": " << entry.text;
}
