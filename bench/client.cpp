// SPDX-License-Identifier: LGPL-2.1-or-later
// The measured program.
//
//   bench-client --list                     the rows, one a line, with tabs
//   bench-client ROW library|bare FEW MANY  so many times through, of which the first few are not measured; prints the
//                                           nanoseconds, and the growth of the peak memory in bytes, the first included
#include "row.hpp"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

/** Where the measured part begins, and where it ends: a place that a profiler knows by its name. */
extern "C" [[gnu::noinline]] void measured_part()
{
    asm volatile("");
}

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

long long now_ns()
{
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1'000'000'000LL + now.tv_nsec;
}

/** The most memory that the process has had so far. */
long peak_bytes()
{
    long kib = 0;
    FILE *file = fopen("/proc/self/status", "r");
    char line[128];
    while (file != nullptr && fgets(line, sizeof(line), file) != nullptr && sscanf(line, "VmHWM: %ld", &kib) != 1) {
    }
    if (file != nullptr) {
        fclose(file);
    }
    return kib * 1024;
}

bool repeat(bench::side side, unsigned long times)
{
    for (; times > 0; times--) {
        if (!side()) {
            fprintf(stderr, "failed with %lu times left\n", times);
            return false;
        }
    }
    return true;
}

int measure(bench::side side, unsigned long few, unsigned long many)
{
    const long memory = peak_bytes();
    if (!repeat(side, few)) {
        return 1;
    }
    measured_part();
    const long long began = now_ns();
    const bool done = repeat(side, many - few);
    const long long ended = now_ns();
    measured_part();
    printf("%lld %ld\n", ended - began, peak_bytes() - memory);
    fflush(stdout);
    return done ? 0 : 1;
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
    const bench::side side = strcmp(argv[2], "library") == 0 ? one->library : one->bare;
    // What a library does at the end is not what is measured.
    _exit(measure(side, strtoul(argv[3], nullptr, 10), strtoul(argv[4], nullptr, 10)));
}
