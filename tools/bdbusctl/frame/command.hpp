// SPDX-License-Identifier: LGPL-2.1-or-later
// The frame of the command line: families, their verbs, and arguments with a meaning of their own.
#pragma once

#include "frame/session.hpp"
#include "frame/text.hpp"

#include <CLI/CLI.hpp>

#include <concepts>
#include <limits>
#include <memory>
#include <string>

namespace bdbusctl
{

/** Of all families and verbs only those that the command line names are filled, when the parser gets to them. */
class family
{
public:
    family(CLI::App &app, session &run) : app_(app), run_(run)
    {
        app_.require_subcommand(1);
        app_.fallthrough();
        app_.formatter(std::make_shared<CLI::Formatter>());
        app_.get_formatter()->label("SUBCOMMAND", "VERB");
    }

    void verb(const char *name, const char *description, void (*action)(const session &))
    {
        add(name, description).callback([action, &run = run_] { action(run); });
    }

    /** A verb with arguments: `declare` binds them to the fields of a structure, `action` gets it filled. */
    template <class arguments>
    void verb(const char *name, const char *description, void (*declare)(CLI::App &, arguments &),
              void (*action)(const session &, const arguments &))
    {
        const auto values = std::make_shared<arguments>();
        CLI::App &command = add(name, description);
        command.preparse_callback([declare, values, &command](size_t /*words*/) { declare(command, *values); });
        command.callback([action, values, &run = run_] { action(run, *values); });
    }

private:
    CLI::App &add(const char *name, const char *description)
    {
        CLI::App *command = app_.add_subcommand(name, description);
        command->group("Verbs");
        command->fallthrough();
        command->footer("The options of every command: bdbusctl --help");
        return *command;
    }

    CLI::App &app_;
    session &run_;
};

inline void add_family(CLI::App &program, session &run, const char *name, const char *description,
                       void (*fill)(family &))
{
    CLI::App &app = *program.add_subcommand(name, description);
    app.group("Families");
    app.preparse_callback([fill, &app, &run](size_t /*words*/) {
        family named(app, run);
        fill(named);
    });
}

/** An argument whose text `parse` reads; its std::invalid_argument becomes a usage error that names the argument. */
template <class value, class parser>
CLI::Option *add_parsed(CLI::App &command, const std::string &name, value &target, parser parse,
                        const std::string &description)
{
    const auto read = [&target, parse, name](const std::string &text) {
        try {
            target = static_cast<value>(parse(text));
        } catch (const std::invalid_argument &reason) {
            throw failure(name + ": " + reason.what(), exit_status::usage);
        }
    };
    return command.add_option_function<std::string>(name, read, description)->type_name("");
}

template <std::unsigned_integral number>
CLI::Option *add_number(CLI::App &command, const std::string &name, number &target, const std::string &description,
                        uint64_t smallest = 0, uint64_t largest = std::numeric_limits<number>::max())
{
    return add_parsed(
        command, name, target, [=](const std::string &text) { return parse_number(text, smallest, largest); },
        description);
}

/** The argument BYTES: from `least` to `most` bytes in hex. */
inline std::vector<uint8_t> read_bytes(const std::vector<std::string> &words, size_t least, size_t most)
{
    std::vector<uint8_t> bytes;
    try {
        bytes = parse_bytes(words);
    } catch (const std::invalid_argument &reason) {
        throw failure(std::string("BYTES: ") + reason.what(), exit_status::usage);
    }
    if (bytes.size() < least || bytes.size() > most) {
        throw failure(least == most ? format("BYTES: must be %zu bytes, not %zu", most, bytes.size())
                                    : format("BYTES: must be %zu to %zu bytes, not %zu", least, most, bytes.size()),
                      exit_status::usage);
    }
    return bytes;
}

void add_bypass(CLI::App &program, session &run);
void add_config(CLI::App &program, session &run);
void add_network(CLI::App &program, session &run);
void add_upgrade(CLI::App &program, session &run);
void add_hpm1(CLI::App &program, session &run);
void add_image(CLI::App &program, session &run);
void add_sdr(CLI::App &program, session &run);
void add_sel(CLI::App &program, session &run);
void add_raid(CLI::App &program, session &run);
void add_authlog(CLI::App &program, session &run);
void add_rstorage(CLI::App &program, session &run);

} // namespace bdbusctl
