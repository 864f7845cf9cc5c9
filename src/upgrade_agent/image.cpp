// SPDX-License-Identifier: LGPL-2.1-or-later
// Reading an HPM.1 image: its integrity, its header, its action records.
#include "upgrade_agent/image.hpp"

#include <wolfssl/options.h>
#include <syslog.h>
#include <wolfssl/openssl/md5.h>

#include <cstring>

namespace bdbus
{

hpm1_image::hpm1_image(const bdbus_upgrade_agent_context *context)
    : data_(context != nullptr ? context->image_data : nullptr), size_(data_ != nullptr ? context->image_size : 0)
{
}

namespace
{

bool sums_to_zero(const uint8_t *bytes, uint32_t length)
{
    return bdbus_hpm1_checksum(bytes, static_cast<int32_t>(length)) == 0;
}

} // namespace

bool action_record::checksum_holds() const
{
    return sums_to_zero(bytes_, short_bytes) ||
           (type() == BDBUS_HPM1_ACTION_UPLOAD && sums_to_zero(bytes_, upload_bytes));
}

bool action_record::is_whole() const
{
    return type() != BDBUS_HPM1_ACTION_UPLOAD || image_length() <= available_ - upload_bytes;
}

record_walk::record_walk(const bdbus_upgrade_agent_context *context)
    : image_(context), offset_(image_.has_whole_header() ? image_.header_bytes() : 0)
{
}

walk_step record_walk::next()
{
    if (offset_ == 0) {
        return walk_step::truncated;
    }
    if (offset_ >= image_.records_end()) {
        return walk_step::end;
    }
    record_ = action_record(image_.data() + offset_, static_cast<uint32_t>(image_.records_end() - offset_));
    if (!record_.has_fixed_part()) {
        return walk_step::truncated;
    }
    if (!record_.checksum_holds()) {
        return walk_step::bad_checksum;
    }
    if (!record_.is_whole()) {
        return walk_step::truncated;
    }
    offset_ += record_.size();
    return walk_step::record;
}

void log_truncated()
{
    syslog(LOG_ERR, "Truncated HPM.1 image\n");
}

int32_t bdbus_upgrade_agent_check_action_record(walk_step stopped)
{
    switch (stopped) {
    case walk_step::truncated:
        log_truncated();
        return -1;
    case walk_step::bad_checksum:
        syslog(LOG_ERR, "Invalid HPM.1 action record checksum\n");
        return -1;
    default:
        return 0;
    }
}

namespace
{

/** Whether the lengths of all records lie inside the image; what else is wrong with a record is for those who act on
 * it. */
bool lengths_hold(const bdbus_upgrade_agent_context *context)
{
    record_walk walk(context);
    walk_step step = walk.next();
    while (step == walk_step::record && walk.record().type() <= BDBUS_HPM1_ACTION_UPLOAD) {
        step = walk.next();
    }
    return step != walk_step::truncated;
}

/** Compute the MD5 digest (RFC 1321) of bytes. @return 0, or the integrity check's code after its line. */
int32_t compute_digest(const uint8_t *bytes, uint32_t length, uint8_t (&digest)[digest_bytes])
{
    WOLFSSL_MD5_CTX md5;
    if (wolfSSL_MD5_Init(&md5) != 1) {
        syslog(LOG_ERR, "MD5 context initialization fail\n");
        return -1;
    }
    if (wolfSSL_MD5_Update(&md5, bytes, length) != 1) {
        syslog(LOG_ERR, "MD5 data chunk hash fail\n");
        return -2;
    }
    if (wolfSSL_MD5_Final(digest, &md5) != 1) {
        syslog(LOG_ERR, "MD5 message digest finalization fail\n");
        return -3;
    }
    return 0;
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
    if (!bdbus::lengths_hold(context)) {
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
    const uint8_t *header = image.data();
    // A line is left out when the file ends before its last byte.
    const auto holds = [&image](uint32_t offset, uint32_t count) {
        return offset + count <= image.size();
    };
    syslog(LOG_NOTICE, "Image information:\n");
    if (holds(bdbus::header_device_id, 1)) {
        syslog(LOG_NOTICE, "  Device ID         : 0x%x\n", header[9]);
    }
    if (holds(bdbus::header_product_id, 2)) {
        syslog(LOG_NOTICE, "  Product ID        : 0x%02X%02X\n", header[14], header[13]);
    }
    if (holds(bdbus::header_manufacturer_id, 3)) {
        syslog(LOG_NOTICE, "  Manufacturer ID   : 0x%02X%02X%02X\n", header[12], header[11], header[10]);
    }
    if (holds(bdbus::header_components, 1)) {
        syslog(LOG_NOTICE, "  Component Bit Mask: 0x%02X\n", header[20]);
    }
    if (holds(bdbus::header_earliest_version, 2)) {
        syslog(LOG_NOTICE, "  Compatible version: %d.%02X\n", header[24], header[25]);
    }
    if (holds(bdbus::header_firmware_version, 6)) {
        syslog(LOG_NOTICE, "  Firmware version  : %d.%02X.%02X%02X%02X%02X\n", header[26], header[27], header[28],
               header[29], header[30], header[31]);
    }
    syslog(LOG_NOTICE, "\n");
    return image.data();
}

const uint8_t *bdbus_upgrade_agent_get_brs_header(const bdbus_upgrade_agent_context *context)
{
    bdbus::record_walk walk(context);
    const uint8_t *found = nullptr;
    bdbus::walk_step step = walk.next();
    for (; step == bdbus::walk_step::record; step = walk.next()) {
        const bdbus::action_record &record = walk.record();
        if (record.type() > BDBUS_HPM1_ACTION_UPLOAD) {
            return nullptr;
        }
        if (record.type() == BDBUS_HPM1_ACTION_UPLOAD) {
            found = record.start() + bdbus::vendor_header_offset;
        }
    }
    return bdbus::bdbus_upgrade_agent_check_action_record(step) == 0 ? found : nullptr;
}
