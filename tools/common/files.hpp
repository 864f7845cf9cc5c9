// SPDX-License-Identifier: LGPL-2.1-or-later
// Whole files, read and written. A failure is a std::system_error that names the file.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace bdbus_tools
{

/** The content of a file, of which at most one byte beyond the limit is read: a caller sees that it is too long. */
std::string read_file(const std::string &path, size_t limit);

/** Whoever opens a regular file finds all of the content, or what was there before. Others, such as a pipe, are written
 * to. */
void write_file(const std::string &path, std::string_view content);

} // namespace bdbus_tools
