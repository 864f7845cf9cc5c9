// SPDX-License-Identifier: LGPL-2.1-or-later
// The rows that another D-Bus library can do as well.
//
//   bench-PEER ROW FEW MANY   as bench-client does it
#pragma once

#include "../measure.hpp"

#include <cstdint>
#include <cstdio>
#include <cstring>

namespace bench
{

inline constexpr const char *auth_log_name = "com.brisemont.AuthLog1";
inline constexpr const char *auth_log_path = "/com/brisemont/AuthLog1";
inline constexpr const char *bypass_name = "com.brisemont.AdvancedBypass";
inline constexpr const char *bypass_path = "/com/brisemont/AdvancedBypass";
inline constexpr const char *upgrade_name = "com.brisemont.Upgrade1";
inline constexpr const char *upgrade_path = "/com/brisemont/Upgrade1";
inline constexpr const char *properties_name = "org.freedesktop.DBus.Properties";
inline constexpr uint8_t auth_log_entry[64] = {};

struct peer {
    side kept_call;
    side auth_log;
    side property_byte;
    side property_bytes;
    side bypass;
};

inline int peer_main(int argc, char **argv, const peer &library)
{
    const struct {
        const char *name;
        side once;
    } rows[] = {
        {"kept-call", library.kept_call},
        {"auth-log", library.auth_log},
        {"property-byte", library.property_byte},
        {"property-bytes", library.property_bytes},
        {"bypass", library.bypass},
    };
    for (const auto &[name, once] : rows) {
        if (argc == 4 && strcmp(name, argv[1]) == 0) {
            measure(once, argv[2], argv[3]);
        }
    }
    fputs("usage: ROW FEW MANY\n", stderr);
    return 2;
}

} // namespace bench
