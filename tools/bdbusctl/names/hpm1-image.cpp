// SPDX-License-Identifier: LGPL-2.1-or-later
// A reader that follows no length before it is checked, and a writer.
#include "names/hpm1-image.hpp"

#include "frame/text.hpp"

#include <bdbus/hpm1.h>

#include <wolfssl/options.h>
#include <wolfssl/wolfcrypt/md5.h>

#include <algorithm>
#include <optional>
#include <stdexcept>

namespace bdbusctl::hpm1_image
{

namespace
{

using bytes = std::span<const uint8_t>;

constexpr std::string_view signature = "PICMGFWU";
constexpr uint8_t known_format = 0;
constexpr size_t manufacturer_bytes = 3;
constexpr size_t time_bytes = 4;
constexpr size_t oem_length_bytes = 2;
constexpr size_t checksum_bytes = 1;
constexpr size_t fixed_header_bytes = 34; // before the OEM data, whose length is its end
constexpr size_t oem_length_offset = fixed_header_bytes - oem_length_bytes;

constexpr size_t short_record_bytes = 3; // action, components, checksum
constexpr size_t length_bytes = 4;       // of the data behind an upload record
constexpr size_t upload_record_bytes =
    short_record_bytes + std::tuple_size_v<hpm1_version> + description_bytes + length_bytes;

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
    wc_Md5 state;
    if (wc_InitMd5(&state) != 0 || wc_Md5Update(&state, block.data(), static_cast<word32>(block.size())) != 0 ||
        wc_Md5Final(&state, digest.data()) != 0) {
        throw std::runtime_error("cannot compute the MD5 digest");
    }
    return digest;
}

/** Reads one field after the other from bytes whose length was checked before. */
class cursor
{
public:
    explicit cursor(bytes from) : rest_(from) {}

