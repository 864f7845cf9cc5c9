// SPDX-License-Identifier: LGPL-2.1-or-later
// Parsing JSON within limits, and reading objects that people wrote.
#include "frame/json.hpp"

#include "common/files.hpp"

#include <charconv>
#include <stdexcept>
#include <utility>

namespace bdbus_sim
{

json parse_json(const std::string &text, const std::string &source)
{
    if (text.size() > json_text_max) {
        throw std::invalid_argument(source + ": longer than " + std::to_string(json_text_max) + " bytes");
    }

    auto limit_depth = [&](int depth, json::parse_event_t, json &) {
        if (depth > json_depth_max) {
            throw std::invalid_argument(source + ": nested too deep");
        }
        return true;
    };
    try {
        return json::parse(text, limit_depth);
    } catch (const json::exception &error) {
        // Without the mark of the JSON library that begins its texts.
        std::string reason = error.what();
        throw std::invalid_argument(source + ": " + reason.substr(reason.find(' ') + 1));
    }
}

json read_json_file(const std::string &path)
{
    return parse_json(bdbus_tools::read_file(path, json_text_max), path);
}

json parse_json_argument(const std::string &argument)
{
    return argument.starts_with('@') ? read_json_file(argument.substr(1)) : parse_json(argument, "JSON argument");
}

bool is_number(const std::string &text, unsigned least, unsigned most)
{
    unsigned number = 0;
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && number >= least && number <= most && text == std::to_string(number);
}

std::set<unsigned> numbers_of(const json &object)
{
    std::set<unsigned> numbers;
    for (const auto &[key, value] : object.items()) {
        numbers.insert(static_cast<unsigned>(std::stoul(key)));
    }
    return numbers;
}

object_reader::object_reader(const json &object, std::string subject, const std::set<std::string> &keys)
    : object_(object), subject_(std::move(subject))
{
    if (!object.is_object()) {
        refuse("must be an object");
    }
    for (const auto &[key, value] : object.items()) {
        if (!keys.contains(key)) {
            refuse("no such key: \"" + key + '"');
        }
    }
}

json object_reader::value(const std::string &key, const json &fallback) const
{
    auto found = object_.find(key);
    return found == object_.end() ? fallback : *found;
}

std::string object_reader::text(const std::string &key, const std::string &fallback) const
{
    json found = value(key, fallback);
    if (!found.is_string()) {
        refuse('"' + key + "\" must be a text");
    }
    return found.get<std::string>();
}

bool object_reader::flag(const std::string &key) const
{
    json found = value(key, false);
    if (!found.is_boolean()) {
        refuse('"' + key + "\" must be true or false");
    }
    return found.get<bool>();
}

std::optional<uint64_t> object_reader::number(const std::string &key, uint64_t most) const
{
    if (!has(key)) {
        return std::nullopt;
    }
    json found = value(key, 0);
    if (!found.is_number_unsigned() || found.get<uint64_t>() > most) {
        refuse('"' + key + "\" must be a number from 0 to " + std::to_string(most));
    }
    return found.get<uint64_t>();
}

void object_reader::refuse(const std::string &reason) const
{
    throw std::invalid_argument(subject_ + ": " + reason);
}

std::string to_text(const json &value, int indent)
{
    return value.dump(indent, ' ', false, json::error_handler_t::replace);
}

} // namespace bdbus_sim
