// SPDX-License-Identifier: LGPL-2.1-or-later
// D-Bus messages to JSON and back.
#include "frame/codec.hpp"

#include "common/descriptor.hpp"

#include <sys/socket.h>

#include <stdexcept>
#include <string_view>
#include <utility>

namespace bdbus_sim
{

using bdbus_tools::check_errno;
using bdbus_tools::descriptor;

namespace
{

using bdbus_tools::check_errno;
using bdbus_tools::descriptor;

/** As JSON, a message of many tiny values takes many times its size. No call of a service comes near this limit. */
constexpr size_t decoded_values_max = 200'000;
constexpr int nesting_max = 32;

bool is_text(char type)
{
    return type == 's' || type == 'o' || type == 'g';
}

// ---- signatures

size_t type_length(std::string_view signature, int depth = 0);

size_t sequence_length(std::string_view signature, char closing, int depth)
{
    size_t length = 1;
    while (length < signature.size() && signature[length] != closing) {
        length += type_length(signature.substr(length), depth + 1);
    }
    if (length >= signature.size() || length == 1) {
        throw std::invalid_argument("malformed signature");
    }
    return length + 1;
}

/** The length of the first complete type. */
size_t type_length(std::string_view signature, int depth)
{
    if (signature.empty() || depth > nesting_max) {
        throw std::invalid_argument("malformed signature");
    }
    if (signature.starts_with("a{")) {
        return 1 + sequence_length(signature.substr(1), '}', depth);
    }
    if (signature.front() == 'a') {
        return 1 + type_length(signature.substr(1), depth + 1);
    }
    if (signature.front() == '(') {
        return sequence_length(signature, ')', depth);
    }
    if (std::string_view("ynqiuxtbdsogv").find(signature.front()) == std::string_view::npos) {
        throw std::invalid_argument(std::string("no type '") + signature.front() + "' in a signature");
    }
    return 1;
}

// ---- message to JSON

class decoder
{
public:
    explicit decoder(sd_bus_message *message) : message_(message) {}

    /** All values up to the end of the message or of the container that was entered. */
    json rest()
    {
        json values = json::array();
        char type = 0;
        const char *contents = nullptr;
        while (check(sd_bus_message_peek_type(message_, &type, &contents), "message") > 0) {
            values.push_back(value(type, contents == nullptr ? "" : contents));
        }
        return values;
    }

private:
    json value(char type, const std::string &contents)
    {
        if (++count_ > decoded_values_max) {
            throw std::length_error("too many values");
        }
        switch (type) {
        case 'a':
            return contents == "y" ? bytes() : array(contents);
        case 'r':
        case 'e':
            return inside(type, contents);
        case 'v':
            return {{"signature", contents}, {"value", inside(type, contents).at(0)}};
        default:
            return basic(type);
        }
    }

    json inside(char type, const std::string &contents)
    {
        check(sd_bus_message_enter_container(message_, type, contents.c_str()), "message");
        json values = rest();
        check(sd_bus_message_exit_container(message_), "message");
        return values;
    }

    json bytes()
    {
        const void *data = nullptr;
        size_t size = 0;
        check(sd_bus_message_read_array(message_, 'y', &data, &size), "message");
        const auto *first = static_cast<const uint8_t *>(data);
        return json::binary(byte_vector(first, first + size));
    }

    json array(const std::string &contents)
    {
        json values = inside('a', contents);
        if (contents.front() != '{' || !is_text(contents.at(1))) {
            return values;
        }
        json object = json::object();
        for (json &entry : values) {
            object[entry.at(0).get<std::string>()] = std::move(entry.at(1));
        }
        return object;
    }

    template <typename T>
    json read(char type)
    {
        T out{};
        check(sd_bus_message_read_basic(message_, type, &out), "message");
        return out;
    }

    json basic(char type)
    {
        switch (type) {
        case 'y':
            return read<uint8_t>(type);
        case 'b':
            return read<int>(type).get<int>() != 0;
        case 'n':
            return read<int16_t>(type);
        case 'q':
            return read<uint16_t>(type);
        case 'i':
            return read<int32_t>(type);
        case 'u':
            return read<uint32_t>(type);
        case 'x':
            return read<int64_t>(type);
        case 't':
            return read<uint64_t>(type);
        case 'd':
            return read<double>(type);
        case 's':
        case 'o':
        case 'g':
            return read<const char *>(type);
        default:
            throw std::invalid_argument(std::string("values of type '") + type + "' are not taken");
        }
    }

