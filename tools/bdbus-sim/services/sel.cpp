// SPDX-License-Identifier: LGPL-2.1-or-later
// The system event log: it fills up, is reserved and cleared, and says so.
#include "services/services.hpp"

#include <algorithm>
#include <array>
#include <ctime>
#include <iterator>
#include <memory>
#include <optional>
#include <unordered_map>

namespace bdbus_sim
{

namespace
{

constexpr size_t entry_size = 16;
constexpr uint16_t first_entry = 0x0000;
constexpr uint16_t last_entry = 0xFFFF;
constexpr uint8_t whole_entry = 0xFF;
constexpr uint32_t no_time = 0xFFFFFFFF;
constexpr uint8_t system_event = 0x02;
constexpr uint8_t stamped_types_end = 0xE0; // records of higher types carry no time stamp

enum code : uint8_t {
    ok = 0x00,
    erasing = 0x81,
    out_of_space = 0xC4,
    reservation_lost = 0xC5,
    length_invalid = 0xC7,
    offset_invalid = 0xC9,
    too_many_bytes = 0xCA,
    record_not_present = 0xCB,
    invalid_field = 0xCC,
};

enum clear_action : uint8_t { get_progress = 0x00, start_erasing = 0xAA };
enum clear_progress : uint8_t { under_way = 0, complete = 1 };
enum operation : uint8_t { gives_allocation = 0x01, takes_reservations = 0x02, has_overflowed = 0x80 };

// ---- entries

uint16_t id_of(const json &entry)
{
    return static_cast<uint16_t>(entry[0].get<int>() | entry[1].get<int>() << 8);
}

bool is_stamped(uint8_t type)
{
    return type >= system_event && type < stamped_types_end;
}

uint32_t stamp_of(const json &entry)
{
    uint32_t stamp = 0;
    for (size_t place : {6U, 5U, 4U, 3U}) {
        stamp = stamp << 8 | entry[place].get<uint8_t>();
    }
    return stamp;
}

template <typename Entry>
void put_stamp(Entry &entry, uint32_t stamp)
{
    for (size_t place : {3U, 4U, 5U, 6U}) {
        entry[place] = static_cast<uint8_t>(stamp);
        stamp >>= 8;
    }
}

/**
 * A morning on which the controller lost its mains and a fan. Times before the clock was set count from the start of
 * the controller.
 */
json default_entries()
{
    struct event {
        uint32_t stamp;
        uint8_t record_type;
        uint8_t tail[9]; // from the generator on: for an event 20 00 04, sensor type and number, event type, three data
    };
    constexpr uint32_t morning = 1'767'250'800;
    static const event events[] = {
        {4, 0x02, {0x20, 0x00, 0x04, 0x10, 0xF0, 0x6F, 0x02, 0xFF, 0xFF}},             // log cleared
        {6, 0x02, {0x20, 0x00, 0x04, 0x08, 0xF1, 0x6F, 0x00, 0xFF, 0xFF}},             // power supply present
        {6, 0x02, {0x20, 0x00, 0x04, 0x08, 0xF2, 0x6F, 0x00, 0xFF, 0xFF}},             // and the second one
        {9, 0x02, {0x20, 0x00, 0x04, 0x09, 0xF3, 0x6F, 0x00, 0xFF, 0xFF}},             // powered down
        {11, 0x02, {0x20, 0x00, 0x04, 0x02, 0x34, 0x01, 0x50, 0x59, 0x5A}},            // battery below its limit
        {morning, 0x02, {0x20, 0x00, 0x04, 0x12, 0xF4, 0x6F, 0x05, 0x01, 0xFF}},       // clock set
        {morning + 2, 0x02, {0x20, 0x00, 0x04, 0x22, 0xF5, 0x6F, 0x00, 0xFF, 0xFF}},   // working
        {morning + 41, 0x02, {0x01, 0x00, 0x04, 0x1F, 0xF6, 0x6F, 0x01, 0xFF, 0xFF}},  // booted from disk
        {morning + 600, 0x02, {0x20, 0x00, 0x04, 0x01, 0x01, 0x01, 0x57, 0x4F, 0x4E}}, // inlet too warm
        {morning + 960, 0x02, {0x20, 0x00, 0x04, 0x01, 0x01, 0x81, 0x57, 0x4C, 0x4E}}, // and no longer
        {morning + 2210, 0x02, {0x20, 0x00, 0x04, 0x04, 0x42, 0x01, 0x50, 0x18, 0x19}},
        {morning + 2214, 0x02, {0x20, 0x00, 0x04, 0x04, 0x42, 0x01, 0x52, 0x0E, 0x0F}},
        {morning + 2260, 0x02, {0x20, 0x00, 0x04, 0x04, 0x42, 0x81, 0x52, 0x50, 0x0F}},
        {morning + 2260, 0x02, {0x20, 0x00, 0x04, 0x04, 0x42, 0x81, 0x50, 0x50, 0x19}},
        {morning + 5400, 0x02, {0x20, 0x00, 0x04, 0x08, 0xF2, 0x6F, 0x03, 0xFF, 0xFF}}, // input lost
        {morning + 5431, 0x02, {0x20, 0x00, 0x04, 0x08, 0xF2, 0xEF, 0x03, 0xFF, 0xFF}}, // and back
        {morning + 7020, 0xC0, {0xB3, 0xA2, 0x00, 0x01, 0x05, 0x00, 0x00, 0x00, 0x00}}, // the maker's own
        {morning + 7200, 0x02, {0x33, 0x00, 0x04, 0x0C, 0xF7, 0x6F, 0x20, 0xFF, 0x03}}, // memory error, corrected
        {morning + 9000, 0x02, {0x20, 0x00, 0x04, 0x07, 0xF8, 0x6F, 0x01, 0xFF, 0xFF}}, // processor too hot
        {morning + 9300, 0x02, {0x20, 0x00, 0x04, 0x1D, 0xF9, 0x6F, 0x07, 0x03, 0xFF}}, // restarted
    };
    json entries;
    for (const event &event : events) {
        auto id = static_cast<uint8_t>(entries.size() + 1);
        byte_vector entry = {id, 0, event.record_type, 0, 0, 0, 0};
        put_stamp(entry, event.stamp);
        entry.insert(entry.end(), std::begin(event.tail), std::end(event.tail));
        entries.push_back(entry);
    }
    return entries;
}

// ---- the log

/** A step into one of these is told by a notice. */
constexpr const char *notices[] = {"SelCleared", "SelAlmostFull", "SelFull"};
using noticed_states = std::array<bool, std::size(notices)>;

noticed_states states_of(const json &log)
{
    size_t count = log["entries"].size();
    auto capacity = log["capacity"].get<size_t>();
    return {count == 0, count * 100 >= capacity * log["almost_full"].get<size_t>(), count >= capacity};
}

class event_log
{
public:
    event_log(state_document &state, service &bus_service) : state_(state), service_(bus_service) { find_places(); }

