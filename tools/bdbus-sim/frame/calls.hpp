// SPDX-License-Identifier: LGPL-2.1-or-later
// The list of received calls. It is kept as text: that takes a fraction of the memory, and text is what clients ask
// for.
#pragma once

#include "frame/json.hpp"

#include <deque>
#include <string>

namespace bdbus_sim
{

class call_list
{
public:
    /** Byte arrays are shortened to their length and first bytes. The oldest entries go when the list is full. */
    void add(const std::string &service, json call);

    /** A JSON array of the calls of a service, or of all for "", oldest first. */
    std::string text(const std::string &service) const;

    void clear();

private:
    struct entry {
        std::string service;
        std::string text;
    };

    std::deque<entry> entries_;
    size_t bytes_ = 0;
};

} // namespace bdbus_sim
