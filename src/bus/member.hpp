// SPDX-License-Identifier: LGPL-2.1-or-later
// Names of the form "Group.Name", which say where a property or method is.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <string_view>

namespace bdbus
{

/** "Group.Name" is member Name of the interface BASE.Group, "Name" one of BASE itself. The text must outlive this. */
class grouped_member
{
public:
    grouped_member(std::string_view base, const char *name)
    {
        const char *dot = strrchr(name, '.');
        name_ = dot == nullptr ? name : dot + 1;
        const std::string_view group(name, dot == nullptr ? 0 : static_cast<std::size_t>(dot - name));
        if (base.size() + group.size() + 2 > sizeof(interface_)) {
            memcpy(interface_, ".", 2); // too long for a name: sd-bus refuses it, like this one
            return;
        }
        char *end = std::copy(base.begin(), base.end(), interface_);
        if (dot != nullptr) {
            *end++ = '.';
            end = std::copy(group.begin(), group.end(), end);
        }
        *end = '\0';
    }

    [[nodiscard]] const char *interface() const { return interface_; }
    [[nodiscard]] const char *name() const { return name_; }

private:
    char interface_[256]; // D-Bus names have at most 255 bytes
    const char *name_;
};

template <std::size_t Size>
struct literal {
    char text[Size];
    consteval literal(const char (&source)[Size]) { std::copy_n(source, Size, text); }
};

/** The same of two literals, for a table. */
template <const auto &Base, literal Name>
class grouped_literal
{
    static constexpr std::size_t group = [] {
        const std::string_view dotted(Name.text, sizeof(Name.text) - 1);
        return dotted.rfind('.') == dotted.npos ? 0 : dotted.rfind('.') + 1;
    }();

    struct interface_text {
        char text[sizeof(Base) + group] = {};
        consteval interface_text()
        {
            char *end = std::copy_n(Base, sizeof(Base) - 1, text);
            if (group > 0) {
                *end = '.';
                std::copy_n(Name.text, group - 1, end + 1);
            }
        }
    };
    static constexpr interface_text interface_storage = {};

public:
    static constexpr const char (&text)[sizeof(Name.text)] = Name.text;
    static constexpr const char *interface = interface_storage.text;
    static constexpr const char *name = text + group;
};

} // namespace bdbus
