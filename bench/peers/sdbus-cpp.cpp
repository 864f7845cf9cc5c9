// SPDX-License-Identifier: LGPL-2.1-or-later
// The rows by sdbus-c++, with its proxies.
#include "peer.hpp"

#include <sdbus-c++/sdbus-c++.h>

#include <memory>
#include <vector>

namespace
{

sdbus::IConnection &kept_connection()
{
    static const std::unique_ptr<sdbus::IConnection> connection = sdbus::createSystemBusConnection();
    return *connection;
}

sdbus::IProxy &upgrade_proxy()
{
    static const std::unique_ptr<sdbus::IProxy> proxy =
        sdbus::createProxy(kept_connection(), bench::upgrade_name, bench::upgrade_path);
    return *proxy;
}

bool kept_call()
{
    uint8_t code = 0xFF;
    uint8_t identifier = 0;
    uint8_t command = 0;
    uint8_t last = 0;
    upgrade_proxy()
        .callMethod("GetUpgradeStatus")
        .onInterface(bench::upgrade_name)
        .withArguments(uint8_t{0})
        .storeResultsTo(code, identifier, command, last);
    return code == 0;
}

bool auth_log()
{
    uint8_t code = 0xFF;
    uint16_t value = 0;
    static const std::unique_ptr<sdbus::IProxy> proxy =
        sdbus::createProxy(kept_connection(), bench::auth_log_name, bench::auth_log_path);
    proxy->callMethod("AuthLogAddEntry")
        .onInterface(bench::auth_log_name)
        .withArguments(std::vector<uint8_t>(std::begin(bench::auth_log_entry), std::end(bench::auth_log_entry)))
        .storeResultsTo(code, value);
    return code == 0;
}

bool property_byte()
{
    const sdbus::Variant value = upgrade_proxy().getProperty("UpgradeInProgress").onInterface(bench::upgrade_name);
    return value.get<uint8_t>() == 1;
}

bool property_bytes()
{
    const sdbus::Variant value = upgrade_proxy().getProperty("BmcFwVersion").onInterface(bench::upgrade_name);
    return !value.get<std::vector<uint8_t>>().empty();
}

bool bypass()
{
    const auto connection = sdbus::createSystemBusConnection();
    const auto proxy = sdbus::createProxy(*connection, bench::bypass_name, bench::bypass_path);
    int32_t answer = 0;
    proxy->callMethod("SetGlobalReset")
        .onInterface(bench::bypass_name)
        .withArguments(uint8_t{1})
        .storeResultsTo(answer);
    return answer == 1;
}

} // namespace

int main(int argc, char **argv)
{
    return bench::peer_main(argc, argv, {kept_call, auth_log, property_byte, property_bytes, bypass});
}
