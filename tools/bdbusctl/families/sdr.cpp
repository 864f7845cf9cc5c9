// SPDX-License-Identifier: LGPL-2.1-or-later
// sdr: the sensor repository.
#include "frame/input.hpp"
#include "frame/watch.hpp"
#include "names/ipmi-names.hpp"
#include "names/sensor.hpp"

#include <algorithm>
#include <bitset>
#include <cctype>
#include <charconv>
#include <chrono>
#include <mutex>
#include <thread>
#include <utility>

namespace bdbusctl
{

namespace
{

// ---- reading sensors

/** What the listener announced; never destroyed, for the listener outlives main. */
struct announcements {
    std::mutex lock;
    std::bitset<UINT16_MAX + 1> ids;       // of the sensors whose reading is known
    std::vector<bdbus_sdr_record> records; // for a watch
    bool kept = false;                     // whether there is one

    void add(const bdbus_sdr_record &record)
    {
        constexpr size_t most = 100'000; // while nobody reads the output
        const std::scoped_lock held(lock);
        ids.set(record.record_id);
        if (kept && records.size() < most) {
            records.push_back(record);
        }
    }
    void add(uint16_t id)
    {
        const std::scoped_lock held(lock);
        ids.set(id);
    }
    std::vector<bdbus_sdr_record> collect()
    {
        const std::scoped_lock held(lock);
        return std::exchange(records, {});
    }
    bool has(uint16_t id)
    {
        const std::scoped_lock held(lock);
        return ids.test(id);
    }
};

announcements &announced()
{
    static auto *const readings = new announcements;
    return *readings;
}

/** The service hands out records; readings, and what else was set since, become known only by announcements. */
outcome open_repository(const session &run, std::chrono::seconds listening = {})
{
    bdbus_sdr_set_reading_and_event_status_callback = [](bdbus_sdr_record *record) {
        announced().add(*record);
    };
    outcome seen = run.observe(bdbus_sdr_init);
    if (seen.result < 0) {
        throw failed_call("cannot open the sensor repository", seen);
    }
    std::this_thread::sleep_for(listening);
    return seen;
}

failure unreadable(const outcome &opened)
{
    return failed_call("cannot read the sensor repository", opened);
}

/** Whether the reading is known is asked first: it may become known at any time. */
std::optional<sensor> find_stored(uint16_t id)
{
    const bool known = announced().has(id);
    bdbus_sdr_record record{};
    return bdbus_sdr_get(id, &record) == 0 ? std::optional(sensor(record, known)) : std::nullopt;
}

sensor stored_sensor(uint16_t id)
{
    const auto stored = find_stored(id);
    if (!stored) {
        throw failure(format("no such sensor: %u (see bdbusctl sdr list)", id));
    }
    return *stored;
}

sensor find_sensor(const session &run, uint16_t id, std::chrono::seconds listening = {})
{
    const outcome opened = open_repository(run, listening);
    if (!find_stored(id) && !opened.faults().empty()) {
        throw unreadable(opened);
    }
    return stored_sensor(id);
}

cell type_name(const sensor &shown)
{
    return shown.has_type() ? cell(sensor_type_name(shown.type())) : cell::none();
}

std::vector<column> columns()
{
    std::vector<column> shown{{"id", "ID", true},           {"name", "NAME"}, {"type_name", "TYPE"}, {"type"},
                              {"reading", "READING", true}, {"unit"},         {"reading_raw"}};
    for (const auto &limit : thresholds) {
        shown.push_back({limit.key, limit.title, true});
    }
    shown.push_back({"thresholds_hex"});
    shown.push_back({"state", "STATE"});
    shown.push_back({"announced"});
    return shown;
}

std::vector<cell> row_of(const sensor &shown)
{
    const std::string unit = shown.unit();
    std::vector<cell> row{shown.id(),          shown.name(),
                          type_name(shown),    shown.has_type() ? cell(shown.type()) : cell::none(),
                          shown.reading(),     unit.empty() ? cell::none() : cell(unit),
                          shown.live().reading};
    const bdbus_sdr_thresholds &limits = shown.live().thresholds;
    std::vector<uint8_t> raw{limits.readable_mask};
    for (size_t index = 0; index < thresholds.size(); index++) {
        raw.push_back(limits.*thresholds.at(index).raw);
        row.push_back(shown.has_threshold(index) ? shown.value(raw.back(), false) : cell::none());
    }
    row.emplace_back(hex_digits(raw));
    row.push_back(shown.state());
    row.emplace_back(shown.announced());
    return row;
}

void explain_nominal(const session &run)
{
    run.remark(
        "Readings without a state are the records' nominal ones until the service announces others; bdbusctl sdr watch "
        "follows them.");
}

struct show_arguments {
    uint16_t id = 0;
    uint16_t seconds = 0;
};

void declare_list(CLI::App &command, show_arguments &given)
{
    add_number(command, "--wait", given.seconds, "Listen so long for new readings first")->type_name("SECONDS");
}

void list(const session &run, const show_arguments &given)
{
    const outcome opened = open_repository(run, std::chrono::seconds(given.seconds));
    report table(run, columns());
    bool all_announced = true;
    for (uint32_t id = 0; id <= UINT16_MAX; id++) {
        if (const auto stored = find_stored(static_cast<uint16_t>(id))) {
            table.add(row_of(*stored));
            all_announced = all_announced && stored->announced();
        }
    }
    if (!opened.faults().empty()) {
        table.show_so_far(unreadable(opened), "sensors");
    }
    table.show();
    if (!all_announced) {
        explain_nominal(run);
    }
}

// ---- one sensor, in parts

record identity(const sensor &shown)
{
    record fields;
    fields.add("id", "ID", shown.id());
    fields.add("name", "Name", shown.name());
    return fields;
}

void add_reading(record &fields, const sensor &shown)
{
    fields.add("reading", "Reading", shown.reading());
    fields.add("reading_raw", "Raw reading", {hex_text(shown.live().reading), shown.live().reading});
    fields.add("announced", "Announced", shown.announced());
    fields.add("state", "State", shown.state());
}

void add_thresholds(record &fields, const sensor &shown)
{
    const bdbus_sdr_thresholds &limits = shown.live().thresholds;
    for (size_t index = 0; index < thresholds.size(); index++) {
        const auto &[key, label, title, option, raw] = thresholds.at(index);
        std::string heading = label;
        heading.front() = static_cast<char>(toupper(heading.front()));
        fields.add(key, heading.c_str(), shown.has_threshold(index) ? shown.value(limits.*raw, true) : cell::none());
        fields.hide((std::string(key) + "_raw").c_str(), limits.*raw);
    }
    fields.add("readable_mask", "Readable mask", {hex_text(limits.readable_mask), limits.readable_mask});
}

void add_hysteresis(record &fields, const sensor &shown)
{
    const bdbus_sdr_hysteresis &margin = shown.live().hysteresis;
    fields.add("hysteresis_positive", "Hysteresis up", shown.hysteresis(margin.positive));
    fields.hide("hysteresis_positive_raw", margin.positive);
    fields.add("hysteresis_negative", "Hysteresis down", shown.hysteresis(margin.negative));
    fields.hide("hysteresis_negative_raw", margin.negative);
}

void add_events(record &fields, const sensor &shown)
{
    const auto add_mask = [&](const std::string &key, const std::string &label, uint16_t mask) {
        const auto names = shown.event_names(mask);
        const std::string raw = format("0x%04x", mask);
        fields.add(key.c_str(), label.c_str(), {names.empty() ? raw : raw + " (" + join(names, ", ") + ")", mask});
        fields.hide((key + "_names").c_str(), names);
    };
    const auto add = [&](const std::string &key, const std::string &label, const bdbus_sdr_event &event) {
        fields.add((key + "_flags").c_str(), (label + " flags").c_str(), {hex_text(event.flags), event.flags});
        add_mask(key + "_assertions", label + " assertions", event.assertion_mask);
        add_mask(key + "_deassertions", label + " deassertions", event.deassertion_mask);
    };
    add("enable", "Enable", shown.live().event_enable);
    add("status", "Status", shown.live().event_status);
}

void add_id(CLI::App &command, uint16_t &id)
{
    add_number(command, "ID", id, "Record ID, as in sdr list")->required();
}

void declare_show(CLI::App &command, show_arguments &given)
{
    add_id(command, given.id);
    declare_list(command, given);
}

void show(const session &run, const show_arguments &given)
{
    const sensor shown = find_sensor(run, given.id, std::chrono::seconds(given.seconds));
    record fields = identity(shown);
    fields.add("type_name", "Type", type_name(shown));
    if (shown.has_type()) {
        fields.add("type", "Sensor type", {hex_text(shown.type()), shown.type()});
        fields.add("event_type_name", "Events", event_type_name(shown.event_type()));
        fields.add("event_type", "Event type", {hex_text(shown.event_type()), shown.event_type()});
    }
    add_reading(fields, shown);
    add_thresholds(fields, shown);
    add_hysteresis(fields, shown);
    add_events(fields, shown);
    shown.describe(fields);
    fields.show(run);
    if (!shown.announced()) {
        explain_nominal(run);
    }
}

// ---- changing one

/** Makes the change and shows the part of the sensor that it was made to. */
void change(const session &run, uint16_t id, const char *what, const std::function<int32_t()> &call,
            void (*add_part)(record &, const sensor &))
{
    run.call(format("set the %s of sensor %u", what, id), call);
    const sensor changed = stored_sensor(id);
    record fields = identity(changed);
    add_part(fields, changed);
    if (run.wants_json() || !run.quiet) {
        fields.show(run);
    }
}

double parse_real(const std::string &text)
{
    double value = 0;
    const char *const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, value);
    if (error != std::errc() || stop != end) {
        throw std::invalid_argument("'" + one_line(text) + "' is not a number");
    }
    return value;
}

/** A value as it was given, in the sensor's unit or raw. */
uint8_t raw_value(const sensor &of, const std::string &name, const std::string &text, bool raw,
                  uint8_t (sensor::*convert)(double) const = &sensor::to_raw)
{
    try {
        return raw ? static_cast<uint8_t>(parse_number(text, 0, UINT8_MAX)) : (of.*convert)(parse_real(text));
    } catch (const std::invalid_argument &reason) {
        throw failure(name + ": " + reason.what(), exit_status::usage);
    }
}

struct value_arguments {
    uint16_t id = 0;
    std::array<std::string, thresholds.size()> values; // empty: not given
    bool raw = false;
};

void declare_raw(CLI::App &command, value_arguments &given)
{
    add_id(command, given.id);
    command.add_flag("--raw", given.raw, "Values are raw, 0 to 255, and not in the sensor's unit");
}

void declare_reading(CLI::App &command, value_arguments &given)
{
    declare_raw(command, given);
    command.add_option("VALUE", given.values[0], "Reading")->type_name("")->required();
}

void set_reading(const session &run, const value_arguments &given)
{
    const uint8_t reading = raw_value(find_sensor(run, given.id), "VALUE", given.values[0], given.raw);
    change(
        run, given.id, "reading",
        [&] {
            announced().add(given.id); // the announcement of what we set ourselves may come later
            return bdbus_sdr_reading_set(given.id, reading);
        },
        add_reading);
}

void declare_thresholds(CLI::App &command, value_arguments &given)
{
    declare_raw(command, given);
    for (size_t index = 0; index < thresholds.size(); index++) {
        command.add_option(thresholds.at(index).option, given.values.at(index), "New value")->type_name("VALUE");
    }
}

/** A threshold that gets a value counts from then on. */
void set_thresholds(const session &run, const value_arguments &given)
{
    if (std::all_of(given.values.begin(), given.values.end(), [](const std::string &text) { return text.empty(); })) {
        throw failure("no threshold was given (see bdbusctl sdr set-thresholds --help)", exit_status::usage);
    }
    const sensor target = find_sensor(run, given.id);
    bdbus_sdr_thresholds limits = target.live().thresholds;
    for (size_t index = 0; index < thresholds.size(); index++) {
        if (given.values.at(index).empty()) {
            continue;
        }
        const threshold &limit = thresholds.at(index);
        limits.*limit.raw = raw_value(target, limit.option, given.values.at(index), given.raw);
        limits.readable_mask = static_cast<uint8_t>(limits.readable_mask | 1U << index);
    }
    change(
        run, given.id, "thresholds", [&] { return bdbus_sdr_threshold_set(given.id, &limits); }, add_thresholds);
}

void declare_hysteresis(CLI::App &command, value_arguments &given)
{
    declare_raw(command, given);
    command.add_option("POSITIVE", given.values[0], "Positive-going hysteresis")->type_name("")->required();
    command.add_option("NEGATIVE", given.values[1], "Negative-going hysteresis")->type_name("")->required();
}

void set_hysteresis(const session &run, const value_arguments &given)
{
    const sensor target = find_sensor(run, given.id);
    const auto convert = &sensor::to_raw_hysteresis;
    const bdbus_sdr_hysteresis margin{raw_value(target, "POSITIVE", given.values[0], given.raw, convert),
                                      raw_value(target, "NEGATIVE", given.values[1], given.raw, convert)};
    change(
        run, given.id, "hysteresis", [&] { return bdbus_sdr_hysteresis_set(given.id, &margin); }, add_hysteresis);
}

struct event_arguments {
    uint16_t id = 0;
    std::optional<uint8_t> flags;
    std::optional<uint16_t> assertions;
    std::optional<uint16_t> deassertions;
    bool status = false;
};

void declare_event(CLI::App &command, event_arguments &given)
{
    const auto parse_mask = [](const std::string &text) {
        return parse_number(text, 0, UINT16_MAX);
    };
    add_id(command, given.id);
    add_parsed(
        command, "--flags", given.flags, [](const std::string &text) { return parse_number(text, 0, UINT8_MAX); },
        "Flags; of the enables 0x80 event messages, 0x40 scanning")
        ->type_name("FLAGS");
    add_parsed(command, "--assertions", given.assertions, parse_mask, "Assertion mask: bit n for event n")
        ->type_name("MASK");
    add_parsed(command, "--deassertions", given.deassertions, parse_mask, "Deassertion mask")->type_name("MASK");
    command.add_flag("--status", given.status, "Set the event status and not the event enables");
}

void set_event(const session &run, const event_arguments &given)
{
    if (!given.flags && !given.assertions && !given.deassertions) {
        throw failure("neither flags nor masks were given (see bdbusctl sdr set-event --help)", exit_status::usage);
    }
    const sensor target = find_sensor(run, given.id);
    bdbus_sdr_event event = given.status ? target.live().event_status : target.live().event_enable;
    event.flags = given.flags.value_or(event.flags);
    event.assertion_mask = given.assertions.value_or(event.assertion_mask);
    event.deassertion_mask = given.deassertions.value_or(event.deassertion_mask);
    const auto set = given.status ? bdbus_sdr_event_status_set : bdbus_sdr_event_set;
    change(
        run, given.id, given.status ? "event status" : "events", [&] { return set(given.id, &event); }, add_events);
}

// ---- the repository

struct add_arguments {
    std::string file;
};

void declare_add(CLI::App &command, add_arguments &given)
{
    command.add_option("FILE", given.file, "The record's 64 bytes; - for the standard input")
        ->type_name("")
        ->required();
}

void add(const session &run, const add_arguments &given)
{
    const std::string content = read_input(given.file, BDBUS_SDR_BYTES);
    if (content.size() != BDBUS_SDR_BYTES) {
        throw failure(format("%s: a record has %d bytes, not %s%zu", input_name(given.file).c_str(), BDBUS_SDR_BYTES,
                             content.size() > BDBUS_SDR_BYTES ? "over " : "",
                             std::min<size_t>(content.size(), BDBUS_SDR_BYTES)));
    }
    open_repository(run);
    uint16_t id = 0;
    run.call("add the record", [&] { return bdbus_sdr_add(bytes_of(content).data(), BDBUS_SDR_BYTES, &id, 0); });
    identity(stored_sensor(id)).show(run);
}

struct delete_arguments {
    uint16_t id = 0;
};

void declare_delete(CLI::App &command, delete_arguments &given)
{
    add_id(command, given.id);
}

void remove(const session &run, const delete_arguments &given)
{
    const sensor target = find_sensor(run, given.id);
    run.confirm(format("This deletes sensor %u (%s).", given.id, target.name().c_str()));
    run.call(format("delete sensor %u", given.id), [&] { return bdbus_sdr_delete(given.id); });
    identity(target).show(run);
}

event announcement(const sensor &changed)
{
    return {format("%5u %-16s %s (%s)", changed.id(), changed.name().c_str(), changed.reading().text.c_str(),
                   changed.state().text.c_str()),
            row_object(columns(), row_of(changed))};
}

void watch(const session &run, const watch_arguments &given)
{
    announced().kept = true;
    const outcome opened = open_repository(run);
    if (!opened.faults().empty()) {
        throw unreadable(opened);
    }
    follow(run, given, "com.brisemont.SensorDataRepository1", [] {
        std::vector<event> events;
        for (const auto &record : announced().collect()) {
            events.push_back(announcement(sensor(record, true)));
        }
        return events;
    });
}

} // namespace

void add_sdr(CLI::App &program, session &run)
{
    add_family(program, run, "sdr", "Sensors: readings, thresholds, events, records", [](family &sdr) {
        sdr.verb("list", "Show all sensors", declare_list, list);
        sdr.verb("show", "Show all about a sensor", declare_show, show);
        sdr.verb("watch", "Show readings as they are set", declare_watch, watch);
        sdr.verb("set-reading", "Set the reading of a sensor", declare_reading, set_reading);
        sdr.verb("set-thresholds", "Set thresholds of a sensor", declare_thresholds, set_thresholds);
        sdr.verb("set-hysteresis", "Set the hysteresis of a sensor", declare_hysteresis, set_hysteresis);
        sdr.verb("set-event", "Set the event enables or the event status of a sensor", declare_event, set_event);
        sdr.verb("add", "Add a record", declare_add, add);
        sdr.verb("delete", "Delete a record", declare_delete, remove);
    });
}

} // namespace bdbusctl
