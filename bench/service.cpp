// SPDX-License-Identifier: LGPL-2.1-or-later
// The other side of the benchmarks: every service of the controller in one process, with constant answers. A simulated
// controller would do more for an answer than the client does for its call.
//
//   bench-service [records=N] [nodes=N] [announce] [signals=N]    prints a line when it can be called
//
// With `announce` a changed reading is announced before it is answered. With `signals` each changed reading and each
// factory mode is followed by so many signals.
#include <systemd/sd-bus.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace
{

struct {
    unsigned records = 1;
    unsigned nodes = 4;
    bool announce = false;
    unsigned signals = 0;
    std::string introspection;
} controller;

constexpr const char *services[] = {
    "com.brisemont.AdvancedBypass", "com.brisemont.AuthLog1",        "com.brisemont.Config1",
    "com.brisemont.Network.Host1",  "com.brisemont.RAIDMgmt",        "com.brisemont.SensorDataRepository1",
    "com.brisemont.Upgrade1",       "com.brisemont.SystemEventLog1",
};

constexpr const char *sdr_path = "/com/brisemont/SensorDataRepository1";
constexpr const char *sdr_interface = "com.brisemont.SensorDataRepository1";
constexpr const char *upgrade_path = "/com/brisemont/Upgrade1";
constexpr const char *upgrade_interface = "com.brisemont.Upgrade1";

template <typename... Values>
int answer(sd_bus_message *call, const char *signature, Values... values)
{
    return sd_bus_reply_method_return(call, signature, values...);
}

/** Answer with values and, after them, an array of zero bytes. */
template <typename... Values>
int answer_with_bytes(sd_bus_message *call, size_t count, const char *signature, Values... values)
{
    static constexpr uint8_t zeros[256] = {};
    sd_bus_message *reply = nullptr;
    int result = sd_bus_message_new_method_return(call, &reply);
    if constexpr (sizeof...(values) > 0) {
        result = result < 0 ? result : sd_bus_message_append(reply, signature, values...);
    }
    result = result < 0 ? result : sd_bus_message_append_array(reply, 'y', zeros, count);
    result = result < 0 ? result : sd_bus_send(nullptr, reply, nullptr);
    sd_bus_message_unref(reply);
    return result;
}

constexpr struct {
    const char *name;
    const char *type;
} properties[] = {
    {"Major", "u"},
    {"Generic_Index", "u"},
    {"UpgradeInProgress", "y"},
    {"BmcFwVersion", "ay"},
    {"LLDPEnabled", "b"},
    {"LLDPSupport", "b"},
    {"LinkStatus", "b"},
    {"PciDeviceId", "q"},
    {"PciSubId", "q"},
    {"PciSubVendorId", "q"},
    {"PciVendorId", "q"},
    {"TTL", "q"},
    {"ChassisIdSubtype", "y"},
    {"PortIDSubtype", "y"},
    {"ChassisID", "s"},
    {"PortID", "s"},
    {"SysName", "s"},
    {"PortDescr", "s"},
    {"SysDescr", "s"},
};

/** Append the value that a property of this type always has. */
int append_value(sd_bus_message *reply, const char *type)
{
    static constexpr uint8_t bytes[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    switch (type[0]) {
    case 'a':
        return sd_bus_message_append_array(reply, 'y', bytes, sizeof(bytes));
    case 's':
        return sd_bus_message_append(reply, type, "02:00:00:00:10:01 port 7");
    default:
        return sd_bus_message_append(reply, type, 1);
    }
}

int get_property(sd_bus_message *call)
{
    const char *interface = nullptr;
    const char *name = nullptr;
    int result = sd_bus_message_read(call, "ss", &interface, &name);
    for (const auto &property : properties) {
        if (result < 0 || strcmp(property.name, name) != 0) {
            continue;
        }
        sd_bus_message *reply = nullptr;
        result = sd_bus_message_new_method_return(call, &reply);
        result = result < 0 ? result : sd_bus_message_open_container(reply, 'v', property.type);
        result = result < 0 ? result : append_value(reply, property.type);
        result = result < 0 ? result : sd_bus_message_close_container(reply);
        result = result < 0 ? result : sd_bus_send(nullptr, reply, nullptr);
        sd_bus_message_unref(reply);
        return result;
    }
    return result < 0 ? result : -ENOENT;
}

int get_sdr(sd_bus_message *call)
{
    uint16_t id = 0;
    int result = sd_bus_message_read(call, "q", &id);
    const unsigned next = id + 1U;
    std::array<uint8_t, 64> sdr = {static_cast<uint8_t>(id), static_cast<uint8_t>(id >> 8)};
    sd_bus_message *reply = nullptr;
    result = result < 0 ? result : sd_bus_message_new_method_return(call, &reply);
    result = result < 0 ? result : sd_bus_message_append(reply, "yq", 0, next < controller.records ? next : 0xFFFF);
    result = result < 0 ? result : sd_bus_message_append_array(reply, 'y', sdr.data(), sdr.size());
    result = result < 0 ? result : sd_bus_send(nullptr, reply, nullptr);
    sd_bus_message_unref(reply);
    return result;
}

int emit_reading(sd_bus_message *call, const char *client, int reading)
{
    return sd_bus_emit_signal(sd_bus_message_get_bus(call), sdr_path, sdr_interface, "ReadingSet", "sqy", client, 0,
                              reading);
}

/** The last of the signals that follow an answer has the reading 255. */
int set_reading(sd_bus_message *call)
{
    uint16_t id = 0;
    uint8_t reading = 0;
    int result = sd_bus_message_read(call, "qy", &id, &reading);
    if (controller.announce && result >= 0) {
        result = emit_reading(call, sd_bus_message_get_sender(call), reading);
    }
    result = result < 0 ? result : answer(call, nullptr);
    for (unsigned left = controller.signals; result >= 0 && left > 0; left--) {
        result = emit_reading(call, ":9.99", left > 1 ? 7 : 255);
    }
    return result;
}

int set_factory_mode(sd_bus_message *call)
{
    int result = answer(call, "y", 0);
    for (unsigned left = controller.signals; result >= 0 && left > 0; left--) {
        result = sd_bus_emit_signal(sd_bus_message_get_bus(call), upgrade_path, upgrade_interface, "BmcReset", nullptr);
    }
    return result;
}

int list_drives(sd_bus_message *call)
{
    return answer(call, "yaqatayayayayayayayi", 4, 4, 1, 2, 3, 4, 4, 1ULL, 2ULL, 3ULL, 4ULL, 4, 1, 2, 3, 4, 4, 1, 2, 3,
                  4, 4, 1, 2, 3, 4, 4, 1, 2, 3, 4, 4, 1, 2, 3, 4, 4, 1, 2, 3, 4, 4, 1, 2, 3, 4, 0);
}

using method = int (*)(sd_bus_message *call);

constexpr struct {
    const char *name;
    method reply;
} methods[] = {
    {"Get", get_property},
    {"Set",
     [](sd_bus_message *call) {
         return answer(call, nullptr);
     }},
    {"Introspect",
     [](sd_bus_message *call) {
         return answer(call, "s", controller.introspection.c_str());
     }},
    {"AuthLogAddEntry",
     [](sd_bus_message *call) {
         return answer(call, "yq", 0, 7);
     }},
    {"SetGlobalReset",
     [](sd_bus_message *call) {
         return answer(call, "i", 1);
     }},
    {"GetSdr", get_sdr},
    {"SetReading", set_reading},
    {"ReserveSel",
     [](sd_bus_message *call) {
         return answer(call, "yq", 0, 7);
     }},
    {"GetSelEntry",
     [](sd_bus_message *call) {
         return answer_with_bytes(call, 16, "yq", 0, 0xFFFF);
     }},
    {"AddSelEntry",
     [](sd_bus_message *call) {
         return answer(call, "yq", 0, 7);
     }},
    {"GetVirtualDriveList",
     [](sd_bus_message *call) {
         return answer(call, "yayati", 2, 2, 1, 2, 2, 1ULL, 2ULL, 0);
     }},
    {"GetPhysicalDriveListWithProgressStatus", list_drives},
    {"GetMaxAvailableSize",
     [](sd_bus_message *call) {
         return answer(call, "ti", 1000ULL, 0);
     }},
    {"InitiateUpgradeAction",
     [](sd_bus_message *call) {
         return answer(call, "yy", 0, 0);
     }},
    {"UploadFirmwareBlock",
     [](sd_bus_message *call) {
         return answer(call, "yy", 0, 0);
     }},
    {"FinishFirmwareUpload",
     [](sd_bus_message *call) {
         return answer(call, "yy", 0, 0);
     }},
    {"GetUpgradeStatus",
     [](sd_bus_message *call) {
         return answer(call, "yyyy", 0, 0, 0, 0);
     }},
    {"BmcFactoryModeNotify", set_factory_mode},
};

int on_message(sd_bus_message *message, void * /*userdata*/, sd_bus_error * /*error*/)
{
    if (sd_bus_message_is_method_call(message, nullptr, nullptr) <= 0) {
        return 0;
    }
    for (const auto &[name, reply] : methods) {
        if (strcmp(name, sd_bus_message_get_member(message)) == 0) {
            const int result = reply(message);
            return result < 0 ? result : 1;
        }
    }
    return 0;
}

/** Take an argument: a number behind a name, or a name alone. */
bool configure(const char *argument)
{
    controller.announce = controller.announce || strcmp(argument, "announce") == 0;
    return strcmp(argument, "announce") == 0 || sscanf(argument, "records=%u", &controller.records) == 1 ||
           sscanf(argument, "nodes=%u", &controller.nodes) == 1 ||
           sscanf(argument, "signals=%u", &controller.signals) == 1;
}

std::string introspection_of(unsigned nodes)
{
    std::string xml = "<node>\n <interface name=\"org.freedesktop.DBus.Introspectable\"/>\n";
    for (unsigned i = 0; i < nodes; i++) {
        xml += " <node name=\"node" + std::to_string(10000 + i) + "\"/>\n";
    }
    return xml + "</node>\n";
}

int serve()
{
    sd_bus *bus = nullptr;
    int result = sd_bus_open_system(&bus);
    result = result < 0 ? result : sd_bus_add_filter(bus, nullptr, on_message, nullptr);
    for (const char *name : services) {
        result = result < 0 ? result : sd_bus_request_name(bus, name, 0);
    }
    if (result >= 0) {
        puts("ready");
        fflush(stdout);
    }
    while (result >= 0) {
        result = sd_bus_process(bus, nullptr);
        result = result == 0 ? sd_bus_wait(bus, UINT64_MAX) : result;
    }
    return result;
}

} // namespace

int main(int argc, char **argv)
{
    for (int i = 1; i < argc; i++) {
        if (!configure(argv[i])) {
            fprintf(stderr, "usage: bench-service [records=N] [nodes=N] [announce] [signals=N]\n");
            return 2;
        }
    }
    controller.introspection = introspection_of(controller.nodes);
    return serve() < 0 ? 1 : 0;
}
