#pragma once
/// @file KivPtr.h
/// @brief Intrusive reference counting of the entity runtime: `Kiv::PtrInterface` and `Kiv::Ptr<T>`.
///
/// The count lives inside the object, so a raw pointer can always be turned back
/// into a counted reference. Counts are plain (single-threaded agents) unless the
/// library is built with KIV_ATOMIC_REFCOUNT, which makes them atomic. The layout
/// is the same either way.

#include "TarnRegFile/platform/Export.h"
#include "TarnRegFile/platform/Types.h"

#include <atomic>
#include <cstddef>
#include <functional>
#include <utility>

namespace Kiv {

/// @brief Base of every reference-counted object of the runtime.
class TARN_API PtrInterface {
public:
  PtrInterface(PtrInterface const&) = delete;
  PtrInterface& operator=(PtrInterface const&) = delete;

  /// @brief Adds a reference.
  void newRef() const noexcept {
#ifdef KIV_ATOMIC_REFCOUNT
    refs_.fetch_add(1, std::memory_order_relaxed);
#else
    refs_.store(refs_.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
#endif
  }

  /// @brief Drops a reference; the last one calls onZeroReferences().
  void deleteRef() const noexcept {
#ifdef KIV_ATOMIC_REFCOUNT
    if (refs_.fetch_sub(1, std::memory_order_acq_rel) == 1) onZeroReferences();
#else
    U32 const left = refs_.load(std::memory_order_relaxed) - 1;
    refs_.store(left, std::memory_order_relaxed);
    if (left == 0) onZeroReferences();
#endif
  }

  /// @brief Current number of counted references.
  U32 references() const noexcept { return refs_.load(std::memory_order_relaxed); }

protected:
  PtrInterface() = default;
  virtual ~PtrInterface();

  /// @brief Called when the last reference goes. Deletes the object unless a
  /// subclass hands it over to someone else (it may take a new reference).
  virtual void onZeroReferences() const noexcept;

private:
  mutable std::atomic<U32> refs_{0};
};

/// @brief Counted reference to a PtrInterface-derived object; null when empty.
template <class T>
class Ptr {
public:
  using element_type = T;

  Ptr() noexcept = default;
  Ptr(std::nullptr_t) noexcept {}
  Ptr(T* p) noexcept : p_(p) {
    if (p_) p_->newRef();
  }
  Ptr(Ptr const& o) noexcept : Ptr(o.p_) {}
  Ptr(Ptr&& o) noexcept : p_(std::exchange(o.p_, nullptr)) {}
  template <class U, class = std::enable_if_t<std::is_convertible_v<U*, T*>>>
  Ptr(Ptr<U> const& o) noexcept : Ptr(static_cast<T*>(o.ptr())) {}
  ~Ptr() {
    if (p_) p_->deleteRef();
  }

  Ptr& operator=(Ptr const& o) noexcept {
    Ptr(o).swap(*this);
    return *this;
  }
  Ptr& operator=(Ptr&& o) noexcept {
    Ptr(std::move(o)).swap(*this);
    return *this;
  }

  /// @brief The raw pointer (no reference taken).
  T* ptr() const noexcept { return p_; }
  T* operator->() const noexcept { return p_; }
  T& operator*() const noexcept { return *p_; }
  explicit operator bool() const noexcept { return p_ != nullptr; }
  void swap(Ptr& o) noexcept { std::swap(p_, o.p_); }

  template <class U>
  bool operator==(Ptr<U> const& o) const noexcept {
    return p_ == o.ptr();
  }
  bool operator==(std::nullptr_t) const noexcept { return p_ == nullptr; }

private:
  T* p_ = nullptr;
};

/// @brief Checked down-cast: an empty reference when the object is not a T.
template <class T, class U>
Ptr<T> ptr_cast(Ptr<U> const& p) noexcept {
  return Ptr<T>(dynamic_cast<T*>(p.ptr()));
}

}  // namespace Kiv

template <class T>
struct std::hash<Kiv::Ptr<T>> {
  size_t operator()(Kiv::Ptr<T> const& p) const noexcept { return std::hash<T*>()(p.ptr()); }
};
