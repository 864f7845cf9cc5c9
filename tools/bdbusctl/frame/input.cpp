// SPDX-License-Identifier: LGPL-2.1-or-later
// Files and the standard input alike.
#include "frame/input.hpp"

#include "common/files.hpp"
#include "frame/session.hpp"
#include "frame/text.hpp"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <string_view>
#include <system_error>

namespace bdbusctl
{

namespace
{

constexpr std::string_view stdin_path = "-";

/** Up to a character of `ends`, which is not part of the text. */
std::string read_stdin(size_t limit, std::string_view ends)
{
    std::string text;
    for (int next; text.size() < limit && (next = getchar()) != EOF;) {
        const auto character = static_cast<char>(next);
        if (ends.find(character) != std::string_view::npos) {
            break;
        }
        text.push_back(character);
    }
    if (ferror(stdin) != 0) {
        throw std::system_error(errno, std::generic_category());
    }
    return text;
}

template <class reader>
std::string read_or_fail(const std::string &path, reader read)
{
    try {
        return read();
    } catch (const std::system_error &error) {
        throw failure("cannot read " + input_name(path) + ": " + error.code().message());
    }
}

} // namespace

std::string input_name(const std::string &path)
{
    return path == stdin_path ? "the standard input" : one_line(path);
}

std::string read_input(const std::string &path, size_t limit)
{
    return read_or_fail(
        path, [&] { return path == stdin_path ? read_stdin(limit + 1, "") : bdbus_tools::read_file(path, limit); });
}

std::string read_first_line(const std::string &path, size_t limit)
{
    constexpr std::string_view ends = "\r\n";
    return read_or_fail(path, [&] {
        if (path == stdin_path) {
            return read_stdin(limit, ends);
        }
        const std::string content = bdbus_tools::read_file(path, limit);
        return content.substr(0, std::min(content.find_first_of(ends), limit));
    });
}

} // namespace bdbusctl
