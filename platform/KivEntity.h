#pragma once
/// @file KivEntity.h
/// @brief Entities, their synchronous observer lists and reactors.
///
/// An entity is a reference-counted object with a name and a flag that switches
/// its notifications on. Observers ("notifiees", or reactors when they react by
/// changing something) derive from the entity type's own `Notifiee` class, which
/// has one virtual `on<Attribute>` per attribute; the entity calls them
/// synchronously from inside the mutating operation, and only when the stored
/// value really changed. A reactor can be switched inactive without detaching.
///
/// Notifiees may attach or detach (themselves or others) while a notification is
/// being delivered: detached slots are skipped and compacted afterwards.

#include "Export.h"
#include "KivPtr.h"
#include "KivString.h"

#include <vector>

namespace Kiv {

class Entity;

/// @brief Untyped base of every observer.
class TARN_API NotifieeBase {
public:
  NotifieeBase(NotifieeBase const&) = delete;
  NotifieeBase& operator=(NotifieeBase const&) = delete;
  virtual ~NotifieeBase();

  /// @brief Whether this observer currently reacts.
  bool isNotificationActive() const noexcept { return active_; }
  /// @brief Switches the observer's reactions on or off (it stays attached).
  void isNotificationActiveIs(bool active) noexcept { active_ = active; }
  /// @brief The observed entity, or null.
  Entity* notifierBase() const noexcept { return notifier_; }

protected:
  NotifieeBase() = default;
  /// @brief Detaches from the current entity and attaches to @p e (may be null).
  void notifierBaseIs(Entity* e);

private:
  friend class Entity;
  Entity* notifier_ = nullptr;
  bool active_ = true;
};

/// @brief Typed observer base for entity type E; holds a counted reference to E.
template <class E>
class Notifiee : public NotifieeBase {
public:
  /// @brief The observed entity.
  E* notifier() const noexcept { return static_cast<E*>(notifierBase()); }
  /// @brief Observes @p e (and keeps it alive); null detaches.
  void notifierIs(Ptr<E> const& e) {
    held_ = e;
    notifierBaseIs(e.ptr());
  }

protected:
  Notifiee() = default;
  ~Notifiee() override { notifierBaseIs(nullptr); }

private:
  Ptr<E> held_;
};

/// @brief Base of every entity.
class TARN_API Entity : public PtrInterface {
public:
  /// @brief The name given at construction.
  String const& name() const noexcept { return name_; }

  /// @brief Whether the entity notifies its observers.
  bool hasNotificationActive() const noexcept { return notificationActive_; }
  /// @brief Switches notifications on or off; state machines forward it to their reactors.
  virtual void hasNotificationActiveIs(bool active);

  /// @brief The registered type name ("TarnRegFile::LogicalChip").
  virtual char const* fwkType() const;

  /// @brief The entity this one is placed under (shared-memory trees), or null.
  Entity* parent() const noexcept { return parent_; }
  /// @brief Places the entity under @p parent (or removes it with null) and calls handleParent.
  void parentIs(Entity* parent);

  /// @brief Number of attached observers (active or not).
  size_t notifieeCount() const noexcept;

  void notifieeAdd(NotifieeBase* n);
  void notifieeRemove(NotifieeBase* n);

protected:
  explicit Entity(String name = String());
  ~Entity() override;

  /// @brief Reacts to being placed under a parent (null: removed). Default: nothing.
  virtual void handleParent(Entity* parent);

  /// @brief Calls @p f on every active observer, as type N (the entity's Notifiee type).
  template <class N, class F>
  void notify(F&& f) {
    if (!notificationActive_ || notifiees_.empty()) return;
    ++delivering_;
    for (size_t i = 0; i < notifiees_.size(); ++i) {
      NotifieeBase* n = notifiees_[i];
      if (n && n->isNotificationActive()) f(static_cast<N&>(*n));
    }
    if (--delivering_ == 0) compact();
  }

private:
  void compact();

  String name_;
  bool notificationActive_ = false;
  U32 delivering_ = 0;
  Entity* parent_ = nullptr;
  std::vector<NotifieeBase*> notifiees_;
};

/// @brief Allocates an entity, switches its notifications on and returns the reference.
template <class T, class... A>
Ptr<T> create(A&&... args) {
  Ptr<T> p(new T(std::forward<A>(args)...));
  p->hasNotificationActiveIs(true);
  return p;
}

}  // namespace Kiv
