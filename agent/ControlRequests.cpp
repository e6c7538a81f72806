#include "ControlRequests.h"

#include "ChipBuilder.h"

#include "TarnRegFile/platform/KivGeneric.h"
#include "TarnRegFile/platform/Trace.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <array>
#include <charconv>
#include <optional>

namespace TarnAgent {

namespace {

using namespace TarnRegFile;

Kiv::TraceHandle kTrace("tarnagent/ControlRequests");

struct Offered {
  char const* name;
  size_t args;
  char const* form;
};
constexpr std::array<Offered, 4> kOffered{{
    {"fieldWrite", 3, "REG FIELD VALUE"},
    {"fieldGetLastWritten", 2, "REG FIELD"},
    {"regWrite", 2, "REG VALUE"},
    {"regGetLastWritten", 1, "REG"},
}};
constexpr char kOfferedList[] = "fieldWrite, fieldGetLastWritten, regWrite, regGetLastWritten";

// Decimal or 0x-hex, at most @p max; nothing else (no signs, spaces or octal guesses).
std::optional<U64> number(std::string const& text, U64 max) {
  std::string_view t(text);
  int base = 10;
  if (t.size() > 2 && t[0] == '0' && (t[1] == 'x' || t[1] == 'X')) {
    base = 16;
    t.remove_prefix(2);
  }
  if (t.empty()) return std::nullopt;
  U64 value = 0;
  auto const [end, ec] = std::from_chars(t.data(), t.data() + t.size(), value, base);
  if (ec != std::errc() || end != t.data() + t.size() || value > max) return std::nullopt;
  return value;
}

std::string error(std::string const& text) { return errorAnswer(text); }

}  // namespace

RequestHandler::RequestHandler(SystemDescription const& description, Kiv::Ptr<LogicalModel> const& logical)
    : description_(description), logical_(logical) {}

std::string RequestHandler::answer(std::string_view line) {
  ParsedRequest parsed = parseRequest(line);
  if (!parsed.request) return error(parsed.error);
  return answer(*parsed.request);
}

std::string RequestHandler::answer(Request const& request) {
  try {
    switch (request.kind) {
      case RequestKind::Ping: return okAnswer("pong");
      case RequestKind::Chips: return okAnswer(chips());
      case RequestKind::Call: return call(request);
      case RequestKind::Diff: {
        std::string why;
        if (!readyChip(request.chip, why)) return error(why);
        return okAnswer(diff(request.chip));
      }
    }
  } catch (std::exception const& e) {
    // What the checks let through and the library still refuses (a transport's failure is
    // not one: it never reaches callers as an exception).
    return error(e.what());
  }
  return error("unknown request");
}

Kiv::Ptr<LogicalChip> RequestHandler::readyChip(std::string const& name, std::string& why) const {
  if (!description_.chip(name)) {
    std::string names;
    for (auto const& c : description_.chips) names += (names.empty() ? "" : ", ") + c.name;
    why = fmt::format("no chip '{}' in system {} (chips: {})", name.substr(0, 64), description_.system, names);
    return nullptr;
  }
  auto chip = logical_->chip(name);
  if (!chip || !chip->ready()) {
    why = fmt::format("chip '{}' is not ready: the system status does not publish it", name);
    return nullptr;
  }
  return chip;
}

std::string RequestHandler::call(Request const& request) {
  std::string why;
  auto const chip = readyChip(request.chip, why);
  if (!chip) return error(why);
  Offered const* op = nullptr;
  for (auto const& o : kOffered)
    if (request.op == o.name) op = &o;
  if (!op) {
    auto const* type = Kiv::TypeRegistry::instance().type(chip->fwkType());
    bool const published = type && type->methods.count(request.op);
    std::string const shown = request.op.substr(0, 64);
    if (published)
      return error(fmt::format("operation '{}' is not offered through the agent (offered: {})", shown, kOfferedList));
    return error(fmt::format("LogicalChip has no operation '{}' (offered: {})", shown, kOfferedList));
  }
  if (request.args.size() != op->args)
    return error(fmt::format("{} takes {} ({} argument(s)), got {}", op->name, op->form, op->args, request.args.size()));

  std::vector<std::string> args = request.args;
  LogicalRegisterName const regName(chip->name(), Kiv::String(args[0]));
  if (!chip->regCollHas(regName))
    return error(fmt::format("chip {} has no logical register '{}'", request.chip, args[0].substr(0, 64)));
  bool const isField = op->args >= 2 && request.op.rfind("field", 0) == 0;
  U32 fieldSize = 64;
  if (isField) {
    LogicalFieldName const fieldName(regName, Kiv::String(args[1]));
    if (!chip->logicalFieldHas(fieldName) || !chip->regColl(regName).fieldHas(fieldName))
      return error(fmt::format("logical register {} of chip {} has no field '{}'", args[0], request.chip,
                               args[1].substr(0, 64)));
    fieldSize = chip->logicalField(fieldName).size;
  }
  if (request.op == "fieldWrite" || request.op == "regWrite") {
    std::string& text = args.back();
    U64 const max = fieldSize >= 64 ? ~U64{0} : (U64{1} << fieldSize) - 1;
    auto const value = number(text, max);
    if (!value) {
      if (number(text, ~U64{0}))
        return error(fmt::format("value {} does not fit the {} bits of {}", text.substr(0, 24), fieldSize,
                                 isField ? args[0] + "." + args[1] : args[0]));
      return error(fmt::format("value '{}' is not a number (decimal, or 0x-hex)", text.substr(0, 24)));
    }
    text = std::to_string(*value);
  }
  kTrace.line(5, "call {} {} ({} args)", request.chip, request.op, args.size());
  std::string const result = Kiv::TypeRegistry::instance().call(*chip, request.op, args);
  return okAnswer(result);
}

std::string RequestHandler::chips() const {
  nlohmann::json out = nlohmann::json::array();
  for (auto const& entry : description_.chips) {
    auto const chip = logical_->chip(entry.name);
    out.push_back({{"name", entry.name},
                   {"transport", transportKindName(entry.transport.kind)},
                   {"ready", chip && chip->ready()},
                   {"physicalFields", entry.layout->physical.size()},
                   {"logicalFields", entry.layout->logical.size()}});
  }
  return out.dump();
}

std::string RequestHandler::diff(std::string const& name) const {
  ChipEntry const& entry = *description_.chip(name);
  auto const chip = logical_->chip(name);
  auto const& config = chip->shadowFieldsConfig();
  auto const& status = chip->shadowFieldsStatus();
  U32 const block = addrBlockSize(entry.transport.kind);
  nlohmann::json fields = nlohmann::json::array();
  size_t pending = 0;
  for (auto const& p : entry.layout->physical) {
    auto const& l = entry.layout->logical[p.logical];
    ShadowFieldKey const key(p.regNumber * block, p.start, p.size);
    U32 const desired = config->field(key).value;
    bool const applied = status->fieldHas(key);
    U32 const appliedValue = status->field(key).value;
    bool const isPending = !applied || appliedValue != desired;
    pending += isPending;
    nlohmann::json f = {{"register", p.reg.str()}, {"field", p.field.str()}, {"logical", l.reg.str() + "." + l.field.str()},
                        {"address", key.address}, {"start", p.start}, {"size", p.size}, {"desired", desired},
                        {"applied", applied ? nlohmann::json(appliedValue) : nlohmann::json()},
                        {"pending", isPending}};
    fields.push_back(std::move(f));
  }
  return nlohmann::json{{"chip", name}, {"pending", pending}, {"fields", std::move(fields)}}.dump();
}

}  // namespace TarnAgent