    sd_bus_message *message_;
    size_t count_ = 0;
};

// ---- JSON to message

[[noreturn]] void throw_mismatch(const std::string &type, const json &value)
{
    std::string text = to_text(value).substr(0, 60);
    throw std::invalid_argument(text + " does not fit type \"" + type + "\"");
}

class encoder
{
public:
    explicit encoder(sd_bus_message *message) : message_(message) {}

    void sequence(const std::string &signature, const json &values)
    {
        std::vector<std::string> types = split_signature(signature);
        if (!values.is_array() || values.size() != types.size()) {
            throw_mismatch(signature, values);
        }
        for (size_t i = 0; i < types.size(); i++) {
            value(types[i], values[i]);
        }
    }

private:
    void value(const std::string &type, const json &value)
    {
        switch (type.front()) {
        case 'a':
            if (type == "ay") {
                bytes(value);
            } else {
                array(type, value);
            }
            break;
        case '(':
            container('r', type.substr(1, type.size() - 2), value);
            break;
        case '{':
            container('e', type.substr(1, type.size() - 2), value);
            break;
        case 'v':
            variant(value);
            break;
        default:
            basic(type, value);
        }
    }

    template <typename Fill>
    void inside(char type, const std::string &contents, Fill fill)
    {
        check(sd_bus_message_open_container(message_, type, contents.c_str()), "message");
        fill();
        check(sd_bus_message_close_container(message_), "message");
    }

    void container(char type, const std::string &contents, const json &values)
    {
        inside(type, contents, [&] { sequence(contents, values); });
    }

    void variant(const json &value)
    {
        bool complete = value.is_object() && value.contains("signature") && value.contains("value");
        if (!complete || !value["signature"].is_string()) {
            throw_mismatch("v", value);
        }
        auto contents = value["signature"].get<std::string>();
        container('v', contents, json::array({value["value"]}));
    }

    void bytes(const json &value)
    {
        if (!value.is_binary() && !value.is_array()) {
            throw_mismatch("ay", value);
        }
        byte_vector converted;
        for (size_t i = 0; value.is_array() && i < value.size(); i++) {
            converted.push_back(integer<uint8_t>("y", value[i]));
        }
        const byte_vector *data = value.is_binary() ? &value.get_binary() : &converted;
        check(sd_bus_message_append_array(message_, 'y', data->data(), data->size()), "message");
    }

    void array(const std::string &type, const json &values)
    {
        std::string element = type.substr(1);
        bool object = element.front() == '{' && is_text(element.at(1)) && values.is_object();
        if (!object && !values.is_array()) {
            throw_mismatch(type, values);
        }
        inside('a', element, [&] {
            for (const auto &[key, entry] : values.items()) {
                value(element, object ? json::array({key, entry}) : entry);
            }
        });
    }

    template <typename T>
    static T integer(const std::string &type, const json &value)
    {
        if (value.is_number_unsigned() && std::in_range<T>(value.get<uint64_t>())) {
            return static_cast<T>(value.get<uint64_t>());
        }
        if (value.is_number_integer() && !value.is_number_unsigned() && std::in_range<T>(value.get<int64_t>())) {
            return static_cast<T>(value.get<int64_t>());
        }
        throw_mismatch(type, value);
    }

    template <typename T>
    void append(const std::string &type, T value)
    {
        check(sd_bus_message_append_basic(message_, type.front(), &value), "message");
    }

    template <typename T>
    void append_integer(const std::string &type, const json &value)
    {
        append(type, integer<T>(type, value));
    }

    void basic(const std::string &type, const json &value)
    {
        switch (type.front()) {
        case 'y':
            return append_integer<uint8_t>(type, value);
        case 'n':
            return append_integer<int16_t>(type, value);
        case 'q':
            return append_integer<uint16_t>(type, value);
        case 'i':
            return append_integer<int32_t>(type, value);
        case 'u':
            return append_integer<uint32_t>(type, value);
        case 'x':
            return append_integer<int64_t>(type, value);
        case 't':
            return append_integer<uint64_t>(type, value);
        default:
            return other(type, value);
        }
    }

