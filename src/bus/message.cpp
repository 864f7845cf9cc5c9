// SPDX-License-Identifier: LGPL-2.1-or-later
// What a message is read by.
#include "bus/message.hpp"

namespace bdbus
{

int read_values(sd_bus_message *message, const char *codes, void *const *outputs)
{
    int result = 1;
    for (; result > 0 && *codes != '\0'; codes++, outputs++) {
        result = sd_bus_message_read_basic(message, *codes, *outputs);
    }
    return result;
}

const uint8_t *read_exactly(sd_bus_message *message, std::size_t length)
{
    const void *bytes = nullptr;
    std::size_t count = 0;
    const bool read = sd_bus_message_read_array(message, 'y', &bytes, &count) >= 0 && count == length;
    return read ? static_cast<const uint8_t *>(bytes) : nullptr;
}

} // namespace bdbus
