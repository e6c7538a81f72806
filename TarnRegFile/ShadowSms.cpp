#include "TarnRegFile/ShadowSms.h"

#include "TarnRegFile/platform/Assert.h"
#include "TarnRegFile/platform/KivGeneric.h"
#include "TarnRegFile/platform/ShmTable.h"
#include "TarnRegFile/TransportMethod.h"
#include "TarnRegFile/platform/Trace.h"

#include <stdexcept>

namespace TarnRegFile {
namespace {

Kiv::TraceHandle kTrace("TarnRegFile/ShadowSms");

constexpr int kImageBytes = 4;

/// Reports corruption to the collection service; the caller then carries on with what it has.
void reportCorruption(Kiv::Shm::CorruptionException const& e) { Kiv::Shm::reportCorruption(e.what()); }

}  // namespace

// ================================================================ field merge

void bitStreamSet(U8* buffer, U16 start, U8 len, U64 value) {
  // Signed on purpose: a zero-length field at bit 0 ends "before" it, in slice 0.
  int const startSlice = start / 8;
  int const endSlice = (int{start} + int{len} - 1) / 8;
  KIV_ASSERT(kTrace, startSlice >= endSlice - 8) << "field of " << unsigned{len} << " bits at bit " << start
                                                 << " spans more than 8 bytes";
  KIV_ASSERT(kTrace, len < 64) << "field of " << unsigned{len} << " bits does not fit a 64-bit value";
  U64 const mask = (U64{1} << len) - 1;
  value &= mask;
  unsigned const shift = start % 8;
  // Bytes beyond the 32-bit image are not part of the register: their bits are dropped.
  if (startSlice < kImageBytes) {
    U8& first = buffer[startSlice];
    first = static_cast<U8>((first & (((U64{1} << shift) - 1) | ~(mask << shift))) | (value << shift));
  }
  for (int i = 1; startSlice + i <= endSlice && startSlice + i < kImageBytes; ++i) {
    unsigned const s = 8 * static_cast<unsigned>(i) - shift;
    U8& byte = buffer[startSlice + i];
    byte = static_cast<U8>((byte & ~(mask >> s)) | (value >> s));
  }
}

// ================================================================ reactor

/// Watches the desired fields; every notification carries the key that changed.
class ShadowFieldsSm::ConfigReactor : public ShadowFieldsConfig::Notifiee {
public:
  ConfigReactor(ShadowFieldsSm& owner, Kiv::Ptr<ShadowFieldsConfig> const& config) : owner_(owner) {
    notifierIs(config);
  }
  void onField(ShadowFieldKey const& key) override { owner_.handleShadowField(key); }

private:
  ShadowFieldsSm& owner_;
};

// ================================================================ life

ShadowFieldsSm::ShadowFieldsSm(Kiv::Ptr<ShadowFieldsConfig> const& config, Kiv::Ptr<ShadowFieldsStatus> const& status,
                               Kiv::Ptr<TransportMethod> const& transport, bool simulate)
    : Kiv::Entity(transport ? transport->name() : Kiv::String()),
      shadowFieldsConfig_(config),
      shadowFieldsStatus_(status),
      transport_(transport),
      simulate_(simulate) {
  // Without a transport every register write would have nowhere to go: refuse it up front
  // instead of failing on the first field.
  if (!transport_ && !simulate_)
    throw std::invalid_argument("ShadowFieldsSm needs a transport unless it simulates");
  if (shadowFieldsConfig_) {
    configReactor_ = std::make_unique<ConfigReactor>(*this, shadowFieldsConfig_);
    configReactor_->isNotificationActiveIs(true);
  }
  try {
    handleInitialized();
  } catch (...) {
    releaseAll();
    throw;
  }
}

ShadowFieldsSm::~ShadowFieldsSm() { releaseAll(); }

void ShadowFieldsSm::releaseAll() noexcept {
  configReactor_.reset();
  regConfig_ = RegisterImageMap();
  regStatus_ = RegisterImageMap();
  shadowFieldsConfig_ = nullptr;
  shadowFieldsStatus_ = nullptr;
  transport_ = nullptr;
}

void ShadowFieldsSm::retireReactors() noexcept { configReactor_.reset(); }

Kiv::Ptr<ShadowFieldsSm> ShadowFieldsSm::ShadowFieldsSmIs(Kiv::Ptr<ShadowFieldsConfig> const& config,
                                                          Kiv::Ptr<ShadowFieldsStatus> const& status,
                                                          Kiv::Ptr<TransportMethod> const& transport, bool simulate) {
  return Kiv::create<ShadowFieldsSm>(config, status, transport, simulate);
}

Kiv::Ptr<ShadowFieldsSm> shadowFieldsSmFactory(Kiv::Ptr<ShadowFieldsConfig> const& config,
                                               Kiv::Ptr<ShadowFieldsStatus> const& status,
                                               Kiv::Ptr<TransportMethod> const& transport, bool simulate) {
  return ShadowFieldsSm::ShadowFieldsSmIs(config, status, transport, simulate);
}

void ShadowFieldsSm::hasNotificationActiveIs(bool active) {
  Kiv::Entity::hasNotificationActiveIs(active);
  if (configReactor_) configReactor_->isNotificationActiveIs(active);
}

// ================================================================ attributes

void ShadowFieldsSm::initializedIs(bool initialized) {
  if (initialized == initialized_) return;
  initialized_ = initialized;
  notify<Notifiee>([](Notifiee& n) { n.onInitialized(); });
}

void ShadowFieldsSm::regConfigIs(U32 address, U32 value) {
  if (regConfig_.set(address, value)) notify<Notifiee>([address](Notifiee& n) { n.onRegConfig(address); });
}

void ShadowFieldsSm::regConfigDel(U32 address) {
  if (regConfig_.erase(address)) notify<Notifiee>([address](Notifiee& n) { n.onRegConfig(address); });
}

void ShadowFieldsSm::regConfigDelAll() {
  for (U32 const address : regConfig_.keys()) regConfigDel(address);
}

void ShadowFieldsSm::regStatusIs(U32 address, U32 value) {
  if (regStatus_.set(address, value)) notify<Notifiee>([address](Notifiee& n) { n.onRegStatus(address); });
}

void ShadowFieldsSm::regStatusDel(U32 address) {
  if (regStatus_.erase(address)) notify<Notifiee>([address](Notifiee& n) { n.onRegStatus(address); });
}

void ShadowFieldsSm::regStatusDelAll() {
  for (U32 const address : regStatus_.keys()) regStatusDel(address);
}

// ================================================================ reactions

U32 ShadowFieldsSm::mergeIntoImage(RegisterImageMap const& images, ShadowFieldKey const& key, U32 value) const {
  U32 const old = images.get(key.address, 0);
  U8 bytes[kImageBytes] = {U8(old), U8(old >> 8), U8(old >> 16), U8(old >> 24)};
  bitStreamSet(bytes, key.start, key.size, value);
  return U32(bytes[0]) | U32(bytes[1]) << 8 | U32(bytes[2]) << 16 | U32(bytes[3]) << 24;
}

U32 ShadowFieldsSm::desiredValue(ShadowFieldKey const& key) const {
  if (!shadowFieldsConfig_) return 0;
  try {
    return shadowFieldsConfig_->field(key).value;
  } catch (Kiv::Shm::CorruptionException const& e) {
    reportCorruption(e);
    return 0;
  }
}

void ShadowFieldsSm::handleInitialized() {
  // Both images are rebuilt from shared memory: nothing a previous machine (or a
  // previous process) knew is trusted.
  if (shadowFieldsConfig_) {
    try {
      for (ShadowFieldValue const& v : shadowFieldsConfig_->fields())
        regConfigIs(v.key.address, mergeIntoImage(regConfig_, v.key, v.value));
    } catch (Kiv::Shm::CorruptionException const& e) {
      reportCorruption(e);
    }
  }
  if (shadowFieldsStatus_) {
    try {
      for (ShadowFieldValue const& v : shadowFieldsStatus_->fields())
        regStatusIs(v.key.address, mergeIntoImage(regStatus_, v.key, v.value));
    } catch (Kiv::Shm::CorruptionException const& e) {
      reportCorruption(e);
    }
  }
  initializedIs(true);
  kTrace.printf(1, "shadowFeilds initialized");
  handleShadowField();
}

void ShadowFieldsSm::handleShadowField(ShadowFieldKey const& key) { applyField(key, desiredValue(key)); }

void ShadowFieldsSm::applyField(ShadowFieldKey const& key, U32 value) {
  kTrace.line(2, "key: addr={:#x}, start={:#x}, size={:#x}", key.address, unsigned{key.start}, unsigned{key.size});
  if (!initialized_) {
    kTrace.printf(0, "Not initialized!");
    return;
  }
  U32 const configured = mergeIntoImage(regConfig_, key, value);
  regConfigIs(key.address, configured);
  if (regStatus(key.address) != configured) {
    if (!simulate_) transport_->regWrite(transport_->regAddrToName(key.address), configured);
    regStatusIs(key.address, configured);
  }
  // Recorded only now: the status collection never claims a field its register did not get.
  shadowFieldsStatus_->fieldIs(ShadowFieldValue(key, value));
}

void ShadowFieldsSm::handleShadowField() {
  if (!shadowFieldsConfig_) return;
  ShadowFields::FieldIterator it;
  try {
    it = shadowFieldsConfig_->fieldBegin();
  } catch (Kiv::Shm::CorruptionException const& e) {
    reportCorruption(e);
    return;
  }
  while (it != shadowFieldsConfig_->fieldEnd()) {
    // The iteration already read the entry whole: no second lookup of the same key.
    applyField(it->key, it->value);
    try {
      ++it;
    } catch (Kiv::Shm::CorruptionException const& e) {
      reportCorruption(e);
      return;
    }
  }
}

// ================================================================ generic interface

namespace {

bool const kRegistered = [] {
  auto& sm = Kiv::TypeRegistry::instance().typeIs("TarnRegFile::ShadowFieldsSm");
  sm.methods["handleInitialized"] = Kiv::method<&ShadowFieldsSm::handleInitialized>();
  sm.methods["handleShadowField"] = Kiv::method<static_cast<void (ShadowFieldsSm::*)(ShadowFieldKey const&)>(
      &ShadowFieldsSm::handleShadowField)>();
  sm.methods["regConfig"] = Kiv::method<&ShadowFieldsSm::regConfig>();
  sm.methods["regStatus"] = Kiv::method<&ShadowFieldsSm::regStatus>();
  sm.attributes["initialized"] = Kiv::method<&ShadowFieldsSm::initialized>();
  sm.attributes["simulate"] = Kiv::method<&ShadowFieldsSm::simulate>();
  sm.attributes["chipName"] = [](Kiv::Entity& e, std::vector<std::string> const&) { return e.name().str(); };
  sm.attributeWriters["initialized"] = Kiv::method<&ShadowFieldsSm::initializedIs>();
  return true;
}();

}  // namespace

}  // namespace TarnRegFile
