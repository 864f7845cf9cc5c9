/* SPDX-License-Identifier: LGPL-2.1-or-later */
/* A program that does nothing: what it is linked to is what its start costs. */
#ifdef WITH_BDBUS
#include <bdbus/config.h>
#define LINKED bdbus_config_get_bool
#else
#include <systemd/sd-bus.h>
#define LINKED sd_bus_open_system
#endif

__typeof__(&LINKED) volatile linked = LINKED;

int main(void)
{
    return linked == 0;
}
