// SPDX-License-Identifier: LGPL-2.1-or-later
// The system event log: six calls that mirror IPMI commands, and three notices for the caller's table.
#include "bus/call.hpp"
#include "bus/connection.hpp"

#include <bdbus/sel.h>

#include <atomic>
#include <cerrno>

namespace bdbus
{

namespace
{

constexpr service sel_service = {
    .name = "com.brisemont.SystemEventLog1",
    .path = "/com/brisemont/SystemEventLog1",
    .interface = "com.brisemont.SystemEventLog1",
};

/** A request that cannot be built is one that cannot be sent; an entry's bytes are part of the reply. */
constexpr call_texts sel_texts = {
    .issue = plain_texts.issue,
    .create = plain_texts.issue,
    .append_array = plain_texts.issue,
    .parse = plain_texts.parse,
    .array = plain_texts.parse,
};

constinit bus_module sel_module;
constinit std::atomic<const bdbus_sel_callback_table *> sel_callbacks{nullptr};

/** What sd-bus calls for the notice of one slot; the handler's result means nothing. */
template <sd_bus_message_handler_t bdbus_sel_callback_table::*Slot>
int sel_event(sd_bus_message *signal, void *userdata, sd_bus_error *error)
{
    const bdbus_sel_callback_table *table = sel_callbacks.load(std::memory_order_acquire);
    const sd_bus_message_handler_t handler = table == nullptr ? nullptr : table->*Slot;
    if (handler != nullptr) {
        handler(signal, userdata, error);
    }
    return 0;
}

constexpr struct {
    const char *member;
    sd_bus_message_handler_t handler;
} sel_signals[] = {
    {"SelAlmostFull", sel_event<&bdbus_sel_callback_table::sel_almost_full>},
    {"SelCleared", sel_event<&bdbus_sel_callback_table::sel_cleared>},
    {"SelFull", sel_event<&bdbus_sel_callback_table::sel_full>},
};

int32_t sel_events_match(sd_bus *bus)
{
    int32_t result = 0;
    for (const auto &[member, handler] : sel_signals) {
        result = result < 0 ? result : match_signal(bus, sel_service, member, handler);
    }
    return result;
}

int32_t sel_bus_acquire()
{
    return module_acquire(sel_module, sel_events_match);
}

void sel_bus_release()
{
    module_release(sel_module);
}

using sel_hold = module_hold<sel_module, sel_bus_acquire, sel_bus_release>;

class sel_call : public module_call<sel_hold>
{
public:
    sel_call() : module_call(sel_service, sel_texts) {}
};

} // namespace

} // namespace bdbus

int32_t bdbus_sel_add_entry(bdbus_sel_new_entry *rec)
{
    if (rec == nullptr) {
        return -EINVAL;
    }
    bdbus::sel_call call;
    call.create("AddSelEntry");
    call.append_bytes(rec->data, sizeof(rec->data));
    call.send(bdbus::call_frame::default_timeout);
    return call.read<"yq">(&rec->completion_code, &rec->record_id);
}

int32_t bdbus_sel_clear(bdbus_sel_clear_request *rec)
{
    if (rec == nullptr) {
        return -EINVAL;
    }
    bdbus::sel_call call;
    call.invoke<"qyyyy">("ClearSel", rec->reservation_id, rec->confirm[0], rec->confirm[1], rec->confirm[2],
                         rec->action);
    return call.read<"yy">(&rec->completion_code, &rec->erase_progress);
}

int32_t bdbus_sel_get_alloc_info(bdbus_sel_alloc_info *rec)
{
    if (rec == nullptr) {
        return -EINVAL;
    }
    bdbus::sel_call call;
    call.invoke<"">("GetSelAllocInfo");
    return call.read<"yqqqqy">(&rec->completion_code, &rec->possible_units, &rec->unit_size, &rec->free_units,
                               &rec->largest_free_block, &rec->max_record_size);
}

int32_t bdbus_sel_get_entry(bdbus_sel_entry *rec)
{
    if (rec == nullptr) {
        return -EINVAL;
    }
    bdbus::sel_call call;
    call.invoke<"qqyy">("GetSelEntry", rec->reservation_id, rec->record_id, rec->offset, rec->bytes_to_read);
    call.read<"yq">(&rec->completion_code, &rec->next_record_id);
    return call.read_bytes(rec->data, sizeof(rec->data));
}

int32_t bdbus_sel_get_info(bdbus_sel_info *rec)
{
    if (rec == nullptr) {
        return -EINVAL;
    }
    bdbus::sel_call call;
    call.invoke<"">("GetSelInfo");
    return call.read<"yyqquuy">(&rec->completion_code, &rec->version, &rec->entries, &rec->free_space,
                                &rec->addition_timestamp, &rec->erase_timestamp, &rec->operation_support);
}

int32_t bdbus_sel_reserve(bdbus_sel_reservation *rec)
{
    if (rec == nullptr) {
        return -EINVAL;
    }
    bdbus::sel_call call;
    call.invoke<"">("ReserveSel");
    return call.read<"yq">(&rec->completion_code, &rec->reservation_id);
}

int32_t bdbus_sel_event_callbacks(const bdbus_sel_callback_table *table)
{
    bdbus::sel_callbacks.store(table, std::memory_order_release);
    return 0;
}

int32_t bdbus_sel_event_process(void)
{
    return bdbus::process_one<bdbus::sel_hold>();
}
