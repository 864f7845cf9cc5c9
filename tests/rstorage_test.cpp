// SPDX-License-Identifier: LGPL-2.1-or-later
#include "support/calls.hpp"
#include "support/capture.hpp"
#include "support/simulator.hpp"
#include "support/wait.hpp"

#include <bdbus/rstorage.h>

#include <systemd/sd-bus.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cinttypes>
#include <climits>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <thread>

using rstorage = controller_test;

namespace
{

using byte_getter = int32_t (*)(int32_t, uint8_t *);
using text_getter = int32_t (*)(int32_t, char *, uint32_t);

constexpr struct {
    byte_getter get;
    const char *property;
    const char *key; // of the simulator's state
    int value;
} bytes[] = {
    {bdbus_rstorage_disk_get_active_st, "Active", "active", true},
    {bdbus_rstorage_disk_get_connected_st, "Connected", "connected", true},
    {bdbus_rstorage_disk_get_mounted_st, "Mounted", "mounted", true},
    {bdbus_rstorage_disk_get_media_type, "MediaType", "media_type", 0xFE},
    {bdbus_rstorage_disk_get_proto_type, "ProcotolType", "protocol_type", 0x7F},
    {bdbus_rstorage_disk_get_write_protected_st, "WriteProtected", "write_protected", true},
};

constexpr struct {
    text_getter get;
    const char *property;
    const char *key;
} texts[] = {
    {bdbus_rstorage_disk_get_smb_share_addr, "SmbShareAddr", "smb_share_addr"},
    {bdbus_rstorage_disk_get_username, "UserName", "user_name"},
    {bdbus_rstorage_disk_get_smb_path_file, "SmbPathToFile", "smb_path_to_file"},
    {bdbus_rstorage_disk_get_image_name, "ImageName", "image_name"},
    {bdbus_rstorage_disk_get_image_url, "ImageURL", "image_url"},
    {bdbus_rstorage_disk_get_password, "Password", "password"},
    {bdbus_rstorage_disk_get_domain, "Domain", "domain"},
};

void set_disk(const json &values)
{
    simulator::set({{"rstorage", {{"disks", {{"3", values}}}}}});
}

/** Take the only call since the last look, which went to disk 3, as [kind, member, signature, arguments]; its sender.
 */
std::string expect_call(const json &expected)
{
    const json calls = simulator::calls("RStorage1");
    EXPECT_EQ(calls.size(), 1U);
    const json call = calls.back();
    EXPECT_EQ(json({call["kind"], call["member"], call["signature"], call["args"]}), expected);
    EXPECT_EQ(call["path"], "/com/brisemont/RStorage1/Disk/3");
    EXPECT_EQ(call["interface"], "com.brisemont.RStorage1");
    simulator::clear_calls();
    return call["sender"];
}

} // namespace

TEST_F(rstorage, tells_that_there_is_no_bus_and_opens_once_there_is)
{
    const std::string line = "Failed to connect to system bus: No such file or directory\n";
    uint8_t byte = 9;
    char text[] = "kept";
    int32_t result = 9;
    without_bus([&] {
        const stderr_capture said;
        EXPECT_EQ(bdbus_rstorage_disk_get_proto_type(3, &byte), -ENOENT);
        EXPECT_EQ(bdbus_rstorage_disk_get_domain(3, text, sizeof(text)), -ENOENT);
        EXPECT_EQ(bdbus_rstorage_disk_get_status(3, 0, &result), -ENOENT);
        EXPECT_EQ(bdbus_rstorage_disk_mount(3, "", &result, text, sizeof(text)), -ENOENT);
        EXPECT_EQ(said.text(), line + "Failed to get property ProcotolType: No such file or directory\n" + line +
                                   "Failed to get property Domain: No such file or directory\n" + line + line);
    });
    EXPECT_EQ(byte, 9);
    EXPECT_STREQ(text, "kept");
    EXPECT_EQ(result, 9);
    EXPECT_EQ(bdbus_rstorage_disk_get_proto_type(3, &byte), 0);
}

