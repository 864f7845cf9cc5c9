// SPDX-License-Identifier: LGPL-2.1-or-later
// What a run prints, asks and reports.
#include "frame/session.hpp"

#include "frame/text.hpp"

#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <iostream>

namespace bdbusctl
{

bool session::wants_color() const
{
    const char *no_color = getenv("NO_COLOR");
    const char *terminal = getenv("TERM");
    const bool allowed = no_color == nullptr || *no_color == '\0';
    return allowed && isatty(STDOUT_FILENO) != 0 && terminal != nullptr && strcmp(terminal, "dumb") != 0;
}

void session::print(const std::string &line, const json &document) const
{
    if (wants_json()) {
        print(document);
    } else {
        puts(line.c_str());
    }
}

void session::print(const json &document) const
{
    puts(text_of(document).c_str());
}

std::string session::text_of(const json &document) const
{
    const int indent = style == json_style::pretty ? 2 : -1;
    return escape_controls(document.dump(indent, ' ', false, json::error_handler_t::replace));
}

void session::remark(const std::string &line) const
{
    if (quiet || wants_json()) {
        return;
    }
    puts(line.c_str());
    fflush(stdout);
}

void session::warn(const std::string &line) const
{
    fprintf(stderr, "%s: %s\n", program_name, one_line(line).c_str());
}

void session::confirm(const std::string &question) const
{
    if (yes) {
        return;
    }
    if (wants_json() || !isatty(STDIN_FILENO)) {
        throw failure("this changes the controller and nobody can be asked: add --yes", exit_status::usage);
    }
    fflush(stdout);
    fprintf(stderr, "%s Type \"yes\" to go on: ", question.c_str());
    std::string answer;
    if (!std::getline(std::cin, answer)) {
        fputc('\n', stderr);
    }
    if (answer != "yes") {
        throw failure("not confirmed, nothing was changed");
    }
}

outcome session::observe(const std::function<int32_t()> &call) const
{
    outcome seen = bdbusctl::observe(call);
    show_details(seen);
    return seen;
}

int32_t session::call(const std::string &intent, const std::function<int32_t()> &call) const
{
    const outcome seen = observe(call);
    if (seen.result < 0) {
        throw failed_call("cannot " + intent, seen);
    }
    return seen.result;
}

int32_t session::call_for_value(const std::string &intent, const std::function<int32_t()> &call) const
{
    const outcome seen = observe(call);
    if (!seen.faults().empty()) {
        throw failed_call("cannot " + intent, seen);
    }
    return seen.result;
}

void session::show_details(const outcome &seen) const
{
    if (!verbose) {
        return;
    }
    for (const auto &line : seen.lines) {
        fprintf(stderr, "%s\n", line.text.c_str());
    }
}

void session::report(const failure &error) const
{
    if (wants_json()) {
        json object{{"message", error.what()}};
        object.update(error.error);
        json document{{"error", object}};
        document.update(error.document);
        print(document);
    }
    fflush(stdout);
    warn(error.what());
}

failure failed_with(const std::string &message, const std::string &reason, exit_status status)
{
    failure error(reason.empty() ? message : message + ": " + reason, status);
    error.error["reason"] = reason;
    return error;
}

failure failed_call(const std::string &message, const outcome &seen)
{
    std::string reason = join(seen.faults(), "; ");
    if (reason.empty() && seen.result < 0) {
        reason = strerror(-seen.result);
    }
    return failed_with(message, reason, seen.bus_unreachable() ? exit_status::no_bus : exit_status::failed);
}

} // namespace bdbusctl
