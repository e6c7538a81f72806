#include "SystemDescription.h"

#include "TarnRegFile/RegisterFile.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <fstream>
#include <initializer_list>
#include <map>
#include <sstream>
#include <unordered_map>

namespace TarnAgent {

namespace {

using Json = nlohmann::json;

[[noreturn]] void fail(std::string const& where, std::string const& why) {
  throw DescriptionError(fmt::format("{}: {}", where, why));
}

char const* typeName(Json const& j) {
  switch (j.type()) {
    case Json::value_t::null: return "null";
    case Json::value_t::object: return "an object";
    case Json::value_t::array: return "an array";
    case Json::value_t::string: return "a string";
    case Json::value_t::boolean: return "a boolean";
    case Json::value_t::number_float: return "a fraction";
    case Json::value_t::number_integer:
    case Json::value_t::number_unsigned: return "a number";
    default: return "something else";
  }
}

// An object whose members are taken one by one; members nobody asked for are typos.
class Object {
public:
  Object(Json const& j, std::string where) : j_(j), where_(std::move(where)) {
    if (!j.is_object()) fail(where_, fmt::format("expected an object, got {}", typeName(j)));
  }
  std::string const& where() const { return where_; }
  std::string at(std::string_view key) const { return fmt::format("{}.{}", where_, key); }
  bool has(char const* key) const { return j_.contains(key); }

