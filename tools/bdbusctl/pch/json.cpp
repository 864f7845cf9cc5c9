// SPDX-License-Identifier: LGPL-2.1-or-later
// The JSON library's class, compiled here for all files that the precompiled header tells that it is.
#include <nlohmann/json.hpp>

template class nlohmann::basic_json<nlohmann::ordered_map>;
