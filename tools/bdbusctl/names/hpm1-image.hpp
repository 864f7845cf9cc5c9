// SPDX-License-Identifier: LGPL-2.1-or-later
// The HPM.1 image file: reading it without trusting it, and writing it.
//
//   header (34 bytes, OEM data, checksum) | action records | MD5 of all before
#pragma once

#include "names/hpm1-names.hpp"

#include <array>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace bdbusctl::hpm1_image
{

inline constexpr size_t digest_bytes = 16;
inline constexpr size_t description_bytes = 21;
/** A bit of the header's capabilities. */
inline constexpr uint8_t self_test_follows = 0x01;

/** In the order of the file; the header checksum follows the OEM data. */
struct header {
    uint8_t format_version = 0;
    uint8_t device_id = 0;
    uint32_t manufacturer_id = 0;
    uint16_t product_id = 0;
    uint32_t time = 0; // seconds since 1970
    uint8_t capabilities = 0;
    uint8_t components = 0;
    uint8_t self_test_timeout = 0; // timeouts in units of hpm1_timeout_unit_s
    uint8_t rollback_timeout = 0;
    uint8_t inaccessibility_timeout = 0;
    std::array<uint8_t, 2> earliest{};
    hpm1_version firmware{};
    std::vector<uint8_t> oem_data;
};

struct record {
    size_t offset = 0;
    uint8_t action = 0;
    uint8_t components = 0;
    /** Of an upload record only. */
    hpm1_version firmware{};
    std::string description;
    size_t data_offset = 0;
    uint32_t length = 0;

    bool is_upload() const;
    /** The component that an upload is for. */
    uint8_t component() const;
};

struct fault {
    size_t offset;
    std::string text;
};

struct image {
    header head;
    std::vector<record> records;
    /**
     * What is wrong, in the order of the file. Reading stops at a length that cannot be followed; then `complete` is
     * false.
     */
    std::vector<fault> faults;
    bool complete = false;
};

/** Never reads outside the bytes, whatever they contain. Does not check the digest, which takes long for a large file.
 */
image read(std::span<const uint8_t> file);

/** Whether the file ends with the MD5 digest of all before. */
bool digest_holds(std::span<const uint8_t> file);

struct payload {
    uint8_t component = 0;
    hpm1_version firmware{};
    std::string description;
    std::string data;
};

/**
 * An image with the header as given (but for the components, which are those of the payloads), a backup and a
 * preparation where their masks are not 0, then an upload for each payload.
 */
std::string build(header head, uint8_t backup, uint8_t prepare, const std::vector<payload> &payloads);

} // namespace bdbusctl::hpm1_image
