// SPDX-License-Identifier: LGPL-2.1-or-later
// The command line of bdbus-sim.
#include "client.hpp"
#include "frame/bus.hpp"
#include "frame/json.hpp"
#include "run.hpp"

#include <algorithm>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

namespace bdbus_sim
{

namespace
{

enum exit_status { done = 0, failed = 1, usage = 2, no_bus = 3 };

json read_scenario(const std::string &path)
{
    return path.empty() ? json::object() : read_json_file(path);
}

/** Cuts off the command of "run": its options are not ours to interpret. */
std::vector<std::string> cut_command(int &argc, char **argv)
{
    char **end = argv + argc;
    char **marker = std::find(argv, end, std::string("--"));
    if (std::find(argv, marker, std::string("run")) == marker) {
        return {};
    }
    std::vector<std::string> command(std::min(marker + 1, end), end);
    argc = static_cast<int>(marker - argv);
    return command;
}

int parse_and_act(int argc, char **argv)
{
    CLI::App app("Simulated controller: its services on the system bus.", "bdbus-sim");
    std::string scenario;
    int status = done;
    std::function<void()> action = [&] {
        status = serve(read_scenario(scenario));
    };

    app.set_version_flag("--version", "bdbus-sim " BDBUS_VERSION);
    app.add_option("--scenario", scenario, "JSON file with the state and the faults to start with");
    app.require_subcommand(0, 1);

    std::vector<std::string> command = cut_command(argc, argv);
    CLI::App *run = app.add_subcommand("run", "Run a command beside the simulator, on a private bus");
    run->footer("The command follows \"--\": bdbus-sim run [--scenario FILE] -- COMMAND [ARG...]");
    run->add_option("--scenario", scenario, "JSON file with the state and the faults to start with");
    run->callback([&] {
        if (command.empty()) {
            throw CLI::RequiredError("-- COMMAND");
        }
        action = [&] {
            status = run_command(read_scenario(scenario), command);
        };
    });
    add_client_commands(app, action);

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        return app.exit(error) == 0 ? done : usage;
    }
    action();
    return status;
}

} // namespace

} // namespace bdbus_sim

int main(int argc, char **argv)
{
    try {
        return bdbus_sim::parse_and_act(argc, argv);
    } catch (const bdbus_sim::bus_unreachable &error) {
        fprintf(stderr, "bdbus-sim: %s\n", error.what());
        return bdbus_sim::no_bus;
    } catch (const std::exception &error) {
        fprintf(stderr, "bdbus-sim: %s\n", error.what());
        return bdbus_sim::failed;
    }
}
