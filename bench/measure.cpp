// SPDX-License-Identifier: LGPL-2.1-or-later
#include "measure.hpp"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>

/** Where the measured part begins, and where it ends: a place that a profiler knows by its name. */
extern "C" [[gnu::noinline]] void measured_part()
{
    asm volatile("");
}

namespace bench
{

namespace
{

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

bool repeat(side once, unsigned long times)
{
    for (; times > 0; times--) {
        if (!once()) {
            fprintf(stderr, "failed with %lu times left\n", times);
            return false;
        }
    }
    return true;
}

} // namespace

void measure(side once, const char *few, const char *many)
{
    const unsigned long first = strtoul(few, nullptr, 10);
    const long memory = peak_bytes();
    bool done = repeat(once, first);
    measured_part();
    const long long began = now_ns();
    done = done && repeat(once, strtoul(many, nullptr, 10) - first);
    const long long ended = now_ns();
    measured_part();
    printf("%lld %ld\n", ended - began, peak_bytes() - memory);
    fflush(stdout);
    _exit(done ? 0 : 1); // what a library does at the end is not measured
}

} // namespace bench
