// SPDX-License-Identifier: LGPL-2.1-or-later
#include "support/calls.hpp"
#include "support/capture.hpp"
#include "support/simulator.hpp"

#include <bdbus/rstorage.h>

#include <systemd/sd-bus.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cinttypes>
#include <climits>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <set>

using rstorage = controller_test;

namespace
{

constexpr struct {
    int32_t (*get)(int32_t, uint8_t *);
    const char *property;
    const char *type;
    int value;
} bytes[] = {
    {bdbus_rstorage_disk_get_active_st, "Active", "b", 1},
    {bdbus_rstorage_disk_get_connected_st, "Connected", "b", 1},
    {bdbus_rstorage_disk_get_mounted_st, "Mounted", "b", 1},
    {bdbus_rstorage_disk_get_media_type, "MediaType", "y", 0xFE},
    {bdbus_rstorage_disk_get_proto_type, "ProcotolType", "y", 0x7F},
    {bdbus_rstorage_disk_get_write_protected_st, "WriteProtected", "b", 1},
};

constexpr std::pair<int32_t (*)(int32_t, char *, uint32_t), const char *> texts[] = {
    {bdbus_rstorage_disk_get_smb_share_addr, "SmbShareAddr"},
    {bdbus_rstorage_disk_get_username, "UserName"},
    {bdbus_rstorage_disk_get_smb_path_file, "SmbPathToFile"},
    {bdbus_rstorage_disk_get_image_name, "ImageName"},
    {bdbus_rstorage_disk_get_image_url, "ImageURL"},
    {bdbus_rstorage_disk_get_password, "Password"},
    {bdbus_rstorage_disk_get_domain, "Domain"},
};

void set_disk(const json &values)
{
    simulator::set({{"rstorage", {{"disks", {{"3", values}}}}}});
}

/** Take the only call since the last look, which went to disk 3, as [kind, member, signature, arguments]. @return who
 * sent it. */
std::string expect_call(const json &expected)
{
    const json call = simulator::calls("RStorage1").at(0);
    EXPECT_EQ(json({call["kind"], call["member"], call["signature"], call["args"]}), expected);
    EXPECT_EQ(call["path"], "/com/brisemont/RStorage1/Disk/3");
    EXPECT_EQ(call["interface"], "com.brisemont.RStorage1");
    EXPECT_EQ(simulator::calls("RStorage1").size(), 1U);
    simulator::clear_calls();
    return call["sender"];
}

} // namespace

TEST_F(rstorage, asks_for_each_property_of_its_disk)
{
    for (const auto &[get, property, type, value] : bytes) {
        simulator::answer("RStorage1", property, type, {*type == 'b' ? json(true) : json(value)});
        uint8_t out[2] = {0xEE, 0xEE};
        EXPECT_EQ(get(3, out), 0);
        EXPECT_EQ(json(out), json({value, 0xEE})) << property;
        EXPECT_EQ(get(3, nullptr), -EINVAL);
        expect_call({"get", property, "", json::array()});
    }
    for (const auto &[get, property] : texts) {
        simulator::answer("RStorage1", property, "s", {property});
        char out[64];
        EXPECT_EQ(get(3, out, sizeof(out)), 0);
        EXPECT_STREQ(out, property);
        EXPECT_EQ(get(3, nullptr, 5), -EINVAL);
        expect_call({"get", property, "", json::array()});
    }
}

