#include "TarnRegFile/platform/Assert.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

namespace Kiv {

FatalAssertion::FatalAssertion(TraceHandle const& unit, char const* condition, char const* function,
                               char const* file, int line)
    : unit_(unit), condition_(condition), function_(function), file_(file), line_(line) {}

FatalAssertion::~FatalAssertion() {
  std::string const message = message_.str();
  // Record it in the ring first, so the dump below ends with the assertion itself.
  const_cast<TraceHandle&>(unit_).emit(0, "FATAL", fmt::format("assertion \"{}\" failed: {}", condition_, message));
  std::fprintf(stderr,
               "FATAL ASSERTION\n"
               "  condition: %s\n"
               "  message:   %s\n"
               "  unit:      %s\n"
               "  function:  %s\n"
               "  location:  %s:%d\n",
               condition_, message.c_str(), unit_.unit(), function_, file_, line_);
  // The last lines of the ring usually say how the process got here.
  auto const lines = Trace::ringLines();
  size_t const shown = std::min<size_t>(lines.size(), 40);
  std::fprintf(stderr, "  last %zu trace lines:\n", shown);
  for (size_t i = lines.size() - shown; i < lines.size(); ++i) std::fprintf(stderr, "    %s\n", lines[i].c_str());
  std::fflush(stderr);
  std::abort();
}

}  // namespace Kiv
