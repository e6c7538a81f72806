#include "TarnRegFile/ShadowTypes.h"

#include "TarnRegFile/platform/Assert.h"
#include "TarnRegFile/platform/KivGeneric.h"
#include "TarnRegFile/platform/Trace.h"

#include <fmt/format.h>

#include <algorithm>
#include <bit>
#include <stdexcept>
#include <utility>

namespace TarnRegFile {

namespace {

Kiv::TraceHandle kTrace("TarnRegFile/ShadowTypes");

// fieldSlot() hands out the table's record as a ShadowFieldValue: the layouts must agree.
static_assert(std::endian::native == std::endian::little, "the shadow-field record is little-endian");
static_assert(offsetof(ShadowFieldValue, key) == 0 && offsetof(ShadowFieldKey, address) == 0 &&
              offsetof(ShadowFieldKey, start) == 4 && offsetof(ShadowFieldKey, size) == 5 &&
              offsetof(ShadowFieldValue, value) == 8 && sizeof(ShadowFieldValue) == ShadowFieldTraits::valueSize);

void putU32(std::byte* out, U32 v) noexcept {
  out[0] = std::byte(v & 0xFFu);
  out[1] = std::byte((v >> 8) & 0xFFu);
  out[2] = std::byte((v >> 16) & 0xFFu);
  out[3] = std::byte(v >> 24);
}

U32 getU32(std::byte const* in) noexcept {
  return U32(in[0]) | U32(in[1]) << 8 | U32(in[2]) << 16 | U32(in[3]) << 24;
}

std::string lastComponent(std::string const& path) {
  auto const slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

}  // namespace

// ---------------------------------------------------------------------------------------------- record

void ShadowFieldTraits::encodeKey(Key const& key, std::byte* out) noexcept {
  putU32(out, key.address);
  out[4] = std::byte(key.start);
  out[5] = std::byte(key.size);
  out[6] = std::byte(0);
  out[7] = std::byte(0);
}

void ShadowFieldTraits::encode(Value const& value, std::byte* out) noexcept {
  encodeKey(value.key, out);
  putU32(out + 8, value.value);
}

ShadowFieldValue ShadowFieldTraits::decode(std::byte const* in) noexcept {
  return ShadowFieldValue(ShadowFieldKey(getU32(in), U8(in[4]), U8(in[5])), getU32(in + 8));
}

// ---------------------------------------------------------------------------------------------- notifiee

void ShadowFieldsNotifieeBase::onField(ShadowFieldKey const&) {}
void ShadowFieldsNotifieeBase::onFieldControl() {}

// ---------------------------------------------------------------------------------------------- common part

ShadowFields::ShadowFields(Kiv::String name)
    : Kiv::Entity(std::move(name)), fieldControl_(Kiv::Shm::CollectionControl::CollectionControlIs(this->name())) {}

ShadowFields::~ShadowFields() { detach(); }

void ShadowFields::notAttached(char const* operation) const {
  throw std::runtime_error(
      fmt::format("{} '{}' is not attached to shared memory; cannot {}", fwkType(), name(), operation));
}

void ShadowFields::writeFailed(char const* operation, Kiv::Shm::CorruptionException const& e) const {
  Kiv::Shm::reportCorruption(e.what());
  KIV_FATAL(kTrace, "tableConsistent") << fwkType() << " " << name() << ": " << operation
                                      << " found the shared-memory table inconsistent: " << e.what();
  std::abort();  // not reached: the assertion aborts
}

void ShadowFields::notifyField(ShadowFieldKey const& key) {
  notify<ShadowFieldsNotifieeBase>([&key](ShadowFieldsNotifieeBase& n) { n.onField(key); });
}

void ShadowFields::fieldIs(ShadowFieldValue const& value) {
  ShadowFieldCollection& collection = table("write a field");
  try {
    collection.write(value);
  } catch (Kiv::Shm::CorruptionException const& e) {
    writeFailed("fieldIs", e);
  }
  lastWritten_ = value;
  notifyField(value.key);
}

ShadowFieldValue* ShadowFields::fieldSlot() {
  // The record and ShadowFieldValue share their layout (checked above); the slot is 64-byte aligned.
  return reinterpret_cast<ShadowFieldValue*>(table("fill the writer slot").slotBytes());
}

void ShadowFields::fieldCommit(ShadowFieldValue const* slot) {
  ShadowFieldCollection& collection = table("commit a field");
  std::byte* const bytes = collection.slotBytes();
  if (reinterpret_cast<std::byte const*>(slot) != bytes)
    throw std::invalid_argument(fmt::format("{} '{}': fieldCommit takes the value built in fieldSlot(), not a copy",
                                            fwkType(), name()));
  // Rewrite the record so that the two unused key bytes are zero whatever the caller copied in:
  // keys are compared bytewise.
  ShadowFieldValue const value = ShadowFieldTraits::decode(bytes);
  ShadowFieldTraits::encode(value, bytes);
  try {
    collection.commitSlot();
  } catch (Kiv::Shm::CorruptionException const& e) {
    writeFailed("fieldCommit", e);
  }
  lastWritten_ = value;
  notifyField(value.key);
}

bool ShadowFields::fieldDel(ShadowFieldKey const& key) {
  ShadowFieldCollection& collection = table("remove a field");
  bool removed = false;
  lastWritten_.reset();
  try {
    removed = collection.remove(key);
  } catch (Kiv::Shm::CorruptionException const& e) {
    Kiv::Shm::reportCorruption(e.what());
    throw;
  }
  notifyField(key);
  return removed;
}

void ShadowFields::fieldDelAll() {
  ShadowFieldCollection& collection = table("remove fields");
  // Remove each entry as the pass reaches it. The cursor moves forward through
  // the table, so removing the entry it stands on does not disturb it.
  FieldIterator it;
  try {
    it = collection.begin();
  } catch (Kiv::Shm::CorruptionException const& e) {
    Kiv::Shm::reportCorruption(e.what());
    return;
  }
  while (it != fieldEnd()) {
    ShadowFieldKey const key = it->key;
    try {
      fieldDel(key);
    } catch (Kiv::Shm::CorruptionException const&) {
      return;  // reported by fieldDel; the rest stays
    }
    try {
      ++it;
    } catch (Kiv::Shm::CorruptionException const& e) {
      Kiv::Shm::reportCorruption(e.what());
      return;
    }
  }
}

ShadowFieldValue ShadowFields::field(ShadowFieldKey const& key) const {
  // The reaction to a write looks the same key up at once: answer it without a probe.
  if (lastWritten_ && lastWritten_->key == key) return *lastWritten_;
  std::optional<ShadowFieldValue> const found = table("look a field up").lookup(key);
  return found ? *found : ShadowFieldValue();
}

bool ShadowFields::fieldHas(ShadowFieldKey const& key) const {
  return table("look a field up").lookup(key).has_value();
}

ShadowFields::FieldIterator ShadowFields::fieldBegin() const { return table("iterate fields").begin(); }

U32 ShadowFields::fieldCount() const { return table("count fields").size(); }

U32 ShadowFields::fieldCapacity() const { return table("tell the capacity").capacity(); }

U32 ShadowFields::fieldChangeCounter() const { return table("read the change counter").changeCounter(); }

void ShadowFields::fieldNotify(ShadowFieldKey const& key) { notifyField(key); }

void ShadowFields::fieldNotifyQuiesced(bool quiesced) {
  if (fieldControl_)
    fieldControl_->quiescedIs(quiesced);
}

void ShadowFields::fieldNotifyMountStatus() {
  if (fieldControl_)
    fieldControl_->mountStatusIs(fieldMountStatus_);
}

void ShadowFields::fieldControlIs(Kiv::Ptr<Kiv::Shm::CollectionControl> const& control) {
  if (control == fieldControl_)
    return;
  // The old control may be what keeps this entity alive; stay alive until the swap is done.
  Kiv::Ptr<ShadowFields> const self(this);
  Kiv::Ptr<Kiv::Shm::CollectionControl> const old = std::exchange(fieldControl_, control);
  notify<ShadowFieldsNotifieeBase>([](ShadowFieldsNotifieeBase& n) { n.onFieldControl(); });
}

void ShadowFields::mountStatusIs(Kiv::Shm::MountStatus status) {
  fieldMountStatus_ = status;
  fieldNotifyMountStatus();
}

// ---------------------------------------------------------------------------------------------- attachment

void ShadowFields::attachTo(Kiv::Shm::Root const& root, std::string const& path, Kiv::Shm::MountMode mode,
                            U32 capacity, U32 expectedEntries) {
  detach();
  mountStatusIs(Kiv::Shm::MountStatus::mounting);
  try {
    if (mode == Kiv::Shm::MountMode::writer)
      field_.emplace(ShadowFieldCollection::openWriter(root, path, std::max<U32>(capacity, 1),
                                                       Kiv::Shm::GroupMode::Private, expectedEntries));
    else
      field_.emplace(ShadowFieldCollection::openReader(root, path));
  } catch (...) {
    mountStatusIs(Kiv::Shm::MountStatus::failed);
    throw;
  }
  path_ = path;
  fieldMode_ = mode;
  mountStatusIs(Kiv::Shm::MountStatus::mounted);
  kTrace.line(1, "{} {} attached to '{}' as {}: {} entries, capacity {}", fwkType(), name(), path,
              Kiv::Shm::mountModeName(mode), field_->size(), field_->capacity());
}

void ShadowFields::detach() noexcept {
  if (!field_)
    return;
  field_.reset();
  lastWritten_.reset();
  path_.clear();
  fieldMountStatus_ = Kiv::Shm::MountStatus::unmounted;
}

void ShadowFields::handleParent(Kiv::Entity* parent) {
  if (!parent) {
    std::string const was = path_;
    detach();
    fieldNotifyMountStatus();
    kTrace.line(1, "{} {} detached{}: it is now an orphan", fwkType(), name(),
                was.empty() ? std::string() : " from '" + was + "'");
    return;
  }
  try {
    Kiv::Shm::EntityManager* const manager = Kiv::Shm::EntityManager::managerOf(parent);
    if (!manager)
      throw std::runtime_error(fmt::format("{} '{}' was placed under '{}', which no shared-memory entity manager holds",
                                           fwkType(), name(), parent->name()));
    std::string const up = manager->fullName(parent);
    std::string const path = up.empty() ? name().str() : up + "/" + name().str();
    Kiv::Shm::MountMode const mode = manager->modeOf(path);
    U32 const capacity = mode == Kiv::Shm::MountMode::writer ? manager->capacityOf(path, kFieldCollection) : 0;
    attachTo(manager->root(), path, mode, capacity,
             mode == Kiv::Shm::MountMode::writer ? manager->expectedEntriesOf(path, kFieldCollection) : 0);
  } catch (...) {
    mountStatusIs(Kiv::Shm::MountStatus::failed);
    throw;
  }
}

void ShadowFields::onZeroReferences() const noexcept {
  auto* const self = const_cast<ShadowFields*>(this);
  if (field_ && parent() && fieldControl_ && !fieldControl_->entity()) {
    kTrace.line(2, "{} {}: last reference gone while mounted at '{}'; held by its collection control", fwkType(),
                name(), path_);
    fieldControl_->entityIs(Kiv::Ptr<Kiv::Entity>(self));
    return;
  }
  delete this;
}

std::vector<ShadowFieldValue> ShadowFields::readShadowTable(Kiv::Shm::Root const& root, std::string const& path) {
  ShadowFieldCollection table = ShadowFieldCollection::openReader(root, path);
  std::vector<ShadowFieldValue> values;
  values.reserve(table.size());
  for (ShadowFieldValue const& v : table)
    values.push_back(v);
  std::sort(values.begin(), values.end(),
            [](ShadowFieldValue const& a, ShadowFieldValue const& b) { return a.key < b.key; });
  return values;
}

// ---------------------------------------------------------------------------------------------- the two types

ShadowFieldsConfig::ShadowFieldsConfig(Kiv::String name) : ShadowFields(std::move(name)) {}
ShadowFieldsConfig::~ShadowFieldsConfig() = default;

Kiv::Ptr<ShadowFieldsConfig> ShadowFieldsConfig::ShadowFieldsConfigIs(Kiv::String const& name) {
  return Kiv::create<ShadowFieldsConfig>(name);
}

Kiv::Ptr<ShadowFieldsConfig> ShadowFieldsConfig::attachReader(Kiv::Shm::Root const& root, std::string const& path) {
  Kiv::Shm::Root::validatePath(path);
  auto entity = ShadowFieldsConfigIs(Kiv::String(lastComponent(path)));
  entity->attachTo(root, path, Kiv::Shm::MountMode::reader, 0);
  return entity;
}

Kiv::Ptr<ShadowFieldsConfig> shadowFieldsConfigFactory(Kiv::String const& name) {
  return ShadowFieldsConfig::ShadowFieldsConfigIs(name);
}

ShadowFieldsStatus::ShadowFieldsStatus(Kiv::String name) : ShadowFields(std::move(name)) {}
ShadowFieldsStatus::~ShadowFieldsStatus() = default;

Kiv::Ptr<ShadowFieldsStatus> ShadowFieldsStatus::ShadowFieldsStatusIs(Kiv::String const& name) {
  return Kiv::create<ShadowFieldsStatus>(name);
}

Kiv::Ptr<ShadowFieldsStatus> ShadowFieldsStatus::attachReader(Kiv::Shm::Root const& root, std::string const& path) {
  Kiv::Shm::Root::validatePath(path);
  auto entity = ShadowFieldsStatusIs(Kiv::String(lastComponent(path)));
  entity->attachTo(root, path, Kiv::Shm::MountMode::reader, 0);
  return entity;
}

Kiv::Ptr<ShadowFieldsStatus> shadowFieldsStatusFactory(Kiv::String const& name) {
  return ShadowFieldsStatus::ShadowFieldsStatusIs(name);
}

// ---------------------------------------------------------------------------------------------- generic interface

namespace {

void publishOperations(Kiv::TypeRegistry::Type& t) {
  t.methods["fieldIs"] = Kiv::method<&ShadowFields::fieldIs>();
  t.methods["fieldDel"] = Kiv::method<&ShadowFields::fieldDel>();
  t.methods["fieldDelAll"] = Kiv::method<&ShadowFields::fieldDelAll>();
  t.methods["field"] = Kiv::method<&ShadowFields::field>();
  t.methods["fieldHas"] = Kiv::method<&ShadowFields::fieldHas>();
  t.methods["fieldNotify"] = Kiv::method<&ShadowFields::fieldNotify>();
  t.methods["fieldNotifyQuiesced"] = Kiv::method<&ShadowFields::fieldNotifyQuiesced>();
  t.methods["fieldNotifyMountStatus"] = Kiv::method<&ShadowFields::fieldNotifyMountStatus>();
  t.attributes["name"] = [](Kiv::Entity& e, std::vector<std::string> const&) { return e.name().str(); };
  t.attributes["fieldCount"] = Kiv::method<&ShadowFields::fieldCount>();
}

bool const kRegistered = [] {
  auto& registry = Kiv::TypeRegistry::instance();
  auto& config = registry.typeIs("TarnRegFile::ShadowFieldsConfig");
  config.factory = [](Kiv::String const& name) { return Kiv::Ptr<Kiv::Entity>(shadowFieldsConfigFactory(name)); };
  publishOperations(config);
  auto& status = registry.typeIs("TarnRegFile::ShadowFieldsStatus");
  status.factory = [](Kiv::String const& name) { return Kiv::Ptr<Kiv::Entity>(shadowFieldsStatusFactory(name)); };
  publishOperations(status);
  return true;
}();

}  // namespace

}  // namespace TarnRegFile
