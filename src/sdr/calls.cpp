// SPDX-License-Identifier: LGPL-2.1-or-later
// The sensor data repository's calls: getters from the store, setters to the store and then to the service.
#include "sdr/connection.hpp"
#include "sdr/store.hpp"

#include <cerrno>

namespace bdbus
{

namespace
{

constexpr uint16_t first_record = 0; // as a request: whichever is first
constexpr uint16_t no_more_records = 0xFFFF;

/** Copy one part of a record out. */
template <typename Part>
int32_t sdr_read(uint16_t id, Part *out, Part bdbus_sdr_record::*part)
{
    const sdr_store *store = sdr_records.load(std::memory_order_acquire);
    bdbus_sdr_record record;
    if (out == nullptr || store == nullptr || !store->read(id, record)) {
        return -EINVAL;
    }
    *out = record.*part;
    return 0;
}

bool same(const bdbus_sdr_event &a, const bdbus_sdr_event &b)
{
    return a.flags == b.flags && a.assertion_mask == b.assertion_mask && a.deassertion_mask == b.deassertion_mask;
}

bool same(const bdbus_sdr_hysteresis &a, const bdbus_sdr_hysteresis &b)
{
    return a.positive == b.positive && a.negative == b.negative;
}

bool same(const bdbus_sdr_thresholds &a, const bdbus_sdr_thresholds &b)
{
    return memcmp(&a, &b, sizeof(a)) == 0; // bytes without padding
}

/** What a call gives in a child of the process that init was called in, before it touches the copy. @return -ECHILD,
 * after its line. */
int32_t sdr_fail_in_child(const char *text)
{
    call_report report;
    report.set(text, -ECHILD);
    return -ECHILD;
}

/** What became of a value that was to be stored. */
enum class stored : uint8_t { no, unchanged, changed, inherited };

/** Store one part of a record, unless it holds these bytes already. */
template <typename Part>
stored sdr_write(uint16_t id, const Part *value, Part bdbus_sdr_record::*part)
{
    sdr_store *store = sdr_records.load(std::memory_order_acquire);
    if (value == nullptr || store == nullptr) {
        return stored::no;
    }
    if (is_inherited(sdr_module)) {
        return stored::inherited;
    }
    stored outcome = stored::unchanged;
    const bool found = store->update(id, [&](bdbus_sdr_record &record) {
        if (same(record.*part, *value)) {
            return false;
        }
        record.*part = *value;
        outcome = stored::changed;
        return true;
    });
    return found ? outcome : stored::no;
}

/** Send a request whose reply is not read. */
int32_t sdr_send(sdr_call &call)
{
    call.send(call_frame::default_timeout);
    return call.failed() ? call.result() : 0;
}

int32_t sdr_send_event(const char *member, uint16_t id, const bdbus_sdr_event &event)
{
    sdr_call call(member);
    call.append<"qyqq">(id, event.flags, event.assertion_mask, event.deassertion_mask);
    return sdr_send(call);
}

/** The result of a setter that sends nothing. */
int32_t sdr_result_unsent(stored outcome)
{
    switch (outcome) {
    case stored::unchanged:
        return 0;
    case stored::inherited:
        return sdr_fail_in_child(sdr_texts.issue);
    default:
        return -EINVAL;
    }
}

/** Ask for a record and put it into the store, before anything that came after it is dispatched. @return the next ID,
 * or a negative code. */
int32_t sdr_fetch(failure_report &report, uint16_t id, sdr_store &store)
{
    const held_signals held;
    const sdr_hold hold;
    call_frame call(report, sdr_service, sdr_fetch_texts, hold.bus(), hold.acquired());
    call.create("GetSdr");
    call.append<"q">(id);
    call.send(call_frame::default_timeout);
    if (call.failed()) {
        return call.result();
    }
    uint8_t status = 0;
    uint16_t next = no_more_records;
    if (call.read<"yq">(&status, &next) < 0 || status != 0) {
        return -EINVAL;
    }
    const uint8_t *sdr = call.read_exactly(BDBUS_SDR_BYTES);
    if (sdr == nullptr) {
        return -EINVAL;
    }
    store.insert(static_cast<uint16_t>(sdr[0] | sdr[1] << 8), sdr, 0); // without memory it is not stored
    return next;
}

/** Record IDs that the walk over the repository has asked for. */
class id_set
{
public:
    void add(uint16_t id) { bits_[id / 8] = static_cast<uint8_t>(bits_[id / 8] | 1U << id % 8); }
    [[nodiscard]] bool has(uint16_t id) const { return (bits_[id / 8] >> id % 8 & 1) != 0; }

private:
    uint8_t bits_[0x10000 / 8] = {};
};

/**
 * Read the repository, until its end, a record that cannot be read, or an ID that was asked for before. What a record
 * says of itself ends nothing: a service may count its records from 1 and call the first of them 0, too.
 */
void sdr_fetch_all(failure_report &report, sdr_store &store)
{
    const calls_in_a_row fetches;
    const listener_pause pause;
    id_set asked;
    uint16_t id = first_record;
    while (id != no_more_records && !asked.has(id)) {
        asked.add(id);
        const int32_t next = sdr_fetch(report, id, store);
        if (next < 0) {
            return;
        }
        id = static_cast<uint16_t>(next);
    }
}

/** Create what init creates. An earlier attempt's store and connection are taken up again. */
int32_t sdr_set_up(failure_report &report)
{
    static constinit sdr_store *store = nullptr;
    if (store == nullptr) {
        store = sdr_store::create();
        if (store == nullptr) {
            return -ENOMEM;
        }
    }
    const int32_t acquired = module_acquire_silently(sdr_module, sdr_subscribe);
    if (acquired < 0) {
        report.set(connect_text, acquired);
        return acquired;
    }
    sdr_records.store(store, std::memory_order_release);
    const int32_t started = sdr_listener_start();
    if (started != 0) {
        sdr_records.store(nullptr, std::memory_order_release);
    }
    module_release(sdr_module);
    return started;
}

} // namespace

} // namespace bdbus

