#include "Agent.h"

#include "TarnRegFile/platform/Trace.h"

#include <fmt/format.h>

#include <cstdio>

namespace TarnAgent {

namespace {

using namespace TarnRegFile;

Kiv::TraceHandle kTrace("tarnagent/Agent");

}  // namespace

// Carries the follower's chip announcements into the accepted copy, one chip at a time.
class Agent::StatusMirror : public PossibleSystemStatus::Notifiee {
public:
  explicit StatusMirror(Agent& agent) : agent_(agent) { notifierIs(agent.follower_->systemStatus()); }
  ~StatusMirror() override { notifierIs(nullptr); }
  void onChipStatus(Kiv::String const& key) override {
    if (notifier()->chipStatusHas(key))
      agent_.accept(key);
    else
      agent_.withdraw(key);
  }

private:
  Agent& agent_;
};

Agent::Agent(boost::asio::io_context& io, SystemDescription description, AgentOptions const& options)
    : io_(io),
      description_(std::move(description)),
      em_(Kiv::Shm::EntityManager::EntityManagerIs(Kiv::Shm::Root(options.shmRoot))),
      follower_(std::make_unique<SystemStatusFollower>(Kiv::Shm::Root(options.shmRoot), description_.system)),
      accepted_(possibleSystemStatusFactory(description_.system)),
      logical_(logicalModelFactory()),
      physical_(physicalModelFactory()),
      runtimeDir_(options.runtimeDir) {
  physical_->simulateIs(options.simulate);
  builder_ = Kiv::create<ChipBuilder>(em_, accepted_, logical_, physical_, description_);
  handler_ = std::make_unique<RequestHandler>(description_, logical_);
}

Agent::~Agent() { stop(); }

void Agent::start() {
  if (!runtimeDir_.empty())
    server_ = std::make_unique<ControlServer>(io_, runtimeDir_, [this](std::string_view line) {
      return handler_->answer(line);
    });
  mirror_ = std::make_unique<StatusMirror>(*this);
  for (auto const& [name, chip] : follower_->systemStatus()->chipStatusEntries()) accept(name);
  builder_->initializedIs(true);
  watch(follower_->fd(), [this] { followStatus(); });
  for (auto const& [device, vorm] : builder_->vorms()) {
    Hardware::Vorm* const manager = vorm.ptr();
    watch(manager->fd(), [manager] { manager->dispatch(); });
  }
}

void Agent::followStatus() {
  try {
    follower_->dispatch();
  } catch (std::exception const& e) {
    kTrace.line(0, "system status of {}: {}", description_.system, e.what());
  }
}

void Agent::accept(Kiv::String const& chip) {
  if (accepted_->chipStatusHas(chip)) return;
  if (!description_.chip(chip.str())) {
    kTrace.line(0, "chip {} is published for system {} but not described; left alone", chip.str(), description_.system);
    fmt::print(stderr, "tarnagent: chip {} is published but not in the description; left alone\n", chip.str());
    return;
  }
  try {
    if (auto const published = follower_->systemStatus()->chipStatus(chip)) {
      accepted_->chipStatusIs(chip);  // the state machine builds the chip here
      auto const copy = accepted_->chipStatus(chip);
      copy->devIdIs(published->devId());
      copy->profileNameIs(published->profileName());
    }
    kTrace.line(1, "chip {} ready", chip.str());
  } catch (std::exception const& e) {
    kTrace.line(0, "chip {} could not be built: {}", chip.str(), e.what());
    fmt::print(stderr, "tarnagent: chip {} could not be built: {}\n", chip.str(), e.what());
    // Take back what was built, in the state machine's order, and the chip out of the copy
    // without a second removal by the state machine.
    if (auto const lchip = logical_->chip(chip)) lchip->readyIs(false);
    logical_->writeSmDel(chip);
    logical_->chipDel(chip);
    physical_->shadowSmDel(chip);
    physical_->transportDel(chip);
    builder_->hasNotificationActiveIs(false);
    accepted_->chipStatusDel(chip);
    builder_->hasNotificationActiveIs(true);
  }
}

void Agent::withdraw(Kiv::String const& chip) {
  if (!accepted_->chipStatusHas(chip)) return;
  accepted_->chipStatusDel(chip);  // the state machine removes the chip's objects here
  kTrace.line(1, "chip {} removed", chip.str());
}

size_t Agent::readyChips() const {
  size_t n = 0;
  for (auto const& [name, chip] : logical_->chipEntries()) n += chip->ready();
  return n;
}

void Agent::watch(int fd, std::function<void()> onReadable) {
  auto descriptor = std::make_unique<boost::asio::posix::stream_descriptor>(io_, fd);
  auto* d = descriptor.get();
  watched_.push_back(std::move(descriptor));
  // Re-armed after every wake-up; the descriptor stays its owner's (released at stop).
  auto wait = std::make_shared<std::function<void()>>();
  *wait = [d, onReadable = std::move(onReadable), weak = std::weak_ptr<std::function<void()>>(wait)] {
    d->async_wait(boost::asio::posix::stream_descriptor::wait_read, [d, onReadable, weak](boost::system::error_code ec) {
      if (ec) return;
      onReadable();
      if (auto again = weak.lock()) (*again)();
    });
  };
  (*wait)();
  waits_.push_back(wait);
}

void Agent::stop() {
  if (stopped_) return;
  stopped_ = true;
  for (auto& d : watched_) {
    boost::system::error_code ignored;
    d->cancel(ignored);
    d->release();  // the follower and the managers close their own descriptors
  }
  watched_.clear();
  waits_.clear();
  mirror_.reset();
  if (server_) server_->close();
  std::vector<Kiv::String> chips;
  for (auto const& [name, status] : accepted_->chipStatusEntries()) chips.push_back(name);
  for (auto const& chip : chips) withdraw(chip);
  removeAllChips(*logical_, *physical_);  // anything a failure left behind
}

}  // namespace TarnAgent
