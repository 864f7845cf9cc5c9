// SPDX-License-Identifier: LGPL-2.1-or-later
// What the agent finds out before anything is written: what the target holds, whether the image is for this controller,
// and which components differ.
#include "bus/guard.hpp"
#include "upgrade_agent/commands.hpp"
#include "upgrade_agent/image.hpp"
#include "upgrade_agent/state.hpp"

#include <bdbus/config.h>

#include <syslog.h>

#include <cstring>

namespace bdbus
{

namespace
{

/** The whole byte that says "no upgrade now"; its bits alone do not. */
constexpr uint8_t upgrade_not_desirable = 1;

uint8_t general_byte(const bdbus_hpm1_component_props_rec &properties)
{
    return properties.data[0];
}

int32_t query(bdbus_hpm1_component_props_rec &properties, uint8_t selector)
{
    properties.selector = selector;
    return bdbus_upgrade_agent_get_component_properties(&properties);
}

/** The version of a copy that only some components have: 0xFF without one, zero when it cannot be read. */
void query_copy_version(bdbus_hpm1_component_props_rec &properties, uint8_t selector, bool supported,
                        uint8_t (&version)[version_bytes])
{
    if (!supported) {
        memset(version, 0xFF, sizeof(version));
    } else if (query(properties, selector) == 0) {
        memcpy(version, properties.data, sizeof(version));
    }
}

/** Fill one entry of the component table. On failure it keeps what was set so far. */
int32_t check_component(uint8_t id)
{
    upgrade_agent_component &entry = component_table[id];
    entry = {};
    entry.component_id = id;
    bdbus_hpm1_component_props_rec properties = {};
    properties.component_id = id;

    if (const int32_t result = query(properties, BDBUS_HPM1_PROPERTY_GENERAL); result != 0) {
        return result;
    }
    entry.rollback_supported = general_byte(properties) & property_rollback;
    entry.deferred_supported = general_byte(properties) & property_deferred;
    entry.activation_followup = general_byte(properties) & property_followup;

    if (const int32_t result = query(properties, BDBUS_HPM1_PROPERTY_DESCRIPTION); result != 0) {
        return result;
    }
    memcpy(entry.description, properties.data, sizeof(entry.description));
    entry.description[sizeof(entry.description) - 1] = '\0';

    if (const int32_t result = query(properties, BDBUS_HPM1_PROPERTY_CURRENT_VERSION); result != 0) {
        return result;
    }
    memcpy(entry.current_version, properties.data, sizeof(entry.current_version));

    query_copy_version(properties, BDBUS_HPM1_PROPERTY_ROLLBACK_VERSION, entry.rollback_supported != 0,
                       entry.rollback_version);
    query_copy_version(properties, BDBUS_HPM1_PROPERTY_DEFERRED_VERSION, entry.deferred_supported != 0,
                       entry.deferred_version);
    return 0;
}

/** Read what identifies the controller into the context, all of it or nothing. @return 0 or a configuration status. */
int32_t read_identity(bdbus_upgrade_agent_context &context)
{
    static constexpr const char *keys[] = {"Generic.Manufacturer_Id", "Generic.Product_Id", "Generic.Device_Id",
                                           "Firmware.Major", "Firmware.Minor"};
    uint32_t values[5] = {};
    for (int i = 0; i < 5; i++) {
        if (const int32_t status = bdbus_config_get_unsigned(keys[i], &values[i]); status != 0) {
            return status;
        }
    }
    const auto [manufacturer, product, device, major, minor] = values;
    const auto byte = [](uint32_t value, int shift) {
        return static_cast<uint8_t>(value >> shift);
    };
    context.manufacturer_id[0] = byte(manufacturer, 0);
    context.manufacturer_id[1] = byte(manufacturer, 8);
    context.manufacturer_id[2] = byte(manufacturer, 16);
    context.product_id[0] = byte(product, 8);
    context.product_id[1] = byte(product, 0);
    context.device_id = byte(device, 0);
    context.fw_major = byte(major, 0);
    context.fw_minor = byte(minor, 0);
    return 0;
}

void log_identity(const bdbus_upgrade_agent_context &context)
{
    const uint8_t *header = context.image_data;
    const uint8_t *product = context.product_id;
    const uint8_t *manufacturer = context.manufacturer_id;
    const uint8_t *image_product = header + header_product_id;
    const uint8_t *image_manufacturer = header + header_manufacturer_id;
    const uint8_t *earliest = header + header_earliest_version;
    syslog(LOG_INFO, "Image info:\n");
    syslog(LOG_INFO, "  DUT device ID         : 0x%X\n", context.device_id);
    syslog(LOG_INFO, "  Image device ID       : 0x%X\n", header[header_device_id]);
    syslog(LOG_INFO, "  DUT product ID        : 0x%X%X\n", product[0], product[1]);
    syslog(LOG_INFO, "  Image product ID      : 0x%X%X\n", image_product[0], image_product[1]);
    syslog(LOG_INFO, "  DUT mfg ID            : 0x%X%X%X\n", manufacturer[0], manufacturer[1], manufacturer[2]);
    syslog(LOG_INFO, "  Image manufacturer ID : 0x%X%X%X\n", image_manufacturer[0], image_manufacturer[1],
           image_manufacturer[2]);
    syslog(LOG_INFO, "  DUT FW version        : %d.%X\n", context.fw_major, context.fw_minor);
    syslog(LOG_INFO, "  Image earl. comp. ver.: %d.%X\n", earliest[0], earliest[1]);
}

/** Whether the image is for this controller. */
int32_t compare_identity(const bdbus_upgrade_agent_context &context)
{
    const uint8_t *header = context.image_data;
    if (header[header_device_id] != context.device_id) {
        syslog(LOG_ERR, "Invalid device ID\n");
        return -3;
    }
    if (memcmp(header + header_product_id, context.product_id, sizeof(context.product_id)) != 0) {
        syslog(LOG_ERR, "Invalid product ID\n");
        return -2;
    }
    if (memcmp(header + header_manufacturer_id, context.manufacturer_id, sizeof(context.manufacturer_id)) != 0) {
        syslog(LOG_ERR, "Invalid manufacturer ID\n");
        return -1;
    }
    return 0;
}

/** Whether the controller's firmware is new enough for the image. */
int32_t compare_firmware(const bdbus_upgrade_agent_context &context)
{
    const uint8_t *earliest = context.image_data + header_earliest_version;
    const uint8_t firmware[] = {context.fw_major, context.fw_minor};
    if (bdbus_upgrade_version_compare(earliest, firmware) != 0) {
        syslog(LOG_ERR, "FW version %d.%X is lower than earliest compatible version %d.%X\n", firmware[0], firmware[1],
               earliest[0], earliest[1]);
        return BDBUS_UPGRADE_AGENT_FIRMWARE_TOO_OLD;
    }
    return 0;
}

/** Whether the target can take the image at all; its capabilities go into the context. */
int32_t compare_capabilities(bdbus_upgrade_agent_context &context)
{
    bdbus_hpm1_target_caps_rec caps = {};
    if (const int32_t result = bdbus_upgrade_agent_get_target_caps(&caps); result != 0) {
        return result;
    }
    context.target_caps = caps;
    if ((context.image_data[header_components] & ~caps.components_present) != 0) {
        syslog(LOG_ERR, "Component(s) in image file are not supported by BMC\n");
        return -4;
    }
    if (caps.global_capabilities == upgrade_not_desirable) {
        syslog(LOG_ERR, "Upgrade not desirable right now\n");
        return -5;
    }
    return 0;
}

/** Keep the general properties of the image's components. @return the last query's result; an earlier failure is only
 * logged. */
int32_t keep_general_properties(bdbus_upgrade_agent_context &context)
{
    int32_t result = 0;
    for (uint8_t id = 0; id < BDBUS_UPGRADE_AGENT_COMPONENTS; id++) {
        context.component_props[id] = {};
        if ((context.image_data[header_components] >> id & 1) == 0) {
            continue;
        }
        bdbus_hpm1_component_props_rec properties = {};
        properties.component_id = id;
        result = query(properties, BDBUS_HPM1_PROPERTY_GENERAL);
        if (result == 0) {
            context.component_props[id] = properties;
        }
    }
    return result;
}

/** Whether a component's image is to be uploaded. */
bool differs(const bdbus_upgrade_agent_context &context, const upgrade_agent_component &entry)
{
    const auto is_image = [&entry](const uint8_t *version) {
        return memcmp(version, entry.image_version, version_bytes) == 0;
    };
    return (context.options & BDBUS_UPGRADE_AGENT_FORCE) != 0 || !is_image(entry.current_version) ||
           (entry.rollback_supported != 0 && !is_image(entry.rollback_version));
}

/** Check one action against the target, and mark its component when it is to be upgraded. */
int32_t check_action(bdbus_upgrade_agent_context &context, const action_record &record)
{
    if (record.components() != 0 && context.target_caps.components_present == 0) {
        syslog(LOG_ERR, "Invalid action record. At least one affected component not supported\n");
        return -1;
    }
    const uint8_t id = record.component();
    const uint8_t general = general_byte(context.component_props[id]);
    upgrade_agent_component &entry = component_table[id];
    switch (record.type()) {
    case BDBUS_HPM1_ACTION_BACKUP:
        if ((general & property_rollback) == 0) {
            syslog(LOG_ERR, "Component %d, %s: no backup support (found action record invalid)\n", id,
                   entry.description);
            return -2;
        }
        return 0;
    case BDBUS_HPM1_ACTION_PREPARE:
        if ((general & property_preparation) == 0) {
            syslog(LOG_ERR, "Component %d, %s: no prepare support (found action record invalid)\n", id,
                   entry.description);
            return -3;
        }
        return 0;
    case BDBUS_HPM1_ACTION_UPLOAD:
        memcpy(entry.image_version, record.version(), sizeof(entry.image_version));
        if (differs(context, entry)) {
            context.upgrade_mask = static_cast<uint8_t>(context.upgrade_mask | 1U << id);
        }
        return 0;
    default:
        syslog(LOG_ERR, "Invalid action type - can not continue\n");
        return -4;
    }
}

} // namespace

} // namespace bdbus

