#include "TarnRegFile/LogicalSms.h"

#include "TarnRegFile/platform/KivGeneric.h"
#include "TarnRegFile/platform/ShmTable.h"
#include "TarnRegFile/platform/Trace.h"
#include "TarnRegFile/ShadowTypes.h"

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
  // A snapshot: a reaction further down may change the chip's fields meanwhile. By id, so
  // that a pass over a whole chip builds no name values.
  for (LogicalChip::FieldId const id : chip_->logicalFieldIds()) {
    if (kTrace.enabled(5)) {
      kTrace.printf(5,
                    "void TarnRegFile::LogicalWriteSm::handleLogicalField(const TarnRegFile::LogicalFieldName&) name: %s",
                    chip_->names().fullName(id));
    }
    if (!chip_->ready()) continue;
    U32 const* const value = chip_->logicalFieldValue(id);
    if (!value) {
      maybeWriteField(LogicalField());  // removed meanwhile: a default field, fatal on purpose
      continue;
    }
    writeField(id, *value, nullptr);
  }
}

void LogicalWriteSm::handleLogicalField(LogicalFieldName const& name) {
  kTrace.printf(5, "void TarnRegFile::LogicalWriteSm::handleLogicalField(const TarnRegFile::LogicalFieldName&) name: %s",
                name.fullName);
  if (!chip_ || !chip_->ready()) return;
  LogicalChip::FieldId const id = chip_->logicalFieldId(name);
  U32 const* const value = chip_->logicalFieldValue(id);
  // A deleted field comes here as a default field, which has no translation: fatal, on purpose.
  if (!value) {
    maybeWriteField(LogicalField());
    return;
  }
  writeField(id, *value, &name);
}

void LogicalWriteSm::maybeWriteField(LogicalField const& field) {
  writeField(chip_->logicalFieldId(field.name), field.value, &field.name);
}

void LogicalWriteSm::writeField(LogicalChip::FieldId id, U32 value, LogicalFieldName const* name) {
  kTrace.printf(5, "void TarnRegFile::LogicalWriteSm::maybeWriteField(const TarnRegFile::LogicalField&) value: %s",
                value);
  // The translation shares the chip's name ids: one lookup by id, and the name is built only
  // for the fatal report of a missing mapping or the trace of a missing physical field.
  Translation& translation = *chip_->translation();
  LogicalChip::FieldId const physicalId = translation.physicalFieldId(id);
  if (physicalId == LogicalChip::noField)
    (void)translation.getPhysicalFieldName(name ? *name : chip_->names().fieldName<LogicalFieldName>(id));
  ShadowFieldKey const* const key = chip_->physicalFieldKey(physicalId);
  if (!key) {
    kTrace.printf(0, "No physicalField mapping to %s", chip_->names().fullName(physicalId));
    return;
  }
  if (!chip_->shadowFieldsConfig()) {
    // Nothing to write into yet: whoever builds the chip's shadow path says so more precisely.
    kTrace.printf(1, "LogicalChip %s has no shadowFieldsConfig: %s not written", chip_->name(), chip_->names().fullName(id));
    return;
  }
  ShadowFieldsConfig& config = *chip_->shadowFieldsConfig();
  try {
    if (config.field(*key).value == value) return;
  } catch (Kiv::Shm::CorruptionException const& e) {
    Kiv::Shm::reportCorruption(e.what());
    return;
  }
  config.fieldIs(ShadowFieldValue(*key, value));
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
