// SPDX-License-Identifier: LGPL-2.1-or-later
#include "names/hpm1-image.hpp"

#include "frame/text.hpp"

#include <bdbus/hpm1.h>

#include <wolfssl/options.h>
#include <wolfssl/wolfcrypt/hash.h>

#include <algorithm>
#include <optional>
#include <stdexcept>

namespace bdbusctl::hpm1_image
{

namespace
{

using bytes = std::span<const uint8_t>;

constexpr std::string_view signature = "PICMGFWU";
constexpr size_t fixed_header_bytes = 34;
constexpr size_t short_record_bytes = 3;
constexpr size_t upload_record_bytes = 34;

uint8_t sum_of(bytes block)
{
    uint8_t sum = 0;
    for (const uint8_t byte : block) {
        sum = static_cast<uint8_t>(sum + byte);
    }
    return sum;
}

std::array<uint8_t, digest_bytes> md5(std::span<const uint8_t> block)
{
    std::array<uint8_t, digest_bytes> digest{};
    if (wc_Md5Hash(block.data(), static_cast<word32>(block.size()), digest.data()) != 0) {
        throw std::runtime_error("cannot compute the MD5 digest");
    }
    return digest;
}

/** Takes numbers off the front of bytes whose length was checked before. */
class cursor
{
public:
    explicit cursor(bytes from) : rest_(from) {}

    bytes take(size_t count)
    {
        const bytes taken = rest_.first(count);
        rest_ = rest_.subspan(count);
        return taken;
    }
    uint8_t byte() { return take(1)[0]; }
    uint32_t little_endian(size_t count)
    {
        uint32_t number = 0;
        const bytes taken = take(count);
        for (size_t index = count; index-- > 0;) {
            number = number << 8 | taken[index];
        }
        return number;
    }
    template <size_t size>
    std::array<uint8_t, size> array()
    {
        std::array<uint8_t, size> copied;
        std::copy_n(take(size).begin(), size, copied.begin());
        return copied;
    }

private:
    bytes rest_;
};

class reader
{
public:
    explicit reader(bytes file) : file_(file) {}

    image run()
    {
        if (const auto records = read_header()) {
            result_.complete = read_records(*records);
        }
        return std::move(result_);
    }

private:
    void fault_at(size_t offset, std::string text) { result_.faults.push_back({offset, std::move(text)}); }

    size_t end_of_records() const { return file_.size() - digest_bytes; }

    // The offset of the first record; none when there is no header to follow.
    std::optional<size_t> read_header();
    bool read_records(size_t offset);
    // The bytes that the record takes; 0 when it cannot be followed.
    size_t read_record(size_t offset);

