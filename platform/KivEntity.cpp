#include "TarnRegFile/platform/KivEntity.h"

#include <fmt/format.h>

namespace Kiv {

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
  notifiees_.forEach([](NotifieeBase* n) { n->notifier_ = nullptr; });
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

size_t Entity::notifieeCount() const noexcept { return notifiees_.size(); }

void Entity::notifieeAdd(NotifieeBase* n) { notifiees_.add(n); }

void Entity::notifieeRemove(NotifieeBase* n) {
  notifiees_.removeIf([n](NotifieeBase* item) { return item == n; });
}

std::string Entity::describe() const { return fmt::format("{} '{}'", fwkType(), name()); }

void Entity::retireReactors() noexcept {}

void Entity::onZeroReferences() const noexcept {
  auto* const self = const_cast<Entity*>(this);
  self->retireReactors();
  delete this;
}

}  // namespace Kiv
