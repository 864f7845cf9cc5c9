// SPDX-License-Identifier: LGPL-2.1-or-later
// Text put together, made harmless and parsed.
#include "frame/text.hpp"

#include <array>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <new>
#include <stdexcept>

namespace bdbusctl
{

std::string format(const char *pattern, ...)
{
    va_list arguments;
    va_start(arguments, pattern);
    std::string text = format_list(pattern, arguments);
    va_end(arguments);
    return text;
}

std::string format_list(const char *pattern, va_list arguments)
{
    char *text = nullptr;
    const int length = vasprintf(&text, pattern, arguments);
    if (length < 0) {
        throw std::bad_alloc();
    }
    std::string result(text, static_cast<size_t>(length));
    free(text);
    return result;
}

namespace
{

/** U+0080 to U+009F, control characters of two bytes. */
bool is_long_control(std::string_view text)
{
    const auto second = static_cast<unsigned char>(text.size() < 2 ? 0 : text[1]);
    return text.starts_with('\xC2') && second >= 0x80 && second < 0xA0;
}

} // namespace

std::string one_line(std::string_view text)
{
    std::string line(text);
    for (size_t at = 0; at < line.size(); at++) {
        const auto byte = static_cast<unsigned char>(line[at]);
        if (byte < 0x20 || byte == 0x7F) {
            line[at] = ' ';
        } else if (is_long_control(std::string_view(line).substr(at))) {
            line[at] = line[at + 1] = ' ';
        }
    }
    return line;
}

std::string escape_controls(std::string_view json_text)
{
    std::string escaped;
    size_t copied = 0;
    for (size_t at = 0; (at = json_text.find('\xC2', at)) != std::string_view::npos; at++) {
        if (is_long_control(json_text.substr(at))) {
            escaped += json_text.substr(copied, at - copied);
            escaped += format("\\u%04x", static_cast<unsigned char>(json_text[at + 1]));
            copied = at + 2;
        }
    }
    return escaped += json_text.substr(copied);
}

std::string join(const std::vector<std::string> &parts, std::string_view separator)
{
    std::string joined;
    for (const auto &part : parts) {
        if (&part != &parts.front()) {
            joined += separator;
        }
        joined += part;
    }
    return joined;
}

std::string hex_digits(std::span<const uint8_t> bytes)
{
    constexpr std::string_view hex = "0123456789abcdef";
    std::string digits;
    for (const uint8_t byte : bytes) {
        digits += {hex[byte >> 4], hex[byte & 0x0F]};
    }
    return digits;
}

std::string size_text(uint64_t bytes)
{
    constexpr std::array units{"B", "KiB", "MiB", "GiB"};
    auto amount = static_cast<double>(bytes);
    size_t unit = 0;
    for (; amount >= 1024 && unit + 1 < units.size(); unit++) {
        amount /= 1024;
    }
    return format(unit == 0 ? "%.0f %s" : "%.1f %s", amount, units.at(unit));
}

std::string time_text(uint32_t seconds)
{
    const auto since_1970 = static_cast<time_t>(seconds);
    tm date{};
    gmtime_r(&since_1970, &date);
    std::array<char, 32> text{};
    strftime(text.data(), text.size(), date_format, &date);
    return text.data();
}

std::string hex_text(uint8_t byte)
{
    return "0x" + hex_digits({&byte, 1});
}

uint64_t parse_number(const std::string &text, uint64_t smallest, uint64_t largest)
{
    const bool hex = text.starts_with("0x") || text.starts_with("0X");
    const char *const begin = text.data() + (hex ? 2 : 0);
    const char *const end = text.data() + text.size();
    uint64_t value = 0;
    const auto [stop, error] = std::from_chars(begin, end, value, hex ? 16 : 10);
    if (error == std::errc::invalid_argument || stop != end) {
        throw std::invalid_argument("'" + one_line(text) + "' is not a number");
    }
    if (error == std::errc::result_out_of_range || value < smallest || value > largest) {
        throw std::invalid_argument(one_line(text) + " is not in " + std::to_string(smallest) + " to " +
                                    std::to_string(largest));
    }
    return value;
}

std::vector<uint8_t> parse_bytes(const std::vector<std::string> &words)
{
    std::vector<uint8_t> bytes;
    for (const auto &word : words) {
        if (word.size() % 2 != 0 || word.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos) {
            throw std::invalid_argument("'" + one_line(word) + "' is not two hex digits for each byte");
        }
        for (size_t at = 0; at < word.size(); at += 2) {
            bytes.push_back(static_cast<uint8_t>(std::stoul(word.substr(at, 2), nullptr, 16)));
        }
    }
    return bytes;
}

} // namespace bdbusctl
