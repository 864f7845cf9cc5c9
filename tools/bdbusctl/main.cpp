// SPDX-License-Identifier: LGPL-2.1-or-later
// bdbusctl: the controller's services at a shell.
#include "common/descriptor.hpp"
#include "frame/command.hpp"

#include <fcntl.h>
#include <syslog.h>
#include <unistd.h>

#include <charconv>
#include <clocale>
#include <cstdio>
#include <stdexcept>

using namespace bdbusctl;

namespace
{

json_style automatic_style()
{
    return isatty(STDOUT_FILENO) ? json_style::pretty : json_style::compact;
}

json_style parse_style(const std::string &text)
{
    if (text == "short") {
        return json_style::compact;
    }
    if (text == "pretty") {
        return json_style::pretty;
    }
    if (text == "off") {
        return json_style::off;
    }
    throw std::invalid_argument("'" + one_line(text) + "' is not short, pretty or off");
}

/** sd-bus reads the variable when it makes its first call. */
void set_timeout(const std::string &text)
{
    double seconds = 0;
    const char *const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, seconds, std::chars_format::fixed);
    if (error != std::errc() || stop != end || !(seconds >= 0.001 && seconds <= 1e6)) {
        throw failure("--timeout: '" + one_line(text) + "' is not a number of seconds from 0.001 to 1000000",
                      exit_status::usage);
    }
    setenv("SYSTEMD_BUS_TIMEOUT", format("%.6fs", seconds).c_str(), 1);
}

void add_options(CLI::App &program, session &run)
{
    program.set_help_flag("-h,--help", "Show this help and exit");
    program.set_version_flag("--version", std::string(program_name) + " " BDBUS_VERSION, "Show the version and exit");
    add_parsed(program, "--json", run.style, parse_style, "JSON output: short (one line), pretty or off")
        ->type_name("STYLE");
    program.add_flag_callback(
        "-j", [&run] { run.style = automatic_style(); }, "JSON output: pretty on a terminal, else short");
    program.add_flag("-q,--quiet", run.quiet, "Show results only, no remarks and no progress");
    program.add_flag("--no-legend", run.no_legend, "Tables without their headings");
    program.add_option_function<std::string>("--timeout", set_timeout, "Seconds that a service has for its answer")
        ->type_name("SECONDS");
    program.add_flag("-y,--yes", run.yes, "Do not ask before changing the controller");
    program.add_flag("-v,--verbose", run.verbose, "Show on stderr all that the library says");
    program.get_formatter()->label("SUBCOMMAND", "FAMILY VERB");
    program.fallthrough();
    program.require_subcommand(1);
    program.footer("Exit status: 0 done, 1 failed, 2 wrong usage, 3 no connection to the bus.");
}

/** A standard descriptor that was closed must not become the library's connection or our captured lines. */
void open_standard_descriptors()
{
    while (true) {
        bdbus_tools::descriptor null(open("/dev/null", O_RDWR | O_CLOEXEC));
        if (null.get() < 0 || null.get() > STDERR_FILENO) {
            return;
        }
        null.release();
    }
}

std::string help_hint(const CLI::App &program)
{
    std::string command = program_name;
    for (const CLI::App *app = &program; !app->get_subcommands().empty();) {
        app = app->get_subcommands().front();
        command += " " + app->get_name();
    }
    return " (see " + command + " --help)";
}

void parse_and_run(CLI::App &program, session &run, int argc, char **argv)
{
    try {
        program.parse(argc, argv);
    } catch (const CLI::Success &shown) {
        program.exit(shown);
    } catch (const CLI::ParseError &error) {
        // An early error leaves the options before it unread.
        if (program.count("-j") + program.count("--json") > 0 && !run.wants_json()) {
            run.style = automatic_style();
        }
        throw failure(error.what() + help_hint(program), exit_status::usage);
    }
    if (fflush(stdout) != 0 || ferror(stdout)) {
        throw failure("cannot write the output");
    }
}

exit_status run_program(int argc, char **argv)
{
    session run;
    CLI::App program("The controller's services at a shell.", program_name);
    try {
        add_options(program, run);
        add_bypass(program, run);
        add_config(program, run);
        add_network(program, run);
        add_upgrade(program, run);
        add_hpm1(program, run);
        add_sdr(program, run);
        add_sel(program, run);
        add_authlog(program, run);
        add_rstorage(program, run);
        add_image(program, run);
        add_raid(program, run);
        parse_and_run(program, run, argc, argv);
        return exit_status::done;
    } catch (const failure &error) {
        run.report(error);
        return error.status;
    } catch (const std::exception &error) {
        run.report(failure(error.what()));
        return exit_status::failed;
    }
}

} // namespace

int main(int argc, char **argv)
{
    open_standard_descriptors();
    setlocale(LC_CTYPE, "");
    openlog(program_name, 0, LOG_USER);
    try {
        return static_cast<int>(run_program(argc, argv));
    } catch (...) {
        return static_cast<int>(exit_status::failed); // not even the failure could be reported
    }
}
