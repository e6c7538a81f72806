#pragma once
/// @file ChipBuilder.h
/// @brief The agent's chip status state machine: builds each chip the published status names
/// from the system description, and its transport.
///
/// `createLogicalChip` populates the chip's physical fields (each keyed by its register's byte
/// address on the chip's transport), its logical fields and their translation, and mounts its
/// shadow collections at "TarnRegFile/shadowFieldsConfig/<chip>" and
/// "TarnRegFile/shadowFieldsStatus/<chip>". `createTransport` builds the chip's
/// `TransportMethod` from its transport descriptor.
///
/// Restart. Mounting sets every desired value to 0, and the logical write state machine then
/// writes the logical fields' values; so a chip starts with the desired values its logical
/// fields are populated with. When the chip's configuration table already exists (an agent
/// that served this chip ended, possibly by kill -9), those fields are populated with the
/// desired values the table held instead of the description's initial values. The shadow
/// state machine then rebuilds its register images from the configuration and from the
/// status table of what was applied, and writes only the registers whose images differ.

#include "SystemDescription.h"

#include "TarnRegFile/platform/KivPtr.h"
#include "TarnRegFile/platform/ShmEntityManager.h"
#include "TarnRegFile/platform/Vorm.h"

#include "TarnRegFile/SystemChipStatusSm.h"

#include <map>
#include <string>

namespace TarnAgent {

/// @brief "TarnRegFile/shadowFieldsConfig/<chip>".
std::string configPathOf(std::string const& chip);
/// @brief "TarnRegFile/shadowFieldsStatus/<chip>".
std::string statusPathOf(std::string const& chip);

class ChipBuilder : public TarnRegFile::SystemChipStatusSmBase {
public:
  /// @brief The asynchronous I2C managers, one per adapter node, shared by the chips on it.
  using VormMap = std::map<std::string, Kiv::Ptr<Hardware::Vorm>>;

  ChipBuilder(Kiv::Ptr<Kiv::Shm::EntityManager> const& em, Kiv::Ptr<TarnRegFile::PossibleSystemStatus> const& status,
              Kiv::Ptr<TarnRegFile::LogicalModel> const& logical, Kiv::Ptr<TarnRegFile::PhysicalModel> const& physical,
              SystemDescription const& description);

  char const* fwkType() const override { return "TarnAgent::ChipBuilder"; }

  /// @throws std::runtime_error for a chip the description does not have; mount failures.
  Kiv::Ptr<TarnRegFile::LogicalChip> createLogicalChip(Kiv::String const& chipName) override;
  /// @throws std::runtime_error for a chip the description does not have; the transport's own.
  Kiv::Ptr<TarnRegFile::TransportMethod> createTransport(Kiv::String const& chipName) override;

  SystemDescription const& description() const noexcept { return description_; }
  VormMap const& vorms() const noexcept { return vorms_; }
  /// @brief Desired values taken over from an earlier agent, per chip (for its trace and tests).
  size_t restoredFields(std::string const& chip) const;

private:
  ChipEntry const& entry(Kiv::String const& chipName) const;

  SystemDescription const& description_;
  VormMap vorms_;
  std::map<std::string, size_t> restored_;
};

/// @brief Removes every chip the models hold, each in the order the state machine removes a
/// chip whose status went: ready flag, write state machine, chip, shadow state machine, transport.
void removeAllChips(TarnRegFile::LogicalModel& logical, TarnRegFile::PhysicalModel& physical);

}  // namespace TarnAgent
