#include "TarnRegFile/platform/KivEntity.h"

#include "TarnRegFile/platform/Trace.h"

#include <algorithm>

namespace Kiv {

namespace {
TraceHandle kTrace("Kiv/Entity");

char const* describe(std::exception_ptr const& e) noexcept {
  try {
    std::rethrow_exception(e);
  } catch (std::exception const& x) {
    return x.what();
  } catch (...) {
    return "an exception of unknown type";
  }
}
}  // namespace

NotifieeBase::~NotifieeBase() { notifierBaseIs(nullptr); }

void NotifieeBase::notifierBaseIs(Entity* e) {
  if (notifier_ == e) return;
  if (notifier_) notifier_->notifieeRemove(this);
  notifier_ = e;
  if (notifier_) notifier_->notifieeAdd(this);
}

Entity::Entity(String name) : name_(std::move(name)) {}

Entity::~Entity() {
  // Observers outliving the entity must not keep a dangling pointer.
  for (auto* n : notifiees_)
    if (n) n->notifier_ = nullptr;
}

void Entity::hasNotificationActiveIs(bool active) { notificationActive_ = active; }

char const* Entity::fwkType() const { return "Kiv::Entity"; }

void Entity::parentIs(Entity* parent) {
  if (parent_ == parent) return;
  Entity* const previous = parent_;
  parent_ = parent;
  try {
    handleParent(parent);
  } catch (...) {
    parent_ = previous;  // an entity that could not attach stays where it was
    throw;
  }
}

void Entity::handleParent(Entity*) {}

size_t Entity::notifieeCount() const noexcept {
  return static_cast<size_t>(std::count_if(notifiees_.begin(), notifiees_.end(), [](auto* n) { return n; }));
}

void Entity::notifieeAdd(NotifieeBase* n) { notifiees_.push_back(n); }

void Entity::notifieeRemove(NotifieeBase* n) {
  auto it = std::find(notifiees_.begin(), notifiees_.end(), n);
  if (it == notifiees_.end()) return;
  if (delivering_)
    *it = nullptr;  // the delivery loop is indexing this vector; compact afterwards
  else
    notifiees_.erase(it);
}

void Entity::retireReactors() noexcept {}

void Entity::onZeroReferences() const noexcept {
  auto* const self = const_cast<Entity*>(this);
  self->retireReactors();
  delete this;
}

Entity::Delivery::~Delivery() {
  if (!finished_ && --entity_.delivering_ == 0) entity_.compact();
}

void Entity::Delivery::failed(std::exception_ptr e) noexcept {
  if (!first_) {
    first_ = std::move(e);
    return;
  }
  // Only one exception can travel on; the caller learns of the first.
  kTrace.line(0, "notifiee of {} '{}' also failed: {}", entity_.fwkType(), entity_.name(), describe(e));
}

void Entity::Delivery::finish() {
  finished_ = true;
  if (--entity_.delivering_ == 0) entity_.compact();
  if (first_) std::rethrow_exception(first_);
}

void Entity::compact() { notifiees_.erase(std::remove(notifiees_.begin(), notifiees_.end(), nullptr), notifiees_.end()); }

}  // namespace Kiv
