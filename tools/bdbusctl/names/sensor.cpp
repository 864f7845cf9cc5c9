// SPDX-License-Identifier: LGPL-2.1-or-later
// Readings in engineering units, names in their four encodings, states by thresholds, and all fields of a record.
#include "names/sensor.hpp"

#include "frame/text.hpp"
#include "names/ipmi-names.hpp"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <limits>

namespace bdbusctl
{

namespace
{

/** Of a name. */
enum name_encoding : uint8_t { unicode, bcd_plus, packed_ascii, latin1 };

constexpr uint8_t scanning_enabled = 0x40;  // of the event enables
constexpr uint8_t state_unavailable = 0x20; // of the event status

struct linearization {
    const char *name;
    double (*function)(double);
};

constexpr std::array linearizations{
    linearization{"linear",
                  [](double x) {
                      return x;
                  }},
    linearization{"ln",
                  [](double x) {
                      return std::log(x);
                  }},
    linearization{"log10",
                  [](double x) {
                      return std::log10(x);
                  }},
    linearization{"log2",
                  [](double x) {
                      return std::log2(x);
                  }},
    linearization{"e^x",
                  [](double x) {
                      return std::exp(x);
                  }},
    linearization{"10^x",
                  [](double x) {
                      return std::pow(10, x);
                  }},
    linearization{"2^x",
                  [](double x) {
                      return std::exp2(x);
                  }},
    linearization{"1/x",
                  [](double x) {
                      return 1 / x;
                  }},
    linearization{"x^2",
                  [](double x) {
                      return x * x;
                  }},
    linearization{"x^3",
                  [](double x) {
                      return x * x * x;
                  }},
    linearization{"square root",
                  [](double x) {
                      return std::sqrt(x);
                  }},
    linearization{"cube root",
                  [](double x) {
                      return std::cbrt(x);
                  }},
};

std::string linearization_name(uint8_t code)
{
    return code < linearizations.size() ? linearizations.at(code).name
           : code >= 0x70               ? "non-linear " + hex_text(code)
                                        : "reserved " + hex_text(code);
}

constexpr std::array data_formats{"unsigned", "1's complement", "2's complement", "none"};
constexpr std::array rates{"", "/us", "/ms", "/s", "/min", "/h", "/day", "/rate 7"};
constexpr std::array directions{"unspecified", "input", "output", "reserved"};
constexpr std::array hysteresis_access{"none", "readable", "settable", "fixed"};
constexpr std::array event_control{"each threshold or state", "entire sensor", "global only", "no events"};
constexpr std::array<std::string_view, 8> initialization_bits{
    "scanning at power-up", "events at power-up", "sets sensor type", "sets hysteresis",
    "sets thresholds",      "sets events",        "sets scanning",    "settable",
};

int sign_extended(unsigned value, unsigned width)
{
    const unsigned sign = 1U << (width - 1);
    return static_cast<int>(value ^ sign) - static_cast<int>(sign);
}

std::string utf8_of_latin1(uint8_t character)
{
    if (character < 0x20 || (character >= 0x7F && character < 0xA0)) {
        return "?";
    }
    if (character < 0x80) {
        return {static_cast<char>(character)};
    }
    return {static_cast<char>(0xC0 | character >> 6), static_cast<char>(0x80 | (character & 0x3F))};
}

/** As printf's "%.*f" has it. */
std::string fixed_text(double number, int decimals)
{
    std::array<char, std::numeric_limits<double>::max_exponent10 + 64> text;
    const auto end = std::to_chars(text.begin(), text.end(), number, std::chars_format::fixed, decimals).ptr;
    return {text.begin(), end};
}

/** What a text says, so that 1.048 is no 1.0480000000000003. */
double number_of(const std::string &text)
{
    double number = 0;
    std::from_chars(text.data(), text.data() + text.size(), number);
    return number;
}

void add_byte(record &shown, const char *key, const char *label, uint8_t value)
{
    shown.add(key, label, {hex_text(value), value});
}

} // namespace

sensor::sensor(const bdbus_sdr_record &record, bool announced)
    : record_(record), announced_(announced), format_(static_cast<data_format>(bits(20, 6, 2))),
      linearization_(bits(23, 0, 7)), m_(number(24)), b_(number(26)), b_exponent_(sign_extended(bits(29, 0, 4), 4)),
      r_exponent_(sign_extended(bits(29, 4, 4), 4))
{
}

uint8_t sensor::bits(size_t offset, unsigned lowest, unsigned count) const
{
    return static_cast<uint8_t>(byte(offset) >> lowest & ((1U << count) - 1));
}

/** Ten bits: the two uppermost lead the second byte. */
int sensor::number(size_t offset) const
{
    return sign_extended(byte(offset) | unsigned{bits(offset + 1, 6, 2)} << 8, 10);
}

/** The one that begins at a bit of the record; none at the end of the text. */
std::string sensor::name_character(unsigned encoding, size_t bit) const
{
    const size_t place = bit / 8;
    const unsigned above = place + 1 < BDBUS_SDR_BYTES ? byte(place + 1) : 0;
    switch (encoding) {
    case bcd_plus:
        return {"0123456789 -.:,_"[bits(place, bit % 8 == 0 ? 4 : 0, 4)]};
    case packed_ascii:
        return {static_cast<char>(0x20 + ((byte(place) | above << 8) >> bit % 8 & 0x3F))};
    case latin1:
        return byte(place) == 0 ? "" : utf8_of_latin1(byte(place));
    default:
        return format("%02x", byte(place));
    }
}

/** The text has a byte for type and length in characters before it. What it claims beyond the record is left out. */
std::string sensor::name() const
{
    const size_t at = byte(3) == full ? 47 : byte(3) == compact ? 31 : byte(3) == event_only ? 16 : BDBUS_SDR_BYTES - 1;
    const unsigned encoding = bits(at, 6, 2);
    const unsigned width = encoding == bcd_plus ? 4 : encoding == packed_ascii ? 6 : 8;
    const size_t first = at + 1;
    const size_t characters = std::min<size_t>(bits(at, 0, 5), (BDBUS_SDR_BYTES - first) * 8 / width);
    std::string text;
    for (size_t index = 0; index < characters; index++) {
        const std::string character = name_character(encoding, first * 8 + index * width);
        if (character.empty()) {
            break;
        }
        text += character;
    }
    return text;
}

std::string sensor::unit() const
{
    if (byte(3) != full) {
        return "";
    }
    enum modifier : uint8_t { none, divided_by, times };
    std::string text = unit_name(byte(21));
    const uint8_t modifier = bits(20, 1, 2);
    if (modifier == divided_by || modifier == times) {
        text += (modifier == times ? "*" : "/") + unit_name(byte(22));
    }
    text += rates.at(bits(20, 3, 3));
    return bits(20, 0, 1) == 0 ? text : text.empty() ? "%" : "% " + text;
}

bool sensor::has_type() const
{
    return byte(3) == full || byte(3) == compact;
}

bool sensor::has_threshold(size_t index) const
{
    return byte(3) == full && event_type() == threshold_events && (record_.thresholds.readable_mask >> index & 1) != 0;
}

bool sensor::is_available() const
{
    return (record_.event_enable.flags & scanning_enabled) != 0 &&
           (record_.event_status.flags & state_unavailable) == 0;
}

// ---- values: L((M x + B 10^Bexp) 10^Rexp)

double sensor::step() const
{
    return m_ * std::pow(10, r_exponent_);
}

int sensor::counts(uint8_t raw) const
{
    if (format_ == is_unsigned || raw < 0x80) {
        return raw;
    }
    return format_ == ones_complement ? raw - 0xFF : raw - 0x100;
}

std::optional<double> sensor::engineering(uint8_t raw) const
{
    if (!is_analog() || linearization_ >= linearizations.size()) {
        return std::nullopt;
    }
    const double linear = (m_ * counts(raw) + b_ * std::pow(10, b_exponent_)) * std::pow(10, r_exponent_);
    const double value = linearizations.at(linearization_).function(linear);
    return std::isfinite(value) ? std::optional(value) : std::nullopt;
}

int sensor::linear_decimals() const
{
    return std::max(0, -(r_exponent_ + (b_ != 0 ? std::min(b_exponent_, 0) : 0)));
}

cell sensor::shown(std::optional<double> number, uint8_t raw, bool with_unit) const
{
    if (!number) {
        return {hex_text(raw), nullptr};
    }
    const std::string text = linearization_ == 0 ? fixed_text(*number, linear_decimals()) : format("%.4g", *number);
    const std::string name = with_unit ? unit() : "";
    return {name.empty() ? text : text + " " + name, number_of(text)};
}

cell sensor::value(uint8_t raw, bool with_unit) const
{
    return shown(engineering(raw), raw, with_unit);
}

cell sensor::hysteresis(uint8_t raw) const
{
    const bool linear = is_analog() && linearization_ == 0;
    return shown(linear ? std::optional(raw * std::fabs(step())) : std::nullopt, raw, true);
}

uint8_t sensor::nearest(double counts, int least, int most) const
{
    if (!is_analog() || linearization_ != 0 || m_ == 0) {
        throw std::invalid_argument("the sensor is not linear, its values can be given with --raw only");
    }
    if (!(counts > least - 0.5 && counts < most + 0.5)) {
        throw std::invalid_argument("outside of what the sensor can express");
    }
    const long rounded = std::lround(counts);
    return static_cast<uint8_t>(format_ == ones_complement && rounded < 0 ? rounded + 0xFF : rounded);
}

uint8_t sensor::to_raw(double value) const
{
    const double exact = (value / std::pow(10, r_exponent_) - b_ * std::pow(10, b_exponent_)) / m_;
    const int least = format_ == is_unsigned ? 0 : format_ == ones_complement ? -127 : -128;
    return nearest(exact, least, format_ == is_unsigned ? 255 : 127);
}

uint8_t sensor::to_raw_hysteresis(double value) const
{
    return nearest(value / std::fabs(step()), 0, 255);
}

cell sensor::reading() const
{
    if (!is_available()) {
        return cell::none();
    }
    return value(record_.reading, true);
}

/** A threshold sensor's masks have other bits above its twelve events. */
std::vector<std::string> sensor::event_names(uint16_t mask) const
{
    if (!has_type()) {
        return {};
    }
    const uint16_t events = event_type() == threshold_events ? 0x0FFF : 0x7FFF;
    return bdbusctl::event_names(event_type(), type(), mask & events);
}

/** As the sensor compares: raw values, at a threshold is beyond it. Discrete sensors show what is asserted. */
cell sensor::state() const
{
    if (!announced_) {
        return cell::none();
    }
    if (!is_available()) {
        return {"unavailable", "unavailable", "blue"};
    }
    if (!has_type()) {
        return "unknown";
    }
    if (event_type() != threshold_events) {
        const auto names = event_names(record_.event_status.assertion_mask);
        return names.empty() ? "ok" : join(names, ", ");
    }
    if (!is_analog()) {
        return "unknown";
    }
    const int reading = counts(record_.reading);
    for (const size_t index : {5U, 2U, 4U, 1U, 3U, 0U}) {
        const threshold &limit = thresholds.at(index);
        const int at = counts(record_.thresholds.*limit.raw);
        if (has_threshold(index) && (index >= 3 ? reading >= at : reading <= at)) {
            return {limit.label, limit.label, index % 3 == 0 ? "yellow" : "red"};
        }
    }
    return "ok";
}

// ---- the record's bytes

void sensor::describe(record &shown) const
{
    shown.add("sdr_version", "SDR version", format("%u.%u", bits(2, 0, 4), bits(2, 4, 4)));
    add_byte(shown, "record_type", "Record type", byte(3));
    shown.add("record_length", "Bytes after header", byte(4));
    if (byte(3) == full) {
        describe_full(shown);
    }
    shown.add("sdr_hex", "SDR", hex_digits(record_.sdr));
}

void sensor::describe_full(record &shown) const
{
    add_byte(shown, "owner", "Owner", byte(5));
    add_byte(shown, "owner_lun", "Channel and LUN", byte(6));
    add_byte(shown, "sensor_number", "Sensor number", byte(7));
    add_byte(shown, "entity_id", "Entity", byte(8));
    add_byte(shown, "entity_instance", "Entity instance", byte(9));
    shown.add("initialization", "Initialization", list_cell(bit_names(initialization_bits, byte(10))));
    shown.add("ignored_without_entity", "Ignored w/o entity", bits(11, 7, 1) != 0);
    shown.add("auto_rearm", "Re-arms itself", bits(11, 6, 1) != 0);
    shown.add("hysteresis_access", "Hysteresis access", hysteresis_access.at(bits(11, 4, 2)));
    shown.add("threshold_access", "Threshold access", hysteresis_access.at(bits(11, 2, 2)));
    shown.add("event_control", "Event control", event_control.at(bits(11, 0, 2)));
    add_byte(shown, "settable_mask", "Settable mask", byte(19));
    describe_conversion(shown);
    shown.add("direction", "Direction", directions.at(bits(28, 0, 2)));
    constexpr std::array nominal{
        std::pair{"nominal", "Nominal"},
        std::pair{"normal_maximum", "Normal maximum"},
        std::pair{"normal_minimum", "Normal minimum"},
    };
    for (unsigned index = 0; index < nominal.size(); index++) {
        const bool present = bits(30, index, 1) != 0;
        shown.add(nominal.at(index).first, nominal.at(index).second,
                  present ? value(byte(31 + index), true) : cell::none());
    }
    shown.add("sensor_maximum", "Sensor maximum", value(byte(34), true));
    shown.add("sensor_minimum", "Sensor minimum", value(byte(35), true));
    add_byte(shown, "oem", "OEM byte", byte(46));
}

void sensor::describe_conversion(record &shown) const
{
    shown.add("unit", "Unit", unit().empty() ? cell::none() : cell(unit()));
    shown.add("data_format", "Data format", data_formats.at(format_));
    shown.add("linearization", "Linearization", linearization_name(linearization_));
    shown.add("m", "M", m_);
    shown.add("b", "B", b_);
    shown.add("b_exponent", "B exponent", b_exponent_);
    shown.add("r_exponent", "R exponent", r_exponent_);
    shown.add("tolerance", "Tolerance", {format("%g counts", bits(25, 0, 6) / 2.0), bits(25, 0, 6) / 2.0});
    const unsigned accuracy = bits(27, 0, 6) | unsigned{bits(28, 4, 4)} << 6;
    const std::string percent = format("%g", accuracy * std::pow(10, bits(28, 2, 2)) / 100);
    shown.add("accuracy_percent", "Accuracy", {percent + " %", number_of(percent)});
}

} // namespace bdbusctl
