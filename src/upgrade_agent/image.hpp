// SPDX-License-Identifier: LGPL-2.1-or-later
// An HPM.1 image in memory. Nothing here reads outside the loaded bytes, whatever lengths they claim.
//
//   0             34        34 + n      35 + n             size - 16   size
//   | fixed header | OEM data | checksum | action records … | MD5 digest |
#pragma once

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
inline constexpr uint32_t digest_bytes = 16;
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

    /** A byte of the fixed header, or 0 in a file that is too short to hold it. */
    [[nodiscard]] uint8_t header_byte(uint32_t offset) const { return offset < size_ ? data_[offset] : uint8_t{0}; }

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

    action_record() = default;
    action_record(const uint8_t *bytes, uint32_t available) : bytes_(bytes), available_(available) {}

    [[nodiscard]] uint8_t type() const { return bytes_[0]; }
    [[nodiscard]] uint8_t components() const { return bytes_[1]; }
    [[nodiscard]] uint8_t component() const { return bdbus_hpm1_component_mask_to_id_conversion(components()); }
    [[nodiscard]] const uint8_t *start() const { return bytes_; }

    /** Of an upload record. */
    [[nodiscard]] const uint8_t *version() const { return bytes_ + 3; }
    [[nodiscard]] const uint8_t *image() const { return bytes_ + upload_bytes; }
    [[nodiscard]] uint32_t image_length() const
    {
        return uint32_t{bytes_[30]} | uint32_t{bytes_[31]} << 8 | uint32_t{bytes_[32]} << 16 |
               uint32_t{bytes_[33]} << 24;
    }

    /** Whether what comes before the image data lies before the digest. */
    [[nodiscard]] bool has_fixed_part() const
    {
        return available_ >= short_bytes && (type() != BDBUS_HPM1_ACTION_UPLOAD || available_ >= upload_bytes);
    }

    /** Of a record with its fixed part: whether the checksum holds, over 3 bytes or, for an upload only, over 34. */
    [[nodiscard]] bool checksum_holds() const;

    /** Whether the whole record lies before the digest. */
    [[nodiscard]] bool is_whole() const;

    /** Bytes to the next record, of a whole record. */
    [[nodiscard]] uint32_t size() const
    {
        return type() == BDBUS_HPM1_ACTION_UPLOAD ? upload_bytes + image_length() : short_bytes;
    }

private:
    const uint8_t *bytes_ = nullptr;
    uint32_t available_ = 0;
};

/** What a step of the walk came to. */
enum class walk_step : uint8_t { record, end, truncated, bad_checksum };

/** The walk over the action records. A record of unknown type is handed out; the walker must end there. */
class record_walk
{
public:
    explicit record_walk(const bdbus_upgrade_agent_context *context);

    walk_step next();
    [[nodiscard]] const action_record &record() const { return record_; }

private:
    hpm1_image image_;
    uint64_t offset_;
    action_record record_;
};

/** Log why a walk stopped. @return 0 at the end of the records, else -1. */
int32_t bdbus_upgrade_agent_check_action_record(walk_step stopped);

/** Log that an image is too short for what it claims. */
void log_truncated();

} // namespace bdbus
