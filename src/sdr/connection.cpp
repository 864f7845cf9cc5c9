// SPDX-License-Identifier: LGPL-2.1-or-later
// The family's module.
#include "sdr/connection.hpp"

namespace bdbus
{

constinit bus_module sdr_module;

} // namespace bdbus
