#pragma once
/// @file ShadowWatch.h
/// @brief `tarnreg shadow watch`: following a shadow-field table that another process writes.

#include "Printer.h"

#include <string>

namespace Tarnreg {

/// @brief Prints each change committed to the shadow-field table at @p path below @p rootDir,
/// as it happens, until SIGINT or SIGTERM arrives (then returns normally).
///
/// Sleeps in poll() on the table's watcher and a signalfd: nothing runs between changes.
/// @throws ToolError (usage) for a path that could leave the root; (failure) for a missing
///         table, a table of other records or a damaged one.
void watchShadowTable(std::string const& rootDir, std::string const& path, Printer const& printer);

}  // namespace Tarnreg
