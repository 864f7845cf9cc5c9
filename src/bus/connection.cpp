// SPDX-License-Identifier: LGPL-2.1-or-later
#include "bus/connection.hpp"

#include "bus/texts.hpp"

#include <cstring>

namespace bdbus
{

/** Open a connection, or print why not. The output stays null on failure. */
static int32_t open_bus(sd_bus **bus)
{
    const int opened = sd_bus_open_system(bus);
    if (opened < 0) {
        complain(connect_text, strerror(-opened));
        return opened;
    }
    return 0;
}

int32_t module_acquire(bus_module &owner, void (*register_matches)(sd_bus *bus))
{
    pthread_mutex_lock(&owner.lock);
    if (owner.bus != nullptr) {
        return 0;
    }
    const int32_t opened = open_bus(&owner.bus);
    if (opened < 0) {
        pthread_mutex_unlock(&owner.lock);
        return opened;
    }
    register_matches(owner.bus);
    return 0;
}

void module_release(bus_module &owner)
{
    pthread_mutex_unlock(&owner.lock);
}

call_connection::call_connection(pthread_mutex_t &lock) : guard_(lock), acquired_(open_bus(&bus_)) {}

} // namespace bdbus
