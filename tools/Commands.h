#pragma once
/// @file Commands.h
/// @brief The commands of `tarnreg`, run over parsed options.

#include "CommandLine.h"
#include "ToolError.h"

namespace Tarnreg {

/// @brief Runs the command @p options ask for and prints its result on standard output.
/// @throws ToolError for every failure, worded for the user.
void runCommand(Options const& options);

}  // namespace Tarnreg
