#include "TarnRegFile/PhysicalTypes.h"

namespace TarnRegFile {

ShadowFieldKey::ShadowFieldKey(Kiv::String::IteratorConst& pos, Kiv::String::IteratorConst const& end) {
  readText(pos, end);
  checkSlice(start, size, 31, "TarnRegFile::ShadowFieldKey::start < 0 or > 31 not allowed",
             "TarnRegFile::ShadowFieldKey::size < 1 or > 32 not allowed");
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
  checkSlice(start, size, 31, "TarnRegFile::PhysicalField::start < 0 or > 31 not allowed",
             "TarnRegFile::PhysicalField::size < 1 or > 32 not allowed");
}

}  // namespace TarnRegFile
