// SPDX-License-Identifier: LGPL-2.1-or-later
// The steps of a call that need no template.
#include "bus/call.hpp"

#include <cstring>

namespace bdbus
{

void call_frame::finish_step(int result, const char *text)
{
    result_ = result;
    if (failed()) {
        report_.set(text, result);
    }
}

void call_frame::finish_call(int result)
{
    result_ = result;
    if (failed()) {
        report_.set_peer_error(texts_.issue, result);
    }
}

void call_frame::finish_property(int result, const char *name)
{
    result_ = result;
    if (failed()) {
        report_.set(texts_.property, result, name);
    }
}

void call_frame::invoke_bytes(const char *member, const uint8_t *bytes, std::size_t count)
{
    if (failed()) {
        return;
    }
    int result = sd_bus_message_new_method_call(bus_, &request_, peer_.name, peer_.path, peer_.interface, member);
    result = result < 0 ? result : sd_bus_message_append_array(request_, 'y', bytes, count);
    finish_call(result < 0 ? result : sd_bus_call(bus_, request_, default_timeout, report_.error(), &reply_));
}

void call_frame::create(const char *member)
{
    if (!failed()) {
        finish_step(sd_bus_message_new_method_call(bus_, &request_, peer_.name, peer_.path, peer_.interface, member),
                    texts_.create);
    }
}

void call_frame::append_listed(const char *codes, const void *const *places)
{
    if (failed()) {
        return;
    }
    int result = 0;
    for (; result >= 0 && *codes != '\0'; codes++, places++) {
        result = sd_bus_message_append_basic(request_, *codes, *places);
    }
    finish_step(result, texts_.append);
}

int32_t call_frame::read_listed(const char *codes, void *const *outputs)
{
    if (!failed()) {
        finish_step(read_values(reply_, codes, outputs), texts_.parse);
    }
    return result_;
}

void call_frame::append_raw(char code, const void *data, size_t bytes)
{
    if (!failed()) {
        finish_step(sd_bus_message_append_array(request_, code, data, bytes), texts_.append_array);
    }
}

void call_frame::send(uint64_t timeout_us)
{
    if (failed()) {
        return;
    }
    const int sent = sd_bus_call(bus_, request_, timeout_us, report_.error(), &reply_);
    if (texts_.send != nullptr) {
        finish_step(sent, texts_.send);
    } else {
        finish_call(sent);
    }
}

const void *call_frame::read_array(char code, size_t &bytes)
{
    const void *data = nullptr;
    bytes = 0;
    if (!failed()) {
        finish_step(sd_bus_message_read_array(reply_, code, &data, &bytes), texts_.array);
    }
    return data;
}

size_t call_frame::read_raw(char code, void *out, size_t room)
{
    size_t bytes = 0;
    const void *data = read_array(code, bytes);
    const size_t taken = bytes < room ? bytes : room;
    if (!failed() && taken > 0) {
        memcpy(out, data, taken);
    }
    return bytes;
}

int32_t call_frame::read_bytes(uint8_t *out, uint32_t room, uint32_t *length)
{
    const size_t whole = read_raw('y', out, room);
    if (!failed() && length != nullptr) {
        *length = static_cast<uint32_t>(whole);
    }
    return result_;
}

void call_frame::get_property(const char *name, const char *type)
{
    if (!failed()) {
        finish_property(
            sd_bus_get_property(bus_, peer_.name, peer_.path, peer_.interface, name, report_.error(), &reply_, type),
            name);
    }
}

int32_t call_frame::get_string_property(const char *name, char **text)
{
    if (!failed()) {
        finish_property(sd_bus_get_property_string(bus_, peer_.name, peer_.path, peer_.interface, name, nullptr, text),
                        name);
    }
    return result_;
}

} // namespace bdbus
