// SPDX-License-Identifier: LGPL-2.1-or-later
// The sensor data repository: records, their live values, and the notices of their changes.
#include "services/sensors.hpp"
#include "services/services.hpp"

#include <algorithm>
#include <chrono>
#include <iterator>
#include <memory>
#include <random>
#include <set>

namespace bdbus_sim
{

namespace
{

constexpr uint16_t no_record = 0xFFFF;
constexpr uint16_t last_id = 0xFFFE;
constexpr uint16_t first_extra_id = 0x1000;
constexpr uint8_t record_not_present = 0xCB;

/**
 * A value of a record that clients can set. The call takes the record's ID and the value; the signal that announces the
 * change carries its author, the ID and the value.
 */
struct live_value {
    const char *key;
    const char *set;
    const char *set_signature;
    const char *announced;
};

const live_value reading = {"reading", "SetReading", "qy", "ReadingSet"};

const live_value live_values[] = {
    reading,
    {"event_enable", "SetEvent", "qyqq", "EventSet"},
    {"event_status", "SetEventStatus", "qyqq", "EventStatusSet"},
    {"hysteresis", "SetHysteresis", "qyy", "HysteresisSet"},
    {"thresholds", "SetThresholds", "qay", "ThresholdSet"},
};

/** The call's value, in the form in which the state has it. */
json value_in(const call &request)
{
    if (request.args.size() > 2) {
        return json(request.args.begin() + 1, request.args.end());
    }
    const json &value = request.args[1];
    if (!value.is_binary()) {
        return value;
    }
    if (value.get_binary().size() != thresholds_size) {
        throw std::invalid_argument("thresholds are 7 bytes");
    }
    return static_cast<const byte_vector &>(value.get_binary());
}

class repository
{
public:
    repository(simulator &sim, service &bus_service) : loop_(sim.loop), state_(sim.state), service_(bus_service)
    {
        find_ids();
    }

    json get(uint16_t id) const;
    uint16_t add(const call &request);
    void remove(const call &request);
    void set(const live_value &row, const call &request);

    // Announces a change of the state that no client of the service made.
    void follow(const json &before, const json &after);

private:
    json &section() const { return state_.own("sdr"); }
    json &records() const { return section()["records"]; }

    uint32_t extras_end() const;
    bool is_extra(uint16_t id) const { return id >= first_extra_id && id < extras_end(); }
    bool has(uint16_t id) const { return records().contains(std::to_string(id)) || is_extra(id); }
    void find_ids();
    uint16_t next_after(uint16_t id) const;
    json &at(uint16_t id);

    void complete();
    void announce(const live_value &row, const std::string &author, uint16_t id, const json &value);
    void announce_record(uint16_t id, const json *before, const json &after);
    void schedule_move();
    void move();

