#include "TarnRegFile/LogicalSms.h"

#include "KivGeneric.h"
#include "ShmTable.h"
#include "Trace.h"

namespace TarnRegFile {
namespace {

Kiv::TraceHandle kTrace("TarnRegFile/LogicalSms");

}  // namespace

/// Watches the chip's logical fields and nothing else.
class LogicalWriteSm::ChipReactor : public LogicalChip::Notifiee {
public:
  ChipReactor(LogicalWriteSm& owner, Kiv::Ptr<LogicalChip> const& chip) : owner_(owner) { notifierIs(chip); }
  void onLogicalField(LogicalFieldName const& name) override { owner_.handleLogicalField(name); }

private:
  LogicalWriteSm& owner_;
};

LogicalWriteSm::LogicalWriteSm(Kiv::Ptr<LogicalChip> const& chip)
    : Kiv::Entity(chip ? chip->name() : Kiv::String()), chip_(chip) {
  if (chip_) chipReactor_ = std::make_unique<ChipReactor>(*this, chip_);
  handleLogicalField();
}

LogicalWriteSm::~LogicalWriteSm() { chipReactor_.reset(); }

void LogicalWriteSm::retireReactors() noexcept { chipReactor_.reset(); }

Kiv::Ptr<LogicalWriteSm> LogicalWriteSm::LogicalWriteSmIs(Kiv::Ptr<LogicalChip> const& chip) {
  return Kiv::create<LogicalWriteSm>(chip);
}

Kiv::Ptr<LogicalWriteSm> logicalWriteSmFactory(Kiv::Ptr<LogicalChip> const& chip) {
  return LogicalWriteSm::LogicalWriteSmIs(chip);
}

void LogicalWriteSm::hasNotificationActiveIs(bool active) {
  Kiv::Entity::hasNotificationActiveIs(active);
  if (chipReactor_) chipReactor_->isNotificationActiveIs(active);
}

void LogicalWriteSm::handleLogicalField() {
  if (!chip_) return;
  // A snapshot: a reaction further down may change the chip's fields meanwhile.
  for (LogicalFieldName const& name : chip_->logicalFieldEntries().keys()) handleLogicalField(name);
}

void LogicalWriteSm::handleLogicalField(LogicalFieldName const& name) {
  kTrace.printf(5, "void TarnRegFile::LogicalWriteSm::handleLogicalField(const TarnRegFile::LogicalFieldName&) name: %s",
                name.fullName);
  if (!chip_ || !chip_->ready()) return;
  LogicalField const* const stored = chip_->logicalFieldEntries().find(name);
  // A deleted field comes here as a default field, which has no translation: fatal, on purpose.
  maybeWriteField(stored ? *stored : LogicalField());
}

void LogicalWriteSm::maybeWriteField(LogicalField const& field) {
  kTrace.printf(5, "void TarnRegFile::LogicalWriteSm::maybeWriteField(const TarnRegFile::LogicalField&) value: %s",
                field.value);
  PhysicalFieldName const physicalName = chip_->translation()->getPhysicalFieldName(field.name);
  PhysicalField const* const physical = chip_->physicalFieldEntries().find(physicalName);
  if (!physical) {
    kTrace.printf(0, "No physicalField mapping to %s", physicalName.fullName);
    return;
  }
  if (!chip_->shadowFieldsConfig()) {
    // Nothing to write into yet: whoever builds the chip's shadow path says so more precisely.
    kTrace.printf(1, "LogicalChip %s has no shadowFieldsConfig: %s not written", chip_->name(), field.name.fullName);
    return;
  }
  ShadowFieldsConfig& config = *chip_->shadowFieldsConfig();
  try {
    if (config.field(physical->key).value == field.value) return;
  } catch (Kiv::Shm::CorruptionException const& e) {
    Kiv::Shm::reportCorruption(e.what());
    return;
  }
  config.fieldIs(ShadowFieldValue(physical->key, field.value));
}

namespace {

bool const kRegistered = [] {
  auto& sm = Kiv::TypeRegistry::instance().typeIs("TarnRegFile::LogicalWriteSm");
  sm.methods["handleLogicalField"] = Kiv::method<static_cast<void (LogicalWriteSm::*)(LogicalFieldName const&)>(
      &LogicalWriteSm::handleLogicalField)>();
  sm.methods["maybeWriteField"] = Kiv::method<&LogicalWriteSm::maybeWriteField>();
  sm.attributes["chipName"] = [](Kiv::Entity& e, std::vector<std::string> const&) { return e.name().str(); };
  return true;
}();

}  // namespace

}  // namespace TarnRegFile
