// SPDX-License-Identifier: LGPL-2.1-or-later
// The authentication log and user updates: four calls of 64 bytes, each answered with a byte and a number.
#include "bus/call.hpp"
#include "bus/connection.hpp"

#include <bdbus/user.h>

#include <algorithm>
#include <array>
#include <cerrno>

namespace bdbus
{

namespace
{

constexpr service user_service = {
    .name = "com.brisemont.AuthLog1",
    .path = "/com/brisemont/AuthLog1",
    .interface = "com.brisemont.AuthLog1",
};

constinit bus_module user_module;

int32_t user_bus_acquire()
{
    return module_acquire(user_module, nullptr);
}

void user_bus_release()
{
    module_release(user_module);
}

using user_hold = module_hold<user_module, user_bus_acquire, user_bus_release>;

class user_call : public module_call<user_hold>
{
public:
    user_call() : module_call(user_service, plain_texts) {}
};

/** Zero beyond what a function puts at its front. */
using user_request = std::array<uint8_t, 64>;

template <typename Record>
int32_t user_exchange(const char *member, const user_request &request, Record &rec)
{
    user_call call;
    call.invoke_bytes(member, request.data(), request.size());
    return call.read<"yq">(&rec.completion_code, &rec.value);
}

/** Send so many of the record's bytes. */
int32_t authlog_exchange(const char *member, bdbus_authlog_request *rec, std::size_t first, std::size_t count)
{
    if (rec == nullptr) {
        return -EINVAL;
    }
    user_request request = {};
    std::copy_n(rec->data + first, count, request.begin());
    return user_exchange(member, request, *rec);
}

} // namespace

} // namespace bdbus

int32_t bdbus_user_authlog_add_entry(bdbus_authlog_request *rec)
{
    return bdbus::authlog_exchange("AuthLogAddEntry", rec, 0, sizeof(rec->data));
}

int32_t bdbus_user_authlog_del_entry(bdbus_authlog_request *rec)
{
    return bdbus::authlog_exchange("AuthLogDelEntry", rec, 0, 2);
}

int32_t bdbus_user_authlog_clear(bdbus_authlog_request *rec)
{
    return bdbus::authlog_exchange("AuthLogClear", rec, 2, 4);
}

int32_t bdbus_user_update_send_event(bdbus_user_update *rec)
{
    if (rec == nullptr) {
        return -EINVAL;
    }
    const auto low = [](uint16_t word) {
        return static_cast<uint8_t>(word);
    };
    const auto high = [](uint16_t word) {
        return static_cast<uint8_t>(word >> 8);
    };
    bdbus::user_request request = {low(rec->first_word), high(rec->first_word), low(rec->second_word),
                                   high(rec->second_word)};
    std::copy_n(rec->data, sizeof(rec->data), request.begin() + 4);
    return bdbus::user_exchange("UserUpdate", request, *rec);
}

int32_t bdbus_user_event_process(void)
{
    return bdbus::process_one<bdbus::user_hold>();
}
