// SPDX-License-Identifier: LGPL-2.1-or-later
// Calls as a family writes them: the first compiles, each of the others has one argument of a wrong width or number and
// must not.
#include "bus/call.hpp"

int32_t call(bdbus::call_frame &frame)
{
    uint8_t byte = 0;
    uint16_t word = 0;
    uint32_t number = 0;
    int32_t flag = 0;
#if CASE == 0
    frame.invoke<"yus">("Member", byte, number, static_cast<const char *>("text"));
    frame.append<"yu">(byte, number);
    frame.get_basic_property<"b">("Name", &flag);
    return frame.read<"yqib">(&byte, &word, &flag, &flag);
#elif CASE == 1
    frame.invoke<"y">("Member", number); // sent as a byte: the rest of the varargs would be off on some machines
#elif CASE == 2
    frame.invoke<"yy">("Member", byte);
#elif CASE == 3
    frame.append<"u">(word);
#elif CASE == 4
    return frame.read<"y">(&number); // sd-bus would write one byte of four
#elif CASE == 5
    return frame.read<"u">(&word); // sd-bus would write four bytes of two
#elif CASE == 6
    return frame.get_basic_property<"b">("Name", &byte);
#elif CASE == 7
    return frame.read<"yy">(&byte, &byte, &byte);
#endif
    return static_cast<int32_t>(byte + word + number) + flag;
}
