#pragma once
/// @file KivValue.h
/// @brief Value types described once by their attribute list.
///
/// A value type derives from `Kiv::Value<T>` and declares its runtime type name and
/// its attributes, in text order:
///
///     class ShadowFieldKey : public Kiv::Value<ShadowFieldKey> {
///     public:
///       static constexpr std::string_view typeName = "TarnRegFile::ShadowFieldKey";
///       static constexpr auto attrs() {
///         return std::tuple{Kiv::attr("address", &ShadowFieldKey::address),
///                           Kiv::attr("start", &ShadowFieldKey::start), Kiv::attr("size", &ShadowFieldKey::size)};
///       }
///       ...
///     };
///
/// That one list gives the text form (`valueToStrep`, `operator<<`, fmt), the
/// parser of the same text (`readText`, for the type's (pos, end) constructor),
/// member-wise equality and ordering, and the seeded hash over the integer
/// attributes. Adding an attribute is one line, and the forms cannot drift apart.
///
/// The parser requires the pieces exactly as written ("'address': " with its
/// space); a type that declares `static constexpr bool looseAttrSpacing = true`
/// accepts any number of spaces after each colon instead.
///
/// The base is empty: a type keeps its layout (and stays trivially copyable) with it.

#include "TarnRegFile/platform/KivHash.h"
#include "TarnRegFile/platform/KivString.h"
#include "TarnRegFile/platform/KivValueText.h"
#include "TarnRegFile/platform/Types.h"

#include <fmt/format.h>

#include <concepts>
#include <ostream>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>

namespace Kiv {

/// @brief One declared attribute: its name in the text form and the member holding it.
template <class C, class M>
struct Attr {
  std::string_view name;
  M C::*member;
};

template <class C, class M>
constexpr Attr<C, M> attr(std::string_view name, M C::*member) noexcept {
  return {name, member};
}

template <class T>
class Value {
public:
  /// @brief "Value('<typeName>', ** {'<attr>': <text>, ...})".
  std::string valueToStrep() const {
    std::string out;
    ValueWriter w(out, T::typeName);
    forEachAttr([&](auto const& a) { w.attr(a.name, self().*a.member); });
    w.end();
    return out;
  }

  friend std::ostream& operator<<(std::ostream& os, T const& v) { return os << v.valueToStrep(); }

protected:
  /// @brief Reads the text form into the attributes; throws ParseException (or the
  /// RangeException of a nested value, with the attribute's name in front).
  void readText(String::IteratorConst& pos, String::IteratorConst const& end) {
    ValueReader r(pos, end);
    r.expect(std::string("Value('").append(T::typeName).append("', ** {"));
    bool first = true;
    forEachAttr([&](auto const& a) {
      std::string piece = first ? "'" : ", '";
      first = false;
      piece.append(a.name).append("':");
      if constexpr (requires { requires T::looseAttrSpacing; }) {
        r.expect(piece);
        r.skipSpace();
      } else {
        r.expect(piece + ' ');
      }
      r.attr(a.name, self().*a.member);
    });
    r.expect("})");
  }

  /// @brief Every attribute equal.
  bool attrsEqual(T const& o) const {
    bool equal = true;
    forEachAttr([&](auto const& a) { equal = equal && self().*a.member == o.*a.member; });
    return equal;
  }
  /// @brief Ordered by the attributes in declaration order; the first difference decides.
  bool attrsLess(T const& o) const {
    int order = 0;
    forEachAttr([&](auto const& a) {
      if (order != 0) return;
      if (self().*a.member < o.*a.member)
        order = -1;
      else if (o.*a.member < self().*a.member)
        order = 1;
    });
    return order < 0;
  }
  /// @brief The runtime's incremental hash over the attributes in order: 4-byte and
  /// 1-byte integers at their width, nested values through their own attributes.
  /// Processes that share tables depend on it: neither order nor widths may change.
  U32 attrsHash(U32 seed) const noexcept { return mixAttrs(Hash(seed)).result(); }

public:
  /// @brief attrsHash's step: mixes this value's attributes into @p h.
  Hash mixAttrs(Hash h) const noexcept {
    forEachAttr([&](auto const& a) {
      auto const& v = self().*a.member;
      using M = std::remove_cvref_t<decltype(v)>;
      if constexpr (std::is_same_v<M, U8>)
        h.mix1(v);
      else if constexpr (std::is_same_v<M, U32>)
        h.mix4(v);
      else
        h = v.mixAttrs(h);
    });
    return h;
  }

private:
  T const& self() const noexcept { return static_cast<T const&>(*this); }
  T& self() noexcept { return static_cast<T&>(*this); }

  template <class F>
  static void forEachAttr(F&& f) {
    std::apply([&](auto const&... a) { (f(a), ...); }, T::attrs());
  }
};

/// @brief Whether T declares its attributes through Kiv::Value.
template <class T>
concept DeclaredValue = std::derived_from<T, Value<T>>;

}  // namespace Kiv

/// Every declared value formats as its text form.
template <class T>
struct fmt::formatter<T, char, std::enable_if_t<Kiv::DeclaredValue<T>>> : fmt::formatter<std::string_view> {
  auto format(T const& v, format_context& ctx) const {
    return fmt::formatter<std::string_view>::format(v.valueToStrep(), ctx);
  }
};
