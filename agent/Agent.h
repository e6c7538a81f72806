#pragma once
/// @file Agent.h
/// @brief `tarnagent` put together: the system status it follows, the chips it builds, the
/// control socket, on one Boost.Asio event loop.
///
/// The published status is followed through a `SystemStatusFollower`. The agent keeps its own
/// copy of the chips it accepted, which the chip builder watches: a chip whose objects cannot
/// be built (a resource file missing, a device that does not open) is taken back out of the
/// models and out of that copy with one error line, and the agent goes on serving the
/// others; the chip is tried again when the publisher announces it anew or the agent
/// restarts. Stopping withdraws every accepted chip from the copy, so that the state machine
/// removes each one in its own order.

#include "ChipBuilder.h"
#include "ControlRequests.h"
#include "ControlServer.h"
#include "SystemDescription.h"

#include "TarnRegFile/platform/KivPtr.h"
#include "TarnRegFile/platform/ShmEntityManager.h"
#include "TarnRegFile/platform/ShmRoot.h"

#include "TarnRegFile/SystemModels.h"
#include "TarnRegFile/SystemStatusShm.h"

#include <boost/asio/io_context.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace TarnAgent {

struct AgentOptions {
  std::string shmRoot = Kiv::Shm::Root::kDefaultDir;  ///< shared-memory root of status and shadow tables
  std::string runtimeDir;                              ///< empty: no control socket
  bool simulate = false;                               ///< shadow state machines leave the hardware alone
};

class Agent {
public:
  /// @throws std::runtime_error when the control socket or the shared memory cannot be used.
  Agent(boost::asio::io_context& io, SystemDescription description, AgentOptions const& options);
  ~Agent();
  Agent(Agent const&) = delete;
  Agent& operator=(Agent const&) = delete;

  /// @brief Builds the chips published now and starts watching the status, the asynchronous
  /// I2C managers and the control socket.
  void start();
  /// @brief Removes every chip, stops watching and closes the control socket.
  void stop();

  SystemDescription const& description() const noexcept { return description_; }
  Kiv::Ptr<TarnRegFile::LogicalModel> const& logicalModel() const noexcept { return logical_; }
  Kiv::Ptr<TarnRegFile::PhysicalModel> const& physicalModel() const noexcept { return physical_; }
  /// @brief The control socket's path (empty without one).
  std::string socketPath() const { return server_ ? server_->socketPath() : std::string(); }
  /// @brief The number of chips accepted and ready.
  size_t readyChips() const;
  /// @brief Applies the publisher's changes now (the loop does this when the status rings).
  void followStatus();

private:
  class StatusMirror;
  void watch(int fd, std::function<void()> onReadable);
  void accept(Kiv::String const& chip);
  void withdraw(Kiv::String const& chip);

  boost::asio::io_context& io_;
  SystemDescription description_;
  Kiv::Ptr<Kiv::Shm::EntityManager> em_;
  std::unique_ptr<TarnRegFile::SystemStatusFollower> follower_;
  Kiv::Ptr<TarnRegFile::PossibleSystemStatus> accepted_;
  Kiv::Ptr<TarnRegFile::LogicalModel> logical_;
  Kiv::Ptr<TarnRegFile::PhysicalModel> physical_;
  Kiv::Ptr<ChipBuilder> builder_;
  std::unique_ptr<StatusMirror> mirror_;
  std::unique_ptr<RequestHandler> handler_;
  std::unique_ptr<ControlServer> server_;
  std::string runtimeDir_;
  std::vector<std::unique_ptr<boost::asio::posix::stream_descriptor>> watched_;
  std::vector<std::shared_ptr<std::function<void()>>> waits_;
  bool stopped_ = false;
};

}  // namespace TarnAgent