    bytes next(size_t count)
    {
        const bytes read = rest_.first(count);
        rest_ = rest_.subspan(count);
        return read;
    }
    uint8_t byte() { return next(1)[0]; }
    uint32_t little_endian(size_t count)
    {
        uint32_t number = 0;
        const bytes read = next(count);
        for (size_t index = count; index-- > 0;) {
            number = number << 8 | read[index];
        }
        return number;
    }
    template <size_t size>
    std::array<uint8_t, size> array()
    {
        std::array<uint8_t, size> copied;
        std::copy_n(next(size).begin(), size, copied.begin());
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

    /** The offset of the first record; none when there is no header to follow. */
    std::optional<size_t> read_header();
    bool has_fixed_header();
    /** The header's end, with OEM data of that length. */
    std::optional<size_t> find_header_end(size_t oem_bytes);
    bool read_records(size_t offset);
    /** The bytes that the record takes; 0 when it cannot be followed. */
    size_t read_record(size_t offset);
    size_t read_short_record(const record &found, bytes head);
    size_t read_upload_record(record found, bytes room);

    bytes file_;
    image result_;
};

bool reader::has_fixed_header()
{
    const size_t compared = std::min(file_.size(), signature.size());
    if (!std::ranges::equal(file_.first(compared), bytes_of(signature))) {
        fault_at(0, "no HPM.1 signature");
        return false;
    }
    if (file_.size() < fixed_header_bytes + checksum_bytes + digest_bytes) {
        fault_at(file_.size(), "the file ends before its header does");
        return false;
    }
    return true;
}

std::optional<size_t> reader::find_header_end(size_t oem_bytes)
{
    const size_t end = fixed_header_bytes + oem_bytes + checksum_bytes;
    if (end > end_of_records()) {
        fault_at(oem_length_offset, format("%zu bytes of OEM data reach past the end of the file", oem_bytes));
        return {};
    }
    if (sum_of(file_.first(end)) != 0) {
        fault_at(end - checksum_bytes, "wrong header checksum");
    }
    return end;
}

std::optional<size_t> reader::read_header()
{
    if (!has_fixed_header()) {
        return {};
    }
    cursor from(file_.subspan(signature.size()));
    header &head = result_.head;
    head.format_version = from.byte();
    head.device_id = from.byte();
    head.manufacturer_id = from.little_endian(manufacturer_bytes);
    const auto product = from.array<2>();
    head.product_id = static_cast<uint16_t>(product[0] << 8 | product[1]);
    head.time = from.little_endian(time_bytes);
    head.capabilities = from.byte();
    head.components = from.byte();
    head.self_test_timeout = from.byte();
    head.rollback_timeout = from.byte();
    head.inaccessibility_timeout = from.byte();
    head.earliest = from.array<2>();
    head.firmware = from.array<std::tuple_size_v<hpm1_version>>();
    const size_t oem_bytes = from.little_endian(oem_length_bytes);

    if (head.format_version != known_format) {
        fault_at(signature.size(), format("header format version is %u, not 0", head.format_version));
    }
    const auto end = find_header_end(oem_bytes);
    if (end) {
        const bytes oem_data = from.next(oem_bytes);
        head.oem_data.assign(oem_data.begin(), oem_data.end());
    }
    return end;
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
    record found;
    found.offset = offset;
    found.action = room[0];
    found.components = room[1];
    return found.is_upload() ? read_upload_record(std::move(found), room)
                             : read_short_record(found, room.first(short_record_bytes));
}

size_t reader::read_short_record(const record &found, bytes head)
{
    if (sum_of(head) != 0) {
        fault_at(found.offset, "wrong checksum of the action record");
    }
    if (found.action > BDBUS_HPM1_ACTION_UPLOAD) {
        fault_at(found.offset, format("unknown action %u", found.action));
        return 0;
    }
    result_.records.push_back(found);
    return short_record_bytes;
}

size_t reader::read_upload_record(record found, bytes room)
{
    if (room.size() < upload_record_bytes) {
        fault_at(found.offset, "the file ends inside an upload record");
        return 0;
    }
    // Some writers sum the first three bytes, others the whole record header.
    if (sum_of(room.first(short_record_bytes)) != 0 && sum_of(room.first(upload_record_bytes)) != 0) {
        fault_at(found.offset, "wrong checksum of the upload record");
    }
    cursor from(room.subspan(short_record_bytes));
    found.firmware = from.array<std::tuple_size_v<hpm1_version>>();
    const bytes text = from.next(description_bytes);
    found.description = one_line(std::string(text.begin(), std::find(text.begin(), text.end(), 0)));
    found.length = from.little_endian(length_bytes);
    found.data_offset = found.offset + upload_record_bytes;
    if (found.length > room.size() - upload_record_bytes) {
        fault_at(found.offset, format("%u bytes of image data reach past the end of the file", found.length));
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
    /** Makes the bytes from `start` on sum to 0. */
    void checksum(size_t start) { byte(static_cast<uint8_t>(-sum_of(bytes_of(file_).subspan(start)))); }

    void header_fields(const header &head)
    {
        text(signature, signature.size());
        byte(head.format_version);
        byte(head.device_id);
        little_endian(head.manufacturer_id, manufacturer_bytes);
        byte(static_cast<uint8_t>(head.product_id >> 8));
        byte(static_cast<uint8_t>(head.product_id));
        little_endian(head.time, time_bytes);
        byte(head.capabilities);
        byte(head.components);
        byte(head.self_test_timeout);
        byte(head.rollback_timeout);
        byte(head.inaccessibility_timeout);
        put(head.earliest);
        put(head.firmware);
        little_endian(static_cast<uint32_t>(head.oem_data.size()), oem_length_bytes);
        put(head.oem_data);
        checksum(0);
    }

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
    out.header_fields(head);
    if (backup != 0) {
        out.action(BDBUS_HPM1_ACTION_BACKUP, backup);
    }
    if (prepare != 0) {
        out.action(BDBUS_HPM1_ACTION_PREPARE, prepare);
    }
    for (const auto &part : payloads) {
        out.action(BDBUS_HPM1_ACTION_UPLOAD, static_cast<uint8_t>(1U << part.component));
        out.put(part.firmware);
        out.text(part.description, description_bytes);
        out.little_endian(static_cast<uint32_t>(part.data.size()), length_bytes);
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
