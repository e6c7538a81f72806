#include "TarnRegFile/NameTypes.h"

namespace TarnRegFile {

Kiv::String const& defaultRegisterFullName() noexcept {
  static Kiv::String const* const s = new Kiv::String("-");
  return *s;
}

Kiv::String const& defaultFieldFullName() noexcept {
  static Kiv::String const* const s = new Kiv::String("--");
  return *s;
}

}  // namespace TarnRegFile
