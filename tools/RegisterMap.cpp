#include "RegisterMap.h"

#include "TarnRegFile/Utils.h"

#include "ToolError.h"

#include "TarnRegFile/Errors.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>

namespace Tarnreg {

// The loader names the path, the line and the system's reason; only the wording is the tool's.
RegisterMap::RegisterMap(std::string path, U8 addrBlockSize) : path_(std::move(path)) {
  try {
    file_ = std::make_unique<TarnRegFile::RegisterFile const>(path_.c_str(), addrBlockSize);
  } catch (TarnRegFile::MapError const& e) {
    if (e.errnum() != 0)
      throw ToolError::failure(fmt::format("cannot open map {}: {}", path_, std::strerror(e.errnum())));
    throw ToolError::failure(fmt::format("map {}, line {}: {}", path_, e.line(), e.what()));
  }
  sorted_.reserve(file_->size());
  file_->forEachRegister([&](TarnRegFile::RegisterRef const& reg) { sorted_.push_back(reg); });
  TarnRegFile::Utils::sortByAddress(sorted_);
}

TarnRegFile::RegisterRef RegisterMap::find(std::string_view name) const {
  if (!file_->hasRegName(name))
    throw ToolError::failure(fmt::format("no register '{}' in map {}", name, path_));
  return file_->findRegisterByName(name);
}

std::string RegisterMap::nameAt(U32 address) const {
  char const* const name = file_->nameAt(address);
  if (name == nullptr)
    throw ToolError::failure(fmt::format("no register at address {:#x} in map {}", address, path_));
  return name;
}

}  // namespace Tarnreg
