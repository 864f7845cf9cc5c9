// SPDX-License-Identifier: LGPL-2.1-or-later
// Names of the form "Group.Name", which say where a property or method is.
#pragma once

#include <cstdio>
#include <cstring>

namespace bdbus
{

/** "Group.Name" is member Name of the interface BASE.Group, "Name" one of BASE itself. The text must outlive this. */
class grouped_member
{
public:
    grouped_member(const char *base, const char *name)
    {
        const char *dot = strrchr(name, '.');
        name_ = dot == nullptr ? name : dot + 1;
        const int group = dot == nullptr ? 0 : static_cast<int>(dot - name);
        const int length =
            snprintf(interface_, sizeof(interface_), "%s%s%.*s", base, dot == nullptr ? "" : ".", group, name);
        if (length < 0 || static_cast<std::size_t>(length) >= sizeof(interface_)) {
            memcpy(interface_, ".", 2); // too long for a name: sd-bus refuses it, like this one
        }
    }

    [[nodiscard]] const char *interface() const { return interface_; }
    [[nodiscard]] const char *name() const { return name_; }

private:
    char interface_[256]; // D-Bus names have at most 255 bytes
    const char *name_;
};

} // namespace bdbus
