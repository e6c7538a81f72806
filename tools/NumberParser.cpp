#include "NumberParser.h"

namespace Tarnreg {

namespace {

int digitValue(char c, unsigned base) {
  int value = -1;
  if (c >= '0' && c <= '9') value = c - '0';
  else if (c >= 'a' && c <= 'f') value = c - 'a' + 10;
  else if (c >= 'A' && c <= 'F') value = c - 'A' + 10;
  return value >= 0 && static_cast<unsigned>(value) < base ? value : -1;
}

std::optional<U32> parseDigits(std::string_view digits, unsigned base, U32 max) {
  if (digits.empty()) return std::nullopt;
  U64 value = 0;
  for (char const c : digits) {
    int const digit = digitValue(c, base);
    if (digit < 0) return std::nullopt;
    value = value * base + static_cast<U64>(digit);
    if (value > max) return std::nullopt;  // also keeps the 64-bit accumulator from wrapping
  }
  return static_cast<U32>(value);
}

}  // namespace

std::optional<U32> parseNumber(std::string_view text, U32 max) {
  if (text.size() >= 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X'))
    return parseDigits(text.substr(2), 16, max);
  if (text.size() > 1 && text[0] == '0') return std::nullopt;
  return parseDigits(text, 10, max);
}

}  // namespace Tarnreg
