#include "TarnRegFile/PhysicalTypes.h"

#include "KivBits.h"
#include "KivException.h"

namespace TarnRegFile {

ShadowFieldKey::ShadowFieldKey(Kiv::String::IteratorConst& pos, Kiv::String::IteratorConst const& end) {
  readText(pos, end);
  if (start > 31) throw Kiv::RangeException("TarnRegFile::ShadowFieldKey::start < 0 or > 31 not allowed");
  if (Kiv::widthOutOfRange(size)) throw Kiv::RangeException("TarnRegFile::ShadowFieldKey::size < 1 or > 32 not allowed");
}

PhysicalField::PhysicalField(PhysicalFieldName const& name_, U8 start_, U8 size_)
    : name(name_), start(start_), size(size_), key() {
  checkBounds();
}

PhysicalField::PhysicalField(Kiv::String::IteratorConst& pos, Kiv::String::IteratorConst const& end) {
  readText(pos, end);
  checkBounds();
}

void PhysicalField::checkBounds() const {
  if (start > 31) throw Kiv::RangeException("TarnRegFile::PhysicalField::start < 0 or > 31 not allowed");
  if (Kiv::widthOutOfRange(size)) throw Kiv::RangeException("TarnRegFile::PhysicalField::size < 1 or > 32 not allowed");
}

}  // namespace TarnRegFile
