// SPDX-License-Identifier: LGPL-2.1-or-later
// Loading an image and checking its integrity, against reading the file, hashing it and walking its one record.
#include "images.hpp"
#include "row.hpp"

#include <bdbus/upgrade_agent.h>

#include <wolfssl/options.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <wolfssl/openssl/md5.h>

#include <cstring>
#include <memory>
#include <numeric>

namespace bench
{

namespace
{

bool library_load(const char *name)
{
    bdbus_upgrade_agent_context *context = bdbus_upgrade_agent_initialization(image_path(name).c_str());
    const bool valid = context != nullptr && bdbus_upgrade_agent_validate_image_integrity(context) == 0;
    bdbus_upgrade_agent_end(context);
    return valid;
}

bool digest_is(const uint8_t *bytes, size_t length, const uint8_t *expected)
{
    WOLFSSL_MD5_CTX md5;
    uint8_t digest[image_digest] = {};
    return wolfSSL_MD5_Init(&md5) == 1 && wolfSSL_MD5_Update(&md5, bytes, length) == 1 &&
           wolfSSL_MD5_Final(digest, &md5) == 1 && memcmp(digest, expected, sizeof(digest)) == 0;
}

bool sums_up(const uint8_t *bytes, unsigned length)
{
    return std::accumulate(bytes, bytes + length, 0U) % 256 == 0;
}

bool walk(const uint8_t *image, size_t size)
{
    const uint8_t *record = image + image_header;
    uint32_t length = 0;
    memcpy(&length, record + image_record - sizeof(length), sizeof(length));
    return memcmp(image, "PICMGFWU", 8) == 0 && sums_up(image, image_header) && sums_up(record, 3) &&
           image_prefix + size_t{length} + image_digest == size;
}

/** Read a file whole. @return how much it is; 0 for a failure. */
size_t read_file(const char *name, std::unique_ptr<uint8_t[]> &bytes)
{
    const int fd = open(image_path(name).c_str(), O_RDONLY | O_CLOEXEC);
    struct stat file = {};
    size_t got = 0;
    if (fd >= 0 && fstat(fd, &file) == 0) {
        const auto size = static_cast<size_t>(file.st_size);
        bytes.reset(new uint8_t[size]);
        ssize_t more = 1;
        while (got < size && more > 0) {
            more = read(fd, bytes.get() + got, size - got);
            got += static_cast<size_t>(more > 0 ? more : 0);
        }
    }
    close(fd);
    return got;
}

bool bare_load(const char *name)
{
    std::unique_ptr<uint8_t[]> bytes;
    const size_t size = read_file(name, bytes);
    return size > image_prefix + image_digest &&
           digest_is(bytes.get(), size - image_digest, bytes.get() + size - image_digest) && walk(bytes.get(), size);
}

constexpr row rows[] = {
    {.name = "image-1",
     .title = "image of 1 MiB: load, integrity",
     .library = [] { return library_load("1"); },
     .bare = [] { return bare_load("1"); },
     .budget = 1.02,
     .few = 1,
     .many = 2},
    {.name = "image-16",
     .title = "image of 16 MiB: load, integrity",
     .library = [] { return library_load("16"); },
     .bare = [] { return bare_load("16"); },
     .budget = 1.02,
     .few = 0,
     .many = 1},
    {.name = "image-256",
     .title = "image of 256 MiB: load, integrity",
     .library = [] { return library_load("256"); },
     .bare = [] { return bare_load("256"); },
     .budget = 1.02,
     .few = 0,
     .many = 1,
     .long_running = true},
};

} // namespace

const std::span<const row> image_rows = rows;

} // namespace bench
