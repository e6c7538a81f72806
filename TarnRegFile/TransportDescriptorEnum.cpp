#include "TarnRegFile/TransportDescriptorEnum.h"

#include "TarnRegFile/platform/KivException.h"

#include <charconv>
#include <ostream>

namespace TarnRegFile {
namespace {

// The literal of value i is element i: the values of all three enumerations are 0..N-1.
constexpr char const* kTypeLiterals[] = {"i2c", "pci", "mock"};
constexpr char const* kProtocolLiterals[] = {"DirectAccess", "I2cVorm", "I2cSmbusIoctl", "mockProtocol"};
constexpr char const* kFlavourLiterals[] = {"PciDov", "I2cSmbusVorm", "I2cSmbusDataBlock", "I2cSmbusDataWord",
                                            "mockFlavour"};

template <size_t N>
Kiv::EnumType enumType(char const* typeName, char const* const (&literals)[N]) {
  Kiv::EnumType type{typeName, {}};
  for (size_t i = 0; i < N; ++i) type.literals.emplace_back(static_cast<U32>(i), literals[i]);
  return type;
}

// A function-local static so that other units' load-time code may use the
// table whatever the order in which units are initialised.
Kiv::EnumTable const& table() {
  static Kiv::EnumTable const t{
      enumType("TarnRegFile::TransportType", kTypeLiterals),
      enumType("TarnRegFile::TransportProtocol", kProtocolLiterals),
      enumType("TarnRegFile::TransportFlavour", kFlavourLiterals),
  };
  return t;
}

// Builds the table when the library is loaded; afterwards it is only read.
[[maybe_unused]] Kiv::EnumTable const& kBuiltAtLoad = table();

template <size_t N>
std::string_view literalOrNumberIn(char const* const (&literals)[N], U8 value, char (&scratch)[4]) noexcept {
  if (value < N) return literals[value];
  auto const r = std::to_chars(scratch, scratch + sizeof scratch, static_cast<unsigned>(value));
  return std::string_view(scratch, static_cast<size_t>(r.ptr - scratch));
}

template <class E>
E parseInto(unsigned index, Kiv::String::IteratorConst& pos, Kiv::String::IteratorConst const& end) {
  return static_cast<E>(table().sequenceToValue(index, pos, end));
}

}  // namespace

Kiv::EnumTable const& transportDescriptorEnumTable() { return table(); }

TransportType TransportTypeInstance(unsigned value) {
  return static_cast<TransportType>(table().instance(kTransportTypeEnumIndex, value));
}
TransportType TransportTypeInstance(Kiv::String const& literal) {
  return static_cast<TransportType>(table().instance(kTransportTypeEnumIndex, literal.view()));
}
TransportProtocol TransportProtocolInstance(unsigned value) {
  return static_cast<TransportProtocol>(table().instance(kTransportProtocolEnumIndex, value));
}
TransportProtocol TransportProtocolInstance(Kiv::String const& literal) {
  return static_cast<TransportProtocol>(table().instance(kTransportProtocolEnumIndex, literal.view()));
}
TransportFlavour TransportFlavourInstance(unsigned value) {
  return static_cast<TransportFlavour>(table().instance(kTransportFlavourEnumIndex, value));
}
TransportFlavour TransportFlavourInstance(Kiv::String const& literal) {
  return static_cast<TransportFlavour>(table().instance(kTransportFlavourEnumIndex, literal.view()));
}

Kiv::String const& stringValue(TransportType value) {
  return table().stringValue(kTransportTypeEnumIndex, static_cast<U32>(value));
}
Kiv::String const& stringValue(TransportProtocol value) {
  return table().stringValue(kTransportProtocolEnumIndex, static_cast<U32>(value));
}
Kiv::String const& stringValue(TransportFlavour value) {
  return table().stringValue(kTransportFlavourEnumIndex, static_cast<U32>(value));
}

std::string valueToStrep(TransportType value) {
  return table().valueToStrep(kTransportTypeEnumIndex, static_cast<U32>(value));
}
std::string valueToStrep(TransportProtocol value) {
  return table().valueToStrep(kTransportProtocolEnumIndex, static_cast<U32>(value));
}
std::string valueToStrep(TransportFlavour value) {
  return table().valueToStrep(kTransportFlavourEnumIndex, static_cast<U32>(value));
}

void sequenceToValue(Kiv::String::IteratorConst& pos, Kiv::String::IteratorConst const& end, TransportType* out) {
  *out = parseInto<TransportType>(kTransportTypeEnumIndex, pos, end);
}
void sequenceToValue(Kiv::String::IteratorConst& pos, Kiv::String::IteratorConst const& end,
                     TransportProtocol* out) {
  *out = parseInto<TransportProtocol>(kTransportProtocolEnumIndex, pos, end);
}
void sequenceToValue(Kiv::String::IteratorConst& pos, Kiv::String::IteratorConst const& end,
                     TransportFlavour* out) {
  *out = parseInto<TransportFlavour>(kTransportFlavourEnumIndex, pos, end);
}

std::ostream& operator<<(std::ostream& os, TransportType value) { return os << stringValue(value); }
std::ostream& operator<<(std::ostream& os, TransportProtocol value) { return os << stringValue(value); }
std::ostream& operator<<(std::ostream& os, TransportFlavour value) { return os << stringValue(value); }

std::string_view literalOrNumber(TransportType value, char (&scratch)[4]) noexcept {
  return literalOrNumberIn(kTypeLiterals, static_cast<U8>(value), scratch);
}
std::string_view literalOrNumber(TransportProtocol value, char (&scratch)[4]) noexcept {
  return literalOrNumberIn(kProtocolLiterals, static_cast<U8>(value), scratch);
}
std::string_view literalOrNumber(TransportFlavour value, char (&scratch)[4]) noexcept {
  return literalOrNumberIn(kFlavourLiterals, static_cast<U8>(value), scratch);
}

}  // namespace TarnRegFile
