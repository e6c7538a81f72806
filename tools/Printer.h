#pragma once
/// @file Printer.h
/// @brief What `tarnreg` prints on standard output: aligned text columns or JSON.

#include "TarnRegFile/platform/Types.h"

#include "TarnRegFile/PhysicalTypes.h"
#include "TarnRegFile/RegisterFile.h"
#include "TarnRegFile/SystemStatusShm.h"

#include <cstdio>
#include <string>
#include <vector>

namespace Tarnreg {

/// @brief A register with the value read from it.
struct RegisterValue {
  TarnRegFile::Register const* reg;
  U32 value;
};

/// @brief Prints command results as text for people or as JSON for programs.
///
/// JSON output is one object per register ({"name", "address", "value", ...}) and an
/// array for commands that print several; numbers are JSON numbers. Text output
/// prints values and addresses as 0x-hex with 8 digits, in columns aligned to the
/// longest name.
class Printer {
public:
  explicit Printer(bool json, std::FILE* out = stdout) : json_(json), out_(out) {}

  /// @brief The value of one register (read): "0x12345678".
  void registerValue(RegisterValue const& entry) const;
  /// @brief The outcome of a write: nothing as text (silence is success), the object as JSON.
  void written(RegisterValue const& entry) const;
  /// @brief Every register with its value, in the given order (dump).
  void registerValues(std::vector<RegisterValue> const& entries) const;
  /// @brief Every register's description, in the given order (list).
  void registers(std::vector<TarnRegFile::Register const*> const& regs) const;
  /// @brief The name found at an address (lookup).
  void lookup(U32 address, std::string const& name) const;
  /// @brief The entries of a shadow-field table, in the given order: address, start, size, value.
  void shadowEntries(std::vector<TarnRegFile::ShadowFieldValue> const& entries) const;
  /// @brief One change of a watched shadow-field table (@p now null: the entry went), flushed at
  /// once: "changed ADDRESS START SIZE VALUE" / "removed ADDRESS START SIZE", or one JSON object per line.
  void shadowChange(TarnRegFile::ShadowFieldKey const& key, TarnRegFile::ShadowFieldValue const* now) const;
  /// @brief A system's published status: its chips (name, device id, profile), then its profiles.
  void systemStatus(std::string const& system, TarnRegFile::SystemStatusSnapshot const& status) const;

private:
  void line(std::string const& text) const;

  bool json_;
  std::FILE* out_;
};

}  // namespace Tarnreg
