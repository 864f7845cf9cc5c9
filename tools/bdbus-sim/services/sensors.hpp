// SPDX-License-Identifier: LGPL-2.1-or-later
// IPMI full sensor records (SDR type 01h), and the sensors that the simulated controller has.
#pragma once

#include "frame/json.hpp"

namespace bdbus_sim
{

constexpr size_t sdr_size = 64;
constexpr size_t thresholds_size = 7;

/**
 * The order of a record's thresholds in the state: the mask of those that can be read, then three lower, three upper.
 */
enum threshold : size_t { readable_mask, lower_noncritical, upper_noncritical = 4 };

/** A record as it is in the state, with the live values that its 64 bytes give it. */
json sensor_record(uint16_t id, json sdr);

/** The records of the sensors that the controller has by default, by their IDs. */
json default_sensors();

/** One of the sensors that are there to make a repository large. */
json extra_sensor(uint16_t id);

} // namespace bdbus_sim
