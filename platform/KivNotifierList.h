#pragma once
/// @file KivNotifierList.h
/// @brief The observer list of entities and shared-memory collections: it may change
/// while it delivers, and a throwing observer does not cut a delivery short.
///
/// Items are handles that test false when empty (observer pointers, slots holding a
/// callable). During a delivery:
///   - an item removed is emptied in place and swept when the outermost delivery
///     ends, so the loop never skips or repeats one;
///   - an item added waits for the next delivery;
///   - items do not move (a deque): a callable may add observers while it runs.
/// An observer that throws does not stop the others: every one is called, then the
/// first exception propagates; later ones are traced with the notifier's
/// description and dropped. The bookkeeping is restored however the delivery ends.

#include "TarnRegFile/platform/Export.h"
#include "TarnRegFile/platform/Types.h"

#include <algorithm>
#include <cstddef>
#include <deque>
#include <exception>
#include <string>
#include <utility>

namespace Kiv {

/// @brief Traces an observer failure that could not travel on (another one already does).
TARN_API void notifierListDropped(std::string const& notifier, std::exception_ptr const& e) noexcept;

template <class T>
class NotifierList {
public:
  void add(T item) { items_.push_back(std::move(item)); }

  /// @brief Removes the first item @p matches accepts; false when there is none.
  template <class P>
  bool removeIf(P&& matches) {
    auto it = std::find_if(items_.begin(), items_.end(), [&](T const& item) { return item && matches(item); });
    if (it == items_.end()) return false;
    if (delivering_ > 0) {
      *it = T{};  // a delivery is indexing the list: swept when it ends
      swept_ = true;
    } else {
      items_.erase(it);
    }
    return true;
  }

  /// @brief Number of items (removed ones excluded).
  size_t size() const noexcept {
    return static_cast<size_t>(std::count_if(items_.begin(), items_.end(), [](T const& item) { return bool(item); }));
  }
  bool empty() const noexcept { return items_.empty(); }

  /// @brief Calls @p f on every item; @p describe() names the notifier in the trace of a dropped failure.
  template <class F, class D>
  void deliver(F&& f, D&& describe) {
    if (items_.empty()) return;
    Depth depth(*this);
    std::exception_ptr first;
    size_t const count = items_.size();  // items added meanwhile wait for the next delivery
    for (size_t i = 0; i < count; ++i) {
      T& item = items_[i];
      if (!item) continue;
      try {
        f(item);
      } catch (...) {
        if (!first)
          first = std::current_exception();
        else
          notifierListDropped(describe(), std::current_exception());
      }
    }
    if (first) std::rethrow_exception(first);
  }

  /// @brief Calls @p f on every item, outside any delivery (teardown).
  template <class F>
  void forEach(F&& f) const {
    for (T const& item : items_)
      if (item) f(item);
  }

private:
  struct Depth {
    NotifierList& list;
    explicit Depth(NotifierList& l) noexcept : list(l) { ++list.delivering_; }
    ~Depth() {
      if (--list.delivering_ == 0 && list.swept_) {
        list.items_.erase(std::remove_if(list.items_.begin(), list.items_.end(), [](T const& item) { return !item; }),
                          list.items_.end());
        list.swept_ = false;
      }
    }
    Depth(Depth const&) = delete;
    Depth& operator=(Depth const&) = delete;
  };

  std::deque<T> items_;
  U32 delivering_ = 0;
  bool swept_ = false;
};

}  // namespace Kiv
