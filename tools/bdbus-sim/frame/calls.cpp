// SPDX-License-Identifier: LGPL-2.1-or-later
// The list of received calls, kept within limits.
#include "frame/calls.hpp"

#include <algorithm>

namespace bdbus_sim
{

namespace
{

constexpr size_t entries_max = 100'000;
/** The whole list must fit one D-Bus message of the usual limit of 32 MiB. */
constexpr size_t bytes_max = 30U << 20;
constexpr size_t entry_bytes_max = 64U << 10;
constexpr size_t shown_bytes_max = 64;

std::string hex(const byte_vector &bytes, size_t count)
{
    static const char digits[] = "0123456789abcdef";
    std::string text;
    for (size_t i = 0; i < count; i++) {
        text += digits[bytes[i] >> 4];
        text += digits[bytes[i] & 0x0F];
    }
    return text;
}

void shorten_byte_arrays(json &value)
{
    if (value.is_binary()) {
        const byte_vector &bytes = value.get_binary();
        value = {{"length", bytes.size()}, {"hex", hex(bytes, std::min(bytes.size(), shown_bytes_max))}};
    } else if (value.is_structured()) {
        for (json &element : value) {
            shorten_byte_arrays(element);
        }
    }
}

} // namespace

void call_list::add(const std::string &service, json call)
{
    shorten_byte_arrays(call["args"]);
    std::string text = to_text(call);
    if (text.size() > entry_bytes_max) {
        call["args"] = nullptr;
        text = to_text(call);
    }

    bytes_ += text.size() + 1;
    entries_.push_back({service, std::move(text)});
    while (entries_.size() > entries_max || bytes_ > bytes_max) {
        bytes_ -= entries_.front().text.size() + 1;
        entries_.pop_front();
    }
}

std::string call_list::text(const std::string &service) const
{
    std::string text = "[";
    for (const entry &one : entries_) {
        if (!service.empty() && one.service != service) {
            continue;
        }
        if (text.size() > 1) {
            text += ',';
        }
        text += one.text;
    }
    return text + "]";
}

void call_list::clear()
{
    entries_.clear();
    bytes_ = 0;
}

} // namespace bdbus_sim
