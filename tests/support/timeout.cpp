// SPDX-License-Identifier: LGPL-2.1-or-later
// The library's connections are known by standing in front of the two functions that open and close them.
#include "support/timeout.hpp"

#include <dlfcn.h>
#include <systemd/sd-bus.h>

#include <cstdint>
#include <cstring>
#include <mutex>
#include <set>

static std::mutex mutex;
static std::set<sd_bus *> connections;
static uint64_t timeout_us; // 0: sd-bus's own

static void set_timeout(uint64_t microseconds)
{
    const std::lock_guard guard(mutex);
    timeout_us = microseconds;
    for (sd_bus *bus : connections) {
        sd_bus_set_method_call_timeout(bus, microseconds);
    }
}

extern "C" int sd_bus_open_system(sd_bus **bus)
{
    static const auto real = reinterpret_cast<int (*)(sd_bus **)>(dlsym(RTLD_NEXT, "sd_bus_open_system"));
    const int opened = real(bus);
    if (opened >= 0) {
        const std::lock_guard guard(mutex);
        connections.insert(*bus);
        sd_bus_set_method_call_timeout(*bus, timeout_us); // not the greeting's, which is under way
    }
    return opened;
}

extern "C" sd_bus *sd_bus_unref(sd_bus *bus)
{
    static const auto real = reinterpret_cast<sd_bus *(*)(sd_bus *)>(dlsym(RTLD_NEXT, "sd_bus_unref"));
    Dl_info caller = {};
    dladdr(__builtin_return_address(0), &caller);
    if (caller.dli_fname == nullptr ||
        strstr(caller.dli_fname, "libsystemd") == nullptr) { // a message may hold one, too
        const std::lock_guard guard(mutex);
        connections.erase(bus);
    }
    return real(bus);
}

short_timeout::short_timeout()
{
    set_timeout(100'000);
}

short_timeout::~short_timeout()
{
    set_timeout(0);
}
