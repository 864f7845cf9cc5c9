// SPDX-License-Identifier: LGPL-2.1-or-later
// sel: the system event log.
#include "frame/report.hpp"
#include "frame/watch.hpp"
#include "names/ipmi-names.hpp"

#include <bdbus/sel.h>

#include <algorithm>
#include <array>
#include <bitset>
#include <optional>
#include <thread>
#include <utility>

namespace bdbusctl
{

namespace
{

using entry_bytes = std::array<uint8_t, BDBUS_SEL_ENTRY_BYTES>;

constexpr uint16_t first_entry = 0x0000;
constexpr uint16_t last_entry = 0xFFFF;
constexpr uint32_t first_date = 0x20000000; // smaller stamps count from the controller's start
constexpr uint32_t unknown_time = 0xFFFFFFFF;
constexpr uint8_t deasserted = 0x80; // in the byte of the event type

constexpr std::array sel_completions{
    code_name{0x80, "not supported for this record type"},
    code_name{0x81, "the log is being erased"},
};

/** The reply of a call; every completion code but success is a failure. */
template <class exchange>
exchange call(const session &run, const std::string &intent, int32_t (*function)(exchange *), exchange values = {})
{
    if (run.call(intent, [&] { return function(&values); }) == 0) {
        throw failure("cannot " + intent + ": the reply is empty");
    }
    const uint8_t code = values.completion_code;
    if (code != completion_success) {
        throw completion_failure("cannot " + intent, code,
                                 std::string(find_name(sel_completions, code, completion_name(code))));
    }
    return values;
}

uint32_t little_endian(const entry_bytes &entry, size_t offset, unsigned count)
{
    uint32_t value = 0;
    for (unsigned index = count; index-- > 0;) {
        value = value << 8 | entry.at(offset + index);
    }
    return value;
}

cell time_cell(uint32_t stamp)
{
    if (stamp == unknown_time) {
        return cell::none();
    }
    if (stamp < first_date) {
        return {format("start + %u s", stamp), nullptr};
    }
    return time_text(stamp);
}

// ---- entries

report new_report(const session &run)
{
    return report(run, {{"id", "ID", true},
                        {"time", "TIME"},
                        {"timestamp"},
                        {"record_type"},
                        {"generator_id"},
                        {"manufacturer_id"},
                        {"sensor_type_name", "SENSOR TYPE"},
                        {"sensor_type"},
                        {"sensor_number", "SENSOR"},
                        {"event", "EVENT"},
                        {"event_type"},
                        {"event_offset"},
                        {"direction", "DIRECTION"},
                        {"data_hex", "DATA"},
                        {"entry_hex"}});
}

void add_row(report &table, const entry_bytes &entry)
{
    enum record_type : uint8_t { system_event = 0x02, oem_timestamped = 0xC0, oem = 0xE0 };
    const uint8_t type = entry[2];
    const bool is_event = type == system_event;
    const bool is_stamped_oem = type >= oem_timestamped && type < oem;
    const uint32_t stamp = little_endian(entry, 3, 4);
    const auto only = [](bool applies, cell value) {
        return applies ? std::move(value) : cell::none();
    };
    const auto byte = [](uint8_t value) {
        return cell(hex_text(value), value);
    };

    const uint8_t sensor_type = entry[10];
    const uint8_t event_type = entry[12] & 0x7F;
    const uint8_t offset = entry[13] & 0x0F;
    const std::string kind = type >= oem_timestamped ? "OEM record" : "record of type";
    const size_t data_at = is_event ? 13 : is_stamped_oem ? 10 : 3;
    table.add({little_endian(entry, 0, 2), only(is_event || is_stamped_oem, time_cell(stamp)),
               only(is_event || is_stamped_oem, stamp), byte(type), only(is_event, little_endian(entry, 7, 2)),
               only(is_stamped_oem, little_endian(entry, 7, 3)), only(is_event, sensor_type_name(sensor_type)),
               only(is_event, byte(sensor_type)), only(is_event, byte(entry[11])),
               is_event ? event_name(event_type, sensor_type, offset) : kind + " " + hex_text(type),
               only(is_event, byte(event_type)), only(is_event, offset),
               only(is_event, entry[12] & deasserted ? "deasserted" : "asserted"),
               hex_digits(std::span(entry).subspan(data_at)), hex_digits(entry)});
}

/** Adds the log's entries to the table as far as they can be read. @return what prevented the rest. */
std::optional<failure> read_log(const session &run, report &table)
{
    std::bitset<last_entry + 1> seen;
    for (uint16_t id = first_entry; id != last_entry;) {
        bdbus_sel_entry entry{};
        entry.record_id = id;
        entry.bytes_to_read = 0xFF;
        try {
            entry = call(run, format("read entry %u", id), bdbus_sel_get_entry, entry);
        } catch (const failure &error) {
            const bool empty = id == first_entry && error.error.value("completion_code", 0) == completion_not_present;
            return empty ? std::nullopt : std::optional(error);
        }
        const entry_bytes bytes = std::to_array(entry.data);
        add_row(table, bytes);
        seen.set(id);
        seen.set(little_endian(bytes, 0, 2));
        if (entry.next_record_id != last_entry && seen.test(entry.next_record_id)) {
            return failure(format("the log runs in a circle: entry %u comes again", entry.next_record_id));
        }
        id = entry.next_record_id;
    }
    return std::nullopt;
}

void list(const session &run)
{
    report table = new_report(run);
    if (const auto error = read_log(run, table)) {
        table.show_so_far(*error, "entries");
    }
    table.show();
}

// ---- the log

void info(const session &run)
{
    constexpr std::array<std::string_view, 8> operations{"allocation-info", "reserve",    "partial-add", "delete",
                                                         "reserved-4",      "reserved-5", "reserved-6",  "overflow"};
    const auto log = call(run, "read the log's information", bdbus_sel_get_info);
    record shown;
    shown.add("version", "Version", format("%u.%u", log.version & 0x0F, log.version >> 4));
    shown.hide("version_raw", log.version);
    shown.add("entries", "Entries", log.entries);
    shown.add("free_bytes", "Free bytes", log.free_space);
    shown.add("last_addition", "Last addition", time_cell(log.addition_timestamp));
    shown.hide("last_addition_timestamp", log.addition_timestamp);
    shown.add("last_erasure", "Last erasure", time_cell(log.erase_timestamp));
    shown.hide("last_erasure_timestamp", log.erase_timestamp);
    shown.add("operations", "Operations", list_cell(bit_names(operations, log.operation_support)));
    shown.hide("operations_raw", log.operation_support);
    shown.show(run);
}

void alloc(const session &run)
{
    const auto units = call(run, "read the allocation information", bdbus_sel_get_alloc_info);
    record shown;
    shown.add("possible_units", "Units", units.possible_units);
    shown.add("unit_bytes", "Bytes of a unit", units.unit_size);
    shown.add("free_units", "Free units", units.free_units);
    shown.add("largest_free_units", "Largest free block", units.largest_free_block);
    shown.add("max_record_units", "Largest record", units.max_record_size);
    shown.show(run);
}

struct add_arguments {
    std::vector<std::string> bytes;
    std::optional<uint8_t> sensor_type;
    uint32_t time = 0;
    uint16_t generator = 0x0041; // system management software
    uint8_t sensor_number = 0;
    uint8_t event_type = sensor_specific_events;
    uint8_t offset = 0;
    uint8_t data2 = 0xFF;
    uint8_t data3 = 0xFF;
    bool deasserted = false;
};

void declare_add(CLI::App &command, add_arguments &given)
{
    const auto parse_byte = [](const std::string &text) {
        return parse_number(text, 0, UINT8_MAX);
    };
    command.add_option("BYTES", given.bytes, "The entry's 16 bytes in hex; or give an event by the options")
        ->type_name("");
    add_parsed(command, "--sensor-type", given.sensor_type, parse_byte, "Sensor type")->type_name("NUMBER");
    const auto number = [&]<class integer>(const char *name, integer &target, const char *description,
                                           uint64_t largest = std::numeric_limits<integer>::max()) {
        add_number(command, name, target, description, 0, largest)->type_name("NUMBER");
    };
    number("--sensor", given.sensor_number, "Sensor number [0]");
    number("--event-type", given.event_type, "Event type [0x6f: the sensor type's own]", 0x7F);
    number("--offset", given.offset, "Event: its offset in the event type [0]", 15);
    number("--data2", given.data2, "Second byte of event data [0xff]");
    number("--data3", given.data3, "Third byte of event data [0xff]");
    number("--generator", given.generator, "Generator ID [0x0041: management software]");
    number("--time", given.time, "Time stamp [0: the service's time]");
    command.add_flag("--deasserted", given.deasserted, "The event is over");
}

entry_bytes parse_entry(const std::vector<std::string> &words)
{
    entry_bytes entry{};
    std::ranges::copy(read_bytes(words, entry.size(), entry.size()), entry.begin());
    return entry;
}

entry_bytes make_event(const add_arguments &given)
{
    const auto low = [](uint32_t value, unsigned byte) {
        return static_cast<uint8_t>(value >> 8 * byte);
    };
    const uint8_t direction = given.deasserted ? deasserted : 0;
    return {0,
            0,
            0x02,
            low(given.time, 0),
            low(given.time, 1),
            low(given.time, 2),
            low(given.time, 3),
            low(given.generator, 0),
            low(given.generator, 1),
            0x04,
            *given.sensor_type,
            given.sensor_number,
            static_cast<uint8_t>(direction | given.event_type),
            given.offset,
            given.data2,
            given.data3};
}

void add(const session &run, const add_arguments &given)
{
    if (given.bytes.empty() == !given.sensor_type) {
        throw failure("give either the entry's bytes or --sensor-type (see bdbusctl sel add --help)",
                      exit_status::usage);
    }
    const entry_bytes entry = given.sensor_type ? make_event(given) : parse_entry(given.bytes);
    bdbus_sel_new_entry request{};
    std::copy(entry.begin(), entry.end(), request.data);
    record shown;
    shown.add("id", "ID", call(run, "add the entry", bdbus_sel_add_entry, request).record_id);
    shown.show(run);
}

void clear(const session &run)
{
    enum clear_action : uint8_t { ask_progress = 0x00, start = 0xAA };
    enum erasure : uint8_t { under_way, completed };
    constexpr std::chrono::milliseconds interval{100};
    constexpr std::chrono::seconds patience{60};
    run.confirm("This erases all entries of the event log.");
    // A question may take long, and the reservation is lost with the next entry.
    bdbus_sel_clear_request request{};
    request.reservation_id = call(run, "reserve the log", bdbus_sel_reserve).reservation_id;
    std::copy_n("CLR", sizeof request.confirm, request.confirm);
    request.action = start;
    const auto give_up = std::chrono::steady_clock::now() + patience;
    while ((call(run, "clear the log", bdbus_sel_clear, request).erase_progress & 0x0F) != completed) {
        if (std::chrono::steady_clock::now() > give_up) {
            throw failure("the log is still being erased");
        }
        std::this_thread::sleep_for(interval);
        request.action = ask_progress;
    }
    run.print("The log is erased.", json{{"erased", true}});
}

// ---- notices

struct notice {
    const char *name;
    const char *text;
};

/** The handlers get nothing of the caller's. */
std::vector<notice> received_notices;

template <const notice &seen>
int on_notice(sd_bus_message * /*message*/, void * /*userdata*/, sd_bus_error * /*error*/)
{
    received_notices.push_back(seen);
    return 0;
}

constexpr notice almost_full{"almost-full", "the log is almost full"};
constexpr notice cleared{"cleared", "the log was cleared"};
constexpr notice full{"full", "the log is full"};
constexpr bdbus_sel_callback_table handlers{on_notice<almost_full>, on_notice<cleared>, on_notice<full>};

/** A call handles one message, of which some are not notices. */
int32_t process_notices()
{
    constexpr int messages = 20;
    int32_t result = 0;
    for (int count = 0; count < messages && result == 0; count++) {
        result = bdbus_sel_event_process();
    }
    return result;
}

void watch(const session &run, const watch_arguments &given)
{
    bdbus_sel_event_callbacks(&handlers);
    follow(run, given, "com.brisemont.SystemEventLog1", [&run] {
        run.call("follow the log's notices", process_notices);
        std::vector<event> events;
        for (const auto &[name, text] : std::exchange(received_notices, {})) {
            events.push_back({text, {{"notice", name}}});
        }
        return events;
    });
}

} // namespace

void add_sel(CLI::App &program, session &run)
{
    add_family(program, run, "sel", "System event log", [](family &sel) {
        sel.verb("info", "Show version, size and times of the log", info);
        sel.verb("list", "Show all entries", list);
        sel.verb("add", "Add an entry", declare_add, add);
        sel.verb("clear", "Erase the log", clear);
        sel.verb("alloc", "Show how the log's room is allocated", alloc);
        sel.verb("watch", "Show the notices: almost full, full, cleared", declare_watch, watch);
    });
}

} // namespace bdbusctl
