// SPDX-License-Identifier: LGPL-2.1-or-later
// How a line is put together and printed.
#include "bus/report.hpp"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace bdbus
{

namespace
{

/** The length in bytes of the control character that a text begins with, or 0. C1 controls have two in UTF-8. */
std::size_t control_bytes(const char *text)
{
    const auto byte = static_cast<unsigned char>(text[0]);
    const auto next = static_cast<unsigned char>(byte == 0 ? 0 : text[1]);
    if (byte == 0xC2 && next >= 0x80 && next < 0xA0) {
        return 2;
    }
    return (byte > 0 && byte < 0x20) || byte == 0x7F ? 1 : 0;
}

bool has_controls(const char *text)
{
    while (*text != '\0' && control_bytes(text) == 0) {
        text++;
    }
    return *text != '\0';
}

void blank_controls(char *text)
{
    for (; *text != '\0'; text++) {
        memset(text, ' ', control_bytes(text));
    }
}

} // namespace

void print_failure(const char *text, const char *name, const char *reason)
{
    char *copy = has_controls(reason) ? strdup(reason) : nullptr;
    if (copy != nullptr) {
        blank_controls(copy);
        reason = copy;
    }
    fprintf(stderr, "%s%s%s: %s\n", text, name == nullptr ? "" : " ", name == nullptr ? "" : name, reason);
    free(copy);
}

void print_failure(const char *text, const char *name, int32_t code)
{
    print_failure(text, name, strerror(-code));
}

void failure_report::finish()
{
    if (text_ != nullptr) {
        print_failure(text_, name_, reason_ != nullptr ? reason_ : strerror(-code_));
    }
    sd_bus_error_free(&error_);
}

void failure_report::set(const char *text, int32_t code, const char *name)
{
    text_ = text;
    code_ = code;
    name_ = name;
}

void failure_report::set_peer_error(const char *text, int32_t code)
{
    set(text, code);
    reason_ = error_.message != nullptr && error_.message[0] != '\0' ? error_.message : nullptr;
}

} // namespace bdbus
