// SPDX-License-Identifier: LGPL-2.1-or-later
// The upgrade service: its properties, its eighty notices, and an image's blocks.
#include "bare.hpp"
#include "images.hpp"
#include "lockstep.hpp"
#include "row.hpp"

#include <bdbus/bdbus.h>

#include <algorithm>
#include <cstring>

namespace bench
{

namespace
{

constexpr const char *notices[] = {
    // clang-format off
    "UbootChange", "UbootUpdateSucceed", "UbootUpdateAborted", "UbootUpdateFail", "UbootUpdateTimeout",
    "UbootActivationFail", "UbootVersion", "UbootSignFail", "UbootEnvDefaults", "UbootFlash0Fail",
    "UbootFlash1Fail", "BmcReset", "BmcChange", "BmcAutoRollback", "BmcManualRollbackInitiated",
    "BmcManualRollbackSucceed", "BmcManualRollbackFail", "BmcUpdateSucceed", "BmcUpdateAborted", "BmcUpdateFail",
    "BmcUpdateTimeout", "BmcActivationFail", "BmcVersion", "BmcSignVerifyPass", "BmcSignVerifyFail",
    "FwconfUpdateSucceed", "FwconfUpdateAborted", "FwconfUpdateFail", "FwconfUpdateTimeout", "FwconfActivationFail",
    "FwconfVersion", "FpgaChange", "FpgaManualRollbackInitiated", "FpgaManualRollbackSucceed",
    "FpgaManualRollbackFail", "FpgaUpdatePending", "FpgaUpdateStart", "FpgaUpdateEnd", "FpgaUpdateSucceed",
    "FpgaUpdateAborted", "FpgaUpdateFail", "FpgaUpdateTimeout", "FpgaActivationFail", "FpgaAutoRollbackStart",
    "FpgaAutoRollbackSucceed", "FpgaAutoRollbackFail", "FpgaVersion", "FpgaSignVerifyPass", "FpgaSignVerifyFail",
    "BiosUpdatePending", "BiosUpdateSucceed", "BiosUpdateAborted", "BiosUpdateFail", "BiosUpdateTimeout",
    "BiosManualRollbackInitiated", "BiosRollbackSucceed", "BiosFlash0BootInit", "BiosFlash1BootInit",
    "BiosFlashSwapRunning", "BiosFlashSwapFinished", "NvramUpdatePending", "NvramUpdateSucceed",
    "NvramUpdateAborted", "NvramUpdateFail", "NvramUpdateTimeout", "NvramActivationFail",
    "BpCpldManualRollbackInitiated", "BpCpldManualRollbackSucceed", "BpCpldManualRollbackFail",
    "BpCpldUpdateSucceed", "BpCpldUpdateAborted", "BpCpldUpdateFail", "BpCpldUpdateTimeout",
    "BpCpldActivationFail", "BpCpldAutoRollbackStart", "BpCpldAutoRollbackSucceed", "BpCpldAutoRollbackFail",
    "BpCpldVersion", "BpCpldSignVerifyPass", "BpCpldSignVerifyFail",
    // clang-format on
};
static_assert(std::size(notices) == BDBUS_UPGRADE_SIGNALS);

unsigned noticed = 0;

int on_notice(sd_bus_message * /*signal*/, void * /*userdata*/, sd_bus_error * /*error*/)
{
    noticed++;
    return 0;
}

/** A connection like the library's, which the bus tells of all notices. */
sd_bus *subscribed_bus()
{
    static bool subscribed = false;
    if (!subscribed) {
        subscribed = true;
        for (const char *notice : notices) {
            sd_bus_match_signal(kept_bus(), nullptr, nullptr, upgrade.path, upgrade.name, notice, on_notice, nullptr);
        }
    }
    return kept_bus();
}

bool library_kept_call()
{
    bdbus_hpm1_upgrade_status_rec status = {};
    return bdbus_hpm1_get_upgrade_status(&status) >= 0;
}

bool bare_kept_call()
{
    call status;
    uint8_t bytes[4] = {};
    return status.invoke(subscribed_bus(), upgrade, "GetUpgradeStatus", "y", 0) &&
           sd_bus_message_read(status.reply, "yyyy", &bytes[0], &bytes[1], &bytes[2], &bytes[3]) >= 0;
}

bool library_byte()
{
    uint8_t value = 0;
    return bdbus_upgrade_in_progress(&value) >= 0;
}

bool get_byte(sd_bus *bus)
{
    const quiet_turn own;
    sd_bus_error error = {};
    uint8_t value = 0;
    const int result = sd_bus_get_property_trivial(bus, upgrade.name, upgrade.path, upgrade.name, "UpgradeInProgress",
                                                   &error, 'y', &value);
    sd_bus_error_free(&error);
    return result >= 0;
}

bool bare_byte()
{
    return get_byte(subscribed_bus());
}

bool library_bytes()
{
    uint8_t version[BDBUS_UPGRADE_VERSION_MAX];
    uint32_t length = 0;
    return bdbus_upgrade_get_version(BDBUS_UPGRADE_VERSION_BMC_FW, version, sizeof(version), &length) >= 0;
}

bool bare_bytes()
{
    const quiet_turn own;
    call get;
    const void *bytes = nullptr;
    size_t length = 0;
    uint8_t version[BDBUS_UPGRADE_VERSION_MAX];
    if (sd_bus_get_property(subscribed_bus(), upgrade.name, upgrade.path, upgrade.name, "BmcFwVersion", &get.error,
                            &get.reply, "ay") < 0 ||
        sd_bus_message_read_array(get.reply, 'y', &bytes, &length) < 0) {
        return false;
    }
    memcpy(version, bytes, std::min(length, sizeof(version)));
    return length > 0;
}

constexpr unsigned notices_at_once = 100;

bool library_notices()
{
    static bdbus_upgrade_callback_table table = {};
    table.bmc_reset = on_notice;
    bdbus_upgrade_callbacks(&table);
    bdbus_upgrade_factory_mode mode = {};
    if (bdbus_upgrade_factory_mode_setting(&mode) < 0) {
        return false;
    }
    expect_signals(notices_at_once);
    for (unsigned i = 0; i < notices_at_once; i++) {
        bdbus_upgrade_signal_process();
    }
    return true;
}

bool bare_notices()
{
    sd_bus *bus = subscribed_bus();
    call set;
    uint8_t result = 0;
    if (!set.invoke(bus, upgrade, "BmcFactoryModeNotify", "y", 0) || sd_bus_message_read(set.reply, "y", &result) < 0) {
        return false;
    }
    expect_signals(notices_at_once);
    for (unsigned i = 0; i < notices_at_once; i++) {
        const turn own;
        sd_bus_process(bus, nullptr);
    }
    return true;
}

constexpr unsigned blocks = 400;

bdbus_upgrade_agent_context *image_to_upload()
{
    static bdbus_upgrade_agent_context *context = bdbus_upgrade_agent_initialization(image_path("blocks").c_str());
    return context;
}

bool library_upload()
{
    bdbus_upgrade_agent_context *context = image_to_upload();
    context->upgrade_mask = 0x02;
    return bdbus_upgrade_agent_upgrade_stage(context) == 0;
}

/** Send a command of the upload, and look at its completion code. */
bool command(const char *member, const char *signature, uint8_t first, auto second, const uint8_t *data, size_t length)
{
    call send;
    uint8_t code = 0xFF;
    uint8_t identifier = 0;
    return send.create(subscribed_bus(), upgrade, member) &&
           sd_bus_message_append(send.request, signature, 0, first, second) >= 0 &&
           (data == nullptr || sd_bus_message_append_array(send.request, 'y', data, length) >= 0) &&
           send.send(subscribed_bus(), UINT64_MAX) && sd_bus_message_read(send.reply, "yy", &code, &identifier) >= 0 &&
           code == 0;
}

bool bare_upload()
{
    const uint8_t *data = image_to_upload()->image_data + image_prefix;
    constexpr uint32_t block = BDBUS_HPM1_BLOCK_MAX;
    if (!command("InitiateUpgradeAction", "yyy", 0x02, 2, nullptr, 0)) {
        return false;
    }
    for (uint32_t i = 0; i < blocks; i++) {
        if (!command("UploadFirmwareBlock", "yyu", static_cast<uint8_t>(i), block, data + size_t{i} * block, block)) {
            return false;
        }
    }
    return command("FinishFirmwareUpload", "yyu", 1, blocks * block, nullptr, 0);
}

constexpr row rows[] = {
    {"kept-call", "thin call, kept connection", library_kept_call, bare_kept_call, 1.0},
    {.name = "property-byte", .title = "property y", .library = library_byte, .bare = bare_byte, .budget = 1.01},
    {.name = "property-bytes", .title = "property ay", .library = library_bytes, .bare = bare_bytes, .budget = 1.01},
    {.name = "open-matches",
     .title = "opening with 80 matches",
     .library = library_byte,
     .bare = bare_byte,
     .budget = 1.02,
     .few = 0,
     .many = 1},
    {.name = "notice",
     .title = "upgrade notice",
     .library = library_notices,
     .bare = bare_notices,
     .budget = 1.02,
     .few = 2,
     .many = 6,
     .per = notices_at_once,
     .service = "signals=100"},
    {.name = "upload-block",
     .title = "upload block, by the agent",
     .library = library_upload,
     .bare = bare_upload,
     .budget = 1.0,
     .few = 1,
     .many = 3,
     .per = blocks},
};

} // namespace

const std::span<const row> upgrade_rows = rows;

} // namespace bench
