#include "TarnRegFile/platform/DevId.h"

#include "TarnRegFile/platform/KivValueText.h"

#include <ostream>

namespace Hardware {

DevId::DevId(Kiv::String::IteratorConst& pos, Kiv::String::IteratorConst const& end) {
  Kiv::ValueReader r(pos, end);
  r.read(value_);
}

std::string DevId::valueToStrep() const { return Kiv::toStrep(value_); }

std::ostream& operator<<(std::ostream& os, DevId value) { return os << unsigned{value.value()}; }

}  // namespace Hardware