TEST_F(rstorage, asks_for_each_property_of_its_disk)
{
    for (const auto &[get, property, key, value] : bytes) {
        set_disk({{key, value == 1 ? json(true) : json(value)}});
        uint8_t out[2] = {0xEE, 0xEE};
        EXPECT_EQ(get(3, out), 0);
        EXPECT_EQ(json(out), json({value, 0xEE})) << property;
        expect_call({"get", property, "", json::array()});
        EXPECT_EQ(get(3, nullptr), -EINVAL);
    }
    for (const auto &[get, property, key] : texts) {
        set_disk({{key, std::string("value of ") + key}});
        char out[64];
        EXPECT_EQ(get(3, out, sizeof(out)), 0);
        EXPECT_EQ(out, std::string("value of ") + key);
        expect_call({"get", property, "", json::array()});
        EXPECT_EQ(get(3, nullptr, 5), -EINVAL);
    }
    EXPECT_EQ(simulator::calls("RStorage1"), json::array()) << "a null output is refused before anything is sent";
}

TEST_F(rstorage, keeps_within_the_callers_buffer)
{
    const std::string longest(60'000, 'x');
    for (const std::string &whole : {std::string(), std::string("1234567"), std::string("12345678"), longest}) {
        set_disk({{"image_name", whole}});
        for (const uint32_t len : {0U, 1U, 2U, 8U}) {
            const auto expected = [&whole, len] {
                std::string room(12, '#');
                const std::string text = whole.substr(0, len == 0 ? 0 : len - 1) + '\0';
                return len == 0 ? room : room.replace(0, text.size(), text);
            };
            std::string read(12, '#');
            EXPECT_EQ(bdbus_rstorage_disk_get_image_name(3, read.data(), len), 0);
            EXPECT_EQ(read, expected()) << whole.size() << ' ' << len;

            int32_t result = 9;
            simulator::fault({{"service", "RStorage1"},
                              {"member", "Mount"},
                              {"reply", {{"signature", "is"}, {"values", {-5, whole}}}}});
            std::string answered(12, '#');
            EXPECT_GT(bdbus_rstorage_disk_mount(3, "", &result, answered.data(), len), 0);
            EXPECT_EQ(result, -5);
            EXPECT_EQ(answered, expected()) << whole.size() << ' ' << len;
        }
    }
    std::string exact(longest.size() + 1, '#');
    EXPECT_EQ(bdbus_rstorage_disk_get_image_name(3, exact.data(), UINT32_MAX), 0);
    EXPECT_EQ(exact, longest + '\0');
}

TEST_F(rstorage, sends_each_call_over_the_connection_of_its_kind)
{
    set_disk({{"image_name", "a.iso"}, {"password", "pässword"}, {"status", -77}});
    int32_t out = 9;
    char text[8];
    EXPECT_EQ(bdbus_rstorage_disk_get_status(3, 0xFE, &out), 1);
    EXPECT_EQ(out, -77);
    const std::string queries = expect_call({"call", "Status", "y", {0xFE}});

    EXPECT_EQ(bdbus_rstorage_disk_mount(3, "passwort", &out, nullptr, 5), 1) << "the reply's text is left alone";
    EXPECT_EQ(out, -1) << "not that one";
    const std::string actions = expect_call({"call", "Mount", "s", {{{"length", 8}}}});
    EXPECT_EQ(bdbus_rstorage_disk_mount(3, "pässword", &out, text, sizeof(text)), 1);
    EXPECT_EQ(out, 0) << "the simulator takes the right text only";
    EXPECT_STREQ(text, "a.iso");
    EXPECT_EQ(expect_call({"call", "Mount", "s", {{{"length", 9}}}}), actions);

    EXPECT_EQ(bdbus_rstorage_disk_gadget_start(3, 0xA5, 0x100, &out), 1);
    EXPECT_EQ(out, 0);
    EXPECT_EQ(expect_call({"call", "GadgetStart", "yb", {0xA5, true}}), actions);
    EXPECT_EQ(bdbus_rstorage_disk_unmount(3, &out), 1);
    EXPECT_EQ(out, -1) << "in use";
    EXPECT_EQ(expect_call({"call", "Unmount", "", json::array()}), actions);
    EXPECT_EQ(bdbus_rstorage_disk_gadget_stop(3, &out), 1);
    EXPECT_EQ(out, 0);
    EXPECT_EQ(expect_call({"call", "GadgetStop", "", json::array()}), actions);

    uint8_t active = 9;
    EXPECT_EQ(bdbus_rstorage_disk_get_active_st(3, &active), 0);
    EXPECT_EQ(active, 0);
    EXPECT_EQ(expect_call({"get", "Active", "", json::array()}), queries);
    EXPECT_NE(queries, actions);

    EXPECT_EQ(bdbus_rstorage_disk_get_status(3, 0, nullptr), -EINVAL);
    EXPECT_EQ(bdbus_rstorage_disk_mount(3, nullptr, &out, text, sizeof(text)), -EINVAL);
    EXPECT_EQ(bdbus_rstorage_disk_mount(3, "", nullptr, text, sizeof(text)), -EINVAL);
    EXPECT_EQ(bdbus_rstorage_disk_unmount(3, nullptr), -EINVAL);
    EXPECT_EQ(bdbus_rstorage_disk_gadget_start(3, 0, 0, nullptr), -EINVAL);
    EXPECT_EQ(bdbus_rstorage_disk_gadget_stop(3, nullptr), -EINVAL);
    EXPECT_EQ(simulator::calls("RStorage1"), json::array());
}

TEST_F(rstorage, refuses_disks_that_are_not_there)
{
    for (const int32_t disk : {4, INT_MAX, -1, INT_MIN}) {
        const int code = disk < 0 ? EINVAL : EBADR; // what is negative makes no object path
        uint8_t byte = 9;
        char text[] = "kept";
        int32_t out = 9;
        const stderr_capture said;
        EXPECT_EQ(bdbus_rstorage_disk_get_connected_st(disk, &byte), -code);
        EXPECT_EQ(bdbus_rstorage_disk_get_password(disk, text, sizeof(text)), -code);
        EXPECT_EQ(said.text(), std::string("Failed to get property Connected: ") + strerror(code) +
                                   "\nFailed to get property Password: " + strerror(code) + "\n");
        EXPECT_EQ(bdbus_rstorage_disk_unmount(disk, &out), -code);
        EXPECT_EQ(byte, 9);
        EXPECT_STREQ(text, "kept");
        EXPECT_EQ(out, 9);
    }
    EXPECT_EQ(simulator::calls("RStorage1").size(), 6U);
    EXPECT_EQ(simulator::calls("RStorage1").back()["path"], "/com/brisemont/RStorage1/Disk/2147483647");
}

TEST_F(rstorage, tells_every_failure_in_its_own_words)
{
    static char text[16];
    static int32_t out;
    const auto told = [](const char *member, std::function<bool()> call, const char *issue, const char *parse,
                         bool prints_error_text) {
        SCOPED_TRACE(member);
        expect_every_failure_is_told({"RStorage1", member, std::move(call), issue, prints_error_text, parse});
    };
    told(
        "Mount", [] { return bdbus_rstorage_disk_mount(1, "", &out, text, sizeof(text)) > 0; },
        "failed to issue method call", "failed to parse response message", true);
    told(
        "GadgetStop", [] { return bdbus_rstorage_disk_gadget_stop(1, &out) > 0; }, "Failed to issue method call",
        "Failed to parse response message", true);
    told(
        "Status", [] { return bdbus_rstorage_disk_get_status(1, 0, &out) > 0; }, "Failed to issue method call",
        "Failed to parse response message", true);
    static uint8_t byte;
    told(
        "ProcotolType", [] { return bdbus_rstorage_disk_get_proto_type(1, &byte) == 0; },
        "Failed to get property ProcotolType", "Failed to get property ProcotolType", false);

    simulator::fault(
        {{"service", "RStorage1"}, {"member", "ImageURL"}, {"reply", {{"signature", "y"}, {"values", {1}}}}});
    simulator::fault(
        {{"service", "RStorage1"}, {"member", "Mount"}, {"reply", {{"signature", "i"}, {"values", {31}}}}});
    strcpy(text, "kept");
    const stderr_capture said;
    EXPECT_EQ(bdbus_rstorage_disk_get_image_url(1, text, sizeof(text)), -ENXIO);
    EXPECT_EQ(bdbus_rstorage_disk_mount(1, "", &out, text, sizeof(text)), -ENXIO);
    EXPECT_EQ(said.text(), "Failed to get property ImageURL: No such device or address\n"
                           "failed to parse response message: No such device or address\n");
    EXPECT_EQ(out, 31) << "it came before the text";
    EXPECT_STREQ(text, "kept");
}

TEST_F(rstorage, drops_what_strangers_send_to_connections_without_notices)
{
    const auto descriptors = [] {
        return std::ranges::distance(std::filesystem::directory_iterator("/proc/self/fd"));
    };
    sd_bus *stranger = nullptr;
    ASSERT_GE(sd_bus_open_system_with_description(&stranger, "stranger"), 0);
    for (const sample_call &call : sample_calls) {
        if (strcmp(call.service, "RStorage1") != 0 && strcmp(call.service, "AuthLog1") != 0) {
            continue;
        }
        EXPECT_EQ(call.make(), 0);
        const std::string receiver = simulator::calls(call.service).back()["sender"];
        EXPECT_EQ(sd_bus_call_method(stranger, "org.freedesktop.DBus", "/", "org.freedesktop.DBus", "GetId", nullptr,
                                     nullptr, nullptr),
                  1);
        const auto before = descriptors();
        for (int i = 0; i < 8; i++) {
            sd_bus_message *signal = nullptr;
            sd_bus_message_new_signal(stranger, &signal, "/stranger", "com.example.Stranger", "Here");
            sd_bus_message_append(signal, "h", STDIN_FILENO);
            EXPECT_GE(sd_bus_send_to(stranger, signal, receiver.c_str(), nullptr), 0);
            sd_bus_message_unref(signal);
        }
        sd_bus_call_method(stranger, "org.freedesktop.DBus", "/", "org.freedesktop.DBus", "GetId", nullptr, nullptr,
                           nullptr);
        EXPECT_EQ(call.make(), 0);
        EXPECT_EQ(descriptors(), before + 8) << "what came before its reply";
        EXPECT_EQ(call.make(), 0);
        EXPECT_EQ(descriptors(), before) << call.name;
    }
    sd_bus_unref(stranger);
}

TEST_F(rstorage, answers_getters_while_a_mount_takes_its_time)
{
    set_disk({{"image_name", "a.iso"}, {"mount_ms", 3'600'000}});
    std::atomic<bool> mounting{true};
    std::thread other([&mounting] {
        const stderr_capture said;
        int32_t out = 9;
        EXPECT_LT(bdbus_rstorage_disk_mount(3, "", &out, nullptr, 0), 0);
        mounting = false;
    });
    ASSERT_TRUE(eventually([] { return !simulator::members("RStorage1").empty(); }));
    uint8_t mounted = 9;
    int32_t status = 9;
    EXPECT_EQ(bdbus_rstorage_disk_get_mounted_st(3, &mounted), 0);
    EXPECT_EQ(bdbus_rstorage_disk_get_status(3, 0, &status), 1);
    EXPECT_TRUE(mounting);
    EXPECT_EQ(mounted + status, 0);
    simulator::stop("RStorage1");
    other.join();
}

namespace
{

// The password of the simulator's first disk, every character one further: no plain copy of it comes from this program.
constexpr char disguised[] = "rvjfu!mboufsot!pwfs!8!ibscpvst";

__attribute__((noinline, no_sanitize("address", "thread"))) bool is_password(const volatile char *at)
{
    for (size_t i = 0; i < sizeof(disguised) - 1; i++) {
        if (at[i] + 1 != disguised[i]) {
            return false;
        }
    }
    return true;
}

/** How often the password is in the memory that this process can write to. */
__attribute__((no_sanitize("address", "thread"))) int passwords_in_memory()
{
    constexpr uintptr_t largest = 64U << 20; // what is larger are a sanitizer's own tables
    int found = 0;
    FILE *maps = fopen("/proc/self/maps", "r");
    std::array<char, 512> line = {};
    while (fgets(line.data(), line.size(), maps) != nullptr) {
        uintptr_t begin = 0;
        uintptr_t end = 0;
        const bool writable =
            sscanf(line.data(), "%" SCNxPTR "-%" SCNxPTR, &begin, &end) == 2 && strstr(line.data(), " rw");
        for (uintptr_t at = begin; writable && end - begin <= largest && at < end - sizeof(disguised); at++) {
            found += is_password(reinterpret_cast<const volatile char *>(at)) ? 1 : 0;
        }
    }
    fclose(maps);
    return found;
}

} // namespace

TEST_F(rstorage, leaves_no_copy_of_a_password_behind)
{
    static char text[40];
    for (const uint32_t len : {uint32_t{sizeof(text)}, 1U, 0U}) {
        EXPECT_EQ(bdbus_rstorage_disk_get_password(1, text, len), 0);
        EXPECT_EQ(passwords_in_memory(), len == sizeof(text) ? 1 : 0) << "the caller's own";
        explicit_bzero(text, sizeof(text));
        EXPECT_EQ(passwords_in_memory(), 0);
    }
}
