#include "ControlProtocol.h"

#include <fmt/format.h>

#include <cstdlib>

#include <unistd.h>

namespace TarnAgent {

namespace {

constexpr bool isBlank(char c) { return c == ' ' || c == '\t'; }
constexpr bool isPrintable(char c) { return c > ' ' && c < 0x7f; }

ParsedRequest refuse(std::string text) { return ParsedRequest{std::nullopt, std::move(text)}; }

constexpr char kUsage[] = "requests are: ping, chips, call CHIP OP ARG..., diff CHIP";

}  // namespace

ParsedRequest parseRequest(std::string_view line) {
  if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
  if (line.size() > kMaxRequestBytes) return refuse(fmt::format("request longer than {} bytes", kMaxRequestBytes));
  std::vector<std::string_view> words;
  for (size_t i = 0; i < line.size();) {
    if (isBlank(line[i])) {
      ++i;
      continue;
    }
    size_t const begin = i;
    for (; i < line.size() && !isBlank(line[i]); ++i)
      if (!isPrintable(line[i]))
        return refuse(fmt::format("byte {:#04x} at column {} is not printable ASCII", static_cast<unsigned char>(line[i]),
                                  i + 1));
    if (words.size() == kMaxRequestWords) return refuse(fmt::format("more than {} words", kMaxRequestWords));
    words.push_back(line.substr(begin, i - begin));
  }
  if (words.empty()) return refuse(fmt::format("empty request; {}", kUsage));

  std::string_view const verb = words[0];
  Request request;
  auto const expect = [&](size_t n, char const* form) -> std::optional<ParsedRequest> {
    if (words.size() < n) return refuse(fmt::format("{} needs {}", verb, form));
    return std::nullopt;
  };
  if (verb == "ping" || verb == "chips") {
    if (words.size() != 1) return refuse(fmt::format("{} takes no arguments", verb));
    request.kind = verb == "ping" ? RequestKind::Ping : RequestKind::Chips;
  } else if (verb == "call") {
    if (auto r = expect(3, "CHIP OP [ARG...]")) return *r;
    request.kind = RequestKind::Call;
    request.chip = words[1];
    request.op = words[2];
    for (size_t i = 3; i < words.size(); ++i) request.args.emplace_back(words[i]);
  } else if (verb == "diff") {
    if (words.size() != 2) return refuse("diff needs CHIP and nothing else");
    request.kind = RequestKind::Diff;
    request.chip = words[1];
  } else {
    std::string const shown(verb.substr(0, 32));
    return refuse(fmt::format("unknown request '{}{}'; {}", shown, verb.size() > 32 ? "..." : "", kUsage));
  }
  return ParsedRequest{std::move(request), {}};
}

std::string defaultRuntimeDir() {
  if (char const* d = std::getenv("RUNTIME_DIRECTORY"); d && *d) return d;
  if (::geteuid() == 0) return "/run/tarnagent";
  if (char const* d = std::getenv("XDG_RUNTIME_DIR"); d && *d) return std::string(d) + "/tarnagent";
  return fmt::format("/tmp/tarnagent-{}", ::geteuid());
}

std::string socketPathIn(std::string const& runtimeDir) { return runtimeDir + "/control.sock"; }

std::string okAnswer(std::string_view text) {
  std::string out = text.empty() ? std::string("ok") : fmt::format("ok {}", text);
  out.push_back('\n');
  return out;
}

std::string errorAnswer(std::string_view text) {
  std::string out = fmt::format("error {}", text);
  for (char& c : out)
    if (static_cast<unsigned char>(c) < ' ' || c == 0x7f) c = ' ';
  out.push_back('\n');
  return out;
}

std::optional<std::pair<bool, std::string>> parseAnswer(std::string_view line) {
  if (line == "ok") return std::pair{true, std::string()};
  if (line.substr(0, 3) == "ok ") return std::pair{true, std::string(line.substr(3))};
  if (line.substr(0, 6) == "error ") return std::pair{false, std::string(line.substr(6))};
  return std::nullopt;
}

}  // namespace TarnAgent
