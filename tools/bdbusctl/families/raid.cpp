// SPDX-License-Identifier: LGPL-2.1-or-later
// raid: the storage controller. What the service does not explain goes by the names of the library's records.
#include "frame/command.hpp"
#include "frame/report.hpp"

#include <bdbus/storectrl.h>

#include <algorithm>
#include <iterator>

namespace bdbusctl
{

namespace
{

// ---- queries

template <class function>
auto query(const session &run, const std::string &intent, function call)
{
    decltype(call()) found{};
    run.call_for_value(intent, [&] {
        found = call();
        return 0;
    });
    return found;
}

/** The rows of a list's columns: as many as its counts say, and at least to the last that is not zero. */
template <class... columns>
size_t rows(size_t counted, const columns &...column)
{
    const auto filled = [](const auto &values) {
        const auto last = std::find_if(std::rbegin(values), std::rend(values), [](auto value) { return value != 0; });
        return static_cast<size_t>(std::rend(values) - last);
    };
    const size_t capacity = std::min({std::size(column)...});
    return std::max({std::min(counted, capacity), filled(column)...});
}

template <class... columns>
report table_of(const session &run, size_t counted, std::vector<column> headings, const columns &...column)
{
    report table(run, std::move(headings));
    const size_t end = rows(counted, column...);
    for (size_t row = 0; row < end; row++) {
        table.add({column[row]...});
    }
    return table;
}

/** The head's fields, and the list under `key`. */
void show(const session &run, record head, const char *key, const report &list)
{
    head.hide(key, list.to_json());
    head.show(run);
    if (!run.wants_json()) {
        puts("");
        list.show();
    }
}

template <class result>
record head_of(const result &found)
{
    record head;
    head.add("count", "Count", found.count);
    head.add("status", "Status", found.status);
    return head;
}

record numbered_heads(const std::vector<uint8_t> &heads, int32_t status)
{
    record head;
    for (size_t index = 0; index < heads.size(); index++) {
        head.add(format("head%zu", index + 1).c_str(), format("Head %zu", index + 1).c_str(), heads[index]);
    }
    head.add("status", "Status", status);
    return head;
}

template <class result, class id_column>
void show_drives(const session &run, const result &found, const id_column &ids)
{
    show(run, head_of(found), "drives",
         table_of(run, found.count, {{"id", "ID", true}, {"size", "SIZE", true}}, ids, found.sizes));
}

template <class result, class id_column>
void show_progress(const session &run, const result &found, const id_column &ids)
{
    report drives(run, {{"id", "ID", true}, {"size", "SIZE", true}, {"progress", "PROGRESS"}});
    size_t end = rows(found.count, ids, found.sizes);
    for (const auto &column : found.progress) {
        end = rows(end, column);
    }
    for (size_t row = 0; row < end; row++) {
        std::vector<std::string> texts;
        json values = json::array();
        for (const auto &column : found.progress) {
            texts.push_back(std::to_string(column[row]));
            values.push_back(column[row]);
        }
        drives.add({ids[row], found.sizes[row], {join(texts, " "), values}});
    }
    show(run, head_of(found), "drives", drives);
}

struct vd_arguments {
    bool brief = false;
};

void declare_vd(CLI::App &command, vd_arguments &given)
{
    command.add_flag("--brief", given.brief, "Without the progress");
}

void virtual_drives(const session &run, const vd_arguments &given)
{
    if (given.brief) {
        const auto found = query(run, "list the virtual drives", bdbus_storectrl_get_virtual_drive_list);
        show_drives(run, found, found.vd_ids);
    } else {
        const auto found = query(run, "list the virtual drives", bdbus_storectrl_get_vd_list_w_progress_status);
        show_progress(run, found, found.vd_ids);
    }
}

void physical_drives(const session &run)
{
    const auto found = query(run, "list the physical drives", bdbus_storectrl_get_pd_list_w_progress_status);
    show_progress(run, found, found.pd_ids);
}

void unconfigured(const session &run)
{
    const auto found = query(run, "list the unconfigured drives", bdbus_storectrl_get_unconfig_drive_list);
    show_drives(run, found, found.pd_ids);
}

const column column1{"column1", "COLUMN 1", true};
const column column2{"column2", "COLUMN 2", true};
const column column3{"column3", "COLUMN 3", true};
const column column4{"column4", "COLUMN 4", true};

void groups(const session &run)
{
    const auto found = query(run, "list the drive groups", bdbus_storectrl_get_drive_group_list);
    const std::vector heads{found.head1, found.head2, found.head3};
    show(run, numbered_heads(heads, found.status), "groups",
         table_of(run, *std::max_element(heads.begin(), heads.end()), {column1, column2, column3, column4},
                  found.column1, found.column2, found.column3, found.column4));
}

void spares(const session &run)
{
    const auto found = query(run, "list the hot spares", bdbus_storectrl_get_hot_spare_drive_list);
    const std::vector heads{found.head1, found.head2, found.head3};
    show(run, numbered_heads(heads, found.status), "drives",
         table_of(run, *std::max_element(heads.begin(), heads.end()), {{"id", "ID", true}, column1, column2},
                  found.pd_ids, found.column1, found.column2));
}

void levels(const session &run)
{
    const auto found = query(run, "list the RAID levels", bdbus_storectrl_get_available_raid_level);
    const std::vector heads{found.head1, found.head2};
    show(run, numbered_heads(heads, found.status), "levels",
         table_of(run, *std::max_element(heads.begin(), heads.end()), {column1, column2, column3, column4},
                  found.column1, found.column2, found.column3, found.column4));
}

// ---- arguments that become fields of the library's records

/** An option named like its field. */
template <class number>
void add_field(CLI::App &command, const std::string &name, number &field)
{
    add_number(command, "--" + name, field, "Its meaning is the service's (default 0)")->type_name("N");
}

template <size_t room>
void add_text(CLI::App &command, char (&field)[room])
{
    const auto store = [&field](const std::string &text) {
        if (text.size() > room) {
            throw failure(format("--text: longer than %zu bytes", room), exit_status::usage);
        }
        std::fill(std::begin(field), std::end(field), '\0');
        std::copy(text.begin(), text.end(), std::begin(field));
    };
    command
        .add_option_function<std::string>("--text", store, format("Text of at most %zu bytes (default empty)", room))
        ->type_name("TEXT");
}

struct entry {
    uint16_t id = 0;
    uint8_t value = 0;
};

/** ID, or ID=VALUE. */
entry parse_entry(const std::string &text)
{
    const size_t id_end = std::min(text.find('='), text.size());
    entry read{static_cast<uint16_t>(parse_number(text.substr(0, id_end), 0, UINT16_MAX))};
    if (id_end < text.size()) {
        read.value = static_cast<uint8_t>(parse_number(text.substr(id_end + 1), 0, UINT8_MAX));
    }
    return read;
}

/** As many IDs as the record's column holds. @return their number. */
template <class number, size_t capacity>
uint8_t parse_ids(const std::vector<std::string> &texts, number (&ids)[capacity])
{
    uint8_t count = 0;
    for (const auto &text : texts) {
        if (count == capacity) {
            throw std::invalid_argument(format("more than %zu", capacity));
        }
        ids[count++] = static_cast<number>(parse_number(text, 0, std::numeric_limits<number>::max()));
    }
    return count;
}

/** The IDs and their number. */
template <class number, size_t capacity>
CLI::Option *add_ids(CLI::App &command, const std::string &name, uint8_t &count, number (&ids)[capacity],
                     const std::string &description)
{
    const auto store = [&count, &ids, name](const std::vector<std::string> &texts) {
        try {
            count = parse_ids(texts, ids);
        } catch (const std::invalid_argument &reason) {
            throw failure(name + ": " + reason.what(), exit_status::usage);
        }
    };
    return command.add_option_function<std::vector<std::string>>(name, store, description)->type_name("");
}

void declare_min_pd(CLI::App &command, bdbus_storectrl_min_pd &given)
{
    add_field(command, "param1", given.param1);
    add_field(command, "param2", given.param2);
}

void min_pd(const session &run, const bdbus_storectrl_min_pd &given)
{
    const auto found =
        query(run, "ask for the drives needed", [&] { return bdbus_storectrl_get_min_pd_needed(given); });
    record shown;
    shown.add("min_pd", "Drives needed", found.min_pd);
    shown.add("status", "Status", found.status);
    shown.show(run);
}

void declare_max_size(CLI::App &command, bdbus_storectrl_max_size &given)
{
    add_field(command, "param1", given.param1);
    add_field(command, "param2", given.param2);
    add_field(command, "param3", given.param3);
    add_ids(command, "PD", given.pd_count, given.pd_ids, "Physical drives to use");
}

void max_size(const session &run, const bdbus_storectrl_max_size &given)
{
    const auto found =
        query(run, "ask for the largest size", [&] { return bdbus_storectrl_get_max_available_size(given); });
    record shown;
    shown.add("max_size", "Largest size", found.max_size);
    shown.add("status", "Status", found.status);
    shown.show(run);
}

void declare_oob_state(CLI::App &command, bdbus_storectrl_oob_init &given)
{
    const auto parse = [](const std::string &text) {
        const size_t sign = text.starts_with("-") ? 1 : 0;
        const auto size = static_cast<int64_t>(parse_number(text.substr(sign), 0, INT32_MAX + uint64_t{sign}));
        return sign != 0 ? -size : size;
    };
    add_parsed(command, "--param", given.param, parse, "Its meaning is the service's (default 0)")->type_name("N");
    add_text(command, given.text);
}

void oob_state(const session &run, const bdbus_storectrl_oob_init &given)
{
    const auto found = query(run, "ask for the out-of-band initialization",
                             [&] { return bdbus_storectrl_get_ctrl_oob_init_state(given); });
    record shown;
    shown.add("state", "State", found.state);
    shown.add("status", "Status", found.status);
    shown.show(run);
}

struct vd_field {
    const char *key;
    const char *label;
    uint8_t bdbus_storectrl_vd::*place;
    bool reported = true; // of an existing drive
};

constexpr vd_field vd_fields[] = {
    {"param1", "Param 1", &bdbus_storectrl_vd::param1},
    {"param2", "Param 2", &bdbus_storectrl_vd::param2, false},
    {"param3", "Param 3", &bdbus_storectrl_vd::param3, false},
    {"param4", "Param 4", &bdbus_storectrl_vd::param4, false},
    {"option1", "Option 1", &bdbus_storectrl_vd::option1},
    {"option2", "Option 2", &bdbus_storectrl_vd::option2},
    {"option3", "Option 3", &bdbus_storectrl_vd::option3},
    {"option4", "Option 4", &bdbus_storectrl_vd::option4},
    {"option5", "Option 5", &bdbus_storectrl_vd::option5},
    {"option6", "Option 6", &bdbus_storectrl_vd::option6},
    {"option7", "Option 7", &bdbus_storectrl_vd::option7, false},
    {"option8", "Option 8", &bdbus_storectrl_vd::option8, false},
    {"option9", "Option 9", &bdbus_storectrl_vd::option9},
};

void declare_vd_info(CLI::App &command, bdbus_storectrl_vd_query &given)
{
    add_text(command, given.text);
    add_field(command, "selector", given.selector);
}

void vd_info(const session &run, const bdbus_storectrl_vd_query &given)
{
    const auto found =
        query(run, "ask for the virtual drive", [&] { return bdbus_storectrl_get_virtual_drive_info(given); });
    record shown;
    shown.add("size", "Size", found.size);
    for (const vd_field &field : vd_fields) {
        if (field.reported) {
            shown.add(field.key, field.label, found.*field.place);
        }
    }
    shown.add("value", "Value", found.value);
    shown.add("pd_count", "Drives", found.pd_count);
    std::vector<std::string> texts;
    json ids = json::array();
    for (size_t row = 0; row < rows(found.pd_count, found.pd_ids); row++) {
        texts.push_back(std::to_string(found.pd_ids[row]));
        ids.push_back(found.pd_ids[row]);
    }
    shown.add("pd_ids", "Drive IDs", {join(texts, " "), ids});
    shown.show(run);
}

// ---- operations

void operate(const session &run, const std::string &intent, const std::function<int32_t()> &call)
{
    record shown;
    shown.add("answer", "Answer", run.call_for_value(intent, call));
    shown.show(run);
}

void clear(const session &run)
{
    run.confirm("This clears the controller's configuration: all virtual drives are lost.");
    operate(run, "clear the configuration", bdbus_storectrl_clear_configuration);
}

void declare_create(CLI::App &command, bdbus_storectrl_vd &given)
{
    add_field(command, "size", given.size);
    add_text(command, given.text);
    for (const vd_field &field : vd_fields) {
        add_field(command, field.key, given.*field.place);
    }
    add_ids(command, "PD", given.pd_count, given.pd_ids, "Physical drives to use")->required();
}

void create(const session &run, const bdbus_storectrl_vd &given)
{
    run.confirm(format("This creates a virtual drive on %u physical drives.", given.pd_count));
    operate(run, "create the virtual drive", [&] { return bdbus_storectrl_create_virtual_drive(given); });
}

void declare_delete(CLI::App &command, bdbus_storectrl_vd_ids &given)
{
    add_ids(command, "VD", given.count, given.vd_ids, "Virtual drives to delete")->required();
}

void remove(const session &run, const bdbus_storectrl_vd_ids &given)
{
    run.confirm(format("This deletes %u virtual drives with all that they hold.", given.count));
    operate(run, "delete the virtual drives", [&] { return bdbus_storectrl_delete_virtual_drive(given); });
}

struct locate_arguments {
    std::string kind;
    std::string action;
    std::vector<entry> entries;
};

void declare_locate(CLI::App &command, locate_arguments &given)
{
    command.add_option("KIND", given.kind, "vd: virtual drives, pd: physical drives")
        ->type_name("")
        ->check(CLI::IsMember({"vd", "pd"}))
        ->required();
    command.add_option("ACTION", given.action, "start or stop")
        ->type_name("")
        ->check(CLI::IsMember({"start", "stop"}))
        ->required();
    const auto store = [&given](const std::vector<std::string> &texts) {
        try {
            std::transform(texts.begin(), texts.end(), std::back_inserter(given.entries), parse_entry);
        } catch (const std::invalid_argument &reason) {
            throw failure(std::string("DRIVE: ") + reason.what(), exit_status::usage);
        }
    };
    command
        .add_option_function<std::vector<std::string>>("DRIVE", store,
                                                       "ID or ID=VALUE; the meaning of VALUE is the service's")
        ->type_name("")
        ->required();
}

template <class drives, size_t capacity>
drives located(const std::vector<entry> &entries, uint16_t (drives::*ids)[capacity])
{
    if (entries.size() > capacity) {
        throw failure(format("DRIVE: more than %zu", capacity), exit_status::usage);
    }
    drives made{};
    for (const entry &one : entries) {
        (made.*ids)[made.count] = one.id;
        made.values[made.count++] = one.value;
    }
    return made;
}

void locate(const session &run, const locate_arguments &given)
{
    const bool start = given.action == "start";
    const std::string intent = start ? "locate the drives" : "stop locating the drives";
    if (given.kind == "vd") {
        const auto drives = located(given.entries, &bdbus_storectrl_locate_vd::ids);
        operate(run, intent,
                [&] { return (start ? bdbus_storectrl_start_locate_vd : bdbus_storectrl_stop_locate_vd)(drives); });
    } else {
        const auto drives = located(given.entries, &bdbus_storectrl_locate_pd::pd_ids);
        operate(run, intent,
                [&] { return (start ? bdbus_storectrl_start_locate_pd : bdbus_storectrl_stop_locate_pd)(drives); });
    }
}

struct spare_arguments {
    std::string action;
    uint16_t pd = 0;
    bool dedicated = false;
    uint8_t param1 = 0;
    uint8_t param2 = 0;
};

void declare_spare(CLI::App &command, spare_arguments &given)
{
    command.add_option("ACTION", given.action, "add or remove")
        ->type_name("")
        ->check(CLI::IsMember({"add", "remove"}))
        ->required();
    add_number(command, "PD", given.pd, "Physical drive")->required();
    CLI::Option *dedicated =
        command.add_flag("--dedicated", given.dedicated, "A dedicated hot spare, not a global one");
    add_number(command, "--param1", given.param1, "Of add --dedicated: its meaning is the service's (default 0)")
        ->type_name("N")
        ->needs(dedicated);
    add_number(command, "--param2", given.param2, "Of add --dedicated: its meaning is the service's (default 0)")
        ->type_name("N")
        ->needs(dedicated);
}

void spare(const session &run, const spare_arguments &given)
{
    const bool add = given.action == "add";
    const std::string kind = given.dedicated ? "dedicated" : "global";
    const std::string what =
        format(add ? "make physical drive %u a %s hot spare" : "no longer use physical drive %u as a %s hot spare",
               given.pd, kind.c_str());
    run.confirm("This will " + what + ".");
    operate(run, what, [&] {
        if (given.dedicated) {
            return add ? bdbus_storectrl_assign_dedicated_hot_spare_drive({given.param1, given.pd}, given.param2)
                       : bdbus_storectrl_remove_dedicated_hot_spare_drive(given.pd);
        }
        return add ? bdbus_storectrl_assign_global_hot_spare_drive(given.pd)
                   : bdbus_storectrl_remove_global_hot_spare_drive(given.pd);
    });
}

} // namespace

void add_raid(CLI::App &program, session &run)
{
    add_family(program, run, "raid", "RAID: virtual and physical drives, hot spares", [](family &raid) {
        raid.verb("vd", "List the virtual drives", declare_vd, virtual_drives);
        raid.verb("pd", "List the physical drives", physical_drives);
        raid.verb("unconfigured", "List the physical drives that are free", unconfigured);
        raid.verb("groups", "List the drive groups", groups);
        raid.verb("spares", "List the hot spares", spares);
        raid.verb("levels", "List the RAID levels on offer", levels);
        raid.verb("vd-info", "Show one virtual drive", declare_vd_info, vd_info);
        raid.verb("min-pd", "Show how many physical drives are needed", declare_min_pd, min_pd);
        raid.verb("max-size", "Show how large a new virtual drive can be", declare_max_size, max_size);
        raid.verb("oob-state", "Show the state of the out-of-band initialization", declare_oob_state, oob_state);
        raid.verb("create", "Create a virtual drive", declare_create, create);
        raid.verb("delete", "Delete virtual drives", declare_delete, remove);
        raid.verb("clear", "Clear the controller's configuration", clear);
        raid.verb("locate", "Start or stop the locate indication of drives", declare_locate, locate);
        raid.verb("spare", "Add or remove a hot spare", declare_spare, spare);
    });
}

} // namespace bdbusctl
