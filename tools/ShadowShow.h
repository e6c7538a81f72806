#pragma once
/// @file ShadowShow.h
/// @brief Reading a shadow-field table that another process owns, for `tarnreg shadow show`.

#include "TarnRegFile/PhysicalTypes.h"

#include <string>
#include <vector>

namespace Tarnreg {

/// @brief Every entry of the shadow-field table at @p path below the shared-memory root
/// @p rootDir, sorted by key. The table is only read: its writer keeps running undisturbed.
/// @throws ToolError (failure) naming the table when it is missing, of another kind or damaged;
///         ToolError (usage) when @p path could leave the root.
std::vector<TarnRegFile::ShadowFieldValue> readShadowEntries(std::string const& rootDir, std::string const& path);

}  // namespace Tarnreg
