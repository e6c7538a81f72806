#pragma once
/// @file Types.h
/// @brief Fixed-width integer aliases used throughout the platform and the library.
///
/// They are global on purpose: function signatures printed by fatal assertions
/// read "U8", "U32", ... because the code is declared with these names.

#include <cstdint>

using U8 = std::uint8_t;
using U16 = std::uint16_t;
using U32 = std::uint32_t;
using U64 = std::uint64_t;
