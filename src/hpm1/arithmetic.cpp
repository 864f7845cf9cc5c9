// SPDX-License-Identifier: LGPL-2.1-or-later
// The arithmetic of HPM.1: checksum, component mask, version order.
#include <bdbus/hpm1.h>

#include <bit>

uint8_t bdbus_hpm1_checksum(const void *data, int32_t length)
{
    const auto *bytes = static_cast<const uint8_t *>(data);
    unsigned sum = 0;
    for (int32_t i = 0; bytes != nullptr && i < length; i++) {
        sum += bytes[i];
    }
    return static_cast<uint8_t>(sum);
}

uint8_t bdbus_hpm1_component_mask_to_id_conversion(uint32_t mask)
{
    return mask == 0 ? 0 : static_cast<uint8_t>(std::bit_width(mask) - 1);
}

int32_t bdbus_upgrade_version_compare(const uint8_t *a, const uint8_t *b)
{
    if (a == nullptr || b == nullptr) {
        return 0;
    }
    return a[0] > b[0] || (a[0] == b[0] && a[1] > b[1]) ? 1 : 0;
}