int32_t bdbus_upgrade_agent_target_check(void)
{
    const bdbus::calls_in_a_row stage;
    bdbus_hpm1_target_caps_rec caps = {};
    if (const int32_t result = bdbus::bdbus_upgrade_agent_get_target_caps(&caps); result != 0) {
        syslog(LOG_ERR, "HW may not support HPM.1 standard\n");
        return result;
    }
    for (uint8_t id = 0; id < BDBUS_UPGRADE_AGENT_COMPONENTS; id++) {
        if ((caps.components_present >> id & 1) == 0) {
            continue;
        }
        if (const int32_t result = bdbus::check_component(id); result != 0) {
            return result;
        }
    }
    return 0;
}

int32_t bdbus_upgrade_agent_preparation_stage(bdbus_upgrade_agent_context *context)
{
    if (!bdbus::hpm1_image(context).has_header()) {
        bdbus::log_truncated();
        return -1;
    }
    const bdbus::calls_in_a_row stage;
    if (const int32_t status = bdbus::read_identity(*context); status != 0) {
        return status;
    }
    if ((context->options & BDBUS_UPGRADE_AGENT_VERBOSE) != 0) {
        bdbus::log_identity(*context);
    }
    if ((context->options & BDBUS_UPGRADE_AGENT_SKIP_IDENTITY) == 0) {
        if (const int32_t result = bdbus::compare_identity(*context); result != 0) {
            return result;
        }
    }
    if (const int32_t result = bdbus::compare_firmware(*context); result != 0) {
        return result;
    }
    if (const int32_t result = bdbus::compare_capabilities(*context); result != 0) {
        return result;
    }
    return bdbus::keep_general_properties(*context);
}

int32_t bdbus_upgrade_agent_pre_upgrade_check(bdbus_upgrade_agent_context *context)
{
    const bdbus::calls_in_a_row stage;
    return bdbus::for_each_record(
        context, [context](const bdbus::action_record &record) { return bdbus::check_action(*context, record); });
}
