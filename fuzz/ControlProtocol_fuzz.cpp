// Feeds arbitrary bytes to tarnagent's request parser, as a client of its control socket could
// send them (one line: the bytes up to the first line end). The parser must return a request
// or a reason, never throw, and its answers must stay one line.

#include "ControlProtocol.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
  std::string_view text(reinterpret_cast<char const*>(data), size);
  text = text.substr(0, text.find('\n'));
  auto const parsed = TarnAgent::parseRequest(text);
  if (parsed.request.has_value() == !parsed.error.empty()) std::abort();
  if (parsed.request) {
    auto const& r = *parsed.request;
    if (r.args.size() + 3 > TarnAgent::kMaxRequestWords) std::abort();
    if (r.kind == TarnAgent::RequestKind::Call && (r.chip.empty() || r.op.empty())) std::abort();
    for (auto const& a : r.args)
      if (a.empty() || a.find_first_of(" \t\r\n") != std::string::npos) std::abort();
  } else {
    std::string const answer = TarnAgent::errorAnswer(parsed.error);
    if (answer.find('\n') != answer.size() - 1) std::abort();
  }
  return 0;
}
