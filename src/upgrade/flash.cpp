// SPDX-License-Identifier: LGPL-2.1-or-later
// Settings of the upgrade service: the selected flash, versions, factory mode. It answers each with a byte.
#include "upgrade/connection.hpp"

#include <bdbus/upgrade.h>

#include <cerrno>

namespace bdbus
{

namespace
{

template <signature Sig, typename Record, typename Value>
int32_t upgrade_setting(const char *member, Record *rec, Value Record::*value)
{
    if (rec == nullptr) {
        return -EINVAL;
    }
    upgrade_call call;
    call.invoke<Sig>(member, rec->*value);
    return call.read<"y">(&rec->result);
}

/** How long the service takes over a version is its own: its answer is waited for without a limit. */
int32_t upgrade_set_version(const char *member, bdbus_upgrade_version_update *rec)
{
    if (rec == nullptr) {
        return -EINVAL;
    }
    upgrade_call call;
    call.create(member);
    call.append_bytes(rec->version, sizeof(rec->version));
    call.send(call_frame::no_timeout);
    return call.read<"y">(&rec->result);
}

} // namespace

} // namespace bdbus

int32_t bdbus_upgrade_bmc_set_flash(bdbus_upgrade_flash_select *rec)
{
    return bdbus::upgrade_setting<"u">("SetBmcFlashSelect", rec, &bdbus_upgrade_flash_select::flash);
}

int32_t bdbus_upgrade_bios_set_flash(bdbus_upgrade_flash_select *rec)
{
    return bdbus::upgrade_setting<"u">("SetBiosFlashSelect", rec, &bdbus_upgrade_flash_select::flash);
}

int32_t bdbus_upgrade_bios_set_version(bdbus_upgrade_version_update *rec)
{
    return bdbus::upgrade_set_version("SetBiosVersion", rec);
}

int32_t bdbus_upgrade_nvram_set_version(bdbus_upgrade_version_update *rec)
{
    return bdbus::upgrade_set_version("SetNvramVersion", rec);
}

int32_t bdbus_upgrade_factory_mode_setting(bdbus_upgrade_factory_mode *rec)
{
    return bdbus::upgrade_setting<"y">("BmcFactoryModeNotify", rec, &bdbus_upgrade_factory_mode::mode);
}
