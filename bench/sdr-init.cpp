// SPDX-License-Identifier: LGPL-2.1-or-later
// One reading of the whole sensor repository, by the library or by a bare sd-bus loop of the same calls;
// sdr-init-cost.sh compares them.
//
//   sdr-init library|bare       prints the growth of the resident memory, in bytes
#include <bdbus/sdr.h>

#include <systemd/sd-bus.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

static bool with_library()
{
    uint8_t reading = 0;
    return bdbus_sdr_init() == 0 && bdbus_sdr_reading_get(1, &reading) == 0;
}

static bool with_bare_loop()
{
    static uint8_t records[0x10000][BDBUS_SDR_BYTES];
    const char *name = "com.brisemont.SensorDataRepository1";
    sd_bus *bus = nullptr;
    if (sd_bus_open_system(&bus) < 0) {
        return false;
    }
    unsigned count = 0;
    for (uint16_t id = 0; id != 0xFFFF; count++) {
        sd_bus_message *request = nullptr;
        sd_bus_message *reply = nullptr;
        sd_bus_error error = {};
        uint8_t status = 0;
        const void *sdr = nullptr;
        size_t length = 0;
        const bool read = sd_bus_message_new_method_call(bus, &request, name, "/com/brisemont/SensorDataRepository1",
                                                         name, "GetSdr") >= 0 &&
                          sd_bus_message_append(request, "q", id) >= 0 &&
                          sd_bus_call(bus, request, 0, &error, &reply) >= 0 &&
                          sd_bus_message_read(reply, "yq", &status, &id) >= 0 &&
                          sd_bus_message_read_array(reply, 'y', &sdr, &length) >= 0 && length == BDBUS_SDR_BYTES;
        if (read) {
            memcpy(records[count], sdr, BDBUS_SDR_BYTES);
        }
        sd_bus_error_free(&error);
        sd_bus_message_unref(request);
        sd_bus_message_unref(reply);
        if (!read) {
            return false;
        }
    }
    sd_bus_unref(bus);
    return count > 0;
}

static long resident_bytes()
{
    long total = 0;
    long resident = 0;
    FILE *file = fopen("/proc/self/statm", "r");
    if (file != nullptr) {
        if (fscanf(file, "%ld %ld", &total, &resident) != 2) {
            resident = 0;
        }
        fclose(file);
    }
    return resident * sysconf(_SC_PAGESIZE);
}

int main(int argc, char **argv)
{
    if (argc != 2) {
        fprintf(stderr, "usage: sdr-init library|bare\n");
        return 2;
    }
    const long before = resident_bytes();
    const bool read = strcmp(argv[1], "library") == 0 ? with_library() : with_bare_loop();
    printf("%ld\n", resident_bytes() - before);
    return read ? 0 : 1;
}
