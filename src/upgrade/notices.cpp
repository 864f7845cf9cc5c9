// SPDX-License-Identifier: LGPL-2.1-or-later
// The notices that go the other way, from a caller to the upgrade service: signals on the service's own object.
#include "upgrade/connection.hpp"

#include <bdbus/upgrade.h>

namespace bdbus
{

namespace
{

/** @return the result of the last step; if it failed and has a line, that is reported. */
int32_t upgrade_announce(call_report &report, sd_bus *bus, const char *member, const signal_texts &texts)
{
    sd_bus_message *signal = nullptr;
    const char *step = texts.create;
    int32_t result = sd_bus_message_new_signal(bus, &signal, upgrade_service.path, upgrade_service.interface, member);
    if (result >= 0) {
        step = texts.send;
        result = sd_bus_send(bus, signal, nullptr);
    }
    if (result < 0) {
        report.set(step, result);
    }
    sd_bus_message_unref(signal);
    return result;
}

/**
 * For the handlers of the callback table: they run with the module's lock held, so it is not taken here, and the
 * connection is used as it is. sd-bus refuses one that was never opened.
 */
int32_t upgrade_handle_change(const char *member)
{
    call_report report;
    return upgrade_announce(report, upgrade_module.bus, member, change_handle_texts);
}

} // namespace

} // namespace bdbus

int32_t bdbus_upgrade_bmc_sensors_ready(void)
{
    bdbus::call_report report;
    const bdbus::upgrade_hold hold;
    if (hold.acquired() < 0) {
        return hold.acquired();
    }
    return bdbus::upgrade_announce(report, hold.bus(), "BmcSensorsReady", bdbus::notice_texts);
}

int32_t bdbus_upgrade_fpga_change_handle(void)
{
    return bdbus::upgrade_handle_change("FpgaChangeHandle");
}

int32_t bdbus_upgrade_bios_change_handle(void)
{
    return bdbus::upgrade_handle_change("BiosChangeHandle");
}

int32_t bdbus_upgrade_nvram_change_handle(void)
{
    return bdbus::upgrade_handle_change("NvramChangeHandle");
}
