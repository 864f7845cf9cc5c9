// SPDX-License-Identifier: LGPL-2.1-or-later
// The authentication log, and the last update of a user.
#include "simulator.hpp"

#include <algorithm>
#include <iterator>
#include <string>

namespace bdbus_sim
{

namespace
{

constexpr size_t request_size = 64;
constexpr long entry_size = 39;
constexpr long update_size = 21;

enum code : uint8_t {
    ok = 0x00,
    out_of_space = 0xC4,
    length_invalid = 0xC7,
    entry_not_present = 0xCB,
    invalid_field = 0xCC,
};

json leading(const byte_vector &request, long count)
{
    return byte_vector(request.begin(), request.begin() + count);
}

json &entries(state_document &state)
{
    return state.own("authlog")["entries"];
}

json add_entry(state_document &state, const byte_vector &request)
{
    json &all = entries(state);
    if (all.size() >= state.get<size_t>("/authlog/capacity")) {
        return {out_of_space, 0};
    }
    unsigned id = 1;
    for (const auto &[key, entry] : all.items()) {
        id = std::max(id, static_cast<unsigned>(std::stoul(key)) + 1);
    }
    for (unsigned least = 1; id > 65'534; least++) { // when the numbers are used up: the lowest that is free
        if (!all.contains(std::to_string(least))) {
            id = least;
        }
    }
    all[std::to_string(id)] = leading(request, entry_size);
    return {ok, id};
}

json delete_entry(state_document &state, const byte_vector &request)
{
    unsigned id = request[0] | static_cast<unsigned>(request[1]) << 8U;
    return entries(state).erase(std::to_string(id)) == 0 ? json{entry_not_present, 0} : json{ok, id};
}

/** The request must begin with the confirmation that IPMI asks for to clear an event log. */
json clear(state_document &state, const byte_vector &request)
{
    constexpr uint8_t confirmation[] = {'C', 'L', 'R', 0xAA};
    if (!std::equal(std::begin(confirmation), std::end(confirmation), request.begin())) {
        return {invalid_field, 0};
    }
    size_t count = entries(state).size();
    entries(state) = json::object();
    return {ok, count};
}

json update_user(state_document &state, const byte_vector &request)
{
    auto count = state.get<uint16_t>("/authlog/updates");
    state.set("/authlog/updates", ++count);
    state.set("/authlog/last_update", leading(request, update_size));
    return {ok, count};
}

method row(state_document &state, const char *member, json (*action)(state_document &, const byte_vector &))
{
    return method(member, "ay", "yq", [&state, action](const call &request) {
        const byte_vector &bytes = request.args[0].get_binary();
        return bytes.size() == request_size ? action(state, bytes) : json{length_invalid, 0};
    });
}

/** Each entry holds a time, an event and a name; the simulator does not look into them. */
json default_entries()
{
    json entries;
    byte_vector start = {0x20, 0x1B, 0x56, 0x69, 0x00};
    for (const std::string name : {"root", "operator", "root"}) {
        byte_vector entry = start;
        entry.insert(entry.end(), name.begin(), name.end());
        entry.resize(entry_size);
        entries[std::to_string(entries.size() + 1)] = entry;
        start.front()++;
    }
    return entries;
}

} // namespace

void add_authlog(simulator &sim)
{
    state_document &state = sim.state;
    state.add_section(
        "authlog",
        {{"capacity", 256}, {"entries", default_entries()}, {"updates", 0}, {"last_update", byte_vector(update_size)}},
        {{"capacity", "q"}, {"entries", {{"#", "39y"}}}, {"updates", "q"}, {"last_update", "21y"}});
    sim.add_service("AuthLog1")
        .add_object({
            row(state, "AuthLogAddEntry", add_entry),
            row(state, "AuthLogDelEntry", delete_entry),
            row(state, "AuthLogClear", clear),
            row(state, "UserUpdate", update_user),
        });
}

} // namespace bdbus_sim
