#include "Signals.h"

#include "TarnRegFile/platform/Trace.h"

#include <fmt/format.h>

#include <csignal>
#include <cstdio>

namespace TarnAgent {

Signals::Signals(boost::asio::io_context& io, std::function<void(int)> onStop)
    : set_(io, SIGTERM, SIGINT, SIGUSR1), onStop_(std::move(onStop)) {
  std::signal(SIGPIPE, SIG_IGN);
  wait();
}

void Signals::wait() {
  set_.async_wait([this](boost::system::error_code ec, int signal) {
    if (ec) return;
    if (signal == SIGUSR1) {
      fmt::print(stderr, "tarnagent: trace ring buffer, oldest first\n");
      Kiv::Trace::ringDump(stderr);
      std::fflush(stderr);
      wait();
      return;
    }
    onStop_(signal);
  });
}

}  // namespace TarnAgent
