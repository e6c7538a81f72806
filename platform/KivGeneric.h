#pragma once
/// @file KivGeneric.h
/// @brief The generic interface: entity types, their operations and attributes by name.
///
/// Each entity type registers itself once (at library load) under its type
/// name with a factory and the operations it publishes. A tool or a test can
/// then create an entity from its type name, call an operation by name with
/// text arguments and get the text result:
///
///     Kiv::TypeRegistry::instance().call(*chip, "fieldWrite", {"ctrl", "en", "0x1"});
///
/// Arguments are parsed from text with `Kiv::fromText` (integers in decimal or
/// 0x-hex, True/False or true/false, strings as given or quoted, values in their
/// text form); results are rendered with `Kiv::toStrep` (strings unquoted).

#include "TarnRegFile/platform/Export.h"
#include "TarnRegFile/platform/KivEntity.h"
#include "TarnRegFile/platform/KivValueText.h"

#include <functional>
#include <map>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

namespace Kiv {

/// @brief Parses a text argument into T; throws std::invalid_argument with a clear text.
TARN_API U64 parseUnsignedArg(std::string const& text, U64 max);
TARN_API bool parseBoolArg(std::string const& text);

template <class T>
T fromText(std::string const& text) {
  if constexpr (std::is_same_v<T, bool>) {
    return parseBoolArg(text);
  } else if constexpr (std::is_integral_v<T>) {
    return static_cast<T>(parseUnsignedArg(text, std::numeric_limits<std::make_unsigned_t<T>>::max()));
  } else if constexpr (std::is_same_v<T, String>) {
    if (text.size() >= 2 && text.front() == '\'' && text.back() == '\'') {
      String s;
      String::IteratorConst pos = text.data();
      ValueReader r(pos, text.data() + text.size());
      r.read(s);
      return s;
    }
    return String(text);
  } else if constexpr (std::is_constructible_v<T, String::IteratorConst&, String::IteratorConst const&>) {
    String::IteratorConst pos = text.data();
    String::IteratorConst const end = text.data() + text.size();
    T v(pos, end);
    if (pos != end) throw std::invalid_argument("trailing text after value: " + text);
    return v;
  } else {
    throw std::invalid_argument("an argument of this type cannot be given as text");
  }
}

template <class T>
std::string resultText(T const& v) {
  if constexpr (std::is_same_v<T, String>)
    return v.str();
  else
    return toStrep(v);
}

class TARN_API TypeRegistry {
public:
  using Factory = std::function<Ptr<Entity>(String const& name)>;
  using Method = std::function<std::string(Entity&, std::vector<std::string> const& args)>;

  struct Type {
    std::string name;
    Factory factory;
    std::map<std::string, Method, std::less<>> methods;
    std::map<std::string, Method, std::less<>> attributes;        // readers: no arguments
    std::map<std::string, Method, std::less<>> attributeWriters;  // one argument: the new value
    /// Builds an instance from a list of constructor arguments in text form.
    std::function<Ptr<PtrInterface>(std::vector<std::string> const& args)> constructor;
  };

  static TypeRegistry& instance();

  /// @brief Registers (or returns) the type @p name.
  Type& typeIs(std::string const& name);
  /// @brief The registered type, or null.
  Type const* type(std::string_view name) const;
  /// @brief Every registered type name, sorted.
  std::vector<std::string> typeNames() const;

  /// @brief Creates an entity of a registered type; throws std::runtime_error for an unknown type.
  Ptr<Entity> create(std::string_view typeName, String const& name) const;
  /// @brief Calls a published operation of @p e by name; throws std::runtime_error when unknown.
  std::string call(Entity& e, std::string_view method, std::vector<std::string> const& args) const;
  /// @brief Reads a published attribute of @p e by name.
  std::string attribute(Entity& e, std::string_view attr) const;
  /// @brief Sets a published attribute of @p e from text.
  void attributeIs(Entity& e, std::string_view attr, std::string const& value) const;
  /// @brief Builds an object of a registered type from constructor arguments in text form.
  Ptr<PtrInterface> construct(std::string_view typeName, std::vector<std::string> const& args) const;

private:
  std::map<std::string, Type, std::less<>> types_;
};

namespace detail {
template <class F>
struct MemberTraits;
template <class R, class C, class... A>
struct MemberTraits<R (C::*)(A...)> {
  using Class = C;
  using Result = R;
  using Args = std::tuple<std::decay_t<A>...>;
};
template <class R, class C, class... A>
struct MemberTraits<R (C::*)(A...) const> : MemberTraits<R (C::*)(A...)> {};
template <class R, class C, class... A>
struct MemberTraits<R (C::*)(A...) noexcept> : MemberTraits<R (C::*)(A...)> {};
template <class R, class C, class... A>
struct MemberTraits<R (C::*)(A...) const noexcept> : MemberTraits<R (C::*)(A...)> {};

template <class Args, size_t... I>
Args parseArgs(std::vector<std::string> const& text, std::index_sequence<I...>) {
  return Args{fromText<std::tuple_element_t<I, Args>>(text[I])...};
}
}  // namespace detail

/// @brief Wraps a member operation as a generic Method (argument count and types checked at call time).
template <auto MemFn>
TypeRegistry::Method method() {
  using Traits = detail::MemberTraits<decltype(MemFn)>;
  using C = typename Traits::Class;
  using Args = typename Traits::Args;
  return [](Entity& e, std::vector<std::string> const& text) -> std::string {
    constexpr size_t n = std::tuple_size_v<Args>;
    if (text.size() != n)
      throw std::invalid_argument("expected " + std::to_string(n) + " argument(s), got " +
                                  std::to_string(text.size()));
    auto* self = dynamic_cast<C*>(&e);
    if (!self) throw std::invalid_argument(std::string("operation does not apply to ") + e.fwkType());
    Args args = detail::parseArgs<Args>(text, std::make_index_sequence<n>());
    if constexpr (std::is_void_v<typename Traits::Result>) {
      std::apply([self](auto&&... a) { (self->*MemFn)(a...); }, args);
      return std::string();
    } else {
      return resultText(std::apply([self](auto&&... a) { return (self->*MemFn)(a...); }, args));
    }
  };
}

}  // namespace Kiv
