// SPDX-License-Identifier: LGPL-2.1-or-later
// rstorage: the disks of remote storage. What their codes and integers mean is the service's.
#include "frame/command.hpp"
#include "frame/input.hpp"
#include "frame/report.hpp"

#include <bdbus/rstorage.h>

#include <termios.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <memory>
#include <optional>

namespace bdbusctl
{

namespace
{

constexpr uint32_t last_disk = INT32_MAX;
constexpr uint32_t text_bytes = 64 * 1024; // of a service's text; what is longer is cut

struct disk_argument {
    uint32_t disk = 0;
};

CLI::Option *add_disk(CLI::App &command, disk_argument &given)
{
    return add_number(command, "DISK", given.disk, "Number of the disk", 0, last_disk)->required();
}

void declare_disk(CLI::App &command, disk_argument &given)
{
    add_disk(command, given);
}

int32_t number_of(const disk_argument &given)
{
    return static_cast<int32_t>(given.disk);
}

// ---- what a disk is

using byte_getter = int32_t (*)(int32_t, uint8_t *);
using text_getter = int32_t (*)(int32_t, char *, uint32_t);

template <class getter>
struct disk_value {
    const char *key;
    const char *label;
    const char *title; // of the list's column; null: in the JSON only
    getter get;
};

constexpr std::array flags{
    disk_value<byte_getter>{"active", "Active", "ACTIVE", bdbus_rstorage_disk_get_active_st},
    disk_value<byte_getter>{"connected", "Connected", "CONNECTED", bdbus_rstorage_disk_get_connected_st},
    disk_value<byte_getter>{"mounted", "Mounted", "MOUNTED", bdbus_rstorage_disk_get_mounted_st},
    disk_value<byte_getter>{"write_protected", "Write-protected", "READ-ONLY",
                            bdbus_rstorage_disk_get_write_protected_st},
};

constexpr std::array codes{
    disk_value<byte_getter>{"media_type", "Media type", "MEDIA", bdbus_rstorage_disk_get_media_type},
    disk_value<byte_getter>{"protocol_type", "Protocol type", "PROTOCOL", bdbus_rstorage_disk_get_proto_type},
};

constexpr std::array texts{
    disk_value<text_getter>{"image_name", "Image name", "IMAGE", bdbus_rstorage_disk_get_image_name},
    disk_value<text_getter>{"image_url", "Image URL", nullptr, bdbus_rstorage_disk_get_image_url},
    disk_value<text_getter>{"smb_share_addr", "SMB share", nullptr, bdbus_rstorage_disk_get_smb_share_addr},
    disk_value<text_getter>{"smb_path_to_file", "Path on the share", nullptr, bdbus_rstorage_disk_get_smb_path_file},
    disk_value<text_getter>{"user_name", "User", nullptr, bdbus_rstorage_disk_get_username},
    disk_value<text_getter>{"domain", "Domain", nullptr, bdbus_rstorage_disk_get_domain},
};

constexpr disk_value<text_getter> password{"password", "Password", nullptr, bdbus_rstorage_disk_get_password};

uint8_t read_value(const session &run, int32_t disk, const disk_value<byte_getter> &which)
{
    uint8_t value = 0;
    run.call(format("read disk %d", disk), [&] { return which.get(disk, &value); });
    return value;
}

cell read_value(const session &run, int32_t disk, const disk_value<text_getter> &which)
{
    const auto text = std::make_unique<char[]>(text_bytes);
    run.call(format("read disk %d", disk), [&] { return which.get(disk, text.get(), text_bytes); });
    return {text[0] == '\0' ? "-" : text.get(), text.get()};
}

/** Calls `visit` with each value and its description. */
template <class visitor>
void read_disk(const session &run, int32_t disk, const visitor &visit)
{
    for (const auto &flag : flags) {
        visit(flag, read_value(run, disk, flag) != 0);
    }
    for (const auto &code : codes) {
        visit(code, read_value(run, disk, code));
    }
    for (const auto &text : texts) {
        visit(text, read_value(run, disk, text));
    }
}

bool has_disk(const session &run, int32_t disk)
{
    uint8_t active = 0;
    const outcome seen = run.observe([&] { return bdbus_rstorage_disk_get_active_st(disk, &active); });
    if (seen.result < 0 && seen.result != -EBADR) {
        throw failed_call(format("cannot read disk %d", disk), seen);
    }
    return seen.result == 0;
}

void require_disk(const session &run, int32_t disk)
{
    if (!has_disk(run, disk)) {
        throw failure(format("no such disk: %d", disk));
    }
}

struct list_arguments {
    uint32_t last = 15;
};

void declare_list(CLI::App &command, list_arguments &given)
{
    add_number(command, "--last", given.last, "Number of the last disk that is looked for [15]", 0, last_disk)
        ->type_name("NUMBER");
}

std::vector<column> list_columns()
{
    std::vector<column> columns{{"disk", "DISK", true}};
    const auto add = [&columns](const auto &values, bool right) {
        for (const auto &value : values) {
            columns.push_back({value.key, value.title, right});
        }
    };
    add(flags, false);
    add(codes, true);
    add(texts, false);
    return columns;
}

/** The service has no list of its disks: those that answer are there. */
void add_row_if_there(const session &run, report &table, int32_t disk)
{
    if (!has_disk(run, disk)) {
        return;
    }
    std::vector<cell> row{disk};
    read_disk(run, disk, [&row](const auto & /*which*/, cell value) { row.push_back(std::move(value)); });
    table.add(row);
}

void list(const session &run, const list_arguments &given)
{
    report table(run, list_columns());
    try {
        for (uint32_t disk = 0; disk <= given.last; disk++) {
            add_row_if_there(run, table, static_cast<int32_t>(disk));
        }
    } catch (const failure &error) {
        table.show_so_far(error, "disks");
    }
    table.show();
}

struct show_arguments : disk_argument {
    bool show_password = false;
};

void declare_show(CLI::App &command, show_arguments &given)
{
    add_disk(command, given);
    command.add_flag("--show-password", given.show_password, "Show the password, too");
}

void show(const session &run, const show_arguments &given)
{
    const int32_t disk = number_of(given);
    require_disk(run, disk);
    record shown;
    const auto add = [&shown](const auto &which, const cell &value) {
        shown.add(which.key, which.label, value);
    };
    shown.add("disk", "Disk", disk);
    read_disk(run, disk, add);
    if (given.show_password) {
        add(password, read_value(run, disk, password));
    }
    shown.show(run);
}

struct status_arguments : disk_argument {
    uint8_t question = 0;
};

void declare_status(CLI::App &command, status_arguments &given)
{
    add_disk(command, given);
    add_number(command, "BYTE", given.question, "What is asked for, 0 to 255 [0]");
}

void status(const session &run, const status_arguments &given)
{
    const int32_t disk = number_of(given);
    int32_t answer = 0;
    require_disk(run, disk);
    run.call(format("ask for the status of disk %d", disk),
             [&] { return bdbus_rstorage_disk_get_status(disk, given.question, &answer); });
    record shown;
    shown.add("status", "Status", answer);
    shown.show(run);
}

// ---- what is done with it

/** The result is the service's own, and shown as it came. */
template <class action>
record act(const session &run, const disk_argument &given, const std::string &intent, const action &call)
{
    int32_t result = 0;
    require_disk(run, number_of(given));
    run.call(intent, [&] { return call(number_of(given), &result); });
    record shown;
    shown.add("result", "Result", result);
    return shown;
}

struct mount_arguments : disk_argument {
    std::optional<std::string> text;
    std::optional<std::string> password_file;
};

void declare_mount(CLI::App &command, mount_arguments &given)
{
    add_disk(command, given);
    CLI::Option *text = command.add_option("TEXT", given.text, "Sent with the request [an empty text]")->type_name("");
    command.add_option("--password-file", given.password_file, "Read TEXT from a file; - for the standard input")
        ->type_name("FILE")
        ->excludes(text);
}

/** Turns the terminal's echo off while a password is typed. */
class silent_terminal
{
public:
    silent_terminal() : is_terminal_(tcgetattr(STDIN_FILENO, &before_) == 0)
    {
        if (!is_terminal_) {
            return;
        }
        termios silent = before_;
        silent.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        tcsetattr(STDIN_FILENO, TCSAFLUSH, &silent);
        fputs("Password: ", stderr);
    }
    ~silent_terminal()
    {
        if (is_terminal_) {
            tcsetattr(STDIN_FILENO, TCSAFLUSH, &before_);
            fputc('\n', stderr);
        }
    }
    silent_terminal(const silent_terminal &) = delete;
    silent_terminal &operator=(const silent_terminal &) = delete;

private:
    termios before_{};
    bool is_terminal_;
};

/** The first line, so that the file may end like any other. */
std::string read_password(const std::string &path)
{
    std::optional<silent_terminal> silent;
    if (path == "-") {
        silent.emplace();
    }
    std::string text = read_first_line(path, text_bytes);
    if (text.empty() || text.size() == text_bytes || text.find('\0') != std::string::npos) {
        throw failure(input_name(path) + ": not a password");
    }
    return text;
}

void mount(const session &run, const mount_arguments &given)
{
    const std::string text = given.password_file ? read_password(*given.password_file) : given.text.value_or("");
    const auto answer = std::make_unique<char[]>(text_bytes);
    record shown =
        act(run, given, format("mount the image of disk %u", given.disk), [&](int32_t disk, int32_t *result) {
            return bdbus_rstorage_disk_mount(disk, text.c_str(), result, answer.get(), text_bytes);
        });
    shown.add("text", "Text", std::string(answer.get()));
    shown.show(run);
}

void unmount(const session &run, const disk_argument &given)
{
    run.confirm(format("This unmounts the image of disk %u.", given.disk));
    act(run, given, format("unmount the image of disk %u", given.disk), bdbus_rstorage_disk_unmount).show(run);
}

struct gadget_arguments : disk_argument {
    std::string action;
    std::optional<uint8_t> byte;
    bool flag = false;
};

void declare_gadget(CLI::App &command, gadget_arguments &given)
{
    command.add_option("ACTION", given.action, "start or stop")->type_name("")->required();
    add_disk(command, given);
    add_parsed(
        command, "--byte", given.byte, [](const std::string &text) { return parse_number(text, 0, UINT8_MAX); },
        "start: sent with the request, 0 to 255 [0]")
        ->type_name("NUMBER");
    command.add_flag("--flag", given.flag, "start: sends yes with the request, not no");
}

void gadget(const session &run, const gadget_arguments &given)
{
    const bool starts = given.action == "start";
    if (!starts && given.action != "stop") {
        throw failure("ACTION: '" + one_line(given.action) + "' is neither start nor stop", exit_status::usage);
    }
    if (!starts && (given.byte || given.flag)) {
        throw failure("--byte and --flag go with start only", exit_status::usage);
    }
    if (!starts) {
        run.confirm(format("This takes disk %u away from the host.", given.disk));
    }
    const std::string intent = format("%s the gadget of disk %u", given.action.c_str(), given.disk);
    act(run, given, intent, [&](int32_t disk, int32_t *result) {
        return starts ? bdbus_rstorage_disk_gadget_start(disk, given.byte.value_or(0), given.flag ? 1 : 0, result)
                      : bdbus_rstorage_disk_gadget_stop(disk, result);
    }).show(run);
}

} // namespace

void add_rstorage(CLI::App &program, session &run)
{
    add_family(program, run, "rstorage", "Remote storage: disks whose images lie elsewhere", [](family &rstorage) {
        rstorage.verb("list", "Show the disks", declare_list, list);
        rstorage.verb("show", "Show all that is known of a disk", declare_show, show);
        rstorage.verb("status", "Ask for a status value of a disk", declare_status, status);
        rstorage.verb("mount", "Mount a disk's image", declare_mount, mount);
        rstorage.verb("unmount", "Unmount a disk's image", declare_disk, unmount);
        rstorage.verb("gadget", "Start or stop presenting a disk to the host", declare_gadget, gadget);
    });
}

} // namespace bdbusctl
