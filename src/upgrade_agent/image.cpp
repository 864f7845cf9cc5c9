// SPDX-License-Identifier: LGPL-2.1-or-later
// Reading an HPM.1 image: its integrity, its header, its action records.
#include "upgrade_agent/image.hpp"

#include <syslog.h>

#include <cstring>

namespace bdbus
{

hpm1_image::hpm1_image(const bdbus_upgrade_agent_context *context)
    : data_(context != nullptr ? context->image_data : nullptr), size_(data_ != nullptr ? context->image_size : 0)
{
}

void log_truncated()
{
    syslog(LOG_ERR, "Truncated HPM.1 image\n");
}

bool action_record_sums_up(const uint8_t *record)
{
    return bdbus_hpm1_checksum(record, action_record::short_bytes) == 0 ||
           (record[0] == BDBUS_HPM1_ACTION_UPLOAD && bdbus_hpm1_checksum(record, action_record::upload_bytes) == 0);
}

int32_t bdbus_upgrade_agent_check_action_record(const uint8_t *record)
{
    if (action_record_sums_up(record)) {
        return 0;
    }
    syslog(LOG_ERR, "Invalid HPM.1 action record checksum\n");
    return -1;
}

namespace
{

/**
 * Whether the lengths of all records lie inside the image. What else is wrong with a record, and ends the walk here,
 * is for those who act on it.
 */
bool lengths_hold(const hpm1_image &image)
{
    for (record_walk walk(image); !walk.at_end(); walk.advance()) {
        const action_record record = walk.record();
        if (!record.has_fixed_part()) {
            return false;
        }
        if (!action_record_sums_up(record.start())) {
            return true;
        }
        if (!record.is_whole()) {
            return false;
        }
        if (record.type() > BDBUS_HPM1_ACTION_UPLOAD) {
            return true;
        }
    }
    return true;
}

/** Log what the header says; a line is left out when the file ends before its last byte. */
void log_header(const hpm1_image &image)
{
    const auto at = [&image](uint32_t offset) -> int {
        return image.header_byte(offset);
    };
    syslog(LOG_NOTICE, "Image information:\n");
    if (image.holds(header_device_id, 1)) {
        syslog(LOG_NOTICE, "  Device ID         : 0x%x\n", at(header_device_id));
    }
    if (image.holds(header_product_id, 2)) {
        syslog(LOG_NOTICE, "  Product ID        : 0x%02X%02X\n", at(header_product_id + 1), at(header_product_id));
    }
    if (image.holds(header_manufacturer_id, 3)) {
        syslog(LOG_NOTICE, "  Manufacturer ID   : 0x%02X%02X%02X\n", at(header_manufacturer_id + 2),
               at(header_manufacturer_id + 1), at(header_manufacturer_id));
    }
    if (image.holds(header_components, 1)) {
        syslog(LOG_NOTICE, "  Component Bit Mask: 0x%02X\n", at(header_components));
    }
    if (image.holds(header_earliest_version, 2)) {
        syslog(LOG_NOTICE, "  Compatible version: %d.%02X\n", at(header_earliest_version),
               at(header_earliest_version + 1));
    }
    if (constexpr uint32_t version = header_firmware_version; image.holds(version, 6)) {
        syslog(LOG_NOTICE, "  Firmware version  : %d.%02X.%02X%02X%02X%02X\n", at(version), at(version + 1),
               at(version + 2), at(version + 3), at(version + 4), at(version + 5));
    }
    syslog(LOG_NOTICE, "\n");
}

} // namespace

} // namespace bdbus

int32_t bdbus_upgrade_agent_validate_image_integrity(bdbus_upgrade_agent_context *context)
{
    const bdbus::hpm1_image image(context);
    if (!image.has_header()) {
        bdbus::log_truncated();
        return -8;
    }
    uint8_t digest[bdbus::digest_bytes] = {};
    const int32_t computed = bdbus::compute_digest(image.data(), image.records_end(), digest);
    if (computed != 0) {
        return computed;
    }
    if (memcmp(digest, image.data() + image.records_end(), sizeof(digest)) != 0) {
        syslog(LOG_ERR, "Invalid MD5 signature\n");
        return -4;
    }
    if (memcmp(image.data(), "PICMGFWU", 8) != 0) {
        syslog(LOG_ERR, "Invalid image signature\n");
        return -5;
    }
    if (const uint8_t version = image.header_byte(bdbus::header_format_version); version != 0) {
        syslog(LOG_ERR, "Invalid image header version 0x%X\n", version);
        return -6;
    }
    if (!image.has_whole_header()) {
        bdbus::log_truncated();
        return -8;
    }
    const uint8_t sum = bdbus_hpm1_checksum(image.data(), static_cast<int32_t>(image.header_bytes()));
    if (sum != 0) {
        syslog(LOG_ERR, "Invalid HPM.1 image header checksum 0x%X\n", sum);
        return -7;
    }
    if (!bdbus::lengths_hold(image)) {
        bdbus::log_truncated();
        return -8;
    }
    return 0;
}

const uint8_t *bdbus_upgrade_agent_get_hpm1_header(const bdbus_upgrade_agent_context *context)
{
    const bdbus::hpm1_image image(context);
    if (image.data() == nullptr || (context->options & BDBUS_UPGRADE_AGENT_VERBOSE) == 0) {
        return image.data();
    }
    bdbus::log_header(image);
    return image.data();
}

const uint8_t *bdbus_upgrade_agent_get_brs_header(const bdbus_upgrade_agent_context *context)
{
    const uint8_t *found = nullptr;
    const int32_t result = bdbus::for_each_record(context, [&found](const bdbus::action_record &record) {
        if (record.type() == BDBUS_HPM1_ACTION_UPLOAD) {
            found = record.start() + bdbus::vendor_header_offset;
        }
        return record.type() > BDBUS_HPM1_ACTION_UPLOAD ? -1 : 0;
    });
    return result == 0 ? found : nullptr;
}
