#pragma once
/// @file TransportDescriptorEnum.h
/// @brief The (type, protocol, flavour) enumerations that select a register transport.
///
/// The three enumerations live in one `Kiv::EnumTable` of this unit, at indices
/// 0 (`TransportType`), 1 (`TransportProtocol`) and 2 (`TransportFlavour`). The
/// free functions below are thin wrappers over that table: what they do with a
/// value or literal outside the table is the table's business (it throws
/// `Kiv::RangeException` naming the enumeration).

#include "TarnRegFile/platform/Export.h"
#include "TarnRegFile/platform/KivEnum.h"
#include "TarnRegFile/platform/KivString.h"
#include "TarnRegFile/platform/Types.h"

#include <fmt/format.h>

#include <iosfwd>
#include <string>
#include <string_view>

namespace TarnRegFile {

/// @brief How a chip is reached.
enum class TransportType : U8 { i2c = 0, pci = 1, mock = 2 };

/// @brief The access protocol over that transport.
enum class TransportProtocol : U8 { DirectAccess = 0, I2cVorm = 1, I2cSmbusIoctl = 2, mockProtocol = 3 };

/// @brief The concrete access style of the protocol.
enum class TransportFlavour : U8 {
  PciDov = 0,
  I2cSmbusVorm = 1,
  I2cSmbusDataBlock = 2,
  I2cSmbusDataWord = 3,
  mockFlavour = 4,
};

/// @brief Index of each enumeration in transportDescriptorEnumTable().
inline constexpr unsigned kTransportTypeEnumIndex = 0;
inline constexpr unsigned kTransportProtocolEnumIndex = 1;
inline constexpr unsigned kTransportFlavourEnumIndex = 2;

/// @brief The unit's enumeration table (built when the library is loaded).
TARN_API Kiv::EnumTable const& transportDescriptorEnumTable();

/// @brief Value to enumerator (checked against the literal table).
TARN_API TransportType TransportTypeInstance(unsigned value);
/// @brief Literal to enumerator.
TARN_API TransportType TransportTypeInstance(Kiv::String const& literal);
/// @brief Value to enumerator (checked against the literal table).
TARN_API TransportProtocol TransportProtocolInstance(unsigned value);
/// @brief Literal to enumerator.
TARN_API TransportProtocol TransportProtocolInstance(Kiv::String const& literal);
/// @brief Value to enumerator (checked against the literal table).
TARN_API TransportFlavour TransportFlavourInstance(unsigned value);
/// @brief Literal to enumerator.
TARN_API TransportFlavour TransportFlavourInstance(Kiv::String const& literal);

/// @brief The literal of a value ("pci").
TARN_API Kiv::String const& stringValue(TransportType value);
/// @brief The literal of a value ("DirectAccess").
TARN_API Kiv::String const& stringValue(TransportProtocol value);
/// @brief The literal of a value ("PciDov").
TARN_API Kiv::String const& stringValue(TransportFlavour value);

/// @brief The runtime's text form of a value (the quoted literal, "'pci'").
TARN_API std::string valueToStrep(TransportType value);
/// @brief The runtime's text form of a value (the quoted literal).
TARN_API std::string valueToStrep(TransportProtocol value);
/// @brief The runtime's text form of a value (the quoted literal).
TARN_API std::string valueToStrep(TransportFlavour value);

/// @brief Parses a literal (bare or quoted) at @p pos into @p out and advances @p pos past it.
TARN_API void sequenceToValue(Kiv::String::IteratorConst& pos, Kiv::String::IteratorConst const& end,
                              TransportType* out);
/// @brief Parses a literal (bare or quoted) at @p pos into @p out and advances @p pos past it.
TARN_API void sequenceToValue(Kiv::String::IteratorConst& pos, Kiv::String::IteratorConst const& end,
                              TransportProtocol* out);
/// @brief Parses a literal (bare or quoted) at @p pos into @p out and advances @p pos past it.
TARN_API void sequenceToValue(Kiv::String::IteratorConst& pos, Kiv::String::IteratorConst const& end,
                              TransportFlavour* out);

/// @brief Writes the literal.
TARN_API std::ostream& operator<<(std::ostream& os, TransportType value);
/// @brief Writes the literal.
TARN_API std::ostream& operator<<(std::ostream& os, TransportProtocol value);
/// @brief Writes the literal.
TARN_API std::ostream& operator<<(std::ostream& os, TransportFlavour value);

/// @brief Text form used by the runtime's value writer (found by argument-dependent lookup).
inline std::string toStrep(TransportType value) { return valueToStrep(value); }
inline std::string toStrep(TransportProtocol value) { return valueToStrep(value); }
inline std::string toStrep(TransportFlavour value) { return valueToStrep(value); }

/// @brief The literal, or the number in decimal for a value outside the table. Never throws,
/// so that error texts about a bad value can still be formatted.
TARN_API std::string_view literalOrNumber(TransportType value, char (&scratch)[4]) noexcept;
TARN_API std::string_view literalOrNumber(TransportProtocol value, char (&scratch)[4]) noexcept;
TARN_API std::string_view literalOrNumber(TransportFlavour value, char (&scratch)[4]) noexcept;

}  // namespace TarnRegFile

namespace TarnRegFile::detail {
/// @brief Formats a transport enumeration as its literal ("Unknown transport type 'i2c'").
template <class E>
struct TransportEnumFormatter : fmt::formatter<fmt::string_view> {
  template <class Ctx>
  auto format(E value, Ctx& ctx) const {
    char scratch[4];
    std::string_view const text = TarnRegFile::literalOrNumber(value, scratch);
    return fmt::formatter<fmt::string_view>::format(fmt::string_view(text.data(), text.size()), ctx);
  }
};
}  // namespace TarnRegFile::detail

template <>
struct fmt::formatter<TarnRegFile::TransportType> : TarnRegFile::detail::TransportEnumFormatter<TarnRegFile::TransportType> {};
template <>
struct fmt::formatter<TarnRegFile::TransportProtocol>
    : TarnRegFile::detail::TransportEnumFormatter<TarnRegFile::TransportProtocol> {};
template <>
struct fmt::formatter<TarnRegFile::TransportFlavour>
    : TarnRegFile::detail::TransportEnumFormatter<TarnRegFile::TransportFlavour> {};
