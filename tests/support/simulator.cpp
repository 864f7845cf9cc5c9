// SPDX-License-Identifier: LGPL-2.1-or-later
#include "support/simulator.hpp"

#include "support/capture.hpp"
#include "support/clock.hpp"

#include <systemd/sd-bus.h>

#include <cstdlib>
#include <memory>

namespace
{

constexpr const char *control_name = "com.brisemont.Simulator1";
constexpr const char *control_path = "/com/brisemont/Simulator1";

sd_bus *control_bus()
{
    static sd_bus *const bus = [] {
        sd_bus *opened = nullptr;
        if (sd_bus_open_system_with_description(&opened, "control") < 0) {
            fputs("run the tests under bdbus-sim run\n", stderr);
            abort();
        }
        return opened;
    }();
    return bus;
}

using message = std::unique_ptr<sd_bus_message, decltype(&sd_bus_message_unref)>;

template <typename... Values>
message call(const char *member, const char *signature, Values... values)
{
    sd_bus_error error = {};
    sd_bus_message *reply = nullptr;
    if (sd_bus_call_method(control_bus(), control_name, control_path, control_name, member, &error, &reply, signature,
                           values...) < 0) {
        ADD_FAILURE() << member << ": " << (error.message != nullptr ? error.message : "no answer");
    }
    sd_bus_error_free(&error);
    return {reply, sd_bus_message_unref};
}

} // namespace

template <typename... Argument>
std::string simulator::control(const char *member, const Argument &...argument)
{
    const message reply = call(member, sizeof...(Argument) == 0 ? "" : "s", argument.c_str()...);
    const char *text = "";
    if (reply != nullptr && sd_bus_message_has_signature(reply.get(), "s") > 0) {
        sd_bus_message_read(reply.get(), "s", &text);
    }
    return text;
}

template std::string simulator::control(const char *);
template std::string simulator::control(const char *, const std::string &);

std::vector<std::string> simulator::members(const std::string &service)
{
    std::vector<std::string> names;
    for (const json &entry : calls(service)) {
        names.push_back(entry.at("member"));
    }
    return names;
}

void simulator::fault(const std::string &service, const std::string &member, json action, int count, int skip)
{
    action.update({{"service", service}, {"member", member}, {"count", count}, {"skip", skip}});
    fault(action);
}

void simulator::answer(const std::string &service, const std::string &member, const char *signature, json values)
{
    fault(service, member, {{"reply", {{"signature", signature}, {"values", std::move(values)}}}});
}

json simulator::refusal(const json &message)
{
    return {{"error", {{"name", "org.freedesktop.DBus.Error.AccessDenied"}, {"message", message}}}};
}

json simulator::last_call(const std::string &service)
{
    const json all = calls(service);
    if (all.empty()) {
        return nullptr;
    }
    const json &call = all.back();
    EXPECT_EQ(call["path"], "/com/brisemont/" + service);
    EXPECT_EQ(call["interface"], "com.brisemont." + service);
    return {call["member"], call["signature"], call["args"]};
}

std::vector<uint8_t> simulator::received(uint8_t component)
{
    const message reply = call("GetReceived", "y", component);
    const void *bytes = nullptr;
    size_t count = 0;
    if (reply != nullptr) {
        sd_bus_message_read_array(reply.get(), 'y', &bytes, &count);
    }
    const auto *first = static_cast<const uint8_t *>(bytes);
    return {first, first + count};
}

void controller_test::SetUp()
{
    simulator::reset();
    take_log();
    take_sleeps();
    set_clock_step(0);
}

void without_bus(const std::function<void()> &body)
{
    const std::string address = getenv("DBUS_SYSTEM_BUS_ADDRESS");
    setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/bus", 1);
    body();
    setenv("DBUS_SYSTEM_BUS_ADDRESS", address.c_str(), 1);
}
