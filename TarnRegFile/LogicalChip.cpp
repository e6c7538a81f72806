#include "TarnRegFile/LogicalChip.h"

#include "Assert.h"
#include "KivGeneric.h"
#include "Trace.h"

#include <vector>

namespace TarnRegFile {
namespace {

Kiv::TraceHandle kTrace("TarnRegFile/LogicalChip");

// Shift counts are taken modulo 64 on purpose: a shift by 64 is a shift by 0.
// Register images of existing chips were built with that arithmetic (a field
// ending at bit 63 keeps its old bits OR-ed in), and read-back must agree.
constexpr U64 shl(U64 v, unsigned count) noexcept { return v << (count & 63u); }
constexpr U64 shr(U64 v, unsigned count) noexcept { return v >> (count & 63u); }

/// The register value after placing the low @p size bits of @p value at bit @p start.
constexpr U64 fieldInsert(U64 reg, unsigned start, unsigned size, U32 value) noexcept {
  unsigned const end = start + size;
  U64 const field = shr(shl(U64{value}, 64u - size), 64u - end);
  U64 const upper = shl(shr(reg, end), end);
  // Guarded so that a field at bit 0 does not pick up the whole old value.
  U64 const lower = start == 0 ? 0 : shr(shl(reg, 64u - start), 64u - start);
  return field | upper | lower;
}

/// Bits start .. start + size - 1 of @p reg.
constexpr U32 fieldExtract(U64 reg, unsigned start, unsigned size) noexcept {
  return static_cast<U32>(shr(shl(reg, 64u - (start + size)), 64u - size));
}

static_assert(fieldInsert(0x12, 8, 8, 0x34) == 0x3412);
static_assert(fieldInsert(0, 8, 8, 0x1FF) == 0xFF00);
static_assert(fieldInsert(0x0F00000000000000ull, 56, 8, 0xF0) == 0xFF00000000000000ull);
static_assert(fieldExtract(0x1234, 8, 8) == 0x12);

}  // namespace

// ================================================================ Translation

Translation::Translation(Kiv::String const& name) : Kiv::Entity(name) {}

Translation::~Translation() = default;

Kiv::Ptr<Translation> Translation::TranslationIs(Kiv::String const& name) { return Kiv::create<Translation>(name); }

Kiv::Ptr<Translation> translationFactory(Kiv::String const& name) { return Translation::TranslationIs(name); }

void Translation::populate(Kiv::String const& logicalReg, Kiv::String const& logicalField,
                           Kiv::String const& physicalReg, Kiv::String const& physicalField) {
  LogicalFieldName const lf(LogicalRegisterName(name(), logicalReg), logicalField);
  PhysicalFieldName const pf(PhysicalRegisterName(name(), physicalReg), physicalField);
  logicalToPhysicalIs(lf, pf);
  physicalToLogicalIs(pf, lf);
}

PhysicalFieldName Translation::getPhysicalFieldName(LogicalFieldName const& lfName) {
  PhysicalFieldName const* const found = logicalToPhysical_.find(lfName);
  if (!found) {
    KIV_ASSERT(kTrace, logicalToPhysicalHas( lfName )) << "No physicalField name mapping to " << lfName.fullName;
  }
  return *found;
}

LogicalFieldName Translation::getLogicalFieldName(PhysicalFieldName const& pfName) {
  LogicalFieldName const* const found = physicalToLogical_.find(pfName);
  if (!found) {
    KIV_ASSERT(kTrace, physicalToLogicalHas( pfName )) << "No logicalField mapping to " << pfName.fullName;
  }
  return *found;
}

// ================================================================ LogicalChip: life

LogicalChip::LogicalChip(Kiv::String const& name) : Kiv::Entity(name) { handleInitialized(); }

LogicalChip::~LogicalChip() = default;

Kiv::Ptr<LogicalChip> LogicalChip::LogicalChipIs(Kiv::String const& name) { return Kiv::create<LogicalChip>(name); }

Kiv::Ptr<LogicalChip> logicalChipFactory(Kiv::String const& name) { return LogicalChip::LogicalChipIs(name); }

void LogicalChip::handleInitialized() {
  translationIs();
  initializedIs(true);
}

// ================================================================ LogicalChip: attributes

void LogicalChip::regCollIs(LogicalRegister const& reg) {
  if (regColl_.set(reg.name, reg)) notify<Notifiee>([&](Notifiee& n) { n.onRegColl(reg.name); });
}

void LogicalChip::regCollDel(LogicalRegisterName const& name) {
  if (regColl_.erase(name)) notify<Notifiee>([&](Notifiee& n) { n.onRegColl(name); });
}

void LogicalChip::regCollDelAll() {
  for (auto const& name : regColl_.keys()) regCollDel(name);
}

void LogicalChip::logicalFieldIs(LogicalField const& field) {
  if (logicalField_.set(field.name, field)) notify<Notifiee>([&](Notifiee& n) { n.onLogicalField(field.name); });
}

void LogicalChip::logicalFieldDel(LogicalFieldName const& name) {
  if (logicalField_.erase(name)) notify<Notifiee>([&](Notifiee& n) { n.onLogicalField(name); });
}

void LogicalChip::logicalFieldDelAll() {
  for (auto const& name : logicalField_.keys()) logicalFieldDel(name);
}

Kiv::Ptr<Translation> LogicalChip::translationIs() {
  if (translation_) return translation_;
  translation_ = Translation::TranslationIs(name());
  notify<Notifiee>([](Notifiee& n) { n.onTranslation(); });
  return translation_;
}

void LogicalChip::translationDel() {
  if (!translation_) return;
  translation_ = nullptr;
  notify<Notifiee>([](Notifiee& n) { n.onTranslation(); });
}

void LogicalChip::physicalFieldIs(PhysicalField const& field) {
  if (physicalField_.set(field.name, field)) notify<Notifiee>([&](Notifiee& n) { n.onPhysicalField(field.name); });
}

void LogicalChip::physicalFieldDel(PhysicalFieldName const& name) {
  if (physicalField_.erase(name)) notify<Notifiee>([&](Notifiee& n) { n.onPhysicalField(name); });
}

void LogicalChip::physicalFieldDelAll() {
  for (auto const& name : physicalField_.keys()) physicalFieldDel(name);
}

void LogicalChip::physicalFieldCountIs(U32 count) {
  if (count == physicalFieldCount_) return;
  physicalFieldCount_ = count;
  notify<Notifiee>([](Notifiee& n) { n.onPhysicalFieldCount(); });
}

U32 LogicalChip::physicalFieldCountInc(U32 n) {
  if (n != 0) {
    physicalFieldCount_ += n;
    notify<Notifiee>([](Notifiee& o) { o.onPhysicalFieldCount(); });
  }
  return physicalFieldCount_;
}

void LogicalChip::shadowToPhysicalNameIs(ShadowFieldKey const& key, PhysicalFieldName const& name) {
  if (shadowToPhysicalName_.set(key, name)) notify<Notifiee>([&](Notifiee& n) { n.onShadowToPhysicalName(key); });
}

void LogicalChip::shadowToPhysicalNameDel(ShadowFieldKey const& key) {
  if (shadowToPhysicalName_.erase(key)) notify<Notifiee>([&](Notifiee& n) { n.onShadowToPhysicalName(key); });
}

void LogicalChip::shadowToPhysicalNameDelAll() {
  for (auto const& key : shadowToPhysicalName_.keys()) shadowToPhysicalNameDel(key);
}

void LogicalChip::readyIs(bool ready) {
  if (ready == ready_) return;
  ready_ = ready;
  notify<Notifiee>([](Notifiee& n) { n.onReady(); });
}

void LogicalChip::initializedIs(bool initialized) {
  if (initialized == initialized_) return;
  initialized_ = initialized;
  notify<Notifiee>([](Notifiee& n) { n.onInitialized(); });
}

// ================================================================ LogicalChip: population

void LogicalChip::populatePhysicalField(Kiv::String const& reg, Kiv::String const& field, U8 start, U8 size) {
  KIV_ASSERT(kTrace, !ready()) << "Populating fields after chip ready is not allowed!";
  PhysicalFieldName const pfName(PhysicalRegisterName(name(), reg), field);
  PhysicalField physical(pfName, start, size);  // may throw: nothing has changed yet
  physical.key = ShadowFieldKey(physicalFieldCount_, start, size);
  physicalFieldCountInc(1);
  physicalFieldIs(physical);
  shadowToPhysicalNameIs(physical.key, pfName);
}

void LogicalChip::populateLogicalField(Kiv::String const& reg, Kiv::String const& field, U8 start, U8 size,
                                       U32 value) {
  KIV_ASSERT(kTrace, !ready()) << "Populating fields after chip ready is not allowed!";
  LogicalRegisterName const lrName(name(), reg);
  LogicalField logical(LogicalFieldName(lrName, field), start, size);  // may throw: nothing has changed yet
  logical.value = value;
  LogicalRegister const* const stored = regColl_.find(lrName);
  LogicalRegister lReg = stored ? *stored : LogicalRegister(lrName);
  lReg.fieldIs(logical.name, true);
  lReg.value = fieldInsert(lReg.value, start, size, value);
  regCollIs(lReg);
  logicalFieldIs(logical);
}

// ================================================================ LogicalChip: writes and read-back
//
// The checks are written out in each operation so that a failure names the
// operation the client called.

void LogicalChip::fieldWrite(Kiv::String const& reg, Kiv::String const& field, U32 value) {
  kTrace.printf(5, "LogicalChip::fieldWrite reg: %s field: %s value: %s", reg, field, value);
  KIV_ASSERT(kTrace, ready()) << "LogicalChip " << name() << " is not populated yet!";
  LogicalFieldNameParts names(name(), reg, field);
  LogicalRegister* const lRegEntry = regColl_.find(names.asRegister());
  if (!lRegEntry) {
    LogicalRegisterName const lrName = names.registerName();
    KIV_ASSERT(kTrace, regCollHas( lrName )) << "LogicalRegister " << lrName.fullName << " is not populated yet!";
  }
  LogicalRegister& lReg = *lRegEntry;
  // From here on the parts compare with the stored names, which share their strings
  // with the keys of the other caches: the next lookups compare pointers, not text.
  names.registerIs(lReg.name);
  LogicalField* const lField = logicalField_.find(names.asField());
  if (lField) names.fieldIs(lField->name);
  if (!lField || !lReg.fieldHas(names.asField())) {
    LogicalFieldName const lfName = names.fieldName();
    KIV_ASSERT(kTrace, lReg.fieldHas( lfName ) && logicalFieldHas( lfName ))
        << "LogicalRegister " << lfName.regName.fullName << " does not have field " << field;
  }

  // Both caches are changed in place: only the values differ from what is stored,
  // so comparing the values is the whole change test.
  U64 const regValue = fieldInsert(lReg.value, lField->start, lField->size, value);
  if (regValue != lReg.value) {
    lReg.value = regValue;
    if (observed()) {
      // An observer of the register may change or remove the field (or the register);
      // carry on with copies, as a copying write would.
      LogicalRegisterName const lrName = lReg.name;
      LogicalField updated = *lField;
      updated.value = value;
      notify<Notifiee>([&](Notifiee& n) { n.onRegColl(lrName); });
      kTrace.printf(0, "Write field: %s value: %s", updated.name.fullName, value);
      logicalFieldIs(updated);
      return;
    }
  }
  // The stored name equals the parts (the lookup compared them): its full name is the
  // one to trace, and the ring copies its characters without composing anything.
  kTrace.printf(0, "Write field: %s value: %s", lField->name.fullName, value);
  // The field keeps all 32 bits as given, although the register took only its width.
  if (lField->value == value) return;
  lField->value = value;
  if (!observed()) return;
  LogicalFieldName const lfName = lField->name;  // observers may remove the entry meanwhile
  notify<Notifiee>([&](Notifiee& n) { n.onLogicalField(lfName); });
}

void LogicalChip::regWrite(Kiv::String const& reg, U64 value) {
  kTrace.printf(5, "LogicalChip::regWrite regName: %s value: %s", reg, value);
  KIV_ASSERT(kTrace, ready()) << "LogicalChip " << name() << " is not populated yet!";
  LogicalFieldNameParts const names(name(), reg, std::string_view());
  LogicalRegister* const lRegEntry = regColl_.find(names.asRegister());
  if (!lRegEntry) {
    LogicalRegisterName const lrName = names.registerName();
    KIV_ASSERT(kTrace, regCollHas( lrName )) << "LogicalRegister " << lrName.fullName << " is not populated yet!";
  }
  // Observers of the register or of earlier fields may change the field set meanwhile:
  // every field the register had when the write started is written.
  std::vector<LogicalFieldName> const fieldNames = lRegEntry->fields().keys();
  if (lRegEntry->value != value) {
    lRegEntry->value = value;
    LogicalRegisterName const lrName = lRegEntry->name;
    notify<Notifiee>([&](Notifiee& n) { n.onRegColl(lrName); });
  }
  for (auto const& lfName : fieldNames) {
    LogicalField const* const stored = logicalField_.find(lfName);
    LogicalField logical = stored ? *stored : LogicalField();
    if (!stored) logical.name = lfName;  // a field dropped from the cache comes back as a 1-bit field at 0
    logical.value = fieldExtract(value, logical.start, logical.size);
    logicalFieldIs(logical);
  }
}

U64 LogicalChip::regGetLastWritten(Kiv::String const& reg) {
  kTrace.printf(5, "LogicalChip::regGetLastWritten regName: %s", reg);
  KIV_ASSERT(kTrace, ready()) << "LogicalChip " << name() << " is not populated yet!";
  LogicalFieldNameParts const names(name(), reg, std::string_view());
  LogicalRegister const* const lReg = regColl_.find(names.asRegister());
  if (!lReg) {
    LogicalRegisterName const lrName = names.registerName();
    KIV_ASSERT(kTrace, regCollHas( lrName )) << "LogicalRegister " << lrName.fullName << " is not populated yet!";
  }
  return lReg->value;
}

U32 LogicalChip::fieldGetLastWritten(Kiv::String const& reg, Kiv::String const& field) {
  kTrace.printf(5, "LogicalChip::fieldGetLastWritten reg: %s field: %s", reg, field);
  KIV_ASSERT(kTrace, ready()) << "LogicalChip " << name() << " is not populated yet!";
  LogicalFieldNameParts names(name(), reg, field);
  LogicalRegister const* const lRegEntry = regColl_.find(names.asRegister());
  if (!lRegEntry) {
    LogicalRegisterName const lrName = names.registerName();
    KIV_ASSERT(kTrace, regCollHas( lrName )) << "LogicalRegister " << lrName.fullName << " is not populated yet!";
  }
  LogicalRegister const& lReg = *lRegEntry;
  names.registerIs(lReg.name);
  LogicalField const* const lField = logicalField_.find(names.asField());
  if (lField) names.fieldIs(lField->name);
  if (!lField || !lReg.fieldHas(names.asField())) {
    LogicalFieldName const lfName = names.fieldName();
    KIV_ASSERT(kTrace, lReg.fieldHas( lfName ) && logicalFieldHas( lfName ))
        << "LogicalRegister " << lfName.regName.fullName << " does not have field " << field;
  }
  return lField->value;
}

// ================================================================ generic interface

void LogicalChip::shadowFieldsConfigIs(Kiv::Ptr<ShadowFieldsConfig> const& config) {
  if (shadowFieldsConfig_ == config) return;
  shadowFieldsConfig_ = config;
  notify<Notifiee>([](Notifiee& n) { n.onShadowFieldsConfig(); });
}

void LogicalChip::shadowFieldsStatusIs(Kiv::Ptr<ShadowFieldsStatus> const& status) {
  if (shadowFieldsStatus_ == status) return;
  shadowFieldsStatus_ = status;
  notify<Notifiee>([](Notifiee& n) { n.onShadowFieldsStatus(); });
}

void LogicalChip::mountShadowFields(Kiv::Ptr<Kiv::Shm::EntityManager> const& entityManager,
                                    Kiv::String const& configPath, Kiv::String const& statusPath) {
  kTrace.line(5, "LogicalChip::mountShadowFields chip: {} config: {} status: {}", name(), configPath, statusPath);
  // One table row per physical field populated so far.
  auto const description = Kiv::Shm::MountDescription().collectionIs("field", physicalFieldCount_);
  auto group = entityManager->mountGroup();
  group.mount(configPath.str(), "TarnRegFile::ShadowFieldsConfig", description);
  shadowFieldsConfigIs(Kiv::ptr_cast<ShadowFieldsConfig>(entityManager->entity(configPath.view())));
  group.mount(statusPath.str(), "TarnRegFile::ShadowFieldsStatus", description);
  shadowFieldsStatusIs(Kiv::ptr_cast<ShadowFieldsStatus>(entityManager->entity(statusPath.view())));
  group.close();

  // Mounting resets every desired value: the logical fields' own values reach the
  // configuration through the logical write state machine.
  for (auto const& [physicalName, field] : physicalField_) {
    (void)translation_->getLogicalFieldName(physicalName);
    shadowFieldsConfig_->fieldIs(ShadowFieldValue(field.key, 0));
  }
}

namespace {

bool const registered = [] {
  auto& registry = Kiv::TypeRegistry::instance();

  auto& translation = registry.typeIs("TarnRegFile::Translation");
  translation.factory = [](Kiv::String const& n) { return Kiv::Ptr<Kiv::Entity>(translationFactory(n)); };
  translation.methods["populate"] = Kiv::method<&Translation::populate>();
  translation.methods["getPhysicalFieldName"] = Kiv::method<&Translation::getPhysicalFieldName>();
  translation.methods["getLogicalFieldName"] = Kiv::method<&Translation::getLogicalFieldName>();

  auto& chip = registry.typeIs("TarnRegFile::LogicalChip");
  chip.factory = [](Kiv::String const& n) { return Kiv::Ptr<Kiv::Entity>(logicalChipFactory(n)); };
  chip.methods["populatePhysicalField"] = Kiv::method<&LogicalChip::populatePhysicalField>();
  chip.methods["populateLogicalField"] = Kiv::method<&LogicalChip::populateLogicalField>();
  chip.methods["fieldWrite"] = Kiv::method<&LogicalChip::fieldWrite>();
  chip.methods["regWrite"] = Kiv::method<&LogicalChip::regWrite>();
  chip.methods["regGetLastWritten"] = Kiv::method<&LogicalChip::regGetLastWritten>();
  chip.methods["fieldGetLastWritten"] = Kiv::method<&LogicalChip::fieldGetLastWritten>();
  chip.methods["handleInitialized"] = Kiv::method<&LogicalChip::handleInitialized>();
  chip.methods["mountShadowFields"] = Kiv::method<&LogicalChip::mountShadowFields>();
  chip.attributes["ready"] = Kiv::method<&LogicalChip::ready>();
  chip.attributes["initialized"] = Kiv::method<&LogicalChip::initialized>();
  chip.attributes["physicalFieldCount"] = Kiv::method<&LogicalChip::physicalFieldCount>();
  chip.attributes["name"] = [](Kiv::Entity& e, std::vector<std::string> const&) { return e.name().str(); };
  chip.attributeWriters["ready"] = Kiv::method<&LogicalChip::readyIs>();
  return true;
}();

}  // namespace

}  // namespace TarnRegFile
