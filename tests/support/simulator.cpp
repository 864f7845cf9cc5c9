// SPDX-License-Identifier: LGPL-2.1-or-later
#include "support/simulator.hpp"

#include "support/capture.hpp"
#include "support/clock.hpp"
#include "support/timeout.hpp"

#include <systemd/sd-bus.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>

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

void expect_every_failure_is_told(const failing_call &subject)
{
    const auto errno_or = [&subject](const std::string &text, int code) {
        return subject.prints_error_text ? text : std::string(strerror(code));
    };
    const auto error = [](const json &message) {
        return json{{"error", {{"name", "org.freedesktop.DBus.Error.AccessDenied"}, {"message", message}}}};
    };
    const std::string &issue = subject.issue_text;
    const struct {
        const char *name;
        json action;
        std::string line; // without a reason: any
    } cases[] = {
        {"an error with a text", error("the text, verbatim: %s"),
         issue + ": " + errno_or("the text, verbatim: %s", EACCES)},
        {"an error without a text", error(nullptr), issue + ": " + strerror(EACCES)},
        {"an error with an empty text", error(""), issue + ": " + strerror(EACCES)},
        {"an error with line ends and terminal escapes", error("a\nb\r\x1b[2J\x7f\u009Bc"),
         issue + ": " + errno_or("a b  [2J   c\n", EACCES)},
        {"an error that carries a number", error(7), issue + ": " + strerror(EACCES)},
        {"no answer", {{"no_reply", true}}, issue + ": "},
        {"a service that dies in the call", {{"die", true}, {"return_after_ms", 0}}, issue + ": "},
        {"a reply of another type", {{"reply", {{"signature", "s"}, {"values", {"text"}}}}}, subject.parse_text + ": "},
        {"an empty reply", {{"reply", {{"signature", ""}, {"values", json::array()}}}}, subject.parse_text + ": "},
    };
    for (const auto &one : cases) {
        if (subject.waits_without_limit && one.action.contains("no_reply")) {
            continue;
        }
        SCOPED_TRACE(one.name);
        json fault = one.action;
        fault.update({{"service", subject.service}, {"member", subject.member}, {"count", 1}});
        simulator::fault(fault);
        const stderr_capture said;
        {
            std::optional<short_timeout> timeout;
            if (one.action.contains("no_reply")) {
                timeout.emplace();
            }
            EXPECT_FALSE(subject.call());
        }
        const std::string text = said.text();
        EXPECT_EQ(text.substr(0, one.line.size()), one.line);
        EXPECT_EQ(text.find('\n') + 1, text.size()) << text;
        simulator::start(subject.service); // returns once the service is back
        EXPECT_TRUE(subject.call());
        EXPECT_EQ(said.text(), text);
    }
}
