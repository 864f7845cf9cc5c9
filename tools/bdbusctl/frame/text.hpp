// SPDX-License-Identifier: LGPL-2.1-or-later
// Texts: formatting, parsing, and control characters made harmless.
#pragma once

#include <cstdarg>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace bdbusctl
{

[[gnu::format(printf, 1, 2)]] std::string format(const char *pattern, ...);
[[gnu::format(printf, 1, 0)]] std::string format_list(const char *pattern, va_list arguments);

/**
 * The text with every control character blanked, so that no text of a service or a file breaks out of its line.
 */
std::string one_line(std::string_view text);

/** A JSON text with the control characters escaped that JSON lets pass and a terminal would obey. */
std::string escape_controls(std::string_view json_text);

std::string join(const std::vector<std::string> &parts, std::string_view separator);

inline std::span<const uint8_t> bytes_of(std::string_view text)
{
    return {reinterpret_cast<const uint8_t *>(text.data()), text.size()};
}

/** Two hex digits a byte, nothing between. */
std::string hex_digits(std::span<const uint8_t> bytes);

/** "0x2a" */
std::string hex_text(uint8_t byte);

/** "12.3 MiB" */
std::string size_text(uint64_t bytes);

/** Seconds since 1970 as "2026-01-02T03:04:05Z". */
inline constexpr const char *date_format = "%Y-%m-%dT%H:%M:%SZ";
std::string time_text(uint32_t seconds);

/** Decimal or 0x hex, nothing else around it; std::invalid_argument names what is wrong. */
uint64_t parse_number(const std::string &text, uint64_t smallest, uint64_t largest);

/** Words of two hex digits a byte each. */
std::vector<uint8_t> parse_bytes(const std::vector<std::string> &words);

} // namespace bdbusctl
