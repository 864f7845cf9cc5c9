// SPDX-License-Identifier: LGPL-2.1-or-later
// Reading a message's values, be it a reply or a signal.
#pragma once

#include "bus/signature.hpp"

#include <systemd/sd-bus.h>

#include <cstddef>

namespace bdbus
{

/**
 * Read values of basic types, one by one: that spares sd-bus to read the signature and the varargs, a tenth of a small
 * call's cost. Those before one that cannot be read are written.
 *
 * @param codes one type code for each of the outputs.
 * @return a negative code for a value of another type, 0 when the message ended before, or 1.
 */
int read_values(sd_bus_message *message, const char *codes, void *const *outputs);

/** The same, with the outputs' types held against the signature. */
template <signature Sig, typename... Values>
int read_message(sd_bus_message *message, Values *...values)
{
    static_assert(fits<Sig, Values...>(), "the outputs do not match the signature that they are read under");
    void *const outputs[] = {values...};
    return read_values(message, Sig.text, outputs);
}

/** Read a byte array that must have this length. @return its bytes, the message's own, or null. */
const uint8_t *read_exactly(sd_bus_message *message, std::size_t length);

} // namespace bdbus
