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
///
/// A notifiee that throws does not cut the delivery short: every other active
/// notifiee still hears of the change, then the first exception propagates to
/// the caller of the mutating operation (later ones are traced and dropped).
/// The mutation itself has happened by then; what a throwing reactor leaves
/// undone is its own to repair.
///
/// State machines own reactors that hold references to what they observe. When
/// a state machine's last reference goes, `retireReactors()` runs before it is
/// destroyed, so that no notification reaches an object half torn down.

#include "TarnRegFile/platform/Export.h"
#include "TarnRegFile/platform/KivPtr.h"
#include "TarnRegFile/platform/KivString.h"

#include <exception>
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

  /// @brief Detaches the reactors of a state machine; runs when its last reference goes,
  /// before destruction. Default: nothing.
  virtual void retireReactors() noexcept;

  /// @brief Deletes the entity after retiring its reactors.
  void onZeroReferences() const noexcept override;

  /// @brief Calls @p f on every active observer, as type N (the entity's Notifiee type).
  ///
  /// An observer that throws does not stop the others; the first exception is
  /// rethrown once every observer has been called.
  template <class N, class F>
  void notify(F&& f) {
    if (!notificationActive_ || notifiees_.empty()) return;
    Delivery delivery(*this);
    for (size_t i = 0; i < notifiees_.size(); ++i) {
      NotifieeBase* n = notifiees_[i];
      if (!n || !n->isNotificationActive()) continue;
      try {
        f(static_cast<N&>(*n));
      } catch (...) {
        delivery.failed(std::current_exception());
      }
    }
    delivery.finish();
  }

private:
  /// Keeps the delivery depth right however the loop ends, and carries the first failure out.
  class TARN_API Delivery {
  public:
    explicit Delivery(Entity& e) noexcept : entity_(e) { ++entity_.delivering_; }
    ~Delivery();
    Delivery(Delivery const&) = delete;
    Delivery& operator=(Delivery const&) = delete;
    void failed(std::exception_ptr e) noexcept;
    /// Ends the delivery; rethrows the first failure.
    void finish();

  private:
    Entity& entity_;
    std::exception_ptr first_;
    bool finished_ = false;
  };

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
