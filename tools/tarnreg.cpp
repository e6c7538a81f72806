// tarnreg: read and write a chip's registers by name over any transport of the
// library (mock, memory-mapped PCI, i2c-dev), list and look up register maps.
// See `tarnreg --help` and docs/tarnreg.md.
//
// Every failure ends the process with one "tarnreg: ..." line on stderr and a
// non-zero status: 1 for failures of the map, the device or an access, 2 for a
// wrong command line.

#include "CommandLine.h"
#include "Commands.h"
#include "Printer.h"
#include "ToolError.h"

#include "TarnRegFile/platform/Trace.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdio>
#include <exception>
#include <string>

namespace {

// Texts from the system or the library may span lines; the contract is one line.
// A line that cannot be written is lost; main() still ends with a failure status.
void reportFailure(char const* text) {
  std::string line = fmt::format("tarnreg: {}\n", text);
  std::replace_if(line.begin(), line.end() - 1, [](char c) { return c == '\n' || c == '\r'; }, ' ');
  std::fflush(stdout);
  std::fputs(line.c_str(), stderr);
}

void traceToStderr(int verbosity) {
  if (verbosity <= 0) return;
  Kiv::Trace::textLevelsIs("*", Kiv::Trace::upTo(verbosity == 1 ? 5 : 9));
}

int run(int argc, char** argv) {
  try {
    auto const options = Tarnreg::parseCommandLine(argc, argv);
    if (options) {
      traceToStderr(options->verbosity);
      Tarnreg::runCommand(*options);
    }
    Tarnreg::finishOutput();
    return Tarnreg::kExitSuccess;
  } catch (Tarnreg::ToolError const& e) {
    reportFailure(e.what());
    return e.status();
  } catch (std::exception const& e) {
    reportFailure(e.what());
    return Tarnreg::kExitFailure;
  }
}

}  // namespace

int main(int argc, char** argv) {
  Tarnreg::guardStandardStreams();
  int const status = run(argc, argv);
  // Like other command-line tools: what could not be said on stderr (a failure, a trace
  // line) makes a success a failure.
  return status == Tarnreg::kExitSuccess && std::ferror(stderr) ? Tarnreg::kExitFailure : status;
}
