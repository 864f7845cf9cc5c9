// SPDX-License-Identifier: LGPL-2.1-or-later
#include "bus/texts.hpp"

#include <cstdio>

namespace bdbus
{

void complain(const char *text, const char *reason)
{
    fprintf(stderr, "%s: %s\n", text, reason);
}

void complain(const char *text, const char *name, const char *reason)
{
    fprintf(stderr, "%s %s: %s\n", text, name, reason);
}

} // namespace bdbus
