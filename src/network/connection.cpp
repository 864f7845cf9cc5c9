// SPDX-License-Identifier: LGPL-2.1-or-later
// The family's module.
#include "network/connection.hpp"

namespace bdbus
{

constinit bus_module network_module;

int32_t network_bus_acquire()
{
    return per_call_acquire(network_module, nullptr);
}

void network_bus_release()
{
    per_call_release(network_module);
}

} // namespace bdbus