int32_t bdbus_sdr_init(void)
{
    if (bdbus::is_inherited(bdbus::sdr_module)) {
        return bdbus::sdr_fail_in_child(bdbus::connect_text);
    }
    static constinit bdbus::bus_module once; // its lock alone, which a child finds free
    if (const int32_t watched = bdbus::watch_forks(once); watched < 0) {
        return watched;
    }
    const bdbus::uncancelled uncancelled;
    bdbus::failure_report report;
    const bdbus::mutex_guard guard(once.lock);
    if (bdbus::sdr_records.load(std::memory_order_acquire) != nullptr) {
        return 0;
    }
    const int32_t result = bdbus::sdr_set_up(report);
    if (result == 0) {
        bdbus::sdr_fetch_all(report, *bdbus::sdr_records.load(std::memory_order_relaxed));
    }
    return result;
}

int32_t bdbus_sdr_get(uint16_t record_id, bdbus_sdr_record *out)
{
    const bdbus::sdr_store *store = bdbus::sdr_records.load(std::memory_order_acquire);
    return out != nullptr && store != nullptr && store->read(record_id, *out) ? 0 : -EINVAL;
}

int32_t bdbus_sdr_event_get(uint16_t record_id, bdbus_sdr_event *out)
{
    return bdbus::sdr_read(record_id, out, &bdbus_sdr_record::event_enable);
}

int32_t bdbus_sdr_event_status_get(uint16_t record_id, bdbus_sdr_event *out)
{
    return bdbus::sdr_read(record_id, out, &bdbus_sdr_record::event_status);
}

int32_t bdbus_sdr_hysteresis_get(uint16_t record_id, bdbus_sdr_hysteresis *out)
{
    return bdbus::sdr_read(record_id, out, &bdbus_sdr_record::hysteresis);
}

int32_t bdbus_sdr_reading_get(uint16_t record_id, uint8_t *out)
{
    return bdbus::sdr_read(record_id, out, &bdbus_sdr_record::reading);
}

int32_t bdbus_sdr_threshold_get(uint16_t record_id, bdbus_sdr_thresholds *out)
{
    return bdbus::sdr_read(record_id, out, &bdbus_sdr_record::thresholds);
}

