#pragma once
/// @file KivNumber.h
/// @brief The one reader of unsigned numbers in text: digits of a base, bounded by a maximum.
///
/// Every parser of the library and its tools (register maps, value texts, published
/// operations' arguments, the command line, the C-style conversions of Utils) reads
/// its digits here and adds only its own syntax around them (prefixes, signs,
/// white space) and its own error texts.

#include "TarnRegFile/platform/Types.h"

#include <cstddef>
#include <optional>
#include <string_view>

namespace Kiv {

/// @brief Value of @p c as a digit of @p base (2..36, letters in either case), or -1.
constexpr int digitValue(char c, unsigned base) noexcept {
  int value = -1;
  if (c >= '0' && c <= '9')
    value = c - '0';
  else if (c >= 'a' && c <= 'z')
    value = c - 'a' + 10;
  else if (c >= 'A' && c <= 'Z')
    value = c - 'A' + 10;
  return value >= 0 && static_cast<unsigned>(value) < base ? value : -1;
}

/// @brief What readDigits found.
struct DigitRun {
  U64 value = 0;
  size_t length = 0;      ///< characters read (the run stops at the first non-digit)
  bool overflow = false;  ///< the next digit would have exceeded the maximum: the run stops there
};

/// @brief Reads the run of digits of @p base at the start of @p text, as long as the
/// value stays at most @p max.
constexpr DigitRun readDigits(std::string_view text, unsigned base, U64 max) noexcept {
  DigitRun run;
  for (char const c : text) {
    int const digit = digitValue(c, base);
    if (digit < 0) break;
    U64 const d = static_cast<U64>(digit);
    if (run.value > (max - d) / base) {
      run.overflow = true;
      break;
    }
    run.value = run.value * base + d;
    ++run.length;
  }
  return run;
}

/// @brief The whole of @p text as digits of @p base, at most @p max: no sign, prefix or
/// white space. Nothing for an empty text, any other character, or a larger value.
constexpr std::optional<U64> parseUnsigned(std::string_view text, unsigned base, U64 max) noexcept {
  DigitRun const run = readDigits(text, base, max);
  if (text.empty() || run.overflow || run.length != text.size()) return std::nullopt;
  return run.value;
}

}  // namespace Kiv
