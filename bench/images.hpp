// SPDX-License-Identifier: LGPL-2.1-or-later
// The HPM.1 images that report.py has made: a header, one upload record, a digest.
#pragma once

#include <cstdlib>
#include <string>

namespace bench
{

inline constexpr unsigned image_header = 35;
inline constexpr unsigned image_record = 34;
inline constexpr unsigned image_prefix = image_header + image_record;
inline constexpr unsigned image_digest = 16;

inline std::string image_path(const char *name)
{
    const char *directory = getenv("BENCH_IMAGES");
    return std::string(directory == nullptr ? "." : directory) + "/" + name;
}

} // namespace bench
