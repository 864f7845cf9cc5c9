// SPDX-License-Identifier: LGPL-2.1-or-later
// An HPM.1 image in memory. Nothing here reads outside the loaded bytes, whatever lengths they claim.
//
//   0             34        34 + n      35 + n             size - 16   size
//   | fixed header | OEM data | checksum | action records … | MD5 digest |
#pragma once

#include "upgrade_agent/digest.hpp"

#include <bdbus/upgrade_agent.h>

#include <cstdint>

namespace bdbus
{

/** Where the header's fields stand. Multi-byte numbers are least significant byte first. */
inline constexpr uint32_t header_format_version = 8;
inline constexpr uint32_t header_device_id = 9;
inline constexpr uint32_t header_manufacturer_id = 10;
inline constexpr uint32_t header_product_id = 13;
inline constexpr uint32_t header_capabilities = 19;
inline constexpr uint32_t header_components = 20;
inline constexpr uint32_t header_self_test_timeout = 21;
inline constexpr uint32_t header_rollback_timeout = 22;
inline constexpr uint32_t header_earliest_version = 24;
inline constexpr uint32_t header_firmware_version = 26;
inline constexpr uint32_t header_oem_length = 32;
inline constexpr uint32_t header_fixed_bytes = 34;

inline constexpr uint8_t capability_self_test = 0x01;
inline constexpr uint32_t vendor_header_offset = 40; // in an upload record: 6 bytes into its image data

class hpm1_image
{
public:
    /** The context's image; a null context is one without an image. */
    explicit hpm1_image(const bdbus_upgrade_agent_context *context);

    [[nodiscard]] const uint8_t *data() const { return data_; }
    [[nodiscard]] uint32_t size() const { return size_; }

    /** Whether fixed header, header checksum and digest are there: the least that the accessors below need. */
    [[nodiscard]] bool has_header() const { return size_ >= header_fixed_bytes + 1 + digest_bytes; }

    /** Whether the header ends before the digest, OEM data and checksum included. */
    [[nodiscard]] bool has_whole_header() const { return has_header() && header_bytes() <= records_end(); }

    [[nodiscard]] uint32_t header_bytes() const
    {
        return header_fixed_bytes + data_[header_oem_length] + (uint32_t{data_[header_oem_length + 1]} << 8) + 1;
    }
    [[nodiscard]] uint32_t records_end() const { return size_ - digest_bytes; }

    /** Whether the file has these bytes of the header. */
    [[nodiscard]] bool holds(uint32_t offset, uint32_t count) const { return offset + count <= size_; }

    /** A byte of the fixed header, or 0 in a file that is too short to hold it. */
    [[nodiscard]] uint8_t header_byte(uint32_t offset) const { return holds(offset, 1) ? data_[offset] : uint8_t{0}; }

private:
    const uint8_t *data_;
    uint32_t size_;
};

/** One action record, from its first byte to the digest. */
class action_record
{
public:
    static constexpr uint32_t short_bytes = 3;   // backup and prepare: type, components, checksum
    static constexpr uint32_t upload_bytes = 34; // upload: the same, version, description, length; then the image data
    static constexpr uint32_t version_offset = 3;
    static constexpr uint32_t length_offset = 30; // least significant byte first

    action_record() = default;
    action_record(const uint8_t *bytes, uint32_t available) : bytes_(bytes), available_(available) {}

    [[nodiscard]] uint8_t type() const { return bytes_[0]; }
    [[nodiscard]] uint8_t components() const { return bytes_[1]; }
    [[nodiscard]] uint8_t component() const { return bdbus_hpm1_component_mask_to_id_conversion(components()); }
    [[nodiscard]] const uint8_t *start() const { return bytes_; }

    /** Whether the first bytes, up to the image data of an upload record, lie before the digest. */
    [[nodiscard]] bool has_fixed_part() const
    {
        return available_ >= short_bytes && (type() != BDBUS_HPM1_ACTION_UPLOAD || available_ >= upload_bytes);
    }

    /** Of a record with its fixed part: whether the rest of it lies before the digest, too. */
    [[nodiscard]] bool is_whole() const
    {
        return type() != BDBUS_HPM1_ACTION_UPLOAD || image_length() <= available_ - upload_bytes;
    }

    /** Bytes to the next record, of a whole record. */
    [[nodiscard]] uint32_t size() const
    {
        return type() == BDBUS_HPM1_ACTION_UPLOAD ? upload_bytes + image_length() : short_bytes;
    }

    /** Of an upload record. */
    [[nodiscard]] const uint8_t *version() const { return bytes_ + version_offset; }
    [[nodiscard]] const uint8_t *image() const { return bytes_ + upload_bytes; }
    [[nodiscard]] uint32_t image_length() const
    {
        const uint8_t *length = bytes_ + length_offset;
        return uint32_t{length[0]} | uint32_t{length[1]} << 8 | uint32_t{length[2]} << 16 | uint32_t{length[3]} << 24;
    }

private:
    const uint8_t *bytes_ = nullptr;
    uint32_t available_ = 0;
};

/** Whether the checksum of a record with its fixed part holds: over 3 bytes or, for an upload only, over 34. */
bool action_record_sums_up(const uint8_t *record);

/** Check a record with its fixed part, given by its first byte. @return 0, or -1 after a line in the log. */
int32_t bdbus_upgrade_agent_check_action_record(const uint8_t *record);

/** Log that an image is too short for what it claims. */
void log_truncated();

/** The action records, one after another, as far as they reach before the digest. */
class record_walk
{
public:
    /** Of an image with a whole header. */
    explicit record_walk(const hpm1_image &image) : image_(image), offset_(image.header_bytes()) {}

    [[nodiscard]] bool at_end() const { return offset_ >= image_.records_end(); }
    [[nodiscard]] action_record record() const
    {
        return {image_.data() + offset_, static_cast<uint32_t>(image_.records_end() - offset_)};
    }

    /** Go on to the next record; this one is whole. */
    void advance() { offset_ += record().size(); }

private:
    const hpm1_image &image_;
    uint64_t offset_;
};

/**
 * Hand out the records of a context's image, each after its checks.
 *
 * @param act takes a record; anything but 0 ends the walk. A record of unknown type must.
 * @return 0, what `act` ended with, or -1 after a line in the log for an image that breaks off and for a bad record.
 */
template <typename Act>
int32_t for_each_record(const bdbus_upgrade_agent_context *context, Act act)
{
    const hpm1_image image(context);
    if (!image.has_whole_header()) {
        log_truncated();
        return -1;
    }
    for (record_walk walk(image); !walk.at_end(); walk.advance()) {
        const action_record record = walk.record();
        if (record.has_fixed_part() && bdbus_upgrade_agent_check_action_record(record.start()) != 0) {
            return -1;
        }
        if (!record.has_fixed_part() || !record.is_whole()) {
            log_truncated();
            return -1;
        }
        if (const int32_t result = act(record); result != 0) {
            return result;
        }
    }
    return 0;
}

} // namespace bdbus
