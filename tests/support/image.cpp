// SPDX-License-Identifier: LGPL-2.1-or-later
#include "support/image.hpp"

#include <wolfssl/options.h>
#include <gtest/gtest.h>
#include <unistd.h>
#include <wolfssl/openssl/md5.h>

#include <algorithm>
#include <numeric>

bytes pattern(size_t length, uint8_t seed)
{
    bytes data(length);
    for (size_t i = 0; i < length; i++) {
        data[i] = static_cast<uint8_t>((i % 251) * 7 + seed);
    }
    return data;
}

static uint8_t complement(const bytes &data, size_t from = 0)
{
    return static_cast<uint8_t>(-std::accumulate(data.begin() + static_cast<ptrdiff_t>(from), data.end(), 0));
}

static void put(bytes &to, const bytes &from)
{
    to.insert(to.end(), from.begin(), from.end());
}

image_builder &image_builder::action(uint8_t type, uint8_t mask)
{
    bytes record = {type, mask};
    record.push_back(complement(record));
    put(records, record);
    return *this;
}

image_builder &image_builder::upload(uint8_t mask, const bytes &version, const bytes &data)
{
    components |= mask;
    bytes record = {2, mask};
    record.push_back(complement(record));
    put(record, version);
    bytes description(21, 0);
    std::copy_n("test image", 10, description.begin());
    put(record, description);
    const auto length = static_cast<uint32_t>(data.size());
    put(record, {static_cast<uint8_t>(length), static_cast<uint8_t>(length >> 8), static_cast<uint8_t>(length >> 16),
                 static_cast<uint8_t>(length >> 24)});
    put(record, data);
    put(records, record);
    return *this;
}

bytes image_builder::build() const
{
    bytes image(signature.begin(), signature.end());
    put(image, {format_version, device_id, manufacturer_id[0], manufacturer_id[1], manufacturer_id[2], product_id[0],
                product_id[1]});
    put(image, {0x11, 0x22, 0x33, 0x44, capabilities, components, self_test_timeout, rollback_timeout, 0});
    put(image, {earliest_version[0], earliest_version[1], 2, 0x34, 0xA1, 0xA2, 0xA3, 0xA4});
    put(image, {static_cast<uint8_t>(oem.size()), static_cast<uint8_t>(oem.size() >> 8)});
    put(image, oem);
    image.push_back(complement(image));
    put(image, records);
    image.resize(image.size() + 16);
    seal(image);
    return image;
}

void seal(bytes &image)
{
    WOLFSSL_MD5_CTX md5;
    wolfSSL_MD5_Init(&md5);
    wolfSSL_MD5_Update(&md5, image.data(), static_cast<unsigned long>(image.size() - 16));
    wolfSSL_MD5_Final(&image[image.size() - 16], &md5);
}

temporary_file::temporary_file(const bytes &content) : path_(testing::TempDir() + "bdbus-image-XXXXXX")
{
    const int fd = mkstemp(path_.data());
    EXPECT_EQ(write(fd, content.data(), content.size()), static_cast<ssize_t>(content.size()));
    close(fd);
}

temporary_file::~temporary_file()
{
    unlink(path_.c_str());
}

agent_context::agent_context(const bytes &image)
    : context_(bdbus_upgrade_agent_initialization(temporary_file(image).path()))
{
    EXPECT_NE(context_, nullptr);
}
