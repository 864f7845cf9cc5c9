// SPDX-License-Identifier: LGPL-2.1-or-later
// The authentication log, and the last update of a user.
#include "services/services.hpp"

#include <algorithm>
#include <iterator>
#include <memory>
#include <set>
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

class auth_log
{
public:
    explicit auth_log(state_document &state) : state_(state) { find_ids(); }

    json add(const byte_vector &request);
    json remove(const byte_vector &request);
    json clear(const byte_vector &request);
    json update_user(const byte_vector &request);

    // To be called when the state has changed by other ways than these.
    void find_ids() { ids_ = numbers_of(entries()); }

private:
    json &section() const { return state_.own("authlog"); }
    json &entries() const { return section()["entries"]; }

    state_document &state_;
    std::set<unsigned> ids_;
};

json auth_log::add(const byte_vector &request)
{
    if (entries().size() >= section()["capacity"].get<size_t>()) {
        return {out_of_space, 0};
    }
    unsigned id = ids_.empty() ? 1 : *ids_.rbegin() + 1;
    for (unsigned least = 1; id > 65'534; least++) { // when the numbers are used up: the lowest that is free
        if (!ids_.contains(least)) {
            id = least;
        }
    }
    ids_.insert(id);
    entries()[std::to_string(id)] = leading(request, entry_size);
    return {ok, id};
}

json auth_log::remove(const byte_vector &request)
{
    unsigned id = request[0] | static_cast<unsigned>(request[1]) << 8U;
    ids_.erase(id);
    return entries().erase(std::to_string(id)) == 0 ? json{entry_not_present, 0} : json{ok, id};
}

/** The request must begin with the confirmation that IPMI asks for to clear an event log. */
json auth_log::clear(const byte_vector &request)
{
    constexpr uint8_t confirmation[] = {'C', 'L', 'R', 0xAA};
    if (!std::equal(std::begin(confirmation), std::end(confirmation), request.begin())) {
        return {invalid_field, 0};
    }
    size_t count = entries().size();
    entries() = json::object();
    ids_.clear();
    return {ok, count};
}

json auth_log::update_user(const byte_vector &request)
{
    auto count = static_cast<uint16_t>(section()["updates"].get<unsigned>() + 1);
    section()["updates"] = count;
    section()["last_update"] = leading(request, update_size);
    return {ok, count};
}

method row(const std::shared_ptr<auth_log> &log, const char *member, json (auth_log::*action)(const byte_vector &))
{
    return method(member, "ay", "yq", [=](const call &request) {
        const byte_vector &bytes = request.args[0].get_binary();
        return bytes.size() == request_size ? (*log.*action)(bytes) : json{length_invalid, 0};
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
    auto log = std::make_shared<auth_log>(state);
    sim.add_service("AuthLog1")
        .add_object({
            row(log, "AuthLogAddEntry", &auth_log::add),
            row(log, "AuthLogDelEntry", &auth_log::remove),
            row(log, "AuthLogClear", &auth_log::clear),
            row(log, "UserUpdate", &auth_log::update_user),
        });
    state.on_change("authlog", [log](const json &, const json &) { log->find_ids(); });
}

} // namespace bdbus_sim
