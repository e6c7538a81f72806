#pragma once
/// @file ToolError.h
/// @brief The one kind of failure `tarnreg` reports: a single line of text and an exit status.

#include <stdexcept>
#include <string>

namespace Tarnreg {

/// @brief Exit statuses of the command.
enum ExitStatus : int {
  kExitSuccess = 0,  ///< the command did what was asked
  kExitFailure = 1,  ///< map, device, register or I/O failure
  kExitUsage = 2,    ///< the command line is wrong
};

/// @brief A failure whose text is printed as "tarnreg: <text>" and whose status ends the process.
class ToolError : public std::runtime_error {
public:
  ToolError(ExitStatus status, std::string const& text) : std::runtime_error(text), status_(status) {}

  /// @brief A usage error (status 2).
  static ToolError usage(std::string const& text) { return ToolError(kExitUsage, text); }
  /// @brief A runtime failure (status 1).
  static ToolError failure(std::string const& text) { return ToolError(kExitFailure, text); }

  /// @brief The process exit status this failure ends with.
  ExitStatus status() const noexcept { return status_; }

private:
  ExitStatus status_;
};

}  // namespace Tarnreg
