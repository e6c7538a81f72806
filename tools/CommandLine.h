#pragma once
/// @file CommandLine.h
/// @brief The `tarnreg` command line: its usage text and its parsing into Options.

#include "TarnRegFile/platform/Types.h"

#include "AgentClient.h"
#include "TransportChoice.h"

#include <optional>
#include <string>

namespace Tarnreg {

/// @brief What the command line asks for.
enum class Command { Read, Write, Dump, List, Lookup, ShadowShow, ShadowWatch, Status, Agent };

/// @brief What `tarnreg status` does.
enum class StatusAction { Show, Add, Remove, Profile, RemoveProfile };

/// @brief Everything the command line gave, checked and converted.
struct Options {
  Command command = Command::List;
  std::string mapPath;         ///< --map
  TransportChoice transport;   ///< --mock / --pci / --i2c and their arguments
  bool json = false;           ///< --json
  bool force = false;          ///< -f, --force
  int verbosity = 0;           ///< number of -v
  std::string regName;         ///< read, write
  U32 value = 0;               ///< write
  U32 address = 0;             ///< lookup
  std::string shadowRoot;      ///< shadow show / watch, status: --root
  std::string shadowPath;      ///< shadow show / watch PATH
  std::string statusSystem;    ///< status --system
  StatusAction statusAction = StatusAction::Show;
  std::string chipName;        ///< status add / remove CHIP
  U8 devId = 0;                ///< status add DEVID
  std::string profileName;     ///< status add / profile / remove-profile PROFILE
  U32 hwMajor = 0;             ///< status profile MAJOR.MINOR
  U32 hwMinor = 0;
  AgentCommand agent;          ///< field, reg, agent, shadow diff: a request for tarnagent
};

/// @brief The text --help prints.
std::string const& usageText();

/// @brief Parses @p argv.
/// @return the options, or nothing when help was asked for (and printed on standard output).
/// @throws ToolError (usage) for anything the command line gets wrong.
std::optional<Options> parseCommandLine(int argc, char const* const* argv);

}  // namespace Tarnreg
