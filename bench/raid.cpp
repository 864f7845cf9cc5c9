// SPDX-License-Identifier: LGPL-2.1-or-later
// RAID queries by the library, or by the same sd-bus calls written by hand, each on a connection of its own.
// raid-cost.sh counts the instructions of both.
//
//   raid library|bare list|drives|size CALLS   that query, so many times
//   raid growth CALLS                          each query by the library; prints descriptors and memory in bytes,
//   before
//                                              and after
#include <bdbus/storectrl.h>

#include <dirent.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

static int fail(const char *what)
{
    fprintf(stderr, "%s failed\n", what);
    return 1;
}

static constexpr const char *service = "com.brisemont.RAIDMgmt";
static constexpr const char *path = "/com/brisemont/RAIDMgmt";

/** What a call by hand has to release. */
struct bare_call {
    sd_bus *bus = nullptr;
    sd_bus_message *request = nullptr;
    sd_bus_message *reply = nullptr;
    sd_bus_error error = {};

    ~bare_call()
    {
        sd_bus_error_free(&error);
        sd_bus_message_unref(reply);
        sd_bus_message_unref(request);
        sd_bus_unref(bus);
    }

    bool ask(const char *member)
    {
        return sd_bus_open_system(&bus) >= 0 &&
               sd_bus_call_method(bus, service, path, service, member, &error, &reply, nullptr) >= 0;
    }

    template <typename Element, size_t Capacity>
    bool read(char type, Element (&column)[Capacity])
    {
        const void *data = nullptr;
        size_t bytes = 0;
        if (sd_bus_message_read_array(reply, type, &data, &bytes) < 0) {
            return false;
        }
        memcpy(column, data, std::min(bytes, sizeof(column)));
        return true;
    }
};

static bool bare_list()
{
    bdbus_storectrl_vd_list list = {};
    bare_call call;
    return call.ask("GetVirtualDriveList") && sd_bus_message_read(call.reply, "y", &list.count) >= 0 &&
           call.read('y', list.vd_ids) && call.read('t', list.sizes) &&
           sd_bus_message_read(call.reply, "i", &list.status) >= 0 && list.count > 0;
}

static bool bare_drives()
{
    bdbus_storectrl_pd_progress_list list = {};
    bare_call call;
    bool done = call.ask("GetPhysicalDriveListWithProgressStatus") &&
                sd_bus_message_read(call.reply, "y", &list.count) >= 0 && call.read('q', list.pd_ids) &&
                call.read('t', list.sizes);
    for (auto &column : list.progress) {
        done = done && call.read('y', column);
    }
    return done && sd_bus_message_read(call.reply, "i", &list.status) >= 0 && list.count > 0;
}

static constexpr bdbus_storectrl_max_size question = {0, 0, 0, 2, {267, 268}, 0, 0};

static bool bare_size()
{
    bdbus_storectrl_max_size found = {};
    bare_call call;
    return sd_bus_open_system(&call.bus) >= 0 &&
           sd_bus_message_new_method_call(call.bus, &call.request, service, path, service, "GetMaxAvailableSize") >=
               0 &&
           sd_bus_message_append(call.request, "yyyy", question.param1, question.param2, question.param3,
                                 question.pd_count) >= 0 &&
           sd_bus_message_append_array(call.request, 'q', question.pd_ids, question.pd_count * sizeof(uint16_t)) >= 0 &&
           sd_bus_call(call.bus, call.request, UINT64_MAX, &call.error, &call.reply) >= 0 &&
           sd_bus_message_read(call.reply, "ti", &found.max_size, &found.status) >= 0 && found.max_size > 0;
}

static constexpr struct {
    const char *name;
    bool (*library)();
    bool (*bare)();
} queries[] = {
    {"list", [] { return bdbus_storectrl_get_virtual_drive_list().count > 0; }, bare_list},
    {"drives", [] { return bdbus_storectrl_get_pd_list_w_progress_status().count > 0; }, bare_drives},
    {"size", [] { return bdbus_storectrl_get_max_available_size(question).max_size > 0; }, bare_size},
};

static int repeat(bool (*query)(), unsigned long calls)
{
    for (; calls > 0; calls--) {
        if (!query()) {
            return fail("a query");
        }
    }
    return 0;
}

static long descriptors()
{
    long count = 0;
    DIR *open = opendir("/proc/self/fd");
    for (; open != nullptr && readdir(open) != nullptr; count++) {
    }
    closedir(open);
    return count;
}

static long resident_bytes()
{
    long pages = 0;
    FILE *file = fopen("/proc/self/statm", "r");
    if (file == nullptr || fscanf(file, "%*d %ld", &pages) != 1) {
        abort();
    }
    fclose(file);
    return pages * sysconf(_SC_PAGESIZE);
}

// The first calls, and the first look, fill caches and touch pages that stay.
static int grow(unsigned long calls)
{
    for (const auto &query : queries) {
        if (repeat(query.library, 100) != 0) {
            return 1;
        }
    }
    resident_bytes();
    const long descriptors_before = descriptors();
    const long bytes_before = resident_bytes();
    for (const auto &query : queries) {
        if (repeat(query.library, calls) != 0) {
            return 1;
        }
    }
    const long bytes_after = resident_bytes();
    printf("%ld %ld %ld %ld\n", descriptors_before, descriptors(), bytes_before, bytes_after);
    return 0;
}

int main(int argc, char **argv)
{
    if (argc == 3 && strcmp(argv[1], "growth") == 0) {
        return grow(strtoul(argv[2], nullptr, 10));
    }
    for (const auto &[name, library, bare] : queries) {
        if (argc == 4 && strcmp(argv[2], name) == 0) {
            return repeat(strcmp(argv[1], "library") == 0 ? library : bare, strtoul(argv[3], nullptr, 10));
        }
    }
    return fail("usage: raid library|bare list|drives|size CALLS | raid growth CALLS");
}
