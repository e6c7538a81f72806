#include "NumberParser.h"

#include "TarnRegFile/platform/KivNumber.h"

namespace Tarnreg {

std::optional<U32> parseNumber(std::string_view text, U32 max) {
  unsigned base = 10;
  if (text.size() >= 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
    base = 16;
    text.remove_prefix(2);
  } else if (text.size() > 1 && text[0] == '0') {
    return std::nullopt;
  }
  auto const value = Kiv::parseUnsigned(text, base, max);
  if (!value) return std::nullopt;
  return static_cast<U32>(*value);
}

}  // namespace Tarnreg
