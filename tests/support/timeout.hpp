// SPDX-License-Identifier: LGPL-2.1-or-later
// sd-bus waits 25 s for a reply. A test that lets a call go without one shortens that for this call alone: a reply that
// is awaited must not be missed because the machine has other work to do.
#pragma once

/** While this lives, calls over the library's connections, the kept ones and new ones, wait a tenth of a second. */
class short_timeout
{
public:
    short_timeout();
    ~short_timeout();
    short_timeout(const short_timeout &) = delete;
    short_timeout &operator=(const short_timeout &) = delete;
};
