// SPDX-License-Identifier: LGPL-2.1-or-later
// What nearly every file needs and takes long to compile.
#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

extern template class nlohmann::basic_json<nlohmann::ordered_map>; // compiled once, in json.cpp
