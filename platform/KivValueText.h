#pragma once
/// @file KivValueText.h
/// @brief The text form of runtime values and its reader.
///
/// A value prints as  Value('TarnRegFile::ShadowFieldKey', ** {'address': 5, 'start': 0, 'size': 32})
/// Integers print in decimal, booleans as True/False, strings in their quoted
/// text form (`Kiv::strep`), nested values in their own text form, null
/// references as None. `ValueWriter` builds that text; `ValueReader` reads it back
/// piece by piece, and its attribute reader rethrows any failure with the
/// attribute's name in front, so "key: TarnRegFile::ShadowFieldKey::start ..." tells
/// which part of a nested value was wrong.

#include "TarnRegFile/platform/Export.h"
#include "TarnRegFile/platform/KivException.h"
#include "TarnRegFile/platform/KivPtr.h"
#include "TarnRegFile/platform/KivString.h"
#include "TarnRegFile/platform/Types.h"

#include <concepts>
#include <limits>
#include <string>
#include <string_view>
#include <type_traits>

namespace Kiv {

/// @brief Text form of an unsigned or signed integer (decimal).
template <std::integral T>
  requires(!std::same_as<T, bool>)
std::string toStrep(T v) {
  if constexpr (std::is_same_v<T, U8> || std::is_same_v<T, char> || std::is_same_v<T, signed char>)
    return std::to_string(static_cast<int>(v));
  else
    return std::to_string(v);
}
inline std::string toStrep(bool v) { return v ? "True" : "False"; }
inline std::string toStrep(String const& v) { return strep(v); }
/// @brief Values with a member valueToStrep() print their own text form.
template <class T>
  requires requires(T const& t) {
    { t.valueToStrep() } -> std::convertible_to<std::string>;
  }
std::string toStrep(T const& v) {
  return v.valueToStrep();
}
/// @brief A reference prints as None when null, otherwise as its entity's type and name.
template <class T>
std::string toStrep(Ptr<T> const& p) {
  if (!p) return "None";
  if constexpr (requires { p->fwkType(); p->name(); })
    return std::string("<") + p->fwkType() + " " + strep(p->name()) + ">";
  else
    return "<object>";
}

class TARN_API ValueWriter {
public:
  /// @brief Starts "Value('typeName', ** {".
  ValueWriter(std::string& out, std::string_view typeName);
  /// @brief Appends "'name': <text form of v>" (with ", " between attributes).
  template <class V>
  ValueWriter& attr(std::string_view name, V const& v) {
    return raw(name, toStrep(v));
  }
  /// @brief Appends an attribute whose text is already formed.
  ValueWriter& raw(std::string_view name, std::string_view text);
  /// @brief Closes with "})".
  void end();

private:
  std::string& out_;
  bool first_ = true;
};

class TARN_API ValueReader {
public:
  using It = String::IteratorConst;
  ValueReader(It& pos, It end) : pos_(pos), end_(end) {}

  /// @brief Consumes @p literal exactly or throws ParseException.
  void expect(std::string_view literal);
  /// @brief Reads one attribute's value; failures are rethrown with @p name attached.
  template <class V>
  void attr(std::string_view name, V& v) {
    try {
      read(v);
    } catch (RangeException const& e) {
      throw RangeException(std::string(name) + ": " + e.what());
    } catch (ParseException const& e) {
      throw ParseException(std::string(name) + ": " + e.what());
    }
  }
  /// @brief Skips spaces.
  void skipSpace();
  bool atEnd() const noexcept { return pos_ == end_; }
  It& pos() noexcept { return pos_; }
  It end() const noexcept { return end_; }

  void read(String& v);
  void read(bool& v);
  template <std::integral T>
    requires(!std::same_as<T, bool>)
  void read(T& v) {
    U64 const raw = readUnsigned(static_cast<U64>(std::numeric_limits<std::make_unsigned_t<T>>::max()));
    v = static_cast<T>(raw);
  }
  /// @brief Nested values are read through their (pos, end) constructor.
  template <class T>
    requires std::constructible_from<T, It&, It const&>
  void read(T& v) {
    v = T(pos_, end_);
  }

private:
  U64 readUnsigned(U64 max);
  [[noreturn]] void fail(std::string_view what) const;

  It& pos_;
  It end_;
};

}  // namespace Kiv