TEST_F(rstorage, keeps_within_the_callers_buffer)
{
    const std::string longest(60'000, 'x');
    for (const std::string &whole : {std::string(), std::string("1234567"), std::string("12345678"), longest}) {
        set_disk({{"image_name", whole}});
        for (const uint32_t len : {0U, 1U, 2U, 8U}) {
            std::string expected(12, '#');
            if (len > 0) {
                const std::string text = whole.substr(0, len - 1) + '\0';
                expected.replace(0, text.size(), text);
            }
            std::string read(12, '#');
            EXPECT_EQ(bdbus_rstorage_disk_get_image_name(3, read.data(), len), 0);
            EXPECT_EQ(read, expected) << whole.size() << ' ' << len;

            int32_t result = 9;
            simulator::answer("RStorage1", "Mount", "is", {-5, whole});
            std::string answered(12, '#');
            EXPECT_GT(bdbus_rstorage_disk_mount(3, "", &result, answered.data(), len), 0);
            EXPECT_EQ(result, -5);
            EXPECT_EQ(answered, expected) << whole.size() << ' ' << len;
        }
    }
    std::string exact(longest.size() + 1, '#');
    EXPECT_EQ(bdbus_rstorage_disk_get_image_name(3, exact.data(), UINT32_MAX), 0);
    EXPECT_EQ(exact, longest + '\0');
}

TEST_F(rstorage, sends_each_call_over_the_connection_of_its_kind)
{
    char text[] = "before";
    const auto sender_of = [](const json &call, const std::function<int32_t(int32_t *)> &make) {
        const json answer = call[0] == "Mount" ? json({-5, "a.iso"}) : json::array({-5});
        simulator::answer("RStorage1", call[0], call[0] == "Mount" ? "is" : "i", answer);
        int32_t out = 9;
        EXPECT_EQ(make(&out), 1);
        EXPECT_EQ(out, -5);
        return expect_call({"call", call[0], call[1], call[2]});
    };
    const std::string queries =
        sender_of({"Status", "y", {0xFE}}, [](int32_t *out) { return bdbus_rstorage_disk_get_status(3, 0xFE, out); });
    EXPECT_EQ(bdbus_rstorage_disk_get_active_st(3, reinterpret_cast<uint8_t *>(text)), 0);
    EXPECT_EQ(expect_call({"get", "Active", "", json::array()}), queries);

    const std::set<std::string> actions = {
        sender_of({"Mount", "s", {{{"length", 0}}}},
                  [](int32_t *out) { return bdbus_rstorage_disk_mount(3, "", out, nullptr, 5); }),
        sender_of({"Mount", "s", {{{"length", 9}}}},
                  [&text](int32_t *out) { return bdbus_rstorage_disk_mount(3, "pässword", out, text, sizeof(text)); }),
        sender_of({"GadgetStart", "yb", {0xA5, true}},
                  [](int32_t *out) { return bdbus_rstorage_disk_gadget_start(3, 0xA5, 0x100, out); }),
        sender_of({"GadgetStop", "", json::array()},
                  [](int32_t *out) { return bdbus_rstorage_disk_gadget_stop(3, out); }),
        sender_of({"Unmount", "", json::array()}, [](int32_t *out) { return bdbus_rstorage_disk_unmount(3, out); }),
    };
    EXPECT_STREQ(text, "a.iso");
    EXPECT_EQ(actions.size(), 1U);
    EXPECT_FALSE(actions.contains(queries));
}

TEST_F(rstorage, refuses_disks_that_are_not_there)
{
    for (const int32_t disk : {4, INT_MAX, -1, INT_MIN}) {
        const int code = disk < 0 ? EINVAL : EBADR; // what is negative makes no object path
        char text[] = "kept";
        int32_t out = 9;
        const stderr_capture said;
        EXPECT_EQ(bdbus_rstorage_disk_get_password(disk, text, sizeof(text)), -code);
        EXPECT_EQ(said.text(), std::string("Failed to get property Password: ") + strerror(code) + '\n');
        EXPECT_EQ(bdbus_rstorage_disk_gadget_stop(disk, &out), -code);
        EXPECT_NE(said.text().find("\nFailed to issue method call: "), std::string::npos) << said.text();
        EXPECT_STREQ(text, "kept");
        EXPECT_EQ(out, 9);
    }
    EXPECT_EQ(simulator::calls("RStorage1").size(), 4U);
    EXPECT_EQ(simulator::calls("RStorage1").back()["path"], "/com/brisemont/RStorage1/Disk/2147483647");
}

TEST_F(rstorage, sends_nothing_without_an_output_and_keeps_what_came_before_the_end_of_a_reply)
{
    int32_t out = 9;
    char text[] = "kept";
    for (const int32_t refused :
         {bdbus_rstorage_disk_get_status(3, 0, nullptr), bdbus_rstorage_disk_mount(3, nullptr, &out, text, 5),
          bdbus_rstorage_disk_mount(3, "", nullptr, text, 5), bdbus_rstorage_disk_unmount(3, nullptr),
          bdbus_rstorage_disk_gadget_start(3, 0, 0, nullptr), bdbus_rstorage_disk_gadget_stop(3, nullptr)}) {
        EXPECT_EQ(refused, -EINVAL);
    }
    EXPECT_EQ(simulator::calls("RStorage1"), json::array());
    simulator::answer("RStorage1", "Mount", "i", {31});
    const stderr_capture said;
    EXPECT_EQ(bdbus_rstorage_disk_mount(3, "", &out, text, sizeof(text)), -ENXIO);
    EXPECT_EQ(said.text(), "failed to parse response message: No such device or address\n");
    EXPECT_EQ(out, 31);
    EXPECT_STREQ(text, "kept");
}

/** Send notices with a descriptor each to the connection that a call goes over. */
static void send_descriptors(sd_bus *stranger, const sample_call &call, int count)
{
    const std::string receiver = simulator::calls(call.service).back()["sender"];
    for (int i = 0; i < count; i++) {
        sd_bus_message *signal = nullptr;
        sd_bus_message_new_signal(stranger, &signal, "/stranger", "com.example.Stranger", "Here");
        sd_bus_message_append(signal, "h", STDIN_FILENO);
        EXPECT_GE(sd_bus_send_to(stranger, signal, receiver.c_str(), nullptr), 0);
        sd_bus_message_unref(signal);
    }
    sd_bus_call_method(stranger, "org.freedesktop.DBus", "/", "org.freedesktop.DBus", "GetId", nullptr, nullptr,
                       nullptr);
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
        send_descriptors(stranger, call, 0);
        const auto before = descriptors();
        send_descriptors(stranger, call, 8);
        EXPECT_EQ(call.make(), 0);
        EXPECT_EQ(descriptors(), before + 8) << "what came before its reply";
        EXPECT_EQ(call.make(), 0);
        EXPECT_EQ(descriptors(), before) << call.name;
    }
    sd_bus_unref(stranger);
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
