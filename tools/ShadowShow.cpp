#include "ShadowShow.h"

#include "ToolError.h"

#include "TarnRegFile/platform/ShmRoot.h"
#include "TarnRegFile/platform/ShmTable.h"

#include "TarnRegFile/ShadowTypes.h"

#include <fmt/format.h>

#include <stdexcept>

namespace Tarnreg {

std::vector<TarnRegFile::ShadowFieldValue> readShadowEntries(std::string const& rootDir, std::string const& path) {
  Kiv::Shm::Root const root(rootDir);
  try {
    Kiv::Shm::Root::validatePath(path);
  } catch (std::exception const& e) {
    throw ToolError::usage(fmt::format("shadow table path '{}': {}", path, e.what()));
  }
  try {
    return TarnRegFile::ShadowFields::readShadowTable(root, path);
  } catch (Kiv::Shm::CorruptionException const& e) {
    throw ToolError::failure(fmt::format("shadow table {} under {} is damaged: {}", path, rootDir, e.what()));
  } catch (std::exception const& e) {
    throw ToolError::failure(fmt::format("cannot read shadow table {} under {}: {}", path, rootDir, e.what()));
  }
}

}  // namespace Tarnreg
