// SPDX-License-Identifier: LGPL-2.1-or-later
// wolfSSL's MD5. It is loaded when the first image is checked: most programs never check one, and of the symbols that
// they would look up at their start nine in ten would be wolfSSL's own.
#include "upgrade_agent/digest.hpp"

#include <wolfssl/options.h>
#include <dlfcn.h>
#include <syslog.h>
#include <wolfssl/openssl/md5.h>

#include <algorithm>
#include <cstddef>

namespace bdbus
{

namespace
{

/**
 * Tells packagers' tools which library is loaded later, in the form that systemd specifies ("ELF dlopen metadata").
 */
template <std::size_t Size>
struct dlopen_note {
    uint32_t name_bytes = sizeof(name);
    uint32_t text_bytes = Size;
    uint32_t type = 0x407C0C0A;
    char name[4] = {'F', 'D', 'O', '\0'};
    char text[Size];

    consteval explicit dlopen_note(const char (&json)[Size]) { std::copy_n(json, Size, text); }
};

[[gnu::used, gnu::section(".note.dlopen")]] alignas(uint32_t) constexpr dlopen_note
    wolfssl_note(R"([{"soname":[")" WOLFSSL_SONAME R"("],"feature":"image-digest","priority":"required",)"
                 R"("description":"Integrity of HPM.1 images"}])");

struct md5_functions {
    decltype(&wolfSSL_MD5_Init) init;
    decltype(&wolfSSL_MD5_Update) update;
    decltype(&wolfSSL_MD5_Final) final;
};

/** As if it were linked: a program's own or preloaded function comes before the library's. */
template <typename Function>
bool find(void *library, const char *name, Function &function)
{
    void *symbol = dlsym(RTLD_DEFAULT, name);
    symbol = symbol == nullptr && library != nullptr ? dlsym(library, name) : symbol;
    function = reinterpret_cast<Function>(symbol);
    return symbol != nullptr;
}

/** The library stays; to load it again only counts. */
bool load(md5_functions &md5)
{
    void *library = dlopen(WOLFSSL_SONAME, RTLD_NOW | RTLD_LOCAL);
    return find(library, "wolfSSL_MD5_Init", md5.init) && find(library, "wolfSSL_MD5_Update", md5.update) &&
           find(library, "wolfSSL_MD5_Final", md5.final);
}

} // namespace

int32_t compute_digest(const uint8_t *bytes, uint32_t length, uint8_t (&digest)[digest_bytes])
{
    md5_functions md5 = {};
    WOLFSSL_MD5_CTX context;
    if (!load(md5) || md5.init(&context) != 1) {
        syslog(LOG_ERR, "MD5 context initialization fail\n");
        return -1;
    }
    if (md5.update(&context, bytes, length) != 1) {
        syslog(LOG_ERR, "MD5 data chunk hash fail\n");
        return -2;
    }
    if (md5.final(digest, &context) != 1) {
        syslog(LOG_ERR, "MD5 message digest finalization fail\n");
        return -3;
    }
    return 0;
}

} // namespace bdbus
