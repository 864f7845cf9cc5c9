// SPDX-License-Identifier: LGPL-2.1-or-later
// JSON as the simulator uses it. A D-Bus byte array is a binary value, so that uploads are neither spelled out
// nor converted.
#pragma once

#include <nlohmann/json.hpp>

#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace bdbus_sim
{

using json = nlohmann::json;
using byte_vector = std::vector<uint8_t>;

/** The bytes as they are, for what takes a text. */
inline std::string_view text_of(const byte_vector &bytes)
{
    return {reinterpret_cast<const char *>(bytes.data()), bytes.size()};
}

/** The largest document that is parsed, and how deep it may nest: both come from clients and from files. */
constexpr size_t json_text_max = 4U << 20;
constexpr int json_depth_max = 64;

/** Parses a document; throws std::invalid_argument with a text that begins with `source`. */
json parse_json(const std::string &text, const std::string &source);

/** Parses the text itself or, when it begins with '@', the file that it names. */
json parse_json_argument(const std::string &argument);

json read_json_file(const std::string &path);

/** Whether a text is a number in this range, in decimal and without leading zeros. */
bool is_number(const std::string &text, unsigned least, unsigned most);

/** The keys of an object as numbers, which they must be. The object itself has them in the order of texts. */
std::set<unsigned> numbers_of(const json &object);

/** Never throws for what a client may have sent: bytes that are not UTF-8 are replaced. */
std::string to_text(const json &value, int indent = -1);

/**
 * Reads an object that people write: every key must be known, every value of the right kind. Throws
 * std::invalid_argument with a text that begins with `subject`.
 */
class object_reader
{
public:
    object_reader(const json &object, std::string subject, const std::set<std::string> &keys);

    bool has(const std::string &key) const { return object_.contains(key); }

    /** A missing key has the fallback's value. */
    json value(const std::string &key, const json &fallback) const;
    std::string text(const std::string &key, const std::string &fallback = {}) const;
    bool flag(const std::string &key) const;
    std::optional<uint64_t> number(const std::string &key, uint64_t most = std::numeric_limits<uint64_t>::max()) const;

    [[noreturn]] void refuse(const std::string &reason) const;

private:
    const json &object_;
    std::string subject_;
};

} // namespace bdbus_sim
