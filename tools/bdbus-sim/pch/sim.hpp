// SPDX-License-Identifier: LGPL-2.1-or-later
// The precompiled header: what nearly every file includes and takes long to compile.
#include <nlohmann/json.hpp>

extern template class nlohmann::basic_json<>; // compiled once, in json.cpp
