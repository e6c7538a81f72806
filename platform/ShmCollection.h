#pragma once
/// @file ShmCollection.h
/// @brief A typed keyed collection over a shared-memory Table, with local per-key notification.
///
/// Traits describe the value type and its fixed-size encoding:
///
///     struct Traits {
///       using Value = ...;  using Key = ...;
///       static constexpr U32 valueSize = ..., keySize = ...;   // bytes of the encoding
///       static void encode(Value const&, std::byte* out);      // valueSize bytes, key first
///       static Value decode(std::byte const* in);
///       static void encodeKey(Key const&, std::byte* out);     // keySize bytes, as encode writes them
///       static Key keyOf(Value const&);
///       static U32 hash(Key const&, U32 seed);                 // the same in every process
///     };
///
/// Observers are called synchronously with the key after every change made
/// through this object (write, commitSlot, remove of a present key); changes
/// made by other processes show in the table's changeCounter().

#include "TarnRegFile/platform/ShmTable.h"
#include "TarnRegFile/platform/Types.h"

#include <array>
#include <cstddef>
#include <functional>
#include <iterator>
#include <list>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

namespace Kiv::Shm {

template <class Traits>
class Collection {
public:
  using Value = typename Traits::Value;
  using Key = typename Traits::Key;
  using Observer = std::function<void(Key const&)>;
  using ObserverId = U32;
  static_assert(Traits::keySize >= 1 && Traits::keySize <= Traits::valueSize);

  /// @brief Iterates the values in table order; each value is whole even while a writer changes the table.
  class Iterator {
  public:
    using iterator_category = std::input_iterator_tag;
    using value_type = Value;
    using difference_type = std::ptrdiff_t;
    using pointer = Value const*;
    using reference = Value const&;

    Iterator() = default;
    reference operator*() const { return value_; }
    pointer operator->() const { return &value_; }
    Iterator& operator++() {
      advance();
      return *this;
    }
    void operator++(int) { advance(); }
    friend bool operator==(Iterator const& a, Iterator const& b) {
      return a.table_ == b.table_ && a.position_ == b.position_;
    }

  private:
    friend class Collection;
    explicit Iterator(Table const& table) : table_(&table), cursor_(table.first()) { advance(); }
    void advance() {
      std::array<std::byte, Traits::valueSize> bytes;
      if (table_->next(cursor_, bytes.data())) {
        value_ = Traits::decode(bytes.data());
        ++position_;
      } else {
        *this = Iterator();
      }
    }

    Table const* table_ = nullptr;  // null at the end
    Table::Cursor cursor_;
    U32 position_ = 0;
    Value value_{};
  };

  /// @brief Creates or attaches to the table of @p path as its writer (see Table::openWriter).
  static Collection openWriter(Root const& root, std::string_view path, U32 capacity,
                               GroupMode group = GroupMode::Private, U32 expectedEntries = 0) {
    return Collection(Table::openWriter(
        root, path, TableSpec{Traits::valueSize, Traits::keySize, capacity, expectedEntries}, group));
  }

  /// @brief Maps the existing table of @p path read-only; its value and key sizes must be the Traits'.
  static Collection openReader(Root const& root, std::string_view path) {
    Table table = Table::openReader(root, path);
    if (table.valueSize() != Traits::valueSize || table.keySize() != Traits::keySize)
      throw std::runtime_error("shared-memory table '" + std::string(path) + "' holds " +
                               std::to_string(table.valueSize()) + "-byte values with " +
                               std::to_string(table.keySize()) + "-byte keys, not " +
                               std::to_string(Traits::valueSize) + "-byte values with " +
                               std::to_string(Traits::keySize) + "-byte keys");
    return Collection(std::move(table));
  }

  /// @brief Inserts @p value or replaces the value with its key, then notifies the key.
  void write(Value const& value) {
    std::array<std::byte, Traits::valueSize> bytes;
    Traits::encode(value, bytes.data());
    Key const key = Traits::keyOf(value);
    table_.write(bytes.data(), hashOf(key));
    notify(key);
  }

  /// @brief The writer slot to encode a value into directly (valueSize bytes); publish it with commitSlot().
  std::byte* slotBytes() { return table_.writerSlot(); }

  /// @brief Publishes the value encoded in slotBytes() like write(), then notifies its key.
  void commitSlot() {
    Key const key = Traits::keyOf(Traits::decode(table_.writerSlot()));
    table_.commit(hashOf(key));
    notify(key);
  }

  /// @brief Removes the value with @p key; notifies and returns true when there was one.
  bool remove(Key const& key) {
    std::array<std::byte, Traits::keySize> keyBytes;
    Traits::encodeKey(key, keyBytes.data());
    if (!table_.remove(keyBytes.data(), hashOf(key)))
      return false;
    notify(key);
    return true;
  }

  /// @brief The value with @p key, if any.
  std::optional<Value> lookup(Key const& key) const {
    std::array<std::byte, Traits::keySize> keyBytes;
    std::array<std::byte, Traits::valueSize> bytes;
    Traits::encodeKey(key, keyBytes.data());
    if (!table_.lookup(keyBytes.data(), hashOf(key), bytes.data()))
      return std::nullopt;
    return Traits::decode(bytes.data());
  }

  /// @brief Iteration from the first value.
  Iterator begin() const { return Iterator(table_); }
  Iterator end() const { return Iterator(); }

  /// @brief Number of values.
  U32 size() const { return table_.size(); }
  /// @brief The most values the table may hold (its limit; the file grows as values come).
  U32 capacity() const { return table_.capacity(); }
  /// @brief Counter of committed changes by any process.
  U32 changeCounter() const { return table_.changeCounter(); }
  /// @brief The underlying table.
  Table& table() noexcept { return table_; }
  Table const& table() const noexcept { return table_; }

  /// @brief Adds an observer called with the key after each change made through this object.
  ObserverId observerIs(Observer observer) {
    observers_.push_back(Slot{++lastObserverId_, std::move(observer)});
    return lastObserverId_;
  }

  /// @brief Removes an observer; safe from inside a notification.
  void observerDel(ObserverId id) {
    for (auto it = observers_.begin(); it != observers_.end(); ++it) {
      if (it->id != id)
        continue;
      if (notifying_ > 0) {
        it->observer = nullptr;  // swept when the notification ends
        removedWhileNotifying_ = true;
      } else {
        observers_.erase(it);
      }
      return;
    }
  }

  /// @brief Calls every observer with @p key without changing anything.
  void notify(Key const& key) {
    struct Depth {  // ends the notification even when an observer throws
      Collection& self;
      ~Depth() {
        if (--self.notifying_ == 0 && self.removedWhileNotifying_) {
          self.observers_.remove_if([](Slot const& slot) { return !slot.observer; });
          self.removedWhileNotifying_ = false;
        }
      }
    } depth{*this};
    ++notifying_;
    std::size_t remaining = observers_.size();  // observers added meanwhile wait for the next change
    for (auto it = observers_.begin(); remaining > 0; ++it, --remaining) {
      if (it->observer)
        it->observer(key);
    }
  }

private:
  struct Slot {
    ObserverId id;
    Observer observer;
  };

  explicit Collection(Table table) : table_(std::move(table)) {}
  U32 hashOf(Key const& key) const { return Traits::hash(key, table_.seed()); }

  Table table_;
  std::list<Slot> observers_;  // stable while observers are called
  ObserverId lastObserverId_ = 0;
  U32 notifying_ = 0;
  bool removedWhileNotifying_ = false;
};

}  // namespace Kiv::Shm
