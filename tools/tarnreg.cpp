// tarnreg: read and write a chip's registers by name over any transport of the
// library (mock, memory-mapped PCI, i2c-dev), list and look up register maps.
// See `tarnreg --help` and docs/tarnreg.md.
//
// Every failure ends the process with one "tarnreg: ..." line on stderr and a
// non-zero status: 1 for failures of the map, the device or an access, 2 for a
// wrong command line.

#include "CommandLine.h"
#include "Commands.h"
#include "ToolError.h"

#include "TarnRegFile/platform/Trace.h"

#include <fmt/format.h>

#include <cstdio>
#include <exception>
#include <string>

namespace {

// Texts from the system or the library may span lines; the contract is one line.
void reportFailure(char const* text) {
  std::string line(text);
  for (char& c : line)
    if (c == '\n' || c == '\r') c = ' ';
  std::fflush(stdout);
  fmt::print(stderr, "tarnreg: {}\n", line);
}

void traceToStderr(int verbosity) {
  if (verbosity <= 0) return;
  Kiv::Trace::textLevelsIs("*", Kiv::Trace::upTo(verbosity == 1 ? 5 : 9));
}

}  // namespace

int main(int argc, char** argv) {
  try {
    auto const options = Tarnreg::parseCommandLine(argc, argv);
    if (!options) return Tarnreg::kExitSuccess;
    traceToStderr(options->verbosity);
    Tarnreg::runCommand(*options);
    return Tarnreg::kExitSuccess;
  } catch (Tarnreg::ToolError const& e) {
    reportFailure(e.what());
    return e.status();
  } catch (std::exception const& e) {
    reportFailure(e.what());
    return Tarnreg::kExitFailure;
  }
}
