#pragma once
/// @file ShmWatch.h
/// @brief Following a shared-memory collection that another process writes: a pollable
/// descriptor and a dispatch call that reports each key whose value changed.
///
///     Kiv::Shm::CollectionWatcher<Traits> watch(root, "TarnRegFile/shadowFieldsStatus/chip0");
///     watch.changeHandlerIs([](Traits::Key const& key, Traits::Value const* now) {
///       ...  // now is null when the key went away
///     });
///     // the event loop: poll(watch.fd(), POLLIN), then
///     watch.dispatch();   // handler and the collection's observers, once per changed key
///
/// The watcher (ShmBell.h) wakes the loop when the table's writer commits or
/// goes; `dispatch()` then reads the whole table and compares it with the
/// values it saw last: every key that appeared, changed value or went is
/// reported once, in the order of its key bytes, to the change handler and
/// to the observers of `collection()` (Collection::notify). Changes that
/// cancel out between two dispatches (a value set and set back) are not
/// reported: the watcher follows states, not events. The first dispatch
/// after construction reports nothing new: the values present at
/// construction are the starting point (read them through `collection()`).
///
/// The table may not exist yet: `present()` is false and `dispatch()` opens it
/// once a writer has created it (which rings the watcher), reporting every
/// key it holds. A rebuilt table is followed transparently; a table removed
/// (Root::remove) and then created anew is not: the watcher keeps reading the
/// removed file, and must be made again.
///
/// Cost: a dispatch reads and sorts every entry (O(n log n) for n entries) and
/// allocates only while the table grows; it runs only when the bell rang.
/// A corrupt table raises CorruptionException from dispatch() (or the
/// constructor); the values last seen stay the reference.

#include "TarnRegFile/platform/ShmBell.h"
#include "TarnRegFile/platform/ShmCollection.h"
#include "TarnRegFile/platform/ShmTable.h"
#include "TarnRegFile/platform/Types.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstring>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace Kiv::Shm {

template <class Traits>
class CollectionWatcher {
public:
  using Value = typename Traits::Value;
  using Key = typename Traits::Key;
  /// @brief Called with each changed key and its value now (null: removed).
  using ChangeHandler = std::function<void(Key const& key, Value const* now)>;

  /// @brief Watches the table at @p path (see Watcher for @p group), and reads it when it exists.
  ///
  /// Throws like Watcher, like Collection::openReader for a table of other records, and
  /// CorruptionException for a damaged one.
  CollectionWatcher(Root const& root, std::string_view path, GroupMode group = GroupMode::Private)
      : root_(root), watcher_(root, path, group) {
    // Registered first: a commit from here on rings, so none falls between this read and the next dispatch.
    if (open())
      scan(seen_);
  }

  /// @brief Readable when dispatch() has something to do; never changes.
  int fd() const noexcept { return watcher_.fd(); }

  /// @brief True once the table exists and is read.
  bool present() const noexcept { return collection_.has_value(); }

  /// @brief The reader collection. Throws std::logic_error while !present().
  Collection<Traits>& collection() {
    if (!collection_)
      throw std::logic_error("shared-memory table '" + watcher_.path() + "' does not exist yet");
    return *collection_;
  }

  /// @brief Sets the handler called for each changed key (replacing any previous one).
  void changeHandlerIs(ChangeHandler handler) { handler_ = std::move(handler); }

  /// @brief Reports every key that changed since the last dispatch; returns how many. Never blocks.
  ///
  /// Returns 0 at once when the bell did not ring. Exceptions from the handler or
  /// observers propagate; the values seen are updated before any is called.
  U32 dispatch() {
    if (!watcher_.dispatch())
      return 0;
    if (!collection_ && !open())
      return 0;
    scan(fresh_);
    changes_.clear();
    auto a = seen_.begin(), b = fresh_.begin();
    while (a != seen_.end() || b != fresh_.end()) {
      int const order = a == seen_.end() ? 1 : b == fresh_.end() ? -1 : compareKeys(*a, *b);
      if (order < 0) {
        changes_.push_back(Change{*a, false});  // went
        ++a;
      } else if (order > 0) {
        changes_.push_back(Change{*b, true});  // appeared
        ++b;
      } else {
        if (*a != *b)
          changes_.push_back(Change{*b, true});
        ++a, ++b;
      }
    }
    seen_.swap(fresh_);
    for (Change const& change : changes_) {
      Value const value = Traits::decode(change.bytes.data());
      Key const key = Traits::keyOf(value);
      if (handler_)
        handler_(key, change.present ? &value : nullptr);
      if (collection_)
        collection_->notify(key);
    }
    return static_cast<U32>(changes_.size());
  }

  /// @brief The table's mount path.
  std::string const& path() const noexcept { return watcher_.path(); }

private:
  using Record = std::array<std::byte, Traits::valueSize>;
  struct Change {
    Record bytes;
    bool present;
  };

  static int compareKeys(Record const& a, Record const& b) {
    return std::memcmp(a.data(), b.data(), Traits::keySize);
  }

  bool open() {
    if (!root_.exists(watcher_.path()))
      return false;
    collection_.emplace(Collection<Traits>::openReader(root_, watcher_.path()));
    return true;
  }

  void scan(std::vector<Record>& out) const {
    out.clear();
    Table const& table = collection_->table();
    Record record;
    for (Table::Cursor cursor = table.first(); table.next(cursor, record.data());)
      out.push_back(record);
    std::sort(out.begin(), out.end(), [](Record const& a, Record const& b) { return compareKeys(a, b) < 0; });
  }

  Root root_;
  Watcher watcher_;
  std::optional<Collection<Traits>> collection_;
  ChangeHandler handler_;
  std::vector<Record> seen_;   ///< sorted by key bytes
  std::vector<Record> fresh_;  ///< reused by each dispatch
  std::vector<Change> changes_;
};

}  // namespace Kiv::Shm