int32_t bdbus_sdr_reading_set(uint16_t record_id, uint8_t reading)
{
    if (bdbus::is_inherited(bdbus::sdr_module)) {
        return bdbus::sdr_fail_in_child(bdbus::sdr_texts.issue);
    }
    bdbus::sdr_store *store = bdbus::sdr_records.load(std::memory_order_acquire);
    const auto set = [reading](bdbus_sdr_record &record) {
        record.reading = reading;
        return true;
    };
    if (store == nullptr || !store->update(record_id, set)) {
        return -EINVAL;
    }
    bdbus::sdr_call call("SetReading");
    call.append<"qy">(record_id, reading);
    return bdbus::sdr_send(call);
}

int32_t bdbus_sdr_event_set(uint16_t record_id, const bdbus_sdr_event *event)
{
    const bdbus::stored outcome = bdbus::sdr_write(record_id, event, &bdbus_sdr_record::event_enable);
    return outcome == bdbus::stored::changed ? bdbus::sdr_send_event("SetEvent", record_id, *event)
                                             : bdbus::sdr_result_unsent(outcome);
}

int32_t bdbus_sdr_event_status_set(uint16_t record_id, const bdbus_sdr_event *event)
{
    const bdbus::stored outcome = bdbus::sdr_write(record_id, event, &bdbus_sdr_record::event_status);
    return outcome == bdbus::stored::changed ? bdbus::sdr_send_event("SetEventStatus", record_id, *event)
                                             : bdbus::sdr_result_unsent(outcome);
}

int32_t bdbus_sdr_hysteresis_set(uint16_t record_id, const bdbus_sdr_hysteresis *hysteresis)
{
    const bdbus::stored outcome = bdbus::sdr_write(record_id, hysteresis, &bdbus_sdr_record::hysteresis);
    if (outcome != bdbus::stored::changed) {
        return bdbus::sdr_result_unsent(outcome);
    }
    bdbus::sdr_call call("SetHysteresis");
    call.append<"qyy">(record_id, hysteresis->positive, hysteresis->negative);
    return bdbus::sdr_send(call);
}

int32_t bdbus_sdr_threshold_set(uint16_t record_id, const bdbus_sdr_thresholds *thresholds)
{
    const bdbus::stored outcome = bdbus::sdr_write(record_id, thresholds, &bdbus_sdr_record::thresholds);
    if (outcome != bdbus::stored::changed) {
        return bdbus::sdr_result_unsent(outcome);
    }
    bdbus::sdr_call call("SetThresholds");
    call.append<"q">(record_id);
    call.append_bytes(reinterpret_cast<const uint8_t *>(thresholds), sizeof(*thresholds));
    return bdbus::sdr_send(call);
}

int32_t bdbus_sdr_add(const uint8_t *sdr, uint32_t count, uint16_t *record_id, uintptr_t context)
{
    if (sdr == nullptr || record_id == nullptr || count != BDBUS_SDR_BYTES) {
        return -EINVAL;
    }
    bdbus::sdr_store *store = bdbus::sdr_records.load(std::memory_order_acquire);
    if (store == nullptr) {
        return -ENOTCONN;
    }
    // The record is stored before the connection is released: what the service announces after its reply comes after.
    bdbus::sdr_call call("AddSdr");
    call.append_bytes(sdr, count);
    call.send(bdbus::call_frame::default_timeout);
    uint16_t id = 0;
    if (call.read<"q">(&id) < 0) {
        return call.result();
    }
    const int32_t inserted = store->insert(id, sdr, context);
    if (inserted == 0) {
        *record_id = id;
    }
    return inserted;
}

int32_t bdbus_sdr_delete(uint16_t record_id)
{
    if (bdbus::is_inherited(bdbus::sdr_module)) {
        return bdbus::sdr_fail_in_child(bdbus::sdr_texts.issue);
    }
    bdbus::sdr_store *store = bdbus::sdr_records.load(std::memory_order_acquire);
    if (store == nullptr || !store->remove(record_id)) {
        return -EINVAL;
    }
    bdbus::sdr_call call("DeleteSdr");
    call.append<"q">(record_id);
    return bdbus::sdr_send(call);
}
