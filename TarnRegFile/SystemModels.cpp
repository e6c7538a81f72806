#include "TarnRegFile/SystemModels.h"

#include "TarnRegFile/platform/KivGeneric.h"
#include "TarnRegFile/LogicalChip.h"
#include "TarnRegFile/LogicalSms.h"
#include "TarnRegFile/ShadowSms.h"
#include "TarnRegFile/TransportMethod.h"
#include "TarnRegFile/platform/Trace.h"

#include <fmt/format.h>

#include <stdexcept>

namespace TarnRegFile {
namespace {

Kiv::TraceHandle kTrace("TarnRegFile/SystemModels");

/// A null entry would have no name to be found under: refused before anything changes.
template <class V>
void requireEntry(Kiv::Ptr<V> const& v, char const* operation, char const* type) {
  if (!v) throw std::invalid_argument(fmt::format("{}: a null {} cannot be stored", operation, type));
}

/// Inserts @p value under @p key; true when the model changed (a different object, or a new key).
template <class V>
bool store(Kiv::KeyedCollection<Kiv::String, Kiv::Ptr<V>>& map, Kiv::String const& key, Kiv::Ptr<V> const& value,
           char const* what) {
  if (!map.set(key, value)) return false;
  kTrace.line(2, "{} {} stored", what, key);
  return true;
}

/// Removes @p key; the removed reference, or null when absent.
template <class V>
Kiv::Ptr<V> remove(Kiv::KeyedCollection<Kiv::String, Kiv::Ptr<V>>& map, Kiv::String const& key, char const* what) {
  auto removed = map.take(key);
  if (!removed) return nullptr;
  kTrace.line(2, "{} {} removed", what, key);
  return *removed;
}

}  // namespace

// ================================================================ LogicalModel

LogicalModel::LogicalModel() = default;
LogicalModel::~LogicalModel() = default;

Kiv::Ptr<LogicalModel> LogicalModel::LogicalModelIs() { return Kiv::create<LogicalModel>(); }
Kiv::Ptr<LogicalModel> logicalModelFactory() { return LogicalModel::LogicalModelIs(); }

void LogicalModel::chipIs(Kiv::Ptr<LogicalChip> const& chip) {
  requireEntry(chip, "LogicalModel::chipIs", "LogicalChip");
  Kiv::String const key = chip->name();
  if (store(chip_, key, chip, "LogicalModel chip")) notify<Notifiee>([&](Notifiee& n) { n.onChip(key); });
}

Kiv::Ptr<LogicalChip> LogicalModel::chipDel(Kiv::String const& key) {
  Kiv::String const k = key;  // the caller's key may live in the entry removed
  auto removed = remove(chip_, k, "LogicalModel chip");
  if (removed) notify<Notifiee>([&](Notifiee& n) { n.onChip(k); });
  return removed;
}

void LogicalModel::chipDelAll() {
  for (Kiv::String const& key : chip_.keys()) chipDel(key);
}

void LogicalModel::writeSmIs(Kiv::Ptr<LogicalWriteSm> const& sm) {
  requireEntry(sm, "LogicalModel::writeSmIs", "LogicalWriteSm");
  Kiv::String const key = sm->chipName();
  if (store(writeSm_, key, sm, "LogicalModel writeSm")) notify<Notifiee>([&](Notifiee& n) { n.onWriteSm(key); });
}

Kiv::Ptr<LogicalWriteSm> LogicalModel::writeSmDel(Kiv::String const& key) {
  Kiv::String const k = key;
  auto removed = remove(writeSm_, k, "LogicalModel writeSm");
  if (removed) notify<Notifiee>([&](Notifiee& n) { n.onWriteSm(k); });
  return removed;
}

void LogicalModel::writeSmDelAll() {
  for (Kiv::String const& key : writeSm_.keys()) writeSmDel(key);
}

// ================================================================ PhysicalModel

PhysicalModel::PhysicalModel() = default;
PhysicalModel::~PhysicalModel() = default;

Kiv::Ptr<PhysicalModel> PhysicalModel::PhysicalModelIs() { return Kiv::create<PhysicalModel>(); }
Kiv::Ptr<PhysicalModel> physicalModelFactory() { return PhysicalModel::PhysicalModelIs(); }

void PhysicalModel::shadowSmIs(Kiv::Ptr<ShadowFieldsSm> const& sm) {
  requireEntry(sm, "PhysicalModel::shadowSmIs", "ShadowFieldsSm");
  Kiv::String const key = sm->chipName();
  if (store(shadowSm_, key, sm, "PhysicalModel shadowSm")) notify<Notifiee>([&](Notifiee& n) { n.onShadowSm(key); });
}

Kiv::Ptr<ShadowFieldsSm> PhysicalModel::shadowSmDel(Kiv::String const& key) {
  Kiv::String const k = key;
  auto removed = remove(shadowSm_, k, "PhysicalModel shadowSm");
  if (removed) notify<Notifiee>([&](Notifiee& n) { n.onShadowSm(k); });
  return removed;
}

void PhysicalModel::shadowSmDelAll() {
  for (Kiv::String const& key : shadowSm_.keys()) shadowSmDel(key);
}

void PhysicalModel::transportIs(Kiv::Ptr<TransportMethod> const& transport) {
  requireEntry(transport, "PhysicalModel::transportIs", "TransportMethod");
  Kiv::String const key = transport->name();
  if (store(transport_, key, transport, "PhysicalModel transport"))
    notify<Notifiee>([&](Notifiee& n) { n.onTransport(key); });
}

Kiv::Ptr<TransportMethod> PhysicalModel::transportDel(Kiv::String const& key) {
  Kiv::String const k = key;
  auto removed = remove(transport_, k, "PhysicalModel transport");
  if (removed) notify<Notifiee>([&](Notifiee& n) { n.onTransport(k); });
  return removed;
}

void PhysicalModel::transportDelAll() {
  for (Kiv::String const& key : transport_.keys()) transportDel(key);
}

void PhysicalModel::simulateIs(bool simulate) {
  if (simulate == simulate_) return;
  simulate_ = simulate;
  kTrace.line(1, "PhysicalModel simulate {}", simulate);
  notify<Notifiee>([](Notifiee& n) { n.onSimulate(); });
}

// ================================================================ generic interface

namespace {

bool const kRegistered = [] {
  auto& registry = Kiv::TypeRegistry::instance();

  auto& logical = registry.typeIs("TarnRegFile::LogicalModel");
  logical.factory = [](Kiv::String const&) { return Kiv::Ptr<Kiv::Entity>(logicalModelFactory()); };
  logical.methods["chip"] = Kiv::method<&LogicalModel::chip>();
  logical.methods["chipHas"] = Kiv::method<&LogicalModel::chipHas>();
  logical.methods["chipDel"] = Kiv::method<&LogicalModel::chipDel>();
  logical.methods["chipDelAll"] = Kiv::method<&LogicalModel::chipDelAll>();
  logical.methods["writeSm"] = Kiv::method<&LogicalModel::writeSm>();
  logical.methods["writeSmHas"] = Kiv::method<&LogicalModel::writeSmHas>();
  logical.methods["writeSmDel"] = Kiv::method<&LogicalModel::writeSmDel>();
  logical.methods["writeSmDelAll"] = Kiv::method<&LogicalModel::writeSmDelAll>();

  auto& physical = registry.typeIs("TarnRegFile::PhysicalModel");
  physical.factory = [](Kiv::String const&) { return Kiv::Ptr<Kiv::Entity>(physicalModelFactory()); };
  physical.methods["shadowSm"] = Kiv::method<&PhysicalModel::shadowSm>();
  physical.methods["shadowSmHas"] = Kiv::method<&PhysicalModel::shadowSmHas>();
  physical.methods["shadowSmDel"] = Kiv::method<&PhysicalModel::shadowSmDel>();
  physical.methods["shadowSmDelAll"] = Kiv::method<&PhysicalModel::shadowSmDelAll>();
  physical.methods["transport"] = Kiv::method<&PhysicalModel::transport>();
  physical.methods["transportHas"] = Kiv::method<&PhysicalModel::transportHas>();
  physical.methods["transportDel"] = Kiv::method<&PhysicalModel::transportDel>();
  physical.methods["transportDelAll"] = Kiv::method<&PhysicalModel::transportDelAll>();
  physical.attributes["simulate"] = Kiv::method<&PhysicalModel::simulate>();
  physical.attributeWriters["simulate"] = Kiv::method<&PhysicalModel::simulateIs>();
  return true;
}();

}  // namespace

}  // namespace TarnRegFile
