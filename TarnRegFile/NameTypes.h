#pragma once
/// @file NameTypes.h
/// @brief The register and field names of the logical and the physical model: one template
/// each, instantiated per model (`LogicalRegisterName`, `PhysicalFieldName`, ...).
///
/// The two models' names behave alike and differ only in their runtime type names,
/// which the `Kind` argument gives (`LogicalNames`, `PhysicalNames` below).
///
/// Each name has the runtime's text-parsing constructor (char const*& pos, char
/// const* const& end). Two `char const*` variables passed to a name constructor
/// select that parser, so pass names as Kiv::String (literals are fine).

#include "TarnRegFile/platform/Export.h"
#include "TarnRegFile/platform/KivString.h"
#include "TarnRegFile/platform/KivValue.h"
#include "TarnRegFile/platform/Types.h"

#include <cstddef>
#include <functional>
#include <string_view>
#include <tuple>

namespace TarnRegFile {

/// @brief The full name of a default register name ("-") or field name ("--"), shared:
/// default names are built often (lookups of absent keys, default fields), and sharing
/// one immutable string keeps that to a count increment.
TARN_API Kiv::String const& defaultRegisterFullName() noexcept;
TARN_API Kiv::String const& defaultFieldFullName() noexcept;

/// @brief The bound checks of a field's bit slice, start first: throws Kiv::RangeException
/// with @p startError for a start above @p lastStart, then with @p sizeError for a width
/// outside 1..32.
TARN_API void checkSlice(U8 start, U8 size, U8 lastStart, char const* startError, char const* sizeError);

/// @brief A register of one chip: chip name, register name and "chip-register".
template <class Kind>
class BasicRegisterName : public Kiv::Value<BasicRegisterName<Kind>> {
public:
  static constexpr std::string_view typeName = Kind::registerTypeName;
  static constexpr auto attrs() {
    return std::tuple{Kiv::attr("chipName", &BasicRegisterName::chipName),
                      Kiv::attr("name", &BasicRegisterName::name),
                      Kiv::attr("fullName", &BasicRegisterName::fullName)};
  }

  /// @brief The default name: both parts empty, fullName "-".
  BasicRegisterName() : fullName(defaultRegisterFullName()) {}
  /// @brief Copies both parts and composes fullName as chipName + "-" + name.
  BasicRegisterName(Kiv::String const& chipName_, Kiv::String const& name_)
      : chipName(chipName_), name(name_), fullName(Kiv::String::concat({chipName_, "-", name_})) {}
  /// @brief Reads the text form (fullName as written); throws Kiv::ParseException when it does not match.
  BasicRegisterName(Kiv::String::IteratorConst& pos, Kiv::String::IteratorConst const& end) { this->readText(pos, end); }

  /// @brief True when the name differs from the default name.
  explicit operator bool() const noexcept {
    return !chipName.empty() || !name.empty() || !(fullName == defaultRegisterFullName());
  }
  bool operator==(BasicRegisterName const& o) const noexcept { return this->attrsEqual(o); }
  /// @brief Orders by chipName, then name, then fullName.
  bool operator<(BasicRegisterName const& o) const noexcept { return this->attrsLess(o); }

  Kiv::String chipName;
  Kiv::String name;
  Kiv::String fullName;
};

/// @brief A field of a register: register name, field name and "chip-register-field".
template <class Kind>
class BasicFieldName : public Kiv::Value<BasicFieldName<Kind>> {
public:
  using RegisterName = BasicRegisterName<Kind>;

  static constexpr std::string_view typeName = Kind::fieldTypeName;
  static constexpr auto attrs() {
    return std::tuple{Kiv::attr("regName", &BasicFieldName::regName), Kiv::attr("name", &BasicFieldName::name),
                      Kiv::attr("fullName", &BasicFieldName::fullName)};
  }

  /// @brief The default name: default register name, empty name, fullName "--".
  BasicFieldName() : fullName(defaultFieldFullName()) {}
  /// @brief Copies both parts and composes fullName as regName.fullName + "-" + name.
  BasicFieldName(RegisterName const& regName_, Kiv::String const& name_)
      : regName(regName_), name(name_), fullName(Kiv::String::concat({regName_.fullName, "-", name_})) {}
  /// @brief Reads the text form (fullName as written); throws Kiv::ParseException when it does not match.
  BasicFieldName(Kiv::String::IteratorConst& pos, Kiv::String::IteratorConst const& end) { this->readText(pos, end); }

  /// @brief True when the name differs from the default name.
  explicit operator bool() const noexcept {
    return static_cast<bool>(regName) || !name.empty() || !(fullName == defaultFieldFullName());
  }
  bool operator==(BasicFieldName const& o) const noexcept { return this->attrsEqual(o); }
  /// @brief Orders by regName, then name, then fullName.
  bool operator<(BasicFieldName const& o) const noexcept { return this->attrsLess(o); }

  RegisterName regName;
  Kiv::String name;
  Kiv::String fullName;
};

/// @brief The runtime type names of the logical model's names.
struct LogicalNames {
  static constexpr std::string_view registerTypeName = "TarnRegFile::LogicalRegisterName";
  static constexpr std::string_view fieldTypeName = "TarnRegFile::LogicalFieldName";
};
/// @brief The runtime type names of the physical (hardware) model's names.
struct PhysicalNames {
  static constexpr std::string_view registerTypeName = "TarnRegFile::PhysicalRegisterName";
  static constexpr std::string_view fieldTypeName = "TarnRegFile::PhysicalFieldName";
};

/// @brief A logical register of one chip.
using LogicalRegisterName = BasicRegisterName<LogicalNames>;
/// @brief A field of a logical register (a bit slice of up to 64-bit register).
using LogicalFieldName = BasicFieldName<LogicalNames>;
/// @brief A hardware register of one chip.
using PhysicalRegisterName = BasicRegisterName<PhysicalNames>;
/// @brief A field of a hardware register.
using PhysicalFieldName = BasicFieldName<PhysicalNames>;

}  // namespace TarnRegFile

/// Names used as keys hash by the string hash of their fullName.
template <class Kind>
struct std::hash<TarnRegFile::BasicRegisterName<Kind>> {
  size_t operator()(TarnRegFile::BasicRegisterName<Kind> const& n) const noexcept { return n.fullName.hash(); }
};
template <class Kind>
struct std::hash<TarnRegFile::BasicFieldName<Kind>> {
  size_t operator()(TarnRegFile::BasicFieldName<Kind> const& n) const noexcept { return n.fullName.hash(); }
};
