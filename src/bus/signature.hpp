// SPDX-License-Identifier: LGPL-2.1-or-later
// D-Bus signatures as template arguments, held against the C++ types of the values that travel under them. sd-bus takes
// its values through varargs, where a wrong width goes unnoticed; here it does not compile.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <type_traits>

namespace bdbus
{

template <std::size_t Size>
struct signature {
    char text[Size];

    // Implicit, so that a call can say call.read<"yq">(…).
    consteval signature(const char (&literal)[Size]) { std::copy_n(literal, Size, text); }
};

/** Whether values of a type travel under a one-character D-Bus type code. */
template <typename Value>
constexpr bool travels_as(char code)
{
    switch (code) {
    case 'y':
        return std::is_same_v<Value, uint8_t>;
    case 'q':
        return std::is_same_v<Value, uint16_t>;
    case 'i':
    case 'b':
        return std::is_same_v<Value, int32_t>;
    case 'u':
        return std::is_same_v<Value, uint32_t>;
    case 't':
        return std::is_same_v<Value, uint64_t>;
    case 's':
        return std::is_same_v<Value, const char *>;
    default:
        return false;
    }
}

/** The type code of the elements of an array. */
template <typename Element>
consteval char code_of()
{
    static_assert(travels_as<Element>('y') || travels_as<Element>('q') || travels_as<Element>('t'));
    return travels_as<Element>('y') ? 'y' : travels_as<Element>('q') ? 'q' : 't';
}

/** Whether a list of types is exactly what a signature of basic types names. */
template <signature Sig, typename... Values>
consteval bool fits()
{
    std::size_t next = 0;
    return sizeof(Sig.text) == sizeof...(Values) + 1 && (travels_as<Values>(Sig.text[next++]) && ...);
}

/** The same for a record's fields, where a column is an array, and an array of columns one after another. */
template <signature Sig, typename... Fields>
consteval bool holds()
{
    std::size_t next = 0;
    const auto is_next = [&next]<typename Field>() {
        using element = std::remove_all_extents_t<Field>;
        constexpr std::size_t columns = std::rank_v<Field> == 2 ? std::extent_v<Field> : 1;
        bool fits = true;
        for (std::size_t i = 0; i < columns && fits; i++) {
            fits = (std::rank_v<Field> == 0 || Sig.text[next++] == 'a') && travels_as<element>(Sig.text[next++]);
        }
        return fits;
    };
    return (is_next.template operator()<Fields>() && ...) && next + 1 == sizeof(Sig.text);
}

} // namespace bdbus
