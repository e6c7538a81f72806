#include "StatusCommand.h"

#include "ToolError.h"

#include "TarnRegFile/platform/ShmRoot.h"
#include "TarnRegFile/platform/ShmTable.h"
#include "TarnRegFile/SystemStatusShm.h"

#include <fmt/format.h>

#include <stdexcept>
#include <string>
#include <vector>

namespace Tarnreg {

namespace {

using TarnRegFile::SystemStatusPublisher;

std::string where(Options const& options) {
  return fmt::format("system '{}' (table {} under {})", options.statusSystem,
                     TarnRegFile::systemStatusPath(options.statusSystem), options.shadowRoot);
}

void add(SystemStatusPublisher& status, Options const& options) {
  // A chip runs a profile of the status: one that is not published would leave the agent a dangling name.
  if (!status.profile(options.profileName))
    throw ToolError::failure(fmt::format(
        "profile '{}' is not published for {}; publish it first: tarnreg status --system {} profile {} MAJOR.MINOR",
        options.profileName, where(options), options.statusSystem, options.profileName));
  status.chipIs(options.chipName, Hardware::DevId(options.devId), options.profileName);
}

void removeProfile(SystemStatusPublisher& status, Options const& options) {
  std::vector<std::string> users;
  for (auto const& chip : status.snapshot().chips)
    if (chip.profileName == options.profileName) users.push_back(chip.name);
  if (!users.empty())
    throw ToolError::failure(fmt::format("profile '{}' is still run by chip(s) {}; remove them or give them "
                                         "another profile first",
                                         options.profileName, fmt::join(users, ", ")));
  if (!status.profileDel(options.profileName))
    throw ToolError::failure(fmt::format("profile '{}' is not published for {}", options.profileName, where(options)));
}

void change(Kiv::Shm::Root const& root, Options const& options) {
  SystemStatusPublisher status = SystemStatusPublisher::open(root, options.statusSystem);
  switch (options.statusAction) {
    case StatusAction::Add: return add(status, options);
    case StatusAction::Remove:
      if (!status.chipDel(options.chipName))
        throw ToolError::failure(fmt::format("chip '{}' is not published for {}", options.chipName, where(options)));
      return;
    case StatusAction::Profile:
      return status.profileIs(TarnRegFile::PossibleProfile(Kiv::String(options.profileName),
                                                           TarnRegFile::PossibleHwApi(options.hwMajor, options.hwMinor)));
    case StatusAction::RemoveProfile: return removeProfile(status, options);
    case StatusAction::Show: break;
  }
}

}  // namespace

void runStatusCommand(Options const& options, Printer const& printer) {
  Kiv::Shm::Root const root(options.shadowRoot);
  try {
    if (options.statusAction == StatusAction::Show) {
      TarnRegFile::SystemStatusSnapshot status;
      try {
        status = TarnRegFile::readSystemStatus(root, options.statusSystem);
      } catch (Kiv::Shm::CorruptionException const&) {
        throw;
      } catch (std::runtime_error const& e) {
        throw ToolError::failure(e.what());  // names the system, the table and the root already
      }
      return printer.systemStatus(options.statusSystem, status);
    }
    change(root, options);
  } catch (ToolError const&) {
    throw;
  } catch (std::invalid_argument const& e) {
    throw ToolError::usage(e.what());
  } catch (Kiv::Shm::CorruptionException const& e) {
    throw ToolError::failure(fmt::format("the status of {} is damaged: {}", where(options), e.what()));
  } catch (std::exception const& e) {
    throw ToolError::failure(fmt::format("status of {}: {}", where(options), e.what()));
  }
}

}  // namespace Tarnreg
