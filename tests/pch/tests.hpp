// SPDX-License-Identifier: LGPL-2.1-or-later
// What every test file needs and takes long to compile.
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

extern template class nlohmann::basic_json<>; // compiled once, in json.cpp
