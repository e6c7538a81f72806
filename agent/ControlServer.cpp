#include "ControlServer.h"

#include "ControlProtocol.h"

#include "TarnRegFile/platform/Trace.h"

#include <boost/asio/read_until.hpp>
#include <boost/asio/streambuf.hpp>
#include <boost/asio/write.hpp>
#include <fmt/format.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace TarnAgent {

namespace {

using boost::asio::local::stream_protocol;

Kiv::TraceHandle kTrace("tarnagent/ControlServer");

[[noreturn]] void fail(std::string const& text) { throw std::runtime_error(text); }

void prepareDirectory(std::string const& dir) {
  if (::mkdir(dir.c_str(), 0700) != 0 && errno != EEXIST)
    fail(fmt::format("cannot create runtime directory {}: {}", dir, std::strerror(errno)));
  struct stat st;
  if (::lstat(dir.c_str(), &st) != 0) fail(fmt::format("runtime directory {}: {}", dir, std::strerror(errno)));
  if (!S_ISDIR(st.st_mode)) fail(fmt::format("runtime directory {} is not a directory", dir));
  if (st.st_uid != ::geteuid())
    fail(fmt::format("runtime directory {} belongs to uid {}, not to this agent's uid {}", dir, st.st_uid, ::geteuid()));
  if ((st.st_mode & 07777) != 0700 && ::chmod(dir.c_str(), 0700) != 0)
    fail(fmt::format("cannot make runtime directory {} private: {}", dir, std::strerror(errno)));
}

// A socket left by an agent that died is removed; one that answers belongs to a live agent.
void removeStaleSocket(std::string const& path) {
  struct stat st;
  if (::lstat(path.c_str(), &st) != 0) return;
  if (!S_ISSOCK(st.st_mode)) fail(fmt::format("{} exists and is not a socket", path));
  boost::asio::io_context io;
  stream_protocol::socket probe(io);
  boost::system::error_code ec;
  probe.connect(stream_protocol::endpoint(path), ec);
  if (!ec) fail(fmt::format("another tarnagent is serving {}", path));
  if (::unlink(path.c_str()) != 0) fail(fmt::format("cannot remove stale socket {}: {}", path, std::strerror(errno)));
}

}  // namespace

class ControlServer::Connection : public std::enable_shared_from_this<Connection> {
public:
  Connection(stream_protocol::socket socket, Handler const& handler, std::shared_ptr<size_t> open)
      : socket_(std::move(socket)), handler_(handler), open_(std::move(open)), in_(kMaxRequestBytes + 2) {
    ++*open_;
  }
  ~Connection() { --*open_; }

  void start() { read(); }
  // One line, then close: for peers that are refused.
  void refuse(std::string const& text) {
    out_ = errorAnswer(text);
    boost::asio::async_write(socket_, boost::asio::buffer(out_),
                             [self = shared_from_this()](boost::system::error_code, size_t) { self->shut(); });
  }

private:
  void read() {
    boost::asio::async_read_until(socket_, in_, '\n', [self = shared_from_this()](boost::system::error_code ec, size_t n) {
      self->onLine(ec, n);
    });
  }

  void onLine(boost::system::error_code ec, size_t n) {
    if (ec == boost::asio::error::not_found) {  // the buffer filled before a line end
      refuse(fmt::format("request longer than {} bytes; connection closed", kMaxRequestBytes));
      return;
    }
    if (ec) return shut();  // the peer went, or the server closed
    std::string_view const line(static_cast<char const*>(in_.data().data()), n - 1);
    out_ = handler_(line);
    in_.consume(n);
    boost::asio::async_write(socket_, boost::asio::buffer(out_),
                             [self = shared_from_this()](boost::system::error_code ec, size_t) {
                               if (ec) return self->shut();
                               self->read();
                             });
  }

  void shut() {
    boost::system::error_code ignored;
    socket_.shutdown(stream_protocol::socket::shutdown_both, ignored);
    socket_.close(ignored);
  }

  stream_protocol::socket socket_;
  Handler handler_;
  std::shared_ptr<size_t> open_;
  boost::asio::streambuf in_;
  std::string out_;
};

ControlServer::ControlServer(boost::asio::io_context& io, std::string const& runtimeDir, Handler handler)
    : io_(io), path_(socketPathIn(runtimeDir)), handler_(std::move(handler)), acceptor_(io) {
  if (path_.size() >= sizeof(sockaddr_un::sun_path))
    fail(fmt::format("socket path {} is longer than {} bytes; choose a shorter --runtime-dir", path_,
                     sizeof(sockaddr_un::sun_path) - 1));
  prepareDirectory(runtimeDir);
  removeStaleSocket(path_);
  boost::system::error_code ec;
  acceptor_.open(stream_protocol(), ec);
  if (!ec) {
    mode_t const old = ::umask(0177);  // the socket is born 0600: no moment of wider access
    acceptor_.bind(stream_protocol::endpoint(path_), ec);
    ::umask(old);
  }
  if (!ec) acceptor_.listen(boost::asio::socket_base::max_listen_connections, ec);
  if (ec) fail(fmt::format("cannot listen on {}: {}", path_, ec.message()));
  kTrace.line(1, "control socket {}", path_);
  accept();
}

ControlServer::~ControlServer() { close(); }

void ControlServer::close() {
  if (closed_) return;
  closed_ = true;
  boost::system::error_code ignored;
  acceptor_.close(ignored);
  ::unlink(path_.c_str());
}

void ControlServer::accept() {
  acceptor_.async_accept([this](boost::system::error_code ec, stream_protocol::socket socket) {
    if (ec == boost::asio::error::operation_aborted || closed_) return;
    if (!ec) {
      ucred cred{};
      socklen_t len = sizeof cred;
      bool const known = ::getsockopt(socket.native_handle(), SOL_SOCKET, SO_PEERCRED, &cred, &len) == 0;
      auto connection = std::make_shared<Connection>(std::move(socket), handler_, open_);
      if (!known || (cred.uid != ::geteuid() && cred.uid != 0)) {
        kTrace.line(0, "control connection of uid {} refused", known ? cred.uid : ~0u);
        connection->refuse(fmt::format("permission denied: uid {} is neither this agent's user nor root", cred.uid));
      } else if (*open_ > kMaxConnections) {
        connection->refuse(fmt::format("more than {} connections open; try again", kMaxConnections));
      } else {
        connection->start();
      }
    } else {
      kTrace.line(0, "control socket accept: {}", ec.message());
    }
    accept();
  });
}

}  // namespace TarnAgent
