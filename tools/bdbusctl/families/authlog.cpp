// SPDX-License-Identifier: LGPL-2.1-or-later
// authlog and user: the authentication log, and changes of user accounts for its service. What the bytes mean is the
// service's.
#include "frame/command.hpp"
#include "frame/report.hpp"
#include "names/ipmi-names.hpp"

#include <bdbus/user.h>

#include <algorithm>

namespace bdbusctl
{

namespace
{

/** The bytes go to the start of `target`. */
void copy_bytes(const std::vector<std::string> &words, size_t least, std::span<uint8_t> target)
{
    const auto bytes = read_bytes(words, least, target.size());
    std::copy(bytes.begin(), bytes.end(), target.begin());
}

template <class exchange>
void send(const session &run, const std::string &intent, int32_t (*call)(exchange *), exchange &values)
{
    run.call(intent, [&] { return call(&values); });
    if (values.completion_code != completion_success) {
        failure refused =
            completion_failure("cannot " + intent, values.completion_code, completion_name(values.completion_code));
        refused.error["value"] = values.value;
        throw failure(refused);
    }
    record shown;
    shown.hide("completion_code", values.completion_code);
    shown.add("value", "Value", values.value);
    shown.show(run);
}

struct log_arguments {
    std::vector<std::string> bytes;
};

CLI::Option *add_bytes(CLI::App &command, log_arguments &given, const char *description)
{
    return command.add_option("BYTES", given.bytes, description)->type_name("");
}

void declare_add(CLI::App &command, log_arguments &given)
{
    add_bytes(command, given, "The entry's bytes in hex, at most 39; zeros follow")->required();
}

void declare_delete(CLI::App &command, log_arguments &given)
{
    add_bytes(command, given, "The 2 bytes in hex that name the entry")->required();
}

void declare_clear(CLI::App &command, log_arguments &given)
{
    add_bytes(command, given, "The 4 bytes in hex that confirm it [434c52aa: \"CLR\" and 0xaa]");
}

void add(const session &run, const log_arguments &given)
{
    bdbus_authlog_request request{};
    copy_bytes(given.bytes, 1, request.data);
    send(run, "add the entry", bdbus_user_authlog_add_entry, request);
}

void remove(const session &run, const log_arguments &given)
{
    bdbus_authlog_request request{};
    copy_bytes(given.bytes, 2, std::span(request.data).first(2));
    const std::string entry = "entry " + hex_digits(std::span(request.data).first(2));
    run.confirm("This deletes " + entry + " of the authentication log.");
    send(run, "delete " + entry, bdbus_user_authlog_del_entry, request);
}

void clear(const session &run, const log_arguments &given)
{
    bdbus_authlog_request request{{0, 0, 'C', 'L', 'R', 0xAA}, 0, 0};
    if (!given.bytes.empty()) {
        copy_bytes(given.bytes, 4, std::span(request.data).subspan(2, 4));
    }
    run.confirm("This erases all entries of the authentication log.");
    send(run, "clear the log", bdbus_user_authlog_clear, request);
}

struct update_arguments : log_arguments {
    uint16_t first = 0;
    uint16_t second = 0;
};

void declare_update(CLI::App &command, update_arguments &given)
{
    add_number(command, "FIRST", given.first, "First number, 0 to 65535")->required();
    add_number(command, "SECOND", given.second, "Second number, 0 to 65535")->required();
    add_bytes(command, given, "The bytes after them in hex, at most 17; zeros follow");
}

void update(const session &run, const update_arguments &given)
{
    bdbus_user_update request{given.first, given.second, {}, 0, 0};
    copy_bytes(given.bytes, 0, request.data);
    send(run, "tell of the user's update", bdbus_user_update_send_event, request);
}

} // namespace

void add_authlog(CLI::App &program, session &run)
{
    add_family(program, run, "authlog", "Authentication log", [](family &authlog) {
        authlog.verb("add", "Add an entry", declare_add, add);
        authlog.verb("delete", "Delete an entry", declare_delete, remove);
        authlog.verb("clear", "Erase the log", declare_clear, clear);
    });
    add_family(program, run, "user", "User accounts", [](family &user) {
        user.verb("update", "Tell the authentication log that an account changed", declare_update, update);
    });
}

} // namespace bdbusctl