    void reset();
    json add(const byte_vector &record);
    json reserve();
    json clear(const call &request);
    json get(const call &request) const;
    json info() const;
    json allocation() const;

    // To be called when the state has changed by other ways than these.
    void follow(const json &before);

private:
    json &section() const { return state_.own("sel"); }
    json &entries() const { return section()["entries"]; }
    size_t free_entries() const;
    uint16_t free_id() const;
    void find_places();
    size_t place_of(uint16_t id) const;
    void notice(const noticed_states &before);
    void erase();
    uint8_t check_part(const call &request, size_t &size) const;

    state_document &state_;
    service &service_;
    std::unordered_map<uint16_t, size_t> places_; // of the first entry with an ID
    std::optional<uint16_t> reservation_;
    uint16_t last_reservation_ = 0;
    std::optional<unsigned> polls_left_; // while it is being erased
    uint32_t added_at_ = no_time;
    uint32_t erased_at_ = no_time;
    bool overflowed_ = false;
};

void event_log::reset()
{
    reservation_.reset();
    last_reservation_ = 0;
    polls_left_.reset();
    erased_at_ = no_time;
    overflowed_ = false;
    added_at_ = no_time;
    for (const json &entry : entries()) {
        if (is_stamped(entry[2])) {
            added_at_ = stamp_of(entry);
        }
    }
}

size_t event_log::free_entries() const
{
    auto capacity = section()["capacity"].get<size_t>();
    return capacity - std::min(capacity, entries().size());
}

/** The ID after the last entry's, or when that is taken the next free one. */
uint16_t event_log::free_id() const
{
    uint16_t id = entries().empty() ? first_entry : id_of(entries().back());
    do {
        id++;
    } while (id == first_entry || id == last_entry || places_.contains(id));
    return id;
}

void event_log::find_places()
{
    places_.clear();
    for (size_t place = 0; place < entries().size(); place++) {
        places_.emplace(id_of(entries()[place]), place);
    }
}

void event_log::notice(const noticed_states &before)
{
    noticed_states now = states_of(section());
    for (size_t i = 0; i < std::size(notices); i++) {
        if (now[i] && !before[i]) {
            service_.emit(notices[i], "", json::array());
        }
    }
}

void event_log::follow(const json &before)
{
    find_places();
    notice(states_of(before));
}

json event_log::add(const byte_vector &record)
{
    if (record.size() != entry_size) {
        return {length_invalid, 0};
    }
    if (polls_left_) {
        return {erasing, 0};
    }
    if (free_entries() == 0) {
        overflowed_ = true;
        return {out_of_space, 0};
    }

    noticed_states before = states_of(section());
    json entry = record;
    uint16_t id = free_id();
    auto now = static_cast<uint32_t>(time(nullptr));
    entry[0] = id & 0xFF;
    entry[1] = id >> 8;
    if (is_stamped(record[2]) && stamp_of(entry) == 0) {
        put_stamp(entry, now);
    }
    places_.emplace(id, entries().size());
    entries().push_back(std::move(entry));
    added_at_ = now;
    reservation_.reset();
    notice(before);
    return {ok, id};
}

json event_log::reserve()
{
    if (polls_left_) {
        return {erasing, 0};
    }
    if (++last_reservation_ == 0) {
        last_reservation_ = 1;
    }
    reservation_ = last_reservation_;
    return {ok, last_reservation_};
}

void event_log::erase()
{
    polls_left_.reset();
    entries() = json::array();
    places_.clear();
    erased_at_ = static_cast<uint32_t>(time(nullptr));
    overflowed_ = false;
    service_.emit("SelCleared", "", json::array());
}

json event_log::clear(const call &request)
{
    if (reservation_ != request.arg<uint16_t>(0)) {
        return {reservation_lost, 0};
    }
    if (request.arg<char>(1) != 'C' || request.arg<char>(2) != 'L' || request.arg<char>(3) != 'R') {
        return {invalid_field, 0};
    }
    auto action = request.arg<uint8_t>(4);
    if (action != start_erasing && action != get_progress) {
        return {invalid_field, 0};
    }

    auto polls = section()["erase_polls"].get<unsigned>();
    if (action == start_erasing && polls > 0) {
        polls_left_ = polls;
    } else if (action == start_erasing || (polls_left_ && --*polls_left_ == 0)) {
        erase();
    }
    return {ok, polls_left_ ? under_way : complete};
}

/** Checks which bytes of an entry are asked for; `size` becomes their number. */
uint8_t event_log::check_part(const call &request, size_t &size) const
{
    auto offset = request.arg<uint8_t>(2);
    auto count = request.arg<uint8_t>(3);
    size_t rest = offset < entry_size ? entry_size - offset : 0;
    size = count == whole_entry ? rest : count;
    if (offset == 0 && size == entry_size) {
        return ok;
    }
    if (reservation_ != request.arg<uint16_t>(0)) {
        return reservation_lost;
    }
    return rest == 0 ? offset_invalid : size > rest ? too_many_bytes : ok;
}

/** Of an entry that is not there, a place behind all of them. */
size_t event_log::place_of(uint16_t id) const
{
    auto found = places_.find(id);
    if (id == first_entry) {
        return 0;
    }
    return found != places_.end() ? found->second : id == last_entry ? entries().size() - 1 : entries().size();
}

json event_log::get(const call &request) const
{
    auto refusal = [](uint8_t why) {
        return json::array({why, last_entry, json::array()});
    };
    const json &all = entries();
    size_t place = place_of(request.arg<uint16_t>(1));
    if (place >= all.size()) {
        return refusal(record_not_present);
    }
    size_t size = 0;
    uint8_t answer = check_part(request, size);
    if (answer != ok) {
        return refusal(answer);
    }

    uint16_t next = place + 1 < all.size() ? id_of(all[place + 1]) : last_entry;
    auto from = all[place].begin() + request.arg<uint8_t>(2);
    return {ok, next, json(from, from + static_cast<long>(size))};
}

json event_log::info() const
{
    int operations = gives_allocation | takes_reservations | (overflowed_ ? has_overflowed : 0);
    size_t free_bytes = std::min<size_t>(free_entries() * entry_size, 0xFFFF);
    return {ok, section()["version"], entries().size(), free_bytes, added_at_, erased_at_, operations};
}

/** A unit is an entry. */
json event_log::allocation() const
{
    return {ok, section()["capacity"], entry_size, free_entries(), free_entries(), 1};
}

} // namespace

void add_sel(simulator &sim)
{
    json defaults = {
        {"capacity", 64}, {"almost_full", 90}, {"entries", default_entries()}, {"erase_polls", 1}, {"version", 0x51}};
    json shape = {{"capacity", "q"},
                  {"almost_full", "y"},
                  {"entries", json::array({"16y"})},
                  {"erase_polls", "q"},
                  {"version", "y"}};
    sim.state.add_section("sel", defaults, shape);

    service &bus_service = sim.add_service("SystemEventLog1");
    auto log = std::make_shared<event_log>(sim.state, bus_service);
    bus_service.add_object(
        {
            method("AddSelEntry", "ay", "yq",
                   [=](const call &request) { return log->add(request.args[0].get_binary()); }),
            method("ReserveSel", "", "yq", [=](const call &) { return log->reserve(); }),
            method("ClearSel", "qyyyy", "yy", [=](const call &request) { return log->clear(request); }),
            method("GetSelEntry", "qqyy", "yqay", [=](const call &request) { return log->get(request); }),
            method("GetSelInfo", "", "yyqquuy", [=](const call &) { return log->info(); }),
            method("GetSelAllocInfo", "", "yqqqqy", [=](const call &) { return log->allocation(); }),
        },
        {}, {{"", "SelAlmostFull", ""}, {"", "SelFull", ""}, {"", "SelCleared", ""}});
    sim.state.on_change("sel", [log](const json &before, const json &) { log->follow(before); });
    sim.on_reset([log] { log->reset(); });
}

} // namespace bdbus_sim
