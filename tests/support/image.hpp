// SPDX-License-Identifier: LGPL-2.1-or-later
// HPM.1 images put together byte by byte from the standard's field table, sound or broken as a test asks.
#pragma once

#include <bdbus/upgrade_agent.h>

#include <cstdint>
#include <string>
#include <vector>

using bytes = std::vector<uint8_t>;

/** Bytes that repeat only after a prime number of them, so that a shifted block shows. */
bytes pattern(size_t length, uint8_t seed = 1);

struct image_builder {
    uint8_t format_version = 0;
    uint8_t device_id = 32;
    uint8_t manufacturer_id[3] = {0xB3, 0xA2, 0x00};
    uint8_t product_id[2] = {0x12, 0x34};
    uint8_t capabilities = 0;
    uint8_t components = 0; // gains the bit of every uploaded component
    uint8_t self_test_timeout = 0;
    uint8_t rollback_timeout = 0;
    uint8_t earliest_version[2] = {1, 0};
    bytes oem;
    std::string signature = "PICMGFWU";
    bytes records;

    image_builder &backup(uint8_t mask) { return action(0, mask); }
    image_builder &prepare(uint8_t mask) { return action(1, mask); }
    image_builder &action(uint8_t type, uint8_t mask);
    image_builder &upload(uint8_t mask, const bytes &version, const bytes &data);

    [[nodiscard]] bytes build() const;
};

/** Replace the last 16 bytes by the MD5 digest of the rest. */
void seal(bytes &image);

/** A file that goes away with the test. */
class temporary_file
{
public:
    explicit temporary_file(const bytes &content);
    ~temporary_file();
    temporary_file(const temporary_file &) = delete;
    temporary_file &operator=(const temporary_file &) = delete;

    [[nodiscard]] const char *path() const { return path_.c_str(); }

private:
    std::string path_;
};

/** A context with an image loaded from a file. */
class agent_context
{
public:
    explicit agent_context(const bytes &image);
    ~agent_context() { bdbus_upgrade_agent_end(context_); }
    agent_context(const agent_context &) = delete;
    agent_context &operator=(const agent_context &) = delete;

    bdbus_upgrade_agent_context *operator->() const { return context_; }
    operator bdbus_upgrade_agent_context *() const { return context_; }

private:
    bdbus_upgrade_agent_context *context_;
};
