// SPDX-License-Identifier: LGPL-2.1-or-later
// A storage controller with virtual drives, physical drives and hot spares.
#include "services/services.hpp"

#include <algorithm>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace bdbus_sim
{

namespace
{

constexpr size_t progress_columns = 7;
constexpr size_t virtual_drives_max = 64;
constexpr uint64_t ssd_mib = 457'763;
constexpr uint64_t disk_mib = 3'814'697;

enum code : uint8_t {
    ok = 0,
    no_such_drive = 1,
    drive_in_use = 2,
    no_such_level = 3,
    wrong_number_of_drives = 4,
    too_large = 5,
    no_more_drives = 6,
    not_a_spare = 7,
    no_such_group = 8,
    no_such_controller = 9,
    malformed = 10,
};

/** The places of the arguments of CreateVirtualDrive. */
enum create_argument : uint8_t { level = 0, size = 4, text = 5, first_option = 6, drive_count = 15, drive_ids = 16 };

// ---- the default controller: a mirror to boot from, two virtual drives on one array, two spares, two free drives

json physical_drive(uint64_t mib)
{
    return {{"size", mib}, {"progress", json(progress_columns, 0)}};
}

json virtual_drive(const char *name, unsigned group, uint8_t raid_level, uint64_t mib, std::vector<int> drives)
{
    return {{"group", group},
            {"size", mib},
            {"text", name},
            {"params", {raid_level, 0, 0, 0}},
            {"options", json(9, 0)},
            {"drives", std::move(drives)},
            {"progress", json(progress_columns, 0)}};
}

json defaults()
{
    auto offered = [](int fewest, int most, int redundant, bool mirrored) {
        return json{
            {"min_drives", fewest}, {"max_drives", most}, {"redundant_drives", redundant}, {"mirrored", mirrored}};
    };
    json physical = json::object();
    for (int id = 257; id <= 268; id++) {
        physical[std::to_string(id)] = physical_drive(id <= 258 ? ssd_mib : disk_mib);
    }
    physical["265"]["spare"] = {{"group", 1}, {"param2", 0}};
    physical["266"]["spare"] = json::object();

    const std::vector<int> array = {259, 260, 261, 262, 263, 264};
    json virtuals = {{"0", virtual_drive("system", 0, 1, ssd_mib, {257, 258})},
                     {"1", virtual_drive("data", 1, 5, 16'000'000, array)},
                     {"2", virtual_drive("scratch", 1, 5, 2'000'000, array)}};
    virtuals["2"]["progress"][0] = 42;
    return {{"oob_state", 1},
            {"levels",
             {{"0", offered(1, 32, 0, false)},
              {"1", offered(2, 2, 1, true)},
              {"5", offered(3, 32, 1, false)},
              {"6", offered(4, 32, 2, false)},
              {"10", offered(4, 32, 1, true)}}},
            {"physical_drives", physical},
            {"virtual_drives", virtuals}};
}

json shape()
{
    return {
        {"oob_state", "y"},
        {"levels", {{"#y", {{"min_drives", "y"}, {"max_drives", "y"}, {"redundant_drives", "y"}, {"mirrored", "b"}}}}},
        {"physical_drives",
         {{"#",
           {{"size", "t"}, {"progress", "7y"}, {"locate?", "y"}, {"spare?", {{"group?", "y"}, {"param2?", "y"}}}}}}},
        {"virtual_drives",
         {{"#y",
           {{"group", "y"},
            {"size", "t"},
            {"text", "s16"},
            {"params", "4y"},
            {"options", "9y"},
            {"drives", json::array({"q"})},
            {"progress", "7y"},
            {"locate?", "y"}}}}}};
}

// ---- columns of a list

/** Entries of the state in the order of their numbers; the state has them in the order of their keys as texts. */
using numbered = std::map<unsigned, const json *>;

numbered by_number(const json &object)
{
    numbered entries;
    for (const auto &[key, entry] : object.items()) {
        entries.emplace(static_cast<unsigned>(std::stoul(key)), &entry);
    }
    return entries;
}

template <typename Value>
json column(const numbered &entries, Value value)
{
    json values = json::array();
    for (const auto &[number, entry] : entries) {
        values.push_back(value(number, *entry));
    }
    return values;
}

json numbers(const numbered &entries)
{
    return column(entries, [](unsigned number, const json &) { return number; });
}

json values(const numbered &entries, const char *key)
{
    return column(entries, [key](unsigned, const json &entry) { return entry[key]; });
}

size_t count_byte(size_t count)
{
    return std::min<size_t>(count, UINT8_MAX);
}

json list(const numbered &drives)
{
    return {count_byte(drives.size()), numbers(drives), values(drives, "size"), ok};
}

json progress_list(const numbered &drives)
{
    json reply = {count_byte(drives.size()), numbers(drives), values(drives, "size")};
    for (size_t i = 0; i < progress_columns; i++) {
        reply.push_back(column(drives, [i](unsigned, const json &drive) { return drive["progress"][i]; }));
    }
    reply.push_back(ok);
    return reply;
}

// ---- the controller

class controller
{
public:
    explicit controller(state_document &state) : state_(state) {}

    json virtual_drives() const { return list(virtuals()); }
    json virtual_drives_progress() const { return progress_list(virtuals()); }
    json physical_drives_progress() const { return progress_list(by_number(all_physical())); }
    json unconfigured() const;
    json groups() const;
    json spares() const;
    json levels() const;
    json min_drives(const call &request) const;
    json max_size(const call &request) const;
    json oob_state(const call &request) const;
    json information(const call &request) const;

    json clear(const call &request);
    json create(const call &request);
    json remove(const call &request);
    json assign_global(const call &request) { return assign(request.args[0], json::object()); }
    json assign_dedicated(const call &request);
    json remove_global(const call &request) { return remove_spare(request.args[0], false); }
    json remove_dedicated(const call &request) { return remove_spare(request.args[0], true); }
    json start_locate(const char *drives, const call &request);
    json stop_locate(const char *drives, const call &request);

private:
    // Whether drives can become a virtual drive, in which group, and how much space they have left.
    struct plan {
        code result = ok;
        unsigned group = 0;
        uint64_t size = 0;
    };

    json &section() const { return state_.own("raid"); }
    json &all_physical() const { return section()["physical_drives"]; }
    json &all_virtual() const { return section()["virtual_drives"]; }
    numbered virtuals() const { return by_number(all_virtual()); }
    bool is_used(const json &id) const;
    bool has_group(unsigned group) const;
    unsigned free_group() const;
    plan plan_for(const json &raid_level, const json &ids) const;
    uint64_t capacity(const json &properties, const json &ids) const;
    static code check_ids(const json &count, const json &ids, const json &among);
    json assign(const json &id, const json &spare);
    json remove_spare(const json &id, bool dedicated);
    void drop_orphaned_spares();

    state_document &state_;
};

bool controller::is_used(const json &id) const
{
    return std::any_of(all_virtual().begin(), all_virtual().end(), [&](const json &drive) {
        return std::find(drive["drives"].begin(), drive["drives"].end(), id) != drive["drives"].end();
    });
}

bool controller::has_group(unsigned group) const
{
    return std::any_of(all_virtual().begin(), all_virtual().end(),
                       [&](const json &drive) { return drive["group"] == group; });
}

unsigned controller::free_group() const
{
    unsigned group = 0;
    while (has_group(group)) {
        group++;
    }
    return group;
}

/** Checks that there are `count` ids, all of them known, none twice. */
code controller::check_ids(const json &count, const json &ids, const json &among)
{
    std::set<json> seen(ids.begin(), ids.end());
    if (count != ids.size() || seen.size() != ids.size()) {
        return malformed;
    }
    bool known = std::all_of(ids.begin(), ids.end(), [&](const json &id) { return among.contains(to_text(id)); });
    return known ? ok : no_such_drive;
}

uint64_t controller::capacity(const json &properties, const json &ids) const
{
    uint64_t smallest = UINT64_MAX;
    for (const json &id : ids) {
        smallest = std::min(smallest, all_physical()[to_text(id)]["size"].get<uint64_t>());
    }
    size_t holding =
        properties["mirrored"] ? ids.size() / 2 : ids.size() - properties["redundant_drives"].get<size_t>();
    return smallest * holding;
}

controller::plan controller::plan_for(const json &raid_level, const json &ids) const
{
    auto found = section()["levels"].find(to_text(raid_level));
    if (found == section()["levels"].end()) {
        return {no_such_level};
    }
    size_t redundant = (*found)["redundant_drives"];
    bool odd = (*found)["mirrored"] && ids.size() % 2 != 0;
    if (ids.size() < (*found)["min_drives"] || ids.size() > (*found)["max_drives"] || ids.size() <= redundant || odd) {
        return {wrong_number_of_drives};
    }

    plan made = {ok, free_group(), capacity(*found, ids)};
    bool shares = false;
    for (const json &drive : all_virtual()) {
        if (drive["params"][level] != raid_level ||
            std::set<json>(drive["drives"].begin(), drive["drives"].end()) != std::set<json>(ids.begin(), ids.end())) {
            continue;
        }
        shares = true;
        made.group = drive["group"];
        made.size -= std::min(made.size, drive["size"].get<uint64_t>());
    }
    bool taken = std::any_of(ids.begin(), ids.end(), [&](const json &id) {
        return (!shares && is_used(id)) || all_physical()[to_text(id)].contains("spare");
    });
    return taken ? plan{drive_in_use} : made;
}

// ---- queries

json controller::unconfigured() const
{
    numbered drives = by_number(all_physical());
    std::erase_if(drives, [](const auto &drive) { return drive.second->contains("spare"); });
    for (const json &drive : all_virtual()) {
        for (const json &id : drive["drives"]) {
            drives.erase(id.get<unsigned>());
        }
    }
    return list(drives);
}

/** Groups with the number of their drives, then virtual drives with their groups. */
json controller::groups() const
{
    numbered drives = virtuals();
    numbered groups;
    for (const auto &[id, drive] : drives) {
        groups.emplace((*drive)["group"], drive);
    }
    auto spared = std::count_if(all_physical().begin(), all_physical().end(), [](const json &drive) {
        return drive.contains("spare") && drive["spare"].contains("group");
    });
    return {count_byte(groups.size()),
            count_byte(static_cast<size_t>(spared)),
            numbers(groups),
            column(groups, [](unsigned, const json &drive) { return count_byte(drive["drives"].size()); }),
            count_byte(drives.size()),
            numbers(drives),
            values(drives, "group"),
            ok};
}

json controller::spares() const
{
    numbered drives = by_number(all_physical());
    std::erase_if(drives, [](const auto &drive) { return !drive.second->contains("spare"); });
    auto dedicated =
        column(drives, [](unsigned, const json &drive) { return drive["spare"].contains("group") ? 1 : 0; });
    auto dedicated_count = static_cast<size_t>(std::count(dedicated.begin(), dedicated.end(), 1));
    return {count_byte(drives.size()),
            count_byte(drives.size() - dedicated_count),
            count_byte(dedicated_count),
            numbers(drives),
            dedicated,
            column(drives, [](unsigned, const json &drive) { return drive["spare"].value("group", 0); }),
            ok};
}

json controller::levels() const
{
    numbered offered = by_number(section()["levels"]);
    return {count_byte(offered.size()),
            numbers(offered),
            count_byte(offered.size()),
            values(offered, "min_drives"),
            values(offered, "max_drives"),
            values(offered, "redundant_drives"),
            ok};
}

/** The second parameter is a number of spans. */
json controller::min_drives(const call &request) const
{
    auto found = section()["levels"].find(to_text(request.args[0]));
    if (found == section()["levels"].end()) {
        return {0, no_such_level};
    }
    return {count_byte((*found)["min_drives"].get<size_t>() * std::max<size_t>(request.arg<size_t>(1), 1)), ok};
}

json controller::max_size(const call &request) const
{
    if (code refused = check_ids(request.args[3], request.args[4], all_physical()); refused != ok) {
        return {0, refused};
    }
    plan made = plan_for(request.args[0], request.args[4]);
    return {made.size, made.result};
}

json controller::oob_state(const call &request) const
{
    return request.args[0] == 0 ? json{section()["oob_state"], ok} : json{0, no_such_controller};
}

/** Finds the drive by its text or, when that is empty, by its number. */
json controller::information(const call &request) const
{
    bool by_text = !request.args[0].get_ref<const std::string &>().empty();
    for (const auto &[id, drive] : virtuals()) {
        bool named = by_text ? request.args[0] == (*drive)["text"] : request.args[1] == id;
        if (!named) {
            continue;
        }
        json reply = {(*drive)["params"][0], (*drive)["size"]};
        for (size_t option : {0U, 1U, 2U, 3U, 4U, 5U, 8U}) {
            reply.push_back((*drive)["options"][option]);
        }
        reply.push_back(ok);
        reply.push_back(count_byte((*drive)["drives"].size()));
        reply.push_back((*drive)["drives"]);
        return reply;
    }
    return {0, 0, 0, 0, 0, 0, 0, 0, 0, no_such_drive, 0, json::array()};
}

// ---- operations

json controller::clear(const call & /*request*/)
{
    all_virtual() = json::object();
    for (json &drive : all_physical()) {
        drive.erase("spare");
    }
    return {ok};
}

json controller::create(const call &request)
{
    const json &ids = request.args[drive_ids];
    if (code refused = check_ids(request.args[drive_count], ids, all_physical()); refused != ok) {
        return {refused};
    }
    plan made = plan_for(request.args[level], ids);
    if (made.result != ok) {
        return {made.result};
    }
    auto wanted = request.arg<uint64_t>(size);
    if (wanted > made.size || made.size == 0) {
        return {too_large};
    }
    if (request.args[text].get_ref<const std::string &>().size() > 16) {
        return {malformed};
    }
    unsigned id = 0;
    while (all_virtual().contains(std::to_string(id))) {
        id++;
    }
    if (id >= virtual_drives_max) {
        return {no_more_drives};
    }

    json drive = virtual_drive("", made.group, 0, wanted == 0 ? made.size : wanted, ids);
    drive["text"] = request.args[text];
    drive["params"] = json(request.args.begin(), request.args.begin() + size);
    drive["options"] = json(request.args.begin() + first_option, request.args.begin() + drive_count);
    all_virtual()[std::to_string(id)] = drive;
    return {ok};
}

json controller::remove(const call &request)
{
    json ids = static_cast<const byte_vector &>(request.args[1].get_binary());
    if (code refused = check_ids(request.args[0], ids, all_virtual()); refused != ok) {
        return {refused};
    }
    for (const json &id : ids) {
        all_virtual().erase(to_text(id));
    }
    drop_orphaned_spares();
    return {ok};
}

void controller::drop_orphaned_spares()
{
    for (json &drive : all_physical()) {
        if (drive.contains("spare") && drive["spare"].contains("group") && !has_group(drive["spare"]["group"])) {
            drive.erase("spare");
        }
    }
}

json controller::assign(const json &id, const json &spare)
{
    auto found = all_physical().find(to_text(id));
    if (found == all_physical().end()) {
        return {no_such_drive};
    }
    if (is_used(id) || found->contains("spare")) {
        return {drive_in_use};
    }
    (*found)["spare"] = spare;
    return {ok};
}

json controller::assign_dedicated(const call &request)
{
    if (!has_group(request.arg<unsigned>(0))) {
        return {no_such_group};
    }
    return assign(request.args[1], {{"group", request.args[0]}, {"param2", request.args[2]}});
}

json controller::remove_spare(const json &id, bool dedicated)
{
    auto found = all_physical().find(to_text(id));
    if (found == all_physical().end()) {
        return {no_such_drive};
    }
    if (!found->contains("spare") || (*found)["spare"].contains("group") != dedicated) {
        return {not_a_spare};
    }
    found->erase("spare");
    return {ok};
}

json controller::start_locate(const char *drives, const call &request)
{
    const byte_vector &shown = request.args[2].get_binary();
    code refused = check_ids(request.args[0], request.args[1], section()[drives]);
    if (refused != ok || shown.size() != request.args[1].size()) {
        return {refused != ok ? refused : malformed};
    }
    for (size_t i = 0; i < shown.size(); i++) {
        section()[drives][to_text(request.args[1][i])]["locate"] = shown[i];
    }
    return {ok};
}

json controller::stop_locate(const char *drives, const call &request)
{
    if (code refused = check_ids(request.args[0], request.args[1], section()[drives]); refused != ok) {
        return {refused};
    }
    for (const json &id : request.args[1]) {
        section()[drives][to_text(id)].erase("locate");
    }
    return {ok};
}

// ---- tables

method list(const controller &raid, const char *member, const char *out, json (controller::*answer)() const)
{
    return method(member, "", out, [=](const call &) { return (raid.*answer)(); });
}

template <typename Answer>
method row(const controller &raid, const char *member, const char *in, const char *out, Answer answer)
{
    return method(member, in, out, [self = controller(raid), answer](const call &request) mutable {
        return std::invoke(answer, self, request);
    });
}

template <typename Action>
method operation(const controller &raid, const char *member, const char *in, Action action)
{
    return row(raid, member, in, "i", action);
}

std::vector<method> queries(const controller &raid)
{
    using self = controller;
    return {
        list(raid, "GetVirtualDriveListWithProgressStatus", "yayatayayayayayayayi", &self::virtual_drives_progress),
        list(raid, "GetPhysicalDriveListWithProgressStatus", "yaqatayayayayayayayi", &self::physical_drives_progress),
        list(raid, "GetVirtualDriveList", "yayati", &self::virtual_drives),
        list(raid, "GetUnconfigDriveList", "yaqati", &self::unconfigured),
        list(raid, "GetDriveGroupList", "yyayayyayayi", &self::groups),
        list(raid, "GetHotSpareDriveList", "yyyaqayayi", &self::spares),
        list(raid, "GetAvailableRaidLevel", "yayyayayayi", &self::levels),
        row(raid, "GetMinPdNeeded", "yy", "yi", &self::min_drives),
        row(raid, "GetMaxAvailableSize", "yyyyaq", "ti", &self::max_size),
        row(raid, "GetCtrlOOBInitState", "is", "yi", &self::oob_state),
        row(raid, "GetVirtualDriveInfo", "sy", "ytyyyyyyyiyaq", &self::information),
    };
}

std::vector<method> drive_operations(const controller &raid)
{
    using self = controller;
    return {
        operation(raid, "ClearConfiguration", "", &self::clear),
        operation(raid, "CreateVirtualDrive", "yyyytsyyyyyyyyyyaq", &self::create),
        operation(raid, "DeleteVirtualDrive", "yay", &self::remove),
        operation(raid, "AssignGlobalHotSpareDrive", "q", &self::assign_global),
        operation(raid, "AssignDedicatedHotSpareDrive", "yqy", &self::assign_dedicated),
        operation(raid, "RemoveGlobalHotSpareDrive", "q", &self::remove_global),
        operation(raid, "RemoveDedicatedHotSpareDrive", "q", &self::remove_dedicated),
    };
}

/** The same two operations for both kinds of drives, which have a section of the state each. */
std::vector<method> locate_operations(const controller &raid, const std::string &kind, const char *drives)
{
    auto start = [=](controller &self, const call &request) {
        return self.start_locate(drives, request);
    };
    auto stop = [=](controller &self, const call &request) {
        return self.stop_locate(drives, request);
    };
    return {
        operation(raid, ("StartLocate" + kind).c_str(), "yaqay", start),
        operation(raid, ("StopLocate" + kind).c_str(), "yaq", stop),
    };
}

} // namespace

void add_raid(simulator &sim)
{
    sim.state.add_section("raid", defaults(), shape());
    controller raid(sim.state);
    std::vector<method> rows = queries(raid);
    for (const std::vector<method> &more :
         {drive_operations(raid), locate_operations(raid, "VirtualDrive", "virtual_drives"),
          locate_operations(raid, "PhysicalDrive", "physical_drives")}) {
        rows.insert(rows.end(), more.begin(), more.end());
    }
    sim.add_service("RAIDMgmt").add_object(std::move(rows));
}

} // namespace bdbus_sim
