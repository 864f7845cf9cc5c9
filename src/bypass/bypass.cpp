// SPDX-License-Identifier: LGPL-2.1-or-later
// Advanced bypass: three calls of bytes, answered with one integer. A connection for each call; a failure answers 0.
#include "bus/call.hpp"
#include "bus/connection.hpp"

#include <bdbus/abp.h>

namespace bdbus
{

namespace
{

constexpr service bypass_service = {
    .name = "com.brisemont.AdvancedBypass",
    .path = "/com/brisemont/AdvancedBypass",
    .interface = "com.brisemont.AdvancedBypass",
};

constinit bus_module bypass_module;

int32_t bypass_bus_acquire()
{
    return per_call_acquire(bypass_module, connect_text);
}

void bypass_bus_release()
{
    per_call_release(bypass_module);
}

using bypass_hold = module_hold<bypass_module, bypass_bus_acquire, bypass_bus_release>;

/** Send the low bytes of the values. */
template <signature Sig, typename... Values>
int32_t bypass_call(const char *member, Values... values)
{
    module_call<bypass_hold> call(bypass_service, plain_texts);
    int32_t answer = 0;
    call.invoke<Sig>(member, static_cast<uint8_t>(values)...);
    call.read<"i">(&answer);
    return answer;
}

} // namespace

} // namespace bdbus

int32_t bdbus_abp_set_global_reset(int32_t value)
{
    return bdbus::bypass_call<"y">("SetGlobalReset", value);
}

int32_t bdbus_abp_set_permanent_global_reset(int32_t value)
{
    return bdbus::bypass_call<"y">("SetPermanentGlobalReset", value);
}

int32_t bdbus_abp_set_permanent_bypass(int32_t first, int32_t second)
{
    return bdbus::bypass_call<"yy">("SetPermanentBypass", first, second);
}
