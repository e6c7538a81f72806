#pragma once
/// @file NumberParser.h
/// @brief Strict parsing of the numbers given on the command line (values, addresses).

#include "TarnRegFile/platform/Types.h"

#include <optional>
#include <string_view>

namespace Tarnreg {

/// @brief Parses @p text as an unsigned number of at most @p max: plain decimal digits
/// ("0", "305419896") or "0x"/"0X" followed by hex digits ("0x12345678").
///
/// Everything else is refused rather than guessed at: an empty text, signs, spaces,
/// trailing characters, a bare "0x", values above @p max, and decimal numbers with
/// leading zeros ("010"), which other tools read as octal.
/// @return the value, or nothing when the text is not such a number.
std::optional<U32> parseNumber(std::string_view text, U32 max = 0xFFFFFFFFu);

}  // namespace Tarnreg
