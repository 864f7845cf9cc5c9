// SPDX-License-Identifier: LGPL-2.1-or-later
// The library calls that bdbusctl's lists make, and nothing else.
//
//   bench-lists sdr|sel|network
#include <bdbus/bdbus.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace
{

bool list_sensors()
{
    bdbus_sdr_record record;
    unsigned found = 0;
    if (bdbus_sdr_init() != 0) {
        return false;
    }
    for (uint32_t id = 0; id <= UINT16_MAX; id++) {
        found += bdbus_sdr_get(static_cast<uint16_t>(id), &record) == 0 ? 1 : 0;
    }
    return found > 0;
}

bool list_entries()
{
    constexpr uint16_t last = 0xFFFF;
    bdbus_sel_entry entry = {};
    while (entry.next_record_id != last) {
        entry = {.record_id = entry.next_record_id, .bytes_to_read = 0xFF};
        if (bdbus_sel_get_entry(&entry) < 0 || entry.completion_code != 0) {
            return false;
        }
    }
    return true;
}

bool list_nodes()
{
    bnetwork_node_list list = {};
    bool listed = bnetwork_nodes_list_get(&list) == BDBUS_NETWORK_OK;
    for (uint32_t i = 0; i < list.count; i++) {
        bnetwork_node node = {};
        listed = bnetwork_node_get(list.names[i], &node) == BDBUS_NETWORK_OK && listed;
    }
    free(list.names);
    return listed;
}

constexpr struct {
    const char *family;
    bool (*list)();
} lists[] = {{"sdr", list_sensors}, {"sel", list_entries}, {"network", list_nodes}};

} // namespace

int main(int argc, char **argv)
{
    for (const auto &[family, list] : lists) {
        if (argc == 2 && strcmp(argv[1], family) == 0) {
            return list() ? 0 : 1;
        }
    }
    fputs("usage: bench-lists sdr|sel|network\n", stderr);
    return 2;
}
