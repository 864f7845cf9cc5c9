// SPDX-License-Identifier: LGPL-2.1-or-later
// What the user hands over in files, or on the standard input in the place of one: "-".
#pragma once

#include <cstddef>
#include <string>

namespace bdbusctl
{

/** What messages call it. */
std::string input_name(const std::string &path);

/** All of it, or one byte beyond the limit. What cannot be read is a failure. */
std::string read_input(const std::string &path, size_t limit);

/** Its first line without the end, or as many bytes as the limit allows; a terminal is waited for no longer. */
std::string read_first_line(const std::string &path, size_t limit);

} // namespace bdbusctl
