// SPDX-License-Identifier: LGPL-2.1-or-later
// The upgrade service's properties: versions, rollback flags, how an upgrade stands and which flash is selected.
#include "upgrade/connection.hpp"

#include <bdbus/upgrade.h>

#include <cerrno>
#include <iterator>

namespace bdbus
{

namespace
{

// In the order of the enumeration bdbus_upgrade_version.
constexpr const char *version_properties[] = {
    "BmcUbootVersion",   "BmcFwVersion",      "BmcConfVersion",    "FpgaVersion",
    "BiosVersion",       "NvramVersion",      "CpldVersion",       "BmcFwBackupVersion",
    "FpgaBackupVersion", "BiosBackupVersion", "CpldBackupVersion",
};
static_assert(std::size(version_properties) == BDBUS_UPGRADE_VERSION_CPLD_BACKUP + 1);

int32_t upgrade_get_array_property(const char *name, uint8_t *out, uint32_t room = BDBUS_UPGRADE_VERSION_MAX,
                                   uint32_t *length = nullptr)
{
    if (out == nullptr && room > 0) {
        return -EINVAL;
    }
    upgrade_call call;
    call.get_property(name, "ay");
    return call.read_bytes(out, room, length);
}

/** A property of one value; the output is touched only when it was read. */
template <signature Type, typename Value>
int32_t upgrade_get_basic_property(const char *name, Value *out)
{
    if (out == nullptr) {
        return -EINVAL;
    }
    upgrade_call call;
    Value value = 0;
    const int32_t result = call.get_basic_property<Type>(name, &value);
    if (result >= 0) {
        *out = value;
    }
    return result;
}

} // namespace

} // namespace bdbus

int32_t bdbus_upgrade_get_version(bdbus_upgrade_version which, uint8_t *buf, uint32_t capacity, uint32_t *length)
{
    const auto index = static_cast<uint32_t>(which);
    if (index >= std::size(bdbus::version_properties)) {
        return -EINVAL;
    }
    return bdbus::upgrade_get_array_property(bdbus::version_properties[index], buf, capacity, length);
}

int32_t bdbus_upgrade_bmc_uboot_get_version(uint8_t *out)
{
    return bdbus::upgrade_get_array_property("BmcUbootVersion", out);
}

int32_t bdbus_upgrade_bmc_fw_get_version(uint8_t *out)
{
    return bdbus::upgrade_get_array_property("BmcFwVersion", out);
}

int32_t bdbus_upgrade_bmc_conf_get_version(uint8_t *out)
{
    return bdbus::upgrade_get_array_property("BmcConfVersion", out);
}

int32_t bdbus_upgrade_fpga_get_version(uint8_t *out)
{
    return bdbus::upgrade_get_array_property("FpgaVersion", out);
}

int32_t bdbus_upgrade_bios_get_version(uint8_t *out)
{
    return bdbus::upgrade_get_array_property("BiosVersion", out);
}

int32_t bdbus_upgrade_nvram_get_version(uint8_t *out)
{
    return bdbus::upgrade_get_array_property("NvramVersion", out);
}

int32_t bdbus_upgrade_cpld_get_version(uint8_t *out)
{
    return bdbus::upgrade_get_array_property("CpldVersion", out);
}

int32_t bdbus_upgrade_bmc_fw_get_backup_version(uint8_t *out)
{
    return bdbus::upgrade_get_array_property("BmcFwBackupVersion", out);
}

int32_t bdbus_upgrade_fpga_get_backup_version(uint8_t *out)
{
    return bdbus::upgrade_get_array_property("FpgaBackupVersion", out);
}

int32_t bdbus_upgrade_bios_get_backup_version(uint8_t *out)
{
    return bdbus::upgrade_get_array_property("BiosBackupVersion", out);
}

int32_t bdbus_upgrade_cpld_get_backup_version(uint8_t *out)
{
    return bdbus::upgrade_get_array_property("CpldBackupVersion", out);
}

int32_t bdbus_upgrade_bmc_uboot_get_rollback_flag(int32_t *out)
{
    return bdbus::upgrade_get_basic_property<"b">("BmcUbootRollbackFlag", out);
}

int32_t bdbus_upgrade_bmc_fw_get_rollback_flag(int32_t *out)
{
    return bdbus::upgrade_get_basic_property<"b">("BmcFwRollbackFlag", out);
}

int32_t bdbus_upgrade_bmc_conf_get_rollback_flag(int32_t *out)
{
    return bdbus::upgrade_get_basic_property<"b">("BmcConfRollbackFlag", out);
}

int32_t bdbus_upgrade_fpga_get_rollback_flag(int32_t *out)
{
    return bdbus::upgrade_get_basic_property<"b">("FpgaRollbackFlag", out);
}

int32_t bdbus_upgrade_bios_get_rollback_flag(int32_t *out)
{
    return bdbus::upgrade_get_basic_property<"b">("BiosRollbackFlag", out);
}

int32_t bdbus_upgrade_nvram_get_rollback_flag(int32_t *out)
{
    return bdbus::upgrade_get_basic_property<"b">("NvramRollbackFlag", out);
}

int32_t bdbus_upgrade_cpld_get_rollback_flag(int32_t *out)
{
    return bdbus::upgrade_get_basic_property<"b">("CpldRollbackFlag", out);
}

int32_t bdbus_upgrade_component_count(int32_t *out)
{
    return bdbus::upgrade_get_basic_property<"i">("ComponentCount", out);
}

int32_t bdbus_upgrade_component_id(uint8_t *out)
{
    return bdbus::upgrade_get_basic_property<"y">("UpgradeComponentId", out);
}

int32_t bdbus_upgrade_in_progress(uint8_t *out)
{
    return bdbus::upgrade_get_basic_property<"y">("UpgradeInProgress", out);
}

int32_t bdbus_upgrade_bmc_get_flash(uint8_t *out)
{
    return bdbus::upgrade_get_basic_property<"y">("BmcFlashSelect", out);
}

int32_t bdbus_upgrade_bios_get_flash(uint8_t *out)
{
    return bdbus::upgrade_get_basic_property<"y">("BiosFlashSelect", out);
}
