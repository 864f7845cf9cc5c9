// SPDX-License-Identifier: LGPL-2.1-or-later
// Remote storage: disks that are mounted and presented to the host.
#include "services/services.hpp"

#include <chrono>
#include <string>

namespace bdbus_sim
{

namespace
{

enum result : int32_t { refused = -1, done = 0, unchanged = 1 };
enum status_query : uint8_t { is_mounted, is_active };

struct disk_value {
    const char *property;
    const char *type; // of the property
    const char *key;  // in the state
};

constexpr disk_value disk_values[] = {
    {"Active", "b", "active"},
    {"Connected", "b", "connected"},
    {"Mounted", "b", "mounted"},
    {"MediaType", "y", "media_type"},
    {"ProcotolType", "y", "protocol_type"}, // spelled as clients ask for it
    {"WriteProtected", "b", "write_protected"},
    {"SmbShareAddr", "s", "smb_share_addr"},
    {"UserName", "s", "user_name"},
    {"SmbPathToFile", "s", "smb_path_to_file"},
    {"ImageName", "s", "image_name"},
    {"ImageURL", "s", "image_url"},
    {"Password", "s", "password"},
    {"Domain", "s", "domain"},
};

json &disks(state_document &state)
{
    return state.own("rstorage")["disks"];
}

json &disk(state_document &state, const call &request)
{
    return disks(state).at(request.object_name());
}

struct outcome {
    int32_t result;
    std::string text = {}; // of a mount
};

outcome change(json &disk, const char *key, bool value, bool allowed)
{
    if (disk[key] == value) {
        return {unchanged};
    }
    if (!allowed) {
        return {refused};
    }
    disk[key] = value;
    return {done};
}

/** An empty password stands for the disk's own. */
outcome mount(json &disk, const call &request)
{
    auto password = request.arg<std::string>(0);
    if (!password.empty() && disk["password"] != password) {
        return {refused, "wrong password"};
    }
    if (disk["image_name"].get_ref<const std::string &>().empty()) {
        return {refused, "no image"};
    }
    disk["connected"] = true;
    return {change(disk, "mounted", true, true).result, disk["image_name"]};
}

outcome unmount(json &disk, const call & /*request*/)
{
    return change(disk, "mounted", false, disk["active"] == false);
}

outcome gadget_start(json &disk, const call &request)
{
    disk["gadget"] = request.args;
    return change(disk, "active", true, disk["mounted"] == true);
}

outcome gadget_stop(json &disk, const call & /*request*/)
{
    return change(disk, "active", false, true);
}

outcome status(json &disk, const call &request)
{
    auto asked = request.arg<uint8_t>(0);
    const char *key = asked == is_mounted ? "mounted" : asked == is_active ? "active" : "status";
    return {disk[key].get<int32_t>()};
}

/** A method of a disk. When the disk's state has an answer, that is given and the action is not done. */
method row(state_document &state, const char *member, const char *in, const char *out,
           outcome (*action)(json &, const call &))
{
    return method(member, in, out, [&state, action, has_text = std::string(out) == "is"](const call &request) {
        json &called = disk(state, request);
        auto answer = called["answer"].get<int32_t>();
        auto [result, text] = answer == 0 ? action(called, request) : outcome{answer};
        return has_text ? json::array({result, text}) : json::array({result});
    });
}

json default_disk(const json &changes)
{
    json disk = {{"mount_ms", 0}, {"answer", 0}, {"status", 0}, {"gadget", {0, false}}};
    for (const auto &[property, type, key] : disk_values) {
        disk[key] = type[0] == 's' ? json("") : type[0] == 'b' ? json(false) : json(0);
    }
    disk.merge_patch(changes);
    return disk;
}

json default_disks()
{
    return {{"1", default_disk({{"active", true},
                                {"connected", true},
                                {"mounted", true},
                                {"media_type", 1},
                                {"protocol_type", 1},
                                {"write_protected", true},
                                {"smb_share_addr", "192.0.2.10"},
                                {"user_name", "installer"},
                                {"smb_path_to_file", "images/rescue.iso"},
                                {"image_name", "rescue.iso"},
                                {"password", "quiet lanterns over 7 harbours"},
                                {"domain", "LAB"}})},
            {"2", default_disk({{"connected", true},
                                {"media_type", 2},
                                {"protocol_type", 2},
                                {"image_name", "scratch.img"},
                                {"image_url", "https://images.example.org/scratch.img"}})},
            {"3", default_disk(json::object())}};
}

json disk_shape()
{
    json shape = {{"mount_ms", "u"}, {"answer", "i"}, {"status", "i"}, {"gadget", {"y", "b"}}};
    for (const auto &[property, type, key] : disk_values) {
        shape[key] = type;
    }
    shape["password"] = "p";
    return shape;
}

} // namespace

void add_rstorage(simulator &sim)
{
    state_document &state = sim.state;
    state.add_section("rstorage", {{"disks", default_disks()}}, {{"disks", {{"#", disk_shape()}}}});

    service &bus_service = sim.add_service("RStorage1");
    auto has = [&state](const std::string &number) {
        return disks(state).contains(number);
    };
    auto numbers = [&state] {
        std::vector<std::string> keys;
        for (const auto &[number, disk] : disks(state).items()) {
            keys.push_back(number);
        }
        return keys;
    };
    object_table table{.parent = bus_service.path() + "/Disk", .has = has, .names = numbers};
    table.methods = {
        row(state, "Mount", "s", "is", mount),
        row(state, "Unmount", "", "i", unmount),
        row(state, "GadgetStart", "yb", "i", gadget_start),
        row(state, "GadgetStop", "", "i", gadget_stop),
        row(state, "Status", "y", "i", status),
    };
    table.methods.front().duration = [&state](const call &request) {
        return std::chrono::milliseconds(disk(state, request).at("mount_ms").get<uint32_t>());
    };
    bus_service.keep_texts_secret();
    for (const disk_value &value : disk_values) {
        table.properties.emplace_back("", value.property, value.type,
                                      [&](const call &request) { return disk(state, request).at(value.key); });
    }
    bus_service.add_object(std::move(table));
}

} // namespace bdbus_sim
