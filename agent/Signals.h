#pragma once
/// @file Signals.h
/// @brief The signals the agent reacts to, delivered on its event loop (never in a handler).
///
/// SIGTERM and SIGINT stop the agent (its chips are removed in order, then it exits 0);
/// SIGUSR1 writes the trace ring buffer to standard error and the agent goes on. SIGPIPE is
/// ignored: a client that hangs up early is the control server's business, not a reason to die.

#include <boost/asio/io_context.hpp>
#include <boost/asio/signal_set.hpp>

#include <functional>

namespace TarnAgent {

class Signals {
public:
  Signals(boost::asio::io_context& io, std::function<void(int signal)> onStop);

private:
  void wait();

  boost::asio::signal_set set_;
  std::function<void(int)> onStop_;
};

}  // namespace TarnAgent
