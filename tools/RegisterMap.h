#pragma once
/// @file RegisterMap.h
/// @brief The register map a `tarnreg` command works on: loaded once, sorted by address,
/// with lookups whose failures are already worded for the user.

#include "TarnRegFile/platform/Types.h"

#include "TarnRegFile/RegisterFile.h"

#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace Tarnreg {

/// @brief A CSV register map with addresses scaled for one transport.
class RegisterMap {
public:
  /// @brief Loads the map at @p path, register numbers scaled by @p addrBlockSize.
  /// @throws ToolError (failure) naming the path, and the line when a line is at fault.
  RegisterMap(std::string path, U8 addrBlockSize);

  /// @brief The map's file path, as given.
  std::string const& path() const noexcept { return path_; }
  /// @brief Every register reachable by name, sorted by address, then by name.
  std::vector<TarnRegFile::Register const*> const& byAddress() const noexcept { return sorted_; }
  /// @brief The register called @p name.
  /// @throws ToolError (failure) "no register '<name>' in map <path>".
  TarnRegFile::Register const& find(std::string_view name) const;
  /// @brief The name the map gives byte address @p address (the first line that claims it).
  /// @throws ToolError (failure) "no register at address <hex> in map <path>".
  std::string const& nameAt(U32 address) const;

private:
  std::string path_;
  std::unique_ptr<TarnRegFile::RegisterFile const> file_;
  std::vector<TarnRegFile::Register const*> sorted_;
};

}  // namespace Tarnreg
