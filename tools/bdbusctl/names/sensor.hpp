// SPDX-License-Identifier: LGPL-2.1-or-later
// A sensor of the repository: its record decoded as IPMI 2.0 has it (full sensor record, type 01h), and its live state.
// Any 64 bytes can be looked at; a field that cannot be interpreted stays raw.
#pragma once

#include "frame/report.hpp"

#include <bdbus/sdr.h>

#include <array>
#include <optional>
#include <string>
#include <vector>

namespace bdbusctl
{

/** In the order of the bits of the mask; the second three are the upper ones. */
struct threshold {
    const char *key;
    const char *label;
    const char *title;
    const char *option;
    uint8_t bdbus_sdr_thresholds::*raw;
};

using limits = bdbus_sdr_thresholds;
constexpr std::array thresholds{
    threshold{"lower_noncritical", "lower non-critical", "LNC", "--lower-noncritical", &limits::lower_noncritical},
    threshold{"lower_critical", "lower critical", "LC", "--lower-critical", &limits::lower_critical},
    threshold{"lower_nonrecoverable", "lower non-recoverable", "LNR", "--lower-nonrecoverable",
              &limits::lower_nonrecoverable},
    threshold{"upper_noncritical", "upper non-critical", "UNC", "--upper-noncritical", &limits::upper_noncritical},
    threshold{"upper_critical", "upper critical", "UC", "--upper-critical", &limits::upper_critical},
    threshold{"upper_nonrecoverable", "upper non-recoverable", "UNR", "--upper-nonrecoverable",
              &limits::upper_nonrecoverable},
};

class sensor
{
public:
    /** `announced`: the reading is one that the service announced, and not the record's nominal one. */
    sensor(const bdbus_sdr_record &record, bool announced);

    const bdbus_sdr_record &live() const { return record_; }
    bool announced() const { return announced_; }
    uint16_t id() const { return record_.record_id; }
    std::string name() const;
    std::string unit() const;
    uint8_t type() const { return byte(12); }
    uint8_t event_type() const { return byte(13); }
    bool has_type() const; // full and compact records say what the sensor is
    std::vector<std::string> event_names(uint16_t mask) const;
    bool has_threshold(size_t index) const;

    /** A raw value as text and number: in engineering units, with the unit or without, or hex where there are none. */
    cell value(uint8_t raw, bool with_unit) const;
    cell hysteresis(uint8_t raw) const;
    cell reading() const;
    cell state() const; // none unless announced

    /** The raw value nearest to an engineering one; std::invalid_argument where there is none. */
    uint8_t to_raw(double value) const;
    uint8_t to_raw_hysteresis(double value) const;

    /** Adds all fields of the record. */
    void describe(record &shown) const;

private:
    enum record_type : uint8_t { full = 0x01, compact = 0x02, event_only = 0x03 };
    enum data_format : uint8_t { is_unsigned, ones_complement, twos_complement, no_reading };

    uint8_t byte(size_t offset) const { return record_.sdr[offset]; }
    void describe_full(record &shown) const;
    void describe_conversion(record &shown) const;
    std::string name_character(unsigned encoding, size_t bit) const;
    uint8_t bits(size_t offset, unsigned lowest, unsigned count) const;
    int number(size_t offset) const;
    int linear_decimals() const;
    bool is_analog() const { return byte(3) == full && format_ != no_reading; }
    bool is_available() const;
    double step() const;
    int counts(uint8_t raw) const;
    std::optional<double> engineering(uint8_t raw) const;
    cell shown(std::optional<double> number, uint8_t raw, bool with_unit) const;
    uint8_t nearest(double counts, int least, int most) const;

    bdbus_sdr_record record_;
    bool announced_;
    data_format format_;
    uint8_t linearization_;
    int m_, b_, b_exponent_, r_exponent_;
};

} // namespace bdbusctl