    bytes file_;
    image result_;
};

std::optional<size_t> reader::read_header()
{
    if (!std::equal(signature.begin(), signature.end(), file_.begin(),
                    file_.begin() + static_cast<ptrdiff_t>(std::min(file_.size(), signature.size())))) {
        fault_at(0, "no HPM.1 signature");
        return {};
    }
    if (file_.size() < fixed_header_bytes + 1 + digest_bytes) {
        fault_at(file_.size(), "the file ends before its header does");
        return {};
    }
    cursor from(file_.subspan(signature.size()));
    header &head = result_.head;
    head.format_version = from.byte();
    head.device_id = from.byte();
    head.manufacturer_id = from.little_endian(3);
    const auto product = from.array<2>();
    head.product_id = static_cast<uint16_t>(product[0] << 8 | product[1]);
    head.time = from.little_endian(4);
    head.capabilities = from.byte();
    head.components = from.byte();
    head.self_test_timeout = from.byte();
    head.rollback_timeout = from.byte();
    head.inaccessibility_timeout = from.byte();
    head.earliest = from.array<2>();
    head.firmware = from.array<6>();
    const size_t oem_bytes = from.little_endian(2);

    if (head.format_version != 0) {
        fault_at(signature.size(), format("header format version is %u, not 0", head.format_version));
    }
    const size_t header_bytes = fixed_header_bytes + oem_bytes + 1;
    if (header_bytes > end_of_records()) {
        fault_at(fixed_header_bytes - 2, format("%zu bytes of OEM data reach past the end of the file", oem_bytes));
        return {};
    }
    const bytes oem_data = from.take(oem_bytes);
    head.oem_data.assign(oem_data.begin(), oem_data.end());
    if (sum_of(file_.first(header_bytes)) != 0) {
        fault_at(header_bytes - 1, "wrong header checksum");
    }
    return header_bytes;
}

bool reader::read_records(size_t offset)
{
    while (offset < end_of_records()) {
        const size_t taken = read_record(offset);
        if (taken == 0) {
            return false;
        }
        offset += taken;
    }
    return true;
}

size_t reader::read_record(size_t offset)
{
    const bytes room = file_.first(end_of_records()).subspan(offset);
    if (room.size() < short_record_bytes) {
        fault_at(offset, "the file ends inside an action record");
        return 0;
    }
    cursor from(room);
    record found;
    found.offset = offset;
    found.action = from.byte();
    found.components = from.byte();
    from.byte();
    const bool short_sum_holds = sum_of(room.first(short_record_bytes)) == 0;
    if (!found.is_upload()) {
        if (!short_sum_holds) {
            fault_at(offset, "wrong checksum of the action record");
        }
        if (found.action > BDBUS_HPM1_ACTION_UPLOAD) {
            fault_at(offset, format("unknown action %u", found.action));
            return 0;
        }
        result_.records.push_back(std::move(found));
        return short_record_bytes;
    }
    if (room.size() < upload_record_bytes) {
        fault_at(offset, "the file ends inside an upload record");
        return 0;
    }
    // Some writers sum the first three bytes, others the whole record header.
    if (!short_sum_holds && sum_of(room.first(upload_record_bytes)) != 0) {
        fault_at(offset, "wrong checksum of the upload record");
    }
    found.firmware = from.array<6>();
    const bytes text = from.take(description_bytes);
    found.description = one_line(std::string(text.begin(), std::find(text.begin(), text.end(), 0)));
    found.length = from.little_endian(4);
    found.data_offset = offset + upload_record_bytes;
    if (found.length > room.size() - upload_record_bytes) {
        fault_at(offset, format("%u bytes of image data reach past the end of the file", found.length));
        return 0;
    }
    const size_t taken = upload_record_bytes + found.length;
    result_.records.push_back(std::move(found));
    return taken;
}

class writer
{
public:
    void byte(uint8_t value) { file_.push_back(static_cast<char>(value)); }
    void put(bytes block) { file_.append(block.begin(), block.end()); }
    void text(std::string_view text, size_t room)
    {
        for (size_t index = 0; index < room; index++) {
            byte(index < text.size() ? static_cast<uint8_t>(text[index]) : 0);
        }
    }
    void little_endian(uint32_t number, size_t count)
    {
        for (; count > 0; count--, number >>= 8) {
            byte(static_cast<uint8_t>(number));
        }
    }
    // Makes the bytes from `start` on sum to 0.
    void checksum(size_t start) { byte(static_cast<uint8_t>(-sum_of(bytes_of(file_).subspan(start)))); }

    void action(uint8_t type, uint8_t components)
    {
        const size_t start = file_.size();
        byte(type);
        byte(components);
        checksum(start);
    }

    std::string finish()
    {
        put(md5(bytes_of(file_)));
        return std::move(file_);
    }

private:
    std::string file_;
};

} // namespace

bool record::is_upload() const
{
    return action == BDBUS_HPM1_ACTION_UPLOAD;
}

uint8_t record::component() const
{
    return bdbus_hpm1_component_mask_to_id_conversion(components);
}

image read(std::span<const uint8_t> file)
{
    return reader(file).run();
}

std::string build(header head, uint8_t backup, uint8_t prepare, const std::vector<payload> &payloads)
{
    head.components = 0;
    for (const auto &part : payloads) {
        head.components = static_cast<uint8_t>(head.components | 1U << part.component);
    }

    writer out;
    out.text(signature, signature.size());
    out.byte(head.format_version);
    out.byte(head.device_id);
    out.little_endian(head.manufacturer_id, 3);
    out.byte(static_cast<uint8_t>(head.product_id >> 8));
    out.byte(static_cast<uint8_t>(head.product_id));
    out.little_endian(head.time, 4);
    out.byte(head.capabilities);
    out.byte(head.components);
    out.byte(head.self_test_timeout);
    out.byte(head.rollback_timeout);
    out.byte(head.inaccessibility_timeout);
    out.put(head.earliest);
    out.put(head.firmware);
    out.little_endian(static_cast<uint32_t>(head.oem_data.size()), 2);
    out.put(head.oem_data);
    out.checksum(0);

    if (backup) {
        out.action(BDBUS_HPM1_ACTION_BACKUP, backup);
    }
    if (prepare) {
        out.action(BDBUS_HPM1_ACTION_PREPARE, prepare);
    }
    for (const auto &part : payloads) {
        out.action(BDBUS_HPM1_ACTION_UPLOAD, static_cast<uint8_t>(1U << part.component));
        out.put(part.firmware);
        out.text(part.description, description_bytes);
        out.little_endian(static_cast<uint32_t>(part.data.size()), 4);
        out.put(bytes_of(part.data));
    }
    return out.finish();
}

bool digest_holds(std::span<const uint8_t> file)
{
    if (file.size() < digest_bytes) {
        return false;
    }
    const auto digest = md5(file.first(file.size() - digest_bytes));
    return std::equal(digest.begin(), digest.end(), file.end() - digest_bytes);
}

} // namespace bdbusctl::hpm1_image