  Json const& member(char const* key) const {
    auto it = j_.find(key);
    if (it == j_.end()) fail(at(key), "missing");
    return *it;
  }
  std::string string(char const* key) const {
    Json const& v = member(key);
    if (!v.is_string()) fail(at(key), fmt::format("expected a string, got {}", typeName(v)));
    std::string s = v.get<std::string>();
    if (s.empty()) fail(at(key), "is empty");
    return s;
  }
  std::string string(char const* key, std::string fallback) const { return has(key) ? string(key) : fallback; }
  // A number as a JSON integer or as a "0x..." string, at most @p max.
  U64 number(char const* key, U64 max) const {
    Json const& v = member(key);
    U64 value = 0;
    if (v.is_number_unsigned()) {
      value = v.get<U64>();
    } else if (v.is_number_integer()) {
      fail(at(key), fmt::format("{} is negative", v.get<long long>()));
    } else if (v.is_string()) {
      std::string const s = v.get<std::string>();
      bool ok = s.size() > 2 && s.size() <= 18 && s[0] == '0' && (s[1] == 'x' || s[1] == 'X');
      for (size_t i = 2; ok && i < s.size(); ++i) ok = std::isxdigit(static_cast<unsigned char>(s[i])) != 0;
      if (!ok) fail(at(key), fmt::format("'{}' is not a number (give 42 or \"0x2a\")", s));
      value = std::stoull(s.substr(2), nullptr, 16);
    } else {
      fail(at(key), fmt::format("expected a number, got {}", typeName(v)));
    }
    if (value > max) fail(at(key), fmt::format("{} is beyond {}", value, max));
    return value;
  }
  U64 number(char const* key, U64 max, U64 fallback) const { return has(key) ? number(key, max) : fallback; }
  Json const& array(char const* key) const {
    Json const& v = member(key);
    if (!v.is_array()) fail(at(key), fmt::format("expected an array, got {}", typeName(v)));
    return v;
  }
  // Refuses members other than @p known: a misspelt optional member would be silently ignored.
  void only(std::initializer_list<char const*> known) const {
    for (auto const& [key, value] : j_.items()) {
      bool found = false;
      for (char const* k : known) found = found || key == k;
      if (!found) fail(at(key), "unknown member");
    }
  }

private:
  Json const& j_;
  std::string where_;
};

std::string resolve(std::string const& path, std::string const& baseDir) {
  if (path.front() == '/' || baseDir.empty()) return path;
  return baseDir + "/" + path;
}

std::string bits(U32 start, U32 size) { return fmt::format("bits {}..{}", start, start + size - 1); }

// The layout of @p o (a chip type or a chip with its own fields), checked against its map.
std::shared_ptr<ChipLayout const> parseLayout(Object const& o, std::string const& baseDir) {
  auto layout = std::make_shared<ChipLayout>();
  layout->mapPath = resolve(o.string("map"), baseDir);
  std::unique_ptr<TarnRegFile::RegisterFile> map;
  try {
    map = std::make_unique<TarnRegFile::RegisterFile>(layout->mapPath.c_str(), 1);
  } catch (std::exception const& e) {
    fail(o.at("map"), e.what());
  }

  struct Place {
    U32 index;
    std::string where;
  };
  std::unordered_map<std::string, Place> physicalByName;  // "reg.field"
  std::unordered_map<U32, std::vector<U32>> fieldsByRegister;
  Json const& fields = o.array("fields");
  layout->physical.reserve(fields.size());
  for (size_t i = 0; i < fields.size(); ++i) {
    Object const f(fields[i], fmt::format("{}[{}]", o.at("fields"), i));
    f.only({"register", "field", "start", "size"});
    PhysicalFieldEntry p;
    p.reg = f.string("register");
    p.field = f.string("field");
    p.start = static_cast<U8>(f.number("start", 31));
    p.size = static_cast<U8>(f.number("size", 32));
    if (p.size == 0) fail(f.at("size"), "0 is below 1");
    if (p.start + p.size > 32) fail(f.at("size"), fmt::format("{} run past bit 31", bits(p.start, p.size)));
    if (!map->hasRegName(p.reg.view())) fail(f.at("register"), fmt::format("'{}' is not in {}", p.reg, layout->mapPath));
    p.regNumber = map->findRegisterByName(p.reg.view()).number;
    if (p.regNumber > (1u << 28)) fail(f.at("register"), fmt::format("register number {} is beyond {}", p.regNumber, 1u << 28));
    auto const [it, fresh] =
        physicalByName.try_emplace(p.reg.str() + "." + p.field.str(), Place{static_cast<U32>(i), f.where()});
    if (!fresh) fail(f.where(), fmt::format("{}.{} is already {}", p.reg, p.field, it->second.where));
    // Overlapping fields of one register would overwrite each other's bits on every write.
    for (U32 other : fieldsByRegister[p.regNumber]) {
      auto const& q = layout->physical[other];
      if (p.start < q.start + q.size && q.start < p.start + p.size)
        fail(f.where(), fmt::format("{} overlap {}.{} ({})", bits(p.start, p.size), q.reg, q.field, bits(q.start, q.size)));
    }
    fieldsByRegister[p.regNumber].push_back(static_cast<U32>(i));
    layout->maxRegNumber = std::max(layout->maxRegNumber, p.regNumber);
    p.logical = ~0u;
    layout->physical.push_back(std::move(p));
  }

  Json const& registers = o.array("registers");
  std::unordered_map<std::string, std::string> registerNames;
  for (size_t r = 0; r < registers.size(); ++r) {
    Object const reg(registers[r], fmt::format("{}[{}]", o.at("registers"), r));
    reg.only({"name", "fields"});
    Kiv::String const name(reg.string("name"));
    auto const [named, freshName] = registerNames.try_emplace(name.str(), reg.where());
    if (!freshName) fail(reg.at("name"), fmt::format("'{}' is already {}", name, named->second));
    Json const& lfields = reg.array("fields");
    if (lfields.empty()) fail(reg.at("fields"), "is empty: a logical register comes with its fields");
    std::map<std::string, std::string> fieldNames;
    std::vector<std::pair<U32, U32>> slices;
    for (size_t i = 0; i < lfields.size(); ++i) {
      Object const f(lfields[i], fmt::format("{}[{}]", reg.at("fields"), i));
      f.only({"name", "start", "size", "initial", "physical"});
      LogicalFieldEntry l;
      l.reg = name;
      std::string const fieldName = f.string("name");
      l.field = Kiv::String(fieldName);
      l.start = static_cast<U8>(f.number("start", 63));
      l.size = static_cast<U8>(f.number("size", 32));
      if (l.size == 0) fail(f.at("size"), "0 is below 1");
      if (l.start + l.size > 64) fail(f.at("size"), fmt::format("{} run past bit 63", bits(l.start, l.size)));
      l.initial = static_cast<U32>(f.number("initial", 0xFFFFFFFFu, 0));
      if (l.size < 32 && (l.initial >> l.size) != 0)
        fail(f.at("initial"), fmt::format("{:#x} does not fit {} bits", l.initial, l.size));
      auto const [fn, freshField] = fieldNames.try_emplace(fieldName, f.where());
      if (!freshField) fail(f.at("name"), fmt::format("'{}' is already {}", fieldName, fn->second));
      for (auto const& [s, z] : slices)
        if (l.start < s + z && s < U32(l.start) + l.size)
          fail(f.where(), fmt::format("{} overlap {} of the same register", bits(l.start, l.size), bits(s, z)));
      slices.emplace_back(l.start, l.size);
      Object const ph(f.member("physical"), f.at("physical"));
      ph.only({"register", "field"});
      std::string const key = ph.string("register") + "." + ph.string("field");
      auto const target = physicalByName.find(key);
      if (target == physicalByName.end()) fail(ph.where(), fmt::format("{} is not among the chip's fields", key));
      PhysicalFieldEntry& p = layout->physical[target->second.index];
      if (p.logical != ~0u) {
        auto const& other = layout->logical[p.logical];
        fail(ph.where(), fmt::format("{} already backs {}.{}", key, other.reg, other.field));
      }
      // The value travels unchanged from the logical field to the physical one: a narrower
      // physical field would lose bits without a word.
      if (p.size != l.size) fail(f.at("size"), fmt::format("{} differs from the {} bits of {}", l.size, p.size, key));
      l.physical = target->second.index;
      p.logical = static_cast<U32>(layout->logical.size());
      layout->logical.push_back(std::move(l));
    }
  }
  for (auto const& p : layout->physical)
    if (p.logical == ~0u)
      fail(physicalByName.at(p.reg.str() + "." + p.field.str()).where, fmt::format("{}.{} has no logical field", p.reg, p.field));
  return layout;
}

TransportEntry parseTransport(Object const& t) {
  TransportEntry entry;
  std::string const kind = t.string("kind");
  if (kind == "mock") {
    t.only({"kind", "file"});
    entry.kind = TransportKind::Mock;
    entry.file = t.string("file", "/tmp/MockTarnDebugReg.csv");
  } else if (kind == "pci") {
    t.only({"kind", "resource"});
    entry.kind = TransportKind::Pci;
    entry.resource = t.string("resource");
  } else if (kind == "i2c") {
    t.only({"kind", "device", "address", "flavour"});
    entry.kind = TransportKind::I2c;
    entry.device = t.string("device");
    entry.address = static_cast<U32>(t.number("address", 0x7f));
    std::string const flavour = t.string("flavour", "block");
    if (flavour != "block" && flavour != "word") fail(t.at("flavour"), fmt::format("'{}' is not block or word", flavour));
    entry.wordFlavour = flavour == "word";
  } else if (kind == "i2c-async") {
    t.only({"kind", "device", "address"});
    entry.kind = TransportKind::I2cAsync;
    entry.device = t.string("device");
    entry.address = static_cast<U32>(t.number("address", 0x7f));
  } else {
    fail(t.at("kind"), fmt::format("'{}' is not one of mock, pci, i2c, i2c-async", kind));
  }
  return entry;
}

// "line 3, column 7" of byte @p offset (1-based, as the parser counts it).
std::string position(std::string_view text, size_t offset) {
  size_t line = 1, column = 1;
  for (size_t i = 0; i + 1 < offset && i < text.size(); ++i) {
    if (text[i] == '\n') {
      ++line;
      column = 1;
    } else {
      ++column;
    }
  }
  return fmt::format("line {}, column {}", line, column);
}

}  // namespace

char const* transportKindName(TransportKind kind) noexcept {
  switch (kind) {
    case TransportKind::Mock: return "mock";
    case TransportKind::Pci: return "pci";
    case TransportKind::I2c: return "i2c";
    case TransportKind::I2cAsync: return "i2c-async";
  }
  return "?";
}

bool isValidName(std::string_view name) noexcept {
  if (name.empty() || name.size() > 64 || name.front() == '.') return false;
  for (char c : name)
    if (!(std::isalnum(static_cast<unsigned char>(c)) || c == '_' || c == '-' || c == '.')) return false;
  return true;
}

ChipEntry const* SystemDescription::chip(std::string_view name) const noexcept {
  for (auto const& c : chips)
    if (c.name == name) return &c;
  return nullptr;
}

SystemDescription parseSystemDescription(std::string_view text, std::string const& baseDir) {
  Json root;
  try {
    root = Json::parse(text.begin(), text.end());
  } catch (Json::parse_error const& e) {
    std::string what = e.what();
    // "[json.exception.parse_error.101] parse error at line 1, column 2: syntax error ..."
    auto const colon = what.find(": ", what.find("column"));
    fail(position(text, e.byte), colon == std::string::npos ? what : what.substr(colon + 2));
  }
  Object const top(root, "description");
  top.only({"system", "chipTypes", "chips"});
  SystemDescription description;
  description.system = top.string("system");
  if (!isValidName(description.system))
    fail("system", fmt::format("'{}' is not a name (letters, digits, '_', '-', '.'; at most 64)", description.system));

  std::map<std::string, std::shared_ptr<ChipLayout const>> types;
  if (top.has("chipTypes")) {
    Object const t(top.member("chipTypes"), "chipTypes");
    for (auto const& [name, value] : root["chipTypes"].items()) {
      Object const type(value, t.at(name));
      type.only({"map", "fields", "registers"});
      types.emplace(name, parseLayout(type, baseDir));
    }
  }

  Json const& chips = top.array("chips");
  if (chips.empty()) fail("chips", "is empty");
  std::map<std::string, std::string> names;
  for (size_t i = 0; i < chips.size(); ++i) {
    Object const c(chips[i], fmt::format("chips[{}]", i));
    ChipEntry chip;
    chip.name = c.string("name");
    if (!isValidName(chip.name))
      fail(c.at("name"), fmt::format("'{}' is not a name (letters, digits, '_', '-', '.'; at most 64)", chip.name));
    auto const [named, fresh] = names.try_emplace(chip.name, c.where());
    if (!fresh) fail(c.at("name"), fmt::format("'{}' is already {}", chip.name, named->second));
    if (c.has("type")) {
      c.only({"name", "type", "transport"});
      std::string const type = c.string("type");
      auto const it = types.find(type);
      if (it == types.end()) fail(c.at("type"), fmt::format("'{}' is not among chipTypes", type));
      chip.layout = it->second;
    } else {
      c.only({"name", "transport", "map", "fields", "registers"});
      chip.layout = parseLayout(c, baseDir);
    }
    chip.transport = parseTransport(Object(c.member("transport"), c.at("transport")));
    description.chips.push_back(std::move(chip));
  }
  return description;
}

SystemDescription loadSystemDescription(std::string const& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw DescriptionError(fmt::format("{}: cannot be read: {}", path, std::strerror(errno)));
  std::ostringstream text;
  text << in.rdbuf();
  auto const slash = path.rfind('/');
  std::string const baseDir = slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
  return parseSystemDescription(text.str(), baseDir);
}

}  // namespace TarnAgent
