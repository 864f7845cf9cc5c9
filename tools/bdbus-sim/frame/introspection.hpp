// SPDX-License-Identifier: LGPL-2.1-or-later
// Introspection data: the XML text that says which interfaces an object has and which nodes are below it.
#pragma once

#include "frame/objects.hpp"

#include <string>
#include <vector>

namespace bdbus_sim
{

/** `object` is null for a node that only has others below it. `children` are the names of those. */
std::string introspection_data(const object_table *object, const std::vector<std::string> &children);

} // namespace bdbus_sim
