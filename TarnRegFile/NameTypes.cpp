#include "TarnRegFile/NameTypes.h"

#include "TarnRegFile/platform/KivBits.h"
#include "TarnRegFile/platform/KivException.h"

namespace TarnRegFile {

Kiv::String const& defaultRegisterFullName() noexcept {
  static Kiv::String const* const s = new Kiv::String("-");
  return *s;
}

Kiv::String const& defaultFieldFullName() noexcept {
  static Kiv::String const* const s = new Kiv::String("--");
  return *s;
}

void checkSlice(U8 start, U8 size, U8 lastStart, char const* startError, char const* sizeError) {
  if (start > lastStart) throw Kiv::RangeException(startError);
  if (Kiv::widthOutOfRange(size)) throw Kiv::RangeException(sizeError);
}

}  // namespace TarnRegFile
