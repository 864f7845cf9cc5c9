// SPDX-License-Identifier: LGPL-2.1-or-later
/*
 * D-Bus messages to JSON and back, by signature.
 *
 * | D-Bus                  | JSON                                                            |
 * |------------------------|-----------------------------------------------------------------|
 * | y n q i u x t, b, d    | number, boolean, number                                         |
 * | s o g                  | text                                                            |
 * | ay                     | binary value; an array of numbers is taken too                  |
 * | other arrays, structs  | array                                                           |
 * | dictionary             | object when its keys are texts, else an array of [key, value]   |
 * | v                      | {"signature": …, "value": …}                                    |
 */
#pragma once

#include "frame/bus.hpp"
#include "frame/json.hpp"

#include <functional>
#include <string>
#include <vector>

namespace bdbus_sim
{

/** The message's values, as an array. Throws std::exception for one that is broken or has too many values to hold. */
json decode_arguments(sd_bus_message *message);

/** Appends one value for each complete type of the signature. Throws std::exception for values that do not fit it. */
void encode(sd_bus_message *message, const std::string &signature, const json &values);

/** Throws std::exception when the values do not fit the signature. */
void check_values(const std::string &signature, const json &values);

/** The signature cut into its complete types; throws std::invalid_argument for one that is malformed. */
std::vector<std::string> split_signature(const std::string &signature);

/** Visits every byte array among the values, those in containers and variants too. */
void visit_byte_arrays(const std::string &signature, json &values, const std::function<void(byte_vector &)> &visit);

/** For each complete type of the signature 0, false, "" or an empty container. */
json zero_values(const std::string &signature);

} // namespace bdbus_sim
