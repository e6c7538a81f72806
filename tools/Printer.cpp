#include "Printer.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <string_view>

namespace Tarnreg {

namespace {

using Json = nlohmann::ordered_json;

Json valueObject(RegisterValue const& entry) {
  return Json{{"name", entry.reg->name}, {"address", entry.reg->number}, {"value", entry.value}};
}

// Register names are bytes as written in the map; one that is not UTF-8 must not
// stop the output, so its bad bytes are replaced rather than refused.
std::string render(Json const& json) { return json.dump(2, ' ', false, Json::error_handler_t::replace); }

template <class Range, class Name>
size_t nameColumnWidth(Range const& range, Name name) {
  size_t width = std::string_view("name").size();
  for (auto const& item : range) width = std::max(width, name(item).size());
  return width;
}

}  // namespace

void Printer::line(std::string const& text) const { fmt::print(out_, "{}\n", text); }

void Printer::registerValue(RegisterValue const& entry) const {
  line(json_ ? render(valueObject(entry)) : fmt::format("{:#010x}", entry.value));
}

void Printer::written(RegisterValue const& entry) const {
  if (json_) line(render(valueObject(entry)));
}

void Printer::registerValues(std::vector<RegisterValue> const& entries) const {
  if (json_) {
    Json array = Json::array();
    for (auto const& entry : entries) array.push_back(valueObject(entry));
    line(render(array));
    return;
  }
  size_t const width = nameColumnWidth(entries, [](RegisterValue const& e) -> std::string const& { return e.reg->name; });
  line(fmt::format("{:<10}  {:<{}}  {}", "address", "name", width, "value"));
  for (auto const& entry : entries)
    line(fmt::format("{:#010x}  {:<{}}  {:#010x}", entry.reg->number, entry.reg->name, width, entry.value));
}

void Printer::registers(std::vector<TarnRegFile::Register const*> const& regs) const {
  using TarnRegFile::Register;
  if (json_) {
    Json array = Json::array();
    for (auto const* reg : regs)
      array.push_back(Json{{"name", reg->name},
                           {"address", reg->number},
                           {"type", Register::regTypeToString(reg->type)},
                           {"width", reg->width},
                           {"writeable", reg->writeable}});
    line(render(array));
    return;
  }
  size_t const width = nameColumnWidth(regs, [](Register const* r) -> std::string const& { return r->name; });
  line(fmt::format("{:<10}  {:<{}}  {:<9}  {:>5}  {}", "address", "name", width, "type", "width", "access"));
  for (auto const* reg : regs)
    line(fmt::format("{:#010x}  {:<{}}  {:<9}  {:>5}  {}", reg->number, reg->name, width,
                     Register::regTypeToString(reg->type), reg->width, reg->writeable ? "rw" : "ro"));
}

void Printer::lookup(U32 address, std::string const& name) const {
  line(json_ ? render(Json{{"name", name}, {"address", address}}) : name);
}

void Printer::shadowEntries(std::vector<TarnRegFile::ShadowFieldValue> const& entries) const {
  if (json_) {
    Json array = Json::array();
    for (auto const& e : entries)
      array.push_back(Json{{"address", e.key.address}, {"start", e.key.start}, {"size", e.key.size}, {"value", e.value}});
    line(render(array));
    return;
  }
  line(fmt::format("{:<10}  {:>5}  {:>4}  {}", "address", "start", "size", "value"));
  for (auto const& e : entries)
    line(fmt::format("{:#010x}  {:>5}  {:>4}  {:#010x}", e.key.address, e.key.start, e.key.size, e.value));
}

void Printer::shadowChange(TarnRegFile::ShadowFieldKey const& key, TarnRegFile::ShadowFieldValue const* now) const {
  // A stream: one line per change (JSON Lines), out as soon as it happens.
  if (json_) {
    Json object{{"change", now ? "changed" : "removed"}, {"address", key.address}, {"start", key.start},
                {"size", key.size}};
    if (now) object["value"] = now->value;
    line(object.dump());
  } else if (now) {
    line(fmt::format("changed  {:#010x}  {:>5}  {:>4}  {:#010x}", key.address, key.start, key.size, now->value));
  } else {
    line(fmt::format("removed  {:#010x}  {:>5}  {:>4}", key.address, key.start, key.size));
  }
  std::fflush(out_);
}

void Printer::systemStatus(std::string const& system, TarnRegFile::SystemStatusSnapshot const& status) const {
  using TarnRegFile::SystemStatusRecord;
  if (json_) {
    Json chips = Json::array(), profiles = Json::array();
    for (auto const& c : status.chips)
      chips.push_back(Json{{"name", c.name}, {"devId", c.devId.value()}, {"profile", c.profileName}});
    for (auto const& p : status.profiles)
      profiles.push_back(Json{{"name", p.name}, {"major", p.hwApi.major}, {"minor", p.hwApi.minor}});
    line(render(Json{{"system", system}, {"chips", chips}, {"profiles", profiles}}));
    return;
  }
  auto const name = [](SystemStatusRecord const& r) -> std::string const& { return r.name; };
  size_t const chipWidth = std::max<size_t>(nameColumnWidth(status.chips, name), 4);
  line(fmt::format("{:<{}}  {:>5}  {}", "chip", chipWidth, "devId", "profile"));
  for (auto const& c : status.chips) line(fmt::format("{:<{}}  {:>5}  {}", c.name, chipWidth, c.devId, c.profileName));
  size_t const profileWidth = std::max<size_t>(nameColumnWidth(status.profiles, name), 7);
  line("");
  line(fmt::format("{:<{}}  {}", "profile", profileWidth, "hwApi"));
  for (auto const& p : status.profiles)
    line(fmt::format("{:<{}}  {}.{}", p.name, profileWidth, p.hwApi.major, p.hwApi.minor));
}

}  // namespace Tarnreg
