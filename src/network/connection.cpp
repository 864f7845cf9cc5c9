// SPDX-License-Identifier: LGPL-2.1-or-later
#include "network/connection.hpp"

namespace bdbus
{

namespace
{

constinit bus_module network_module;

} // namespace

sd_bus *network_bus_acquire()
{
    pthread_mutex_lock(&network_module.lock);
    if (network_module.bus == nullptr && sd_bus_open_system(&network_module.bus) < 0) {
        network_module.bus = nullptr;
        pthread_mutex_unlock(&network_module.lock);
        return nullptr;
    }
    return network_module.bus;
}

void network_bus_release()
{
    network_module.bus = sd_bus_unref(network_module.bus);
    pthread_mutex_unlock(&network_module.lock);
}

} // namespace bdbus
