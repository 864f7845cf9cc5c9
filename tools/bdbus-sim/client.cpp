// SPDX-License-Identifier: LGPL-2.1-or-later
// The subcommands that talk to a running simulator.
#include "client.hpp"

#include "common/files.hpp"
#include "frame/bus.hpp"
#include "frame/codec.hpp"
#include "frame/json.hpp"

#include <cerrno>
#include <cstdio>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>

namespace bdbus_sim
{

namespace
{

enum class argument { none, json_text, service, optional_service };

struct client_command {
    const char *name;
    const char *description;
    const char *member;
    argument takes;
    bool prints = false;
};

const client_command client_commands[] = {
    {"state", "Show the whole state", "GetState", argument::none, true},
    {"set", "Change the state by a merge patch", "SetState", argument::json_text},
    {"fault", "Add a fault", "AddFault", argument::json_text},
    {"clear-faults", "Remove all faults", "ClearFaults", argument::none},
    {"emit", "Send a signal", "Emit", argument::json_text},
    {"calls", "List the calls that a service, or all, received", "Calls", argument::optional_service, true},
    {"clear-calls", "Empty the list of calls", "ClearCalls", argument::none},
    {"stop", "Take a service off the bus", "Stop", argument::service},
    {"start", "Put a service back on the bus", "Start", argument::service},
    {"reset", "Go back to the state at the start", "Reset", argument::none},
};

[[noreturn]] void fail(int result, sd_bus_error &error)
{
    static const std::set<int> connection_errors = {ECONNRESET, ENOTCONN, EPIPE};
    bool absent = sd_bus_error_has_name(&error, SD_BUS_ERROR_SERVICE_UNKNOWN) != 0;
    std::string text = absent ? "no simulator on this bus" : error.message == nullptr ? "failed" : error.message;
    sd_bus_error_free(&error);
    if (connection_errors.contains(-result)) {
        throw bus_unreachable(-result);
    }
    throw std::runtime_error(text);
}

json call_control(const char *member, const std::string &signature, const json &args)
{
    const char name[] = "com.brisemont.Simulator1";
    bus_ptr bus = open_system_bus("bdbus-sim");
    sd_bus_message *raw = nullptr;
    check(sd_bus_message_new_method_call(bus.get(), &raw, name, "/com/brisemont/Simulator1", name, member), "call");
    message_ptr request(raw);
    encode(raw, signature, args);

    sd_bus_error error{};
    int result = sd_bus_call(bus.get(), request.get(), 0, &error, &raw);
    if (result < 0) {
        fail(result, error);
    }
    message_ptr reply(raw);
    return decode_arguments(reply.get());
}

void run_client_command(const client_command &command, const std::string &text)
{
    json args = json::array();
    if (command.takes == argument::json_text) {
        args.push_back(to_text(parse_json_argument(text)));
    } else if (command.takes != argument::none) {
        args.push_back(text);
    }
    json reply = call_control(command.member, args.empty() ? "" : "s", args);
    if (command.prints) {
        puts(to_text(json::parse(reply.at(0).get<std::string>()), 2).c_str());
    }
}

void save_received(uint8_t component, const std::string &path)
{
    json reply = call_control("GetReceived", "y", json::array({component}));
    bdbus_tools::write_file(path, text_of(reply.at(0).get_binary()));
}

void add_argument(CLI::App &subcommand, argument takes, std::string &text)
{
    switch (takes) {
    case argument::none:
        break;
    case argument::json_text:
        subcommand.add_option("JSON", text, "JSON text, or @FILE")->required();
        break;
    case argument::service:
        subcommand.add_option("SERVICE", text, "short name, such as Upgrade1")->required();
        break;
    case argument::optional_service:
        subcommand.add_option("SERVICE", text, "short name, such as Upgrade1");
        break;
    }
}

/** Sets `action` to `chosen` when the subcommand is the one on the command line. */
void on_choice(CLI::App &subcommand, std::function<void()> &action, std::function<void()> chosen)
{
    subcommand.callback([&action, chosen = std::move(chosen)] { action = chosen; });
}

} // namespace

void add_client_commands(CLI::App &app, std::function<void()> &action)
{
    for (const client_command &command : client_commands) {
        CLI::App *subcommand = app.add_subcommand(command.name, command.description);
        auto text = std::make_shared<std::string>();
        add_argument(*subcommand, command.takes, *text);
        on_choice(*subcommand, action, [&command, text] { run_client_command(command, *text); });
    }

    CLI::App *received = app.add_subcommand("received", "Save what the upgrade target received for a component");
    auto component = std::make_shared<uint16_t>();
    auto path = std::make_shared<std::string>();
    received->add_option("COMPONENT", *component, "0 to 7")->required()->check(CLI::Range(0, 7));
    received->add_option("FILE", *path, "the file to write")->required();
    on_choice(*received, action, [component, path] { save_received(static_cast<uint8_t>(*component), *path); });
}

} // namespace bdbus_sim
