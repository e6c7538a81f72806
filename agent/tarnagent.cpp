// tarnagent: the reference agent of the library. It follows the published status of a
// system's chips, builds each chip from a system description, carries logical writes to the
// hardware, and serves requests on a control socket (tarnreg field|reg|agent|shadow diff).
// See `tarnagent --help` and docs/agent.md.
//
// Exit status: 0 after SIGTERM or SIGINT (every chip removed); 1 when the agent cannot start
// (shared memory, control socket); 2 for a wrong command line or a bad description, which is
// refused before anything starts with one "tarnagent: ..." line.

#include "Agent.h"
#include "Signals.h"
#include "SystemDescription.h"

#include "TarnRegFile/platform/Trace.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <boost/asio/io_context.hpp>

#include <cstdio>
#include <string>

namespace {

constexpr char kUsage[] = R"(tarnagent: follows the published status of a system's chips, builds each chip
from DESCRIPTION and carries logical writes to its registers.

Usage: tarnagent [-v...] [--simulate] [--runtime-dir DIR] [--shm-root DIR] DESCRIPTION
       tarnagent --check DESCRIPTION
  DESCRIPTION     the system description (JSON; docs/agent.md)
  --check         check DESCRIPTION (maps included) and exit: 0 good, 2 refused
  --simulate      build everything but never write a register
  --runtime-dir   directory of the control socket DIR/control.sock (made 0700);
                  default $RUNTIME_DIRECTORY, /run/tarnagent for root,
                  $XDG_RUNTIME_DIR/tarnagent, else /tmp/tarnagent-UID
  --shm-root      shared-memory root of the system status and shadow tables
                  (default /dev/shm/tarnregfile)
  -v              trace to stderr: -v levels 0-1, -vv 0-5, -vvv all
Signals: SIGTERM, SIGINT remove every chip and exit 0; SIGUSR1 writes the trace ring to stderr.
)";

int fail(int status, std::string const& text) {
  std::string line = text;
  for (char& c : line)
    if (c == '\n' || c == '\r') c = ' ';
  fmt::print(stderr, "tarnagent: {}\n", line);
  return status;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app("", "tarnagent");
  app.set_help_flag();
  bool help = false, check = false, simulate = false;
  int verbosity = 0;
  std::string description, runtimeDir, shmRoot = Kiv::Shm::Root::kDefaultDir;
  app.add_flag("-h,--help", help);
  app.add_flag("--check", check);
  app.add_flag("--simulate", simulate);
  app.add_flag("-v", verbosity);
  app.add_option("--runtime-dir", runtimeDir);
  app.add_option("--shm-root", shmRoot);
  app.add_option("DESCRIPTION", description);
  try {
    app.parse(argc, argv);
  } catch (CLI::ParseError const& e) {
    return fail(2, fmt::format("{} (see tarnagent --help)", e.what()));
  }
  if (help) {
    std::fputs(kUsage, stdout);
    return 0;
  }
  if (description.empty()) return fail(2, "no DESCRIPTION given (see tarnagent --help)");

  TarnAgent::SystemDescription system;
  try {
    system = TarnAgent::loadSystemDescription(description);
  } catch (std::exception const& e) {
    return fail(2, fmt::format("{}: {}", description, e.what()));
  }
  if (check) {
    fmt::print("{}: system {}, {} chip(s)\n", description, system.system, system.chips.size());
    return 0;
  }
  if (verbosity > 0)
    Kiv::Trace::textLevelsIs("*", Kiv::Trace::upTo(verbosity == 1 ? 1 : verbosity == 2 ? 5 : 9));

  try {
    boost::asio::io_context io;
    TarnAgent::AgentOptions options;
    options.shmRoot = shmRoot;
    options.runtimeDir = runtimeDir.empty() ? TarnAgent::defaultRuntimeDir() : runtimeDir;
    options.simulate = simulate;
    TarnAgent::Agent agent(io, std::move(system), options);
    int stoppedBy = 0;
    TarnAgent::Signals signals(io, [&](int signal) {
      stoppedBy = signal;
      agent.stop();
      io.stop();
    });
    agent.start();
    fmt::print(stderr, "tarnagent: system {}: {} of {} chip(s) ready, control socket {}{}\n",
               agent.description().system, agent.readyChips(), agent.description().chips.size(), agent.socketPath(),
               simulate ? " (simulating: no register is written)" : "");
    io.run();
    fmt::print(stderr, "tarnagent: stopped by signal {}, every chip removed\n", stoppedBy);
    return 0;
  } catch (std::exception const& e) {
    return fail(1, e.what());
  }
}
