// SPDX-License-Identifier: LGPL-2.1-or-later
// The 80 notices of the upgrade service: one list of names, and the caller's table.
#include "upgrade/events.hpp"

#include "upgrade/connection.hpp"

#include <bdbus/upgrade.h>

#include <atomic>
#include <iterator>

namespace bdbus
{

namespace
{

// In the order of the slots of bdbus_upgrade_callback_table.
constexpr const char *upgrade_signals[] = {
    // clang-format off
    "UbootChange", "UbootUpdateSucceed", "UbootUpdateAborted", "UbootUpdateFail", "UbootUpdateTimeout",
    "UbootActivationFail", "UbootVersion", "UbootSignFail", "UbootEnvDefaults", "UbootFlash0Fail",
    "UbootFlash1Fail",
    "BmcReset", "BmcChange", "BmcAutoRollback", "BmcManualRollbackInitiated", "BmcManualRollbackSucceed",
    "BmcManualRollbackFail", "BmcUpdateSucceed", "BmcUpdateAborted", "BmcUpdateFail", "BmcUpdateTimeout",
    "BmcActivationFail", "BmcVersion", "BmcSignVerifyPass", "BmcSignVerifyFail",
    "FwconfUpdateSucceed", "FwconfUpdateAborted", "FwconfUpdateFail", "FwconfUpdateTimeout",
    "FwconfActivationFail", "FwconfVersion",
    "FpgaChange", "FpgaManualRollbackInitiated", "FpgaManualRollbackSucceed", "FpgaManualRollbackFail",
    "FpgaUpdatePending", "FpgaUpdateStart", "FpgaUpdateEnd", "FpgaUpdateSucceed", "FpgaUpdateAborted",
    "FpgaUpdateFail", "FpgaUpdateTimeout", "FpgaActivationFail", "FpgaAutoRollbackStart",
    "FpgaAutoRollbackSucceed", "FpgaAutoRollbackFail", "FpgaVersion", "FpgaSignVerifyPass", "FpgaSignVerifyFail",
    "BiosUpdatePending", "BiosUpdateSucceed", "BiosUpdateAborted", "BiosUpdateFail", "BiosUpdateTimeout",
    "BiosManualRollbackInitiated", "BiosRollbackSucceed", "BiosFlash0BootInit", "BiosFlash1BootInit",
    "BiosFlashSwapRunning", "BiosFlashSwapFinished",
    "NvramUpdatePending", "NvramUpdateSucceed", "NvramUpdateAborted", "NvramUpdateFail", "NvramUpdateTimeout",
    "NvramActivationFail",
    "BpCpldManualRollbackInitiated", "BpCpldManualRollbackSucceed", "BpCpldManualRollbackFail",
    "BpCpldUpdateSucceed", "BpCpldUpdateAborted", "BpCpldUpdateFail", "BpCpldUpdateTimeout",
    "BpCpldActivationFail", "BpCpldAutoRollbackStart", "BpCpldAutoRollbackSucceed", "BpCpldAutoRollbackFail",
    "BpCpldVersion", "BpCpldSignVerifyPass", "BpCpldSignVerifyFail",
    // clang-format on
};

// The table is a record for its callers' sake; here it is an array of as many slots as there are names.
static_assert(std::size(upgrade_signals) == BDBUS_UPGRADE_SIGNALS);
static_assert(sizeof(bdbus_upgrade_callback_table) == sizeof(sd_bus_message_handler_t[BDBUS_UPGRADE_SIGNALS]));

constinit std::atomic<const bdbus_upgrade_callback_table *> upgrade_callbacks{nullptr};

/** What sd-bus calls for each of them, with the name's place in the list; the handler's result means nothing. */
int upgrade_event(sd_bus_message *signal, void *name, sd_bus_error *error)
{
    const bdbus_upgrade_callback_table *table = upgrade_callbacks.load(std::memory_order_acquire);
    if (table == nullptr) {
        return 0;
    }
    const auto slot = static_cast<const char *const *>(name) - upgrade_signals;
    const sd_bus_message_handler_t handler = reinterpret_cast<const sd_bus_message_handler_t *>(table)[slot];
    if (handler != nullptr) {
        handler(signal, nullptr, error);
    }
    return 0;
}

} // namespace

int32_t upgrade_events_match(sd_bus *bus)
{
    for (const char *const &name : upgrade_signals) {
        const int32_t result = match_signal(bus, upgrade_service, name, upgrade_event, &name);
        if (result < 0) {
            return result;
        }
    }
    return 0;
}

} // namespace bdbus

int32_t bdbus_upgrade_callbacks(const bdbus_upgrade_callback_table *table)
{
    bdbus::upgrade_callbacks.store(table, std::memory_order_release);
    return 0;
}

int32_t bdbus_upgrade_signal_process(void)
{
    return bdbus::process_one<bdbus::upgrade_hold>();
}
