// SPDX-License-Identifier: LGPL-2.1-or-later
// The measured program.
//
//   bench-client --list                     the rows, one a line, with tabs
//   bench-client ROW library|bare FEW MANY  so many times through, of which the first few are not measured; prints the
//                                           nanoseconds, and the growth of the peak memory in bytes, the first included
#include "row.hpp"

#include <cstdio>
#include <cstring>

namespace
{

using bench::row;

constexpr const std::span<const row> *families[] = {
    &bench::call_rows,    &bench::config_rows, &bench::image_rows,
    &bench::network_rows, &bench::sdr_rows,    &bench::upgrade_rows,
};

const row *find(const char *name)
{
    for (const auto *family : families) {
        for (const row &one : *family) {
            if (strcmp(one.name, name) == 0) {
                return &one;
            }
        }
    }
    return nullptr;
}

int list()
{
    for (const auto *family : families) {
        for (const row &one : *family) {
            printf("%s\t%s\t%g\t%u\t%u\t%u\t%s\t%d\n", one.name, one.title, one.budget, one.few, one.many, one.per,
                   one.service, one.long_running ? 1 : 0);
        }
    }
    return 0;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc == 2 && strcmp(argv[1], "--list") == 0) {
        return list();
    }
    const row *one = argc == 5 ? find(argv[1]) : nullptr;
    if (one == nullptr) {
        fprintf(stderr, "usage: bench-client --list | ROW library|bare FEW MANY\n");
        return 2;
    }
    bench::measure(strcmp(argv[2], "library") == 0 ? one->library : one->bare, argv[3], argv[4]);
}