    void other(const std::string &type, const json &value)
    {
        if (type == "b" && value.is_boolean()) {
            append(type, value.get<bool>() ? 1 : 0);
        } else if (type == "d" && value.is_number()) {
            append(type, value.get<double>());
        } else if (is_text(type.front()) && value.is_string()) {
            check(sd_bus_message_append_basic(message_, type.front(), value.get_ref<const std::string &>().c_str()),
                  "text");
        } else {
            throw_mismatch(type, value);
        }
    }

    sd_bus_message *message_;
};

// ---- byte arrays

using byte_visitor = std::function<void(byte_vector &)>;

void visit_bytes_of(const std::string &type, json &value, const byte_visitor &visit)
{
    if (type == "ay") {
        if (!value.is_binary()) {
            value = json::binary(value.get<byte_vector>());
        }
        visit(value.get_binary());
    } else if (type == "v") {
        visit_bytes_of(value.at("signature").get<std::string>(), value.at("value"), visit);
    } else if (type.front() == '(') {
        visit_byte_arrays(type.substr(1, type.size() - 2), value, visit);
    } else if (type.starts_with("a{")) {
        std::string entry = type.substr(2, type.size() - 3);
        for (json &element : value) {
            value.is_object() ? visit_bytes_of(entry.substr(1), element, visit)
                              : visit_byte_arrays(entry, element, visit);
        }
    } else if (type.front() == 'a') {
        for (json &element : value) {
            visit_bytes_of(type.substr(1), element, visit);
        }
    }
}

} // namespace

void visit_byte_arrays(const std::string &signature, json &values, const std::function<void(byte_vector &)> &visit)
{
    std::vector<std::string> types = split_signature(signature);
    for (size_t i = 0; i < types.size(); i++) {
        visit_bytes_of(types[i], values.at(i), visit);
    }
}

json decode_arguments(sd_bus_message *message)
{
    return decoder(message).rest();
}

void encode(sd_bus_message *message, const std::string &signature, const json &values)
{
    encoder(message).sequence(signature, values);
}

void check_values(const std::string &signature, const json &values)
{
    // A message needs a connection, even if nobody listens at its other end.
    int ends[2];
    check_errno(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), "socketpair");
    descriptor own(ends[0]);
    descriptor peer(ends[1]);
    sd_bus *raw_bus = nullptr;
    check(sd_bus_new(&raw_bus), "message");
    std::unique_ptr<sd_bus, sd_bus *(*)(sd_bus *)> bus(raw_bus, sd_bus_close_unref);
    int fd = own.release();
    check(sd_bus_set_fd(raw_bus, fd, fd), "message");
    check(sd_bus_start(raw_bus), "message");

    sd_bus_message *raw_message = nullptr;
    check(sd_bus_message_new_signal(raw_bus, &raw_message, "/", "check.values", "Check"), "message");
    message_ptr message(raw_message);
    encode(raw_message, signature, values);
}

std::vector<std::string> split_signature(const std::string &signature)
{
    std::vector<std::string> types;
    for (size_t at = 0; at < signature.size();) {
        size_t length = type_length(std::string_view(signature).substr(at));
        types.push_back(signature.substr(at, length));
        at += length;
    }
    return types;
}

json zero_values(const std::string &signature)
{
    json values = json::array();
    for (const std::string &type : split_signature(signature)) {
        if (type == "b") {
            values.push_back(false);
        } else if (type == "s" || type == "g") {
            values.push_back("");
        } else if (type == "o") {
            values.push_back("/");
        } else if (type == "v") {
            values.push_back({{"signature", "s"}, {"value", ""}});
        } else if (type.front() == '(') {
            values.push_back(zero_values(type.substr(1, type.size() - 2)));
        } else if (type.front() == 'a') {
            values.push_back(json::array());
        } else {
            values.push_back(0);
        }
    }
    return values;
}

} // namespace bdbus_sim
