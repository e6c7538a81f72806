#pragma once
/// @file DevId.h
/// @brief `Hardware::DevId`: the platform's 8-bit device identifier.
///
/// The platform numbers the kinds of device it knows with 8-bit identifiers
/// and publishes one per chip in the chip's status. The library only stores,
/// compares and prints them: every 8-bit value is a valid identifier, and 0
/// (the default) means "not told yet". The text form is the number in decimal
/// ("7"); the parser reads it back and refuses anything above 255.

#include "TarnRegFile/platform/Export.h"
#include "TarnRegFile/platform/KivString.h"
#include "TarnRegFile/platform/Types.h"

#include <fmt/format.h>

#include <compare>
#include <iosfwd>
#include <string>

namespace Hardware {

class TARN_API DevId {
public:
  constexpr DevId() noexcept = default;
  constexpr explicit DevId(U8 value) noexcept : value_(value) {}
  /// @brief Reads the decimal text form; throws Kiv::ParseException for anything else or above 255.
  DevId(Kiv::String::IteratorConst& pos, Kiv::String::IteratorConst const& end);

  /// @brief The identifier.
  constexpr U8 value() const noexcept { return value_; }
  /// @brief False for 0, the identifier of a device not told yet.
  constexpr explicit operator bool() const noexcept { return value_ != 0; }
  constexpr auto operator<=>(DevId const&) const noexcept = default;

  /// @brief The number in decimal.
  std::string valueToStrep() const;

private:
  U8 value_ = 0;
};

/// @brief Writes the number in decimal.
TARN_API std::ostream& operator<<(std::ostream& os, DevId value);

}  // namespace Hardware

template <>
struct fmt::formatter<Hardware::DevId> : fmt::formatter<unsigned> {
  auto format(Hardware::DevId v, format_context& ctx) const {
    return fmt::formatter<unsigned>::format(v.value(), ctx);
  }
};
