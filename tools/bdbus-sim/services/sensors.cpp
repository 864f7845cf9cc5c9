// SPDX-License-Identifier: LGPL-2.1-or-later
// Full sensor records made from a table of sensors.
#include "services/sensors.hpp"

#include <algorithm>
#include <cmath>
#include <iterator>
#include <utility>

namespace bdbus_sim
{

namespace
{

/** What sensors of one kind share: a raw reading stands for (m * raw + b * 10^b_exponent) * 10^r_exponent. */
struct sensor_kind {
    uint8_t type; // of IPMI's sensor types
    uint8_t unit;
    int m;
    int b;
    int b_exponent;
    int r_exponent;
    int accuracy; // in 1/100 percent
};

constexpr sensor_kind temperature = {0x01, 1, 1, 0, 0, 0, 100};
constexpr sensor_kind cold_temperature = {0x01, 1, 1, -40, 0, 0, 150};
constexpr sensor_kind low_voltage = {0x02, 4, 8, 0, 0, -3, 100};
constexpr sensor_kind rail_voltage = {0x02, 4, 3, 0, 0, -2, 100};
constexpr sensor_kind supply_voltage = {0x02, 4, 6, 0, 0, -2, 100};
constexpr sensor_kind mains_voltage = {0x02, 4, 1, 50, 0, 0, 200};
constexpr sensor_kind small_current = {0x03, 5, 2, 0, 0, -2, 250};
constexpr sensor_kind current = {0x03, 5, 5, 0, 0, -1, 250};
constexpr sensor_kind fan = {0x04, 18, 8, 0, 0, 1, 300};
constexpr sensor_kind power = {0x0B, 6, 4, 0, 0, 0, 300};

/** The figures are in the sensor's unit. A limit that is `none` does not exist. */
constexpr double none = NAN;

struct sensor_group {
    const char *name; // '#' is the instance
    int count;
    uint8_t entity;
    const sensor_kind *kind;
    double nominal;
    double lower[3]; // non-critical, critical, non-recoverable
    double upper[3];
    double hysteresis;
};

constexpr sensor_group groups[] = {
    {"Inlet Temp", 1, 0x37, &cold_temperature, 24, {5, 0, -10}, {38, 42, 47}, 2},
    {"Outlet Temp", 1, 0x37, &cold_temperature, 36, {5, 0, none}, {65, 70, 75}, 2},
    {"Board Temp", 1, 0x07, &temperature, 41, {none, none, none}, {80, 85, 90}, 2},
    {"CPU# Temp", 2, 0x03, &temperature, 52, {none, none, none}, {88, 94, 99}, 3},
    {"CPU# VRM Temp", 2, 0x14, &temperature, 48, {none, none, none}, {100, 110, 120}, 3},
    {"DIMM# Temp", 16, 0x20, &temperature, 40, {none, none, none}, {81, 85, 95}, 2},
    {"PCIe# Temp", 8, 0x0B, &temperature, 45, {none, none, none}, {90, 97, none}, 2},
    {"Drive# Temp", 12, 0x04, &cold_temperature, 33, {5, 0, none}, {55, 60, 65}, 2},
    {"PSU# Temp", 2, 0x0A, &temperature, 38, {none, none, none}, {65, 70, 75}, 2},
    {"+12V", 1, 0x07, &supply_voltage, 12.06, {11.40, 11.04, 10.80}, {12.60, 12.96, 13.20}, 0.06},
    {"+5V", 1, 0x07, &rail_voltage, 5.01, {4.74, 4.59, 4.50}, {5.25, 5.40, 5.49}, 0.03},
    {"+3.3V", 1, 0x07, &rail_voltage, 3.30, {3.15, 3.03, 2.97}, {3.45, 3.57, 3.63}, 0.03},
    {"+3.3V Standby", 1, 0x07, &rail_voltage, 3.33, {3.15, 3.03, none}, {3.45, 3.57, none}, 0.03},
    {"+1.8V", 1, 0x07, &low_voltage, 1.80, {1.72, 1.66, none}, {1.88, 1.944, none}, 0.016},
    {"+1.05V", 1, 0x07, &low_voltage, 1.048, {1.0, 0.968, none}, {1.104, 1.136, none}, 0.016},
    {"Battery", 1, 0x28, &rail_voltage, 3.06, {2.70, 2.40, none}, {none, none, none}, 0.03},
    {"CPU# Core", 2, 0x03, &low_voltage, 0.952, {0.7, 0.6, none}, {1.2, 1.304, none}, 0.016},
    {"CPU# Memory", 4, 0x08, &low_voltage, 1.2, {1.144, 1.104, none}, {1.264, 1.296, none}, 0.016},
    {"PSU# Input", 2, 0x0A, &mains_voltage, 230, {190, 180, none}, {255, 264, none}, 2},
    {"PSU# Output", 2, 0x0A, &supply_voltage, 12.12, {11.40, 11.04, none}, {12.60, 12.96, none}, 0.06},
    {"Fan# Front", 8, 0x1D, &fan, 6400, {2000, 1200, 640}, {none, none, none}, 160},
    {"Fan# Rear", 8, 0x1D, &fan, 5920, {2000, 1200, 640}, {none, none, none}, 160},
    {"PSU# Fan", 2, 0x0A, &fan, 4800, {1600, 960, none}, {none, none, none}, 160},
    {"System Power", 1, 0x07, &power, 412, {none, none, none}, {820, 900, none}, 8},
    {"CPU# Power", 2, 0x03, &power, 96, {none, none, none}, {200, 224, none}, 4},
    {"PSU# Power In", 2, 0x0A, &power, 220, {none, none, none}, {800, 880, none}, 8},
    {"PSU# Power Out", 2, 0x0A, &power, 204, {none, none, none}, {740, 800, none}, 8},
    {"PCIe# Power", 8, 0x0B, &power, 24, {none, none, none}, {68, 76, none}, 4},
    {"CPU# Current", 2, 0x03, &current, 61, {none, none, none}, {115, 124, none}, 1},
    {"PSU# Current In", 2, 0x0A, &small_current, 0.96, {none, none, none}, {4, 4.5, none}, 0.04},
    {"PSU# Current Out", 2, 0x0A, &current, 17, {none, none, none}, {62, 68, none}, 1},
    {"Fan# Current", 16, 0x1D, &small_current, 0.84, {none, none, none}, {2.6, 3, none}, 0.04},
};

/** The places of the fields in a full sensor record. */
enum sdr_offset : size_t {
    id_at = 0,
    header_at = 2,
    sensor_number = 7,
    entity_id = 8,
    entity_instance = 9,
    initialization = 10,
    capabilities = 11,
    sensor_type = 12,
    event_type = 13,
    assertion_at = 14,
    deassertion_at = 16,
    readable_at = 18,
    settable_at = 19,
    base_unit = 21,
    m_at = 24,
    b_at = 26,
    accuracy_at = 28,
    exponents_at = 29,
    analog_flags = 30,
    nominal_at = 31,
    normal_maximum = 32,
    normal_minimum = 33,
    sensor_maximum = 34,
    sensor_minimum = 35,
    upper_at = 36, // non-recoverable, critical, non-critical
    lower_at = 39, // the same
    hysteresis_at = 42,
    text_length = 47,
    text_at = 48
};

constexpr size_t text_max = 16;

void put_word(byte_vector &sdr, size_t offset, int word)
{
    sdr[offset] = static_cast<uint8_t>(word);
    sdr[offset + 1] = static_cast<uint8_t>(word >> 8);
}

uint8_t clamped(double raw)
{
    return static_cast<uint8_t>(std::lround(std::fmin(std::fmax(raw, 0), 255)));
}

uint8_t to_raw(const sensor_kind &kind, double value)
{
    return clamped((value / std::pow(10, kind.r_exponent) - kind.b * std::pow(10, kind.b_exponent)) / kind.m);
}

/** M and B are 10 bits wide. The upper two bits share the second byte with six bits of another field, `below`. */
void put_factor(byte_vector &sdr, size_t offset, int factor, int below)
{
    put_word(sdr, offset, (factor & 0xFF) | ((factor >> 8 & 3) << 6 | (below & 0x3F)) << 8);
}

void put_kind(byte_vector &sdr, const sensor_kind &kind)
{
    constexpr int tolerance = 2; // in half counts
    sdr[sensor_type] = kind.type;
    sdr[base_unit] = kind.unit;
    put_factor(sdr, m_at, kind.m, tolerance);
    put_factor(sdr, b_at, kind.b, kind.accuracy);
    sdr[accuracy_at] = static_cast<uint8_t>(kind.accuracy >> 6 << 4);
    sdr[exponents_at] = static_cast<uint8_t>((kind.r_exponent & 0xF) << 4 | (kind.b_exponent & 0xF));
}

/**
 * A lower limit causes an event when a reading falls below it, an upper one when it rises above it. The highest bits of
 * the masks say which limits readings are compared with: the lower ones in the first mask, the upper ones in the
 * second.
 */
void put_limits(byte_vector &sdr, const sensor_group &group)
{
    int readable = 0;
    int events = 0;
    for (size_t i = 0; i < 3; i++) {
        if (!std::isnan(group.lower[i])) {
            sdr[lower_at + 2 - i] = to_raw(*group.kind, group.lower[i]);
            readable |= 1 << i;
            events |= 1 << 2 * i;
        }
        if (!std::isnan(group.upper[i])) {
            sdr[upper_at + 2 - i] = to_raw(*group.kind, group.upper[i]);
            readable |= 8 << i;
            events |= 0x80 << 2 * i;
        }
    }
    put_word(sdr, assertion_at, events | (readable & 7) << 12);
    put_word(sdr, deassertion_at, events | readable >> 3 << 12);
    sdr[readable_at] = sdr[settable_at] = static_cast<uint8_t>(readable);
}

/** The normal range ends at the non-critical limits, where the sensor has them. */
void put_range(byte_vector &sdr, const sensor_group &group)
{
    auto limit_or = [&](double limit, double share) {
        return std::isnan(limit) ? clamped(sdr[nominal_at] * share) : to_raw(*group.kind, limit);
    };
    sdr[nominal_at] = to_raw(*group.kind, group.nominal);
    sdr[normal_maximum] = limit_or(group.upper[0], 1.3);
    sdr[normal_minimum] = limit_or(group.lower[0], 0.6);
    sdr[sensor_maximum] = 255;
    sdr[sensor_minimum] = 0;
    uint8_t step = clamped(group.hysteresis / std::pow(10, group.kind->r_exponent) / group.kind->m);
    sdr[hysteresis_at] = sdr[hysteresis_at + 1] = step;
    sdr[analog_flags] = 7; // nominal reading, normal maximum and minimum are given
}

void put_text(byte_vector &sdr, const sensor_group &group, int instance)
{
    std::string text = group.name;
    size_t mark = text.find('#');
    if (mark != std::string::npos) {
        text.replace(mark, 1, std::to_string(instance));
    }
    text.resize(std::min(text.size(), text_max));
    sdr[text_length] = static_cast<uint8_t>(0xC0 | text.size());
    std::copy(text.begin(), text.end(), sdr.begin() + text_at);
}

byte_vector full_sensor_record(const sensor_group &group, int instance, int number)
{
    byte_vector sdr(sdr_size);
    const uint8_t header[] = {0x51, 0x01, sdr_size - 5, 0x20, 0}; // version, type, length, owner and its LUN
    std::copy(std::begin(header), std::end(header), sdr.begin() + header_at);
    sdr[sensor_number] = static_cast<uint8_t>(number);
    sdr[entity_id] = group.entity;
    sdr[entity_instance] = static_cast<uint8_t>(instance);
    sdr[initialization] = 0x7F; // everything, scanning and events are on at power-up
    sdr[capabilities] = 0x68;   // re-arms itself; hysteresis and thresholds can be read and set
    sdr[event_type] = 0x01;     // thresholds
    put_kind(sdr, *group.kind);
    put_limits(sdr, group);
    put_range(sdr, group);
    put_text(sdr, group, instance);
    return sdr;
}

json word(const json &sdr, size_t offset)
{
    return sdr[offset].get<int>() | sdr[offset + 1].get<int>() << 8;
}

} // namespace

json sensor_record(uint16_t id, json sdr)
{
    sdr[id_at] = id & 0xFF;
    sdr[id_at + 1] = id >> 8;
    json limits = json::array({sdr[readable_at]});
    for (size_t place : {lower_at + 2, lower_at + 1, lower_at + 0, upper_at + 2, upper_at + 1, upper_at + 0}) {
        limits.push_back(sdr[place]);
    }
    int flags = sdr[initialization].get<int>() << 6 & 0xFF;
    return {{"event_enable", {flags, word(sdr, assertion_at), word(sdr, deassertion_at)}},
            {"event_status", {0, 0, 0}},
            {"reading", sdr[nominal_at]},
            {"hysteresis", {sdr[hysteresis_at], sdr[hysteresis_at + 1]}},
            {"thresholds", std::move(limits)},
            {"sdr", std::move(sdr)}};
}

json default_sensors()
{
    json records;
    uint16_t id = 0;
    int number = 0;
    for (const sensor_group &group : groups) {
        for (int instance = 1; instance <= group.count; instance++) {
            id++;
            records[std::to_string(id)] = sensor_record(id, full_sensor_record(group, instance, ++number));
        }
        if (group.count > 8) {
            id += 4; // a gap where more of the many might be
        }
    }
    return records;
}

json extra_sensor(uint16_t id)
{
    static constexpr sensor_group group = {"Extra #", 1, 0x07, &temperature, 30, {5, 0, none}, {80, 85, 90}, 2};
    return sensor_record(id, full_sensor_record(group, id, id));
}

} // namespace bdbus_sim
