// SPDX-License-Identifier: LGPL-2.1-or-later
// One upload of an image file, by the upgrade agent or by a bare sd-bus loop that sends the same blocks. upload-cost.sh
// counts the instructions of both and has each tell its peak memory.
//
//   upload make FILE BLOCKS     write an image of so many full blocks for component 1
//   upload agent|bare FILE      upload it; prints the image's size and the growth of the peak memory, in bytes
#include <bdbus/bdbus.h>

#include <sys/resource.h>
#include <systemd/sd-bus.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

static constexpr uint32_t header_bytes = 35;
static constexpr uint32_t record_bytes = 34;
static constexpr uint32_t digest_bytes = 16;

static int fail(const char *what)
{
    fprintf(stderr, "%s failed\n", what);
    return 1;
}

static int make(const char *path, size_t blocks)
{
    const size_t length = blocks * BDBUS_HPM1_BLOCK_MAX;
    std::vector<unsigned char> image(header_bytes + record_bytes + length + digest_bytes);
    unsigned char *record = &image[header_bytes];
    record[0] = BDBUS_HPM1_ACTION_UPLOAD;
    record[1] = 0x02;
    record[2] = 0xFC;
    for (size_t i = 0; i < 4; i++) {
        record[30 + i] = static_cast<unsigned char>(length >> (8 * i));
    }
    FILE *file = fopen(path, "wb");
    const bool written = file != nullptr && fwrite(image.data(), 1, image.size(), file) == image.size();
    return written && fclose(file) == 0 ? 0 : fail("writing the image");
}

static int with_agent(bdbus_upgrade_agent_context *context)
{
    context->upgrade_mask = 0x02;
    return bdbus_upgrade_agent_upgrade_stage(context) == 0 ? 0 : fail("the upgrade stage");
}

static sd_bus *bus;

/** One call without the library. */
static bool bare_call(const char *member, const char *signature, uint8_t first, auto second, const void *data,
                      size_t length)
{
    sd_bus_message *request = nullptr;
    sd_bus_message *reply = nullptr;
    sd_bus_error error = {};
    uint8_t code = 0xFF;
    uint8_t picmg = 0;
    const char *name = "com.brisemont.Upgrade1";
    const bool done =
        sd_bus_message_new_method_call(bus, &request, name, "/com/brisemont/Upgrade1", name, member) >= 0 &&
        sd_bus_message_append(request, signature, 0, first, second) >= 0 &&
        (data == nullptr || sd_bus_message_append_array(request, 'y', data, length) >= 0) &&
        sd_bus_call(bus, request, UINT64_MAX, &error, &reply) >= 0 &&
        sd_bus_message_read(reply, "yy", &code, &picmg) >= 0;
    sd_bus_error_free(&error);
    sd_bus_message_unref(request);
    sd_bus_message_unref(reply);
    return done && code == 0;
}

static int with_bare_loop(const bdbus_upgrade_agent_context *context)
{
    const uint32_t length = context->image_size - header_bytes - record_bytes - digest_bytes;
    const uint8_t *data = context->image_data + header_bytes + record_bytes;
    if (sd_bus_open_system(&bus) < 0 || !bare_call("InitiateUpgradeAction", "yyy", 0x02, 2, nullptr, 0)) {
        return fail("starting the upload");
    }
    uint8_t number = 0;
    for (uint32_t sent = 0; sent < length; sent += BDBUS_HPM1_BLOCK_MAX) {
        if (!bare_call("UploadFirmwareBlock", "yyu", number++, BDBUS_HPM1_BLOCK_MAX, data + sent,
                       BDBUS_HPM1_BLOCK_MAX)) {
            return fail("a block");
        }
    }
    return bare_call("FinishFirmwareUpload", "yyu", 1, length, nullptr, 0) ? 0 : fail("the finish");
}

static long peak_bytes()
{
    rusage usage = {};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss * 1024;
}

int main(int argc, char **argv)
{
    if (argc == 4 && strcmp(argv[1], "make") == 0) {
        return make(argv[2], strtoul(argv[3], nullptr, 10));
    }
    if (argc != 3) {
        return fail("usage: upload make FILE BLOCKS | upload agent|bare FILE");
    }
    const long before = peak_bytes();
    bdbus_upgrade_agent_context *context = bdbus_upgrade_agent_initialization(argv[2]);
    if (context == nullptr) {
        return fail("reading the image");
    }
    const int result = strcmp(argv[1], "agent") == 0 ? with_agent(context) : with_bare_loop(context);
    printf("%u %ld\n", context->image_size, peak_bytes() - before);
    bdbus_upgrade_agent_end(context);
    return result;
}
