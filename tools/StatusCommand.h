#pragma once
/// @file StatusCommand.h
/// @brief `tarnreg status`: publishing a system's status (chips and profiles) in shared memory.

#include "CommandLine.h"
#include "Printer.h"

namespace Tarnreg {

/// @brief Runs the status action of @p options: show, or change the published status as the
/// table's writer for the length of the command.
/// @throws ToolError (failure) for an unknown chip or profile, a profile still in use, a
///         status published by another process at the same moment, or a damaged table.
void runStatusCommand(Options const& options, Printer const& printer);

}  // namespace Tarnreg