    event_loop &loop_;
    state_document &state_;
    service &service_;
    std::set<unsigned> ids_;  // of the records in the state
    unsigned first_free_ = 1; // no lower ID is free
    std::minstd_rand chance_;
    timer_ptr next_move_;
};

// ---- the records: those in the state, then the extra ones, of which only the number is kept

uint32_t repository::extras_end() const
{
    return first_extra_id + std::min(section()["extra_records"].get<uint32_t>(), last_id - first_extra_id + 1U);
}

void repository::find_ids()
{
    first_free_ = 1;
    ids_ = numbers_of(records());
}

uint16_t repository::next_after(uint16_t id) const
{
    auto record = ids_.upper_bound(id);
    uint32_t next = record != ids_.end() ? *record : no_record;
    uint32_t extra = std::max<uint32_t>(id + 1U, first_extra_id);
    return static_cast<uint16_t>(extra < extras_end() ? std::min(next, extra) : next);
}

/** Whoever asks for an extra record here means to change it, so it moves into the state. */
json &repository::at(uint16_t id)
{
    if (!has(id)) {
        throw dbus_error("com.brisemont.Error.NoSuchRecord", "No such record: " + std::to_string(id));
    }
    json &record = records()[std::to_string(id)];
    if (record.is_null()) {
        record = extra_sensor(id);
        ids_.insert(id);
    }
    return record;
}

json repository::get(uint16_t id) const
{
    if (id == 0) {
        id = next_after(0);
    }
    if (!has(id)) {
        return {record_not_present, no_record, json::array()};
    }
    auto found = records().find(std::to_string(id));
    return {0, next_after(id), found != records().end() ? (*found)["sdr"] : extra_sensor(id)["sdr"]};
}

uint16_t repository::add(const call &request)
{
    const byte_vector &sdr = request.args[0].get_binary();
    if (sdr.size() != sdr_size) {
        throw std::invalid_argument("a record is 64 bytes");
    }
    while (first_free_ <= last_id && has(static_cast<uint16_t>(first_free_))) {
        first_free_++;
    }
    if (first_free_ > last_id) {
        throw standard_error("LimitsExceeded", "The repository is full.");
    }

    auto id = static_cast<uint16_t>(first_free_);
    json record = sensor_record(id, sdr);
    records()[std::to_string(id)] = record;
    ids_.insert(id);
    service_.emit("RecordAdded", "say", {request.sender, record["sdr"]});
    return id;
}

void repository::remove(const call &request)
{
    auto id = request.arg<uint16_t>(0);
    at(id);
    if (is_extra(id)) {
        // Extra records have no gaps between them, so the ones above it become ordinary records.
        for (uint32_t above = id + 1U; above < extras_end(); above++) {
            at(static_cast<uint16_t>(above));
        }
        section()["extra_records"] = id - first_extra_id;
    }
    records().erase(std::to_string(id));
    ids_.erase(id);
    first_free_ = std::min<unsigned>(first_free_, id);
    service_.emit("RecordDeleted", "sq", {request.sender, id});
}

void repository::set(const live_value &row, const call &request)
{
    auto id = request.arg<uint16_t>(0);
    json value = value_in(request);
    at(id)[row.key] = value;
    announce(row, request.sender, id, value);
}

// ---- announcements

void repository::announce(const live_value &row, const std::string &author, uint16_t id, const json &value)
{
    std::string signature = row.set_signature;
    json args = {author, id};
    if (signature == "qy" || signature == "qay") {
        args.push_back(value);
    } else {
        args.insert(args.end(), value.begin(), value.end());
    }
    service_.emit(row.announced, "s" + signature, args);
}

/** Clients take the values of a new record from its 64 bytes, so only values that differ are announced. */
void repository::announce_record(uint16_t id, const json *before, const json &after)
{
    json known = before != nullptr ? *before : json();
    if (before == nullptr || known["sdr"] != after["sdr"]) {
        service_.emit("RecordAdded", "say", {service_.unique_name(), after["sdr"]});
        known = sensor_record(id, after["sdr"]);
        if (before != nullptr) {
            known["event_status"] = (*before)["event_status"];
        }
    }
    for (const live_value &row : live_values) {
        if (known[row.key] != after[row.key]) {
            announce(row, service_.unique_name(), id, after[row.key]);
        }
    }
}

/** A record may be set as just its 64 bytes; the other values are then taken from them. */
void repository::complete()
{
    for (auto &[key, record] : records().items()) {
        json whole = sensor_record(static_cast<uint16_t>(std::stoul(key)), record["sdr"]);
        record["sdr"] = whole["sdr"];
        for (const live_value &row : live_values) {
            record.emplace(row.key, whole[row.key]); // unless it is there
        }
    }
}

void repository::follow(const json &before, const json &after)
{
    find_ids();
    complete();
    const json &old = before["records"];
    for (const auto &[key, record] : old.items()) {
        auto id = static_cast<uint16_t>(std::stoul(key));
        if (!has(id)) {
            service_.emit("RecordDeleted", "sq", {service_.unique_name(), id});
        } else if (!after["records"].contains(key)) {
            announce_record(id, &record, extra_sensor(id));
        }
    }
    for (const auto &[key, record] : after["records"].items()) {
        auto known = old.find(key);
        if (known == old.end() || *known != record) {
            announce_record(static_cast<uint16_t>(std::stoul(key)), known == old.end() ? nullptr : &*known, record);
        }
    }
    if (before["moving_ms"] != after["moving_ms"]) {
        schedule_move();
    }
}

// ---- readings that move

void repository::schedule_move()
{
    auto interval = std::chrono::milliseconds(section()["moving_ms"].get<uint32_t>());
    next_move_.reset();
    if (interval.count() > 0) {
        next_move_ = loop_.after(interval, [this] {
            move();
            schedule_move();
        });
    }
}

/** Moves a few readings by one step, within the limits beyond which they would cause an event. */
void repository::move()
{
    constexpr int at_a_time = 3;
    for (int i = 0; i < at_a_time && !records().empty(); i++) {
        auto place = std::next(records().begin(), static_cast<long>(chance_() % records().size()));
        json &record = *place;
        const json &limits = record["thresholds"];
        auto mask = limits[readable_mask].get<unsigned>();
        int least = (mask & 1U) != 0 ? limits[lower_noncritical].get<int>() + 1 : 1;
        int most = (mask & 8U) != 0 ? limits[upper_noncritical].get<int>() - 1 : 254;
        int step = chance_() % 2 == 0 ? 1 : -1;
        int moved = record["reading"].get<int>() + step;
        record["reading"] = std::max(std::min(moved, most), std::min(least, 255));
        announce(reading, service_.unique_name(), static_cast<uint16_t>(std::stoul(place.key())), record["reading"]);
    }
}

std::vector<method> methods(const std::shared_ptr<repository> &sdr)
{
    std::vector<method> rows = {
        method("GetSdr", "q", "yqay", [=](const call &request) { return sdr->get(request.arg<uint16_t>(0)); }),
        method("AddSdr", "ay", "q", [=](const call &request) { return json::array({sdr->add(request)}); }),
        method("DeleteSdr", "q", "",
               [=](const call &request) {
                   sdr->remove(request);
                   return json::array();
               }),
    };
    for (const live_value &row : live_values) {
        rows.emplace_back(row.set, row.set_signature, "", [sdr, &row](const call &request) {
            sdr->set(row, request);
            return json::array();
        });
    }
    return rows;
}

std::vector<signal_row> announcements()
{
    std::vector<signal_row> rows = {{"", "RecordAdded", "say"}, {"", "RecordDeleted", "sq"}};
    for (const live_value &row : live_values) {
        rows.push_back({"", row.announced, std::string("s") + row.set_signature});
    }
    return rows;
}

} // namespace

void add_sdr(simulator &sim)
{
    json record = {{"sdr", "64y"},
                   {"reading?", "y"},
                   {"event_enable?", {"y", "q", "q"}},
                   {"event_status?", {"y", "q", "q"}},
                   {"hysteresis?", "2y"},
                   {"thresholds?", "7y"}};
    json defaults = {{"records", default_sensors()}, {"moving_ms", 0}, {"extra_records", 0}};
    json shape = {{"records", {{"#", record}}}, {"moving_ms", "u"}, {"extra_records", "q"}};
    sim.state.add_section("sdr", defaults, shape);

    service &bus_service = sim.add_service("SensorDataRepository1");
    auto sdr = std::make_shared<repository>(sim, bus_service);
    bus_service.add_object(methods(sdr), {}, announcements());
    sim.state.on_change("sdr", [sdr](const json &before, const json &after) { sdr->follow(before, after); });
}

} // namespace bdbus_sim
