// SPDX-License-Identifier: LGPL-2.1-or-later
// The discovery of the network's nodes, by the library or by a bare call with a bare parse of its answer in two passes.
// network-cost.sh counts the instructions of both, and has the library tell what many calls leave behind.
//
//   network library|bare CALLS   discover the nodes so many times; prints their number, and the descriptors and the
//                                resident memory (in KiB) after the first call, a tenth of the calls and all of them
#include <bdbus/network.h>

#include <expat.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>

/** @return the number of nodes; 0 for a failure. */
static uint32_t with_library()
{
    bnetwork_node_list list = {};
    bnetwork_nodes_list_get(&list);
    free(list.names);
    return list.count;
}

static void XMLCALL count_element(void *count, const char * /*element*/, const char ** /*attributes*/)
{
    ++*static_cast<uint32_t *>(count);
}

static uint32_t with_bare_parse()
{
    sd_bus *bus = nullptr;
    sd_bus_error error = {};
    sd_bus_message *reply = nullptr;
    const char *xml = nullptr;
    uint32_t count = 0;
    if (sd_bus_open_system(&bus) >= 0 &&
        sd_bus_call_method(bus, "com.brisemont.Network.Host1", "/com/brisemont/network",
                           "org.freedesktop.DBus.Introspectable", "Introspect", &error, &reply, nullptr) >= 0 &&
        sd_bus_message_read(reply, "s", &xml) >= 0) {
        XML_Parser parser = XML_ParserCreate(nullptr);
        for (int pass = 0; pass < 2; pass++) {
            XML_ParserReset(parser, nullptr);
            XML_SetUserData(parser, &count);
            XML_SetElementHandler(parser, count_element, nullptr);
            XML_Parse(parser, xml, static_cast<int>(strlen(xml)), XML_FALSE);
        }
        XML_ParserFree(parser);
    }
    sd_bus_error_free(&error);
    sd_bus_message_unref(reply);
    sd_bus_unref(bus);
    return count;
}

static void print_resources()
{
    long pages = 0;
    FILE *file = fopen("/proc/self/statm", "r");
    const bool read = file != nullptr && fscanf(file, "%*d %ld", &pages) == 1;
    const auto descriptors = std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
    if (file != nullptr) {
        fclose(file);
    }
    printf(" %td %ld", descriptors, read ? pages * sysconf(_SC_PAGESIZE) / 1024 : -1);
}

int main(int argc, char **argv)
{
    if (argc != 3) {
        fputs("usage: network library|bare CALLS\n", stderr);
        return 2;
    }
    auto *const discover = strcmp(argv[1], "library") == 0 ? with_library : with_bare_parse;
    const long calls = strtol(argv[2], nullptr, 10);
    printf("%u", discover());
    print_resources(); // looking takes memory of its own the first time
    for (long call = 1; call < calls; call++) {
        if (call == calls / 10) {
            print_resources();
        }
        if (discover() == 0) {
            fputs("discovery failed\n", stderr);
            return 1;
        }
    }
    print_resources();
    puts("");
    return 0;
}
