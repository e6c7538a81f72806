#include "TarnRegFile/platform/KivGeneric.h"

#include <fmt/format.h>

namespace Kiv {

U64 parseUnsignedArg(std::string const& text, U64 max) {
  std::string_view t(text);
  int base = 10;
  if (t.size() > 2 && t[0] == '0' && (t[1] == 'x' || t[1] == 'X')) {
    base = 16;
    t.remove_prefix(2);
  }
  if (t.empty()) throw std::invalid_argument(fmt::format("'{}' is not a number", text));
  U64 v = 0;
  for (char c : t) {
    int d;
    if (c >= '0' && c <= '9')
      d = c - '0';
    else if (base == 16 && c >= 'a' && c <= 'f')
      d = c - 'a' + 10;
    else if (base == 16 && c >= 'A' && c <= 'F')
      d = c - 'A' + 10;
    else
      throw std::invalid_argument(fmt::format("'{}' is not a number", text));
    if (v > (max - static_cast<U64>(d)) / static_cast<U64>(base))
      throw std::invalid_argument(fmt::format("'{}' is above {}", text, max));
    v = v * static_cast<U64>(base) + static_cast<U64>(d);
  }
  return v;
}

bool parseBoolArg(std::string const& text) {
  if (text == "True" || text == "true" || text == "1") return true;
  if (text == "False" || text == "false" || text == "0") return false;
  throw std::invalid_argument(fmt::format("'{}' is not a boolean (true or false)", text));
}

TypeRegistry& TypeRegistry::instance() {
  static TypeRegistry* r = new TypeRegistry;  // lives for the whole process; types register at load time
  return *r;
}

TypeRegistry::Type& TypeRegistry::typeIs(std::string const& name) {
  auto& t = types_[name];
  t.name = name;
  return t;
}

TypeRegistry::Type const* TypeRegistry::type(std::string_view name) const {
  auto it = types_.find(name);
  return it == types_.end() ? nullptr : &it->second;
}

std::vector<std::string> TypeRegistry::typeNames() const {
  std::vector<std::string> names;
  for (auto const& [n, t] : types_) names.push_back(n);
  return names;
}

Ptr<Entity> TypeRegistry::create(std::string_view typeName, String const& name) const {
  auto const* t = type(typeName);
  if (!t || !t->factory) throw std::runtime_error(fmt::format("no entity type '{}' is registered", typeName));
  return t->factory(name);
}

std::string TypeRegistry::call(Entity& e, std::string_view method, std::vector<std::string> const& args) const {
  auto const* t = type(e.fwkType());
  if (!t) throw std::runtime_error(fmt::format("entity type '{}' publishes no operations", e.fwkType()));
  auto it = t->methods.find(method);
  if (it == t->methods.end())
    throw std::runtime_error(fmt::format("{} has no operation '{}'", e.fwkType(), method));
  try {
    return it->second(e, args);
  } catch (std::invalid_argument const& ex) {
    throw std::runtime_error(fmt::format("{}.{}: {}", e.fwkType(), method, ex.what()));
  }
}

std::string TypeRegistry::attribute(Entity& e, std::string_view attr) const {
  auto const* t = type(e.fwkType());
  auto it = t ? t->attributes.find(attr) : decltype(t->attributes.end()){};
  if (!t || it == t->attributes.end())
    throw std::runtime_error(fmt::format("{} has no attribute '{}'", e.fwkType(), attr));
  return it->second(e, {});
}

void TypeRegistry::attributeIs(Entity& e, std::string_view attr, std::string const& value) const {
  auto const* t = type(e.fwkType());
  if (!t) throw std::runtime_error(fmt::format("{} has no writable attribute '{}'", e.fwkType(), attr));
  auto it = t->attributeWriters.find(attr);
  if (it == t->attributeWriters.end())
    throw std::runtime_error(fmt::format("{} has no writable attribute '{}'", e.fwkType(), attr));
  try {
    it->second(e, {value});
  } catch (std::invalid_argument const& ex) {
    throw std::runtime_error(fmt::format("{}.{}: {}", e.fwkType(), attr, ex.what()));
  }
}

Ptr<PtrInterface> TypeRegistry::construct(std::string_view typeName, std::vector<std::string> const& args) const {
  auto const* t = type(typeName);
  if (!t || !t->constructor)
    throw std::runtime_error(fmt::format("type '{}' cannot be constructed from arguments", typeName));
  try {
    return t->constructor(args);
  } catch (std::invalid_argument const& ex) {
    throw std::runtime_error(fmt::format("{}: {}", typeName, ex.what()));
  }
}

}  // namespace Kiv
