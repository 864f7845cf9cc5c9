// SPDX-License-Identifier: LGPL-2.1-or-later
#include "bus/connection.hpp"

#include "bus/texts.hpp"

#include <cerrno>
#include <cstring>

namespace bdbus
{

/** Tell of a connection that could not be opened. @return the open's result. */
static int32_t told(int32_t opened)
{
    if (opened < 0) {
        complain(connect_text, strerror(-opened));
    }
    return opened;
}

void match_signal(sd_bus *bus, const service &peer, const char *member, sd_bus_message_handler_t handler)
{
    while (sd_bus_match_signal(bus, nullptr, nullptr, peer.path, peer.interface, member, handler, nullptr) == -EINTR) {
    }
}

int32_t open_subscribed(sd_bus **bus, void (*register_matches)(sd_bus *bus))
{
    const int opened = sd_bus_open_system(bus);
    if (opened < 0) {
        return opened;
    }
    register_matches(*bus);
    if (sd_bus_is_open(*bus) <= 0) {
        *bus = sd_bus_unref(*bus);
        return -ECONNRESET;
    }
    return 0;
}

int32_t module_acquire(bus_module &owner, void (*register_matches)(sd_bus *bus))
{
    pthread_mutex_lock(&owner.lock);
    const int32_t opened = owner.bus != nullptr ? 0 : told(open_subscribed(&owner.bus, register_matches));
    if (opened < 0) {
        pthread_mutex_unlock(&owner.lock);
    }
    return opened;
}

void module_release(bus_module &owner)
{
    pthread_mutex_unlock(&owner.lock);
}

call_connection::call_connection(pthread_mutex_t &lock) : guard_(lock), acquired_(told(sd_bus_open_system(&bus_))) {}

} // namespace bdbus
