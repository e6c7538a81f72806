#pragma once
/// @file ControlServer.h
/// @brief The agent's control socket: a Unix stream socket in a private runtime directory,
/// served on the agent's event loop.
///
/// The directory is made (or kept) with mode 0700 and must belong to the agent's user; the
/// socket has mode 0600. A peer is served only when its credentials (SO_PEERCRED) say it runs
/// as the agent's user or as root; others get one error line and the connection is closed.
/// Each line received is one request, answered by one line. A line longer than the protocol
/// allows, or a connection beyond the limit, gets an error line and is closed: nothing a
/// client sends stops the server.

#include <boost/asio/io_context.hpp>
#include <boost/asio/local/stream_protocol.hpp>

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace TarnAgent {

class ControlServer {
public:
  using Handler = std::function<std::string(std::string_view line)>;
  static constexpr size_t kMaxConnections = 64;

  /// @brief Prepares @p runtimeDir and listens on its socket; requests go to @p handler.
  /// @throws std::runtime_error naming the directory or socket and the reason (another agent
  ///         serving it, a directory of another user, a path too long).
  ControlServer(boost::asio::io_context& io, std::string const& runtimeDir, Handler handler);
  /// @brief Stops listening and removes the socket.
  ~ControlServer();
  ControlServer(ControlServer const&) = delete;
  ControlServer& operator=(ControlServer const&) = delete;

  std::string const& socketPath() const noexcept { return path_; }
  /// @brief Stops accepting and closes every connection.
  void close();

private:
  class Connection;
  void accept();

  boost::asio::io_context& io_;
  std::string path_;
  Handler handler_;
  boost::asio::local::stream_protocol::acceptor acceptor_;
  std::shared_ptr<size_t> open_ = std::make_shared<size_t>(0);
  bool closed_ = false;
};

}  // namespace TarnAgent
