#pragma once
/// @file KivCollection.h
/// @brief `Kiv::KeyedCollection`: the in-process keyed collection behind entity attributes.
///
/// Entities expose a collection attribute `x` through `x(key)`, `xIs`, `xDel`,
/// `xDelAll` and `xHas`; this class does the storage and tells the entity whether
/// a mutation really changed something, so that it notifies only then.

#include <functional>
#include <optional>
#include <unordered_map>
#include <vector>

namespace Kiv {

/// @p Map is the storage: std::unordered_map by default; any map of the same shape fits
/// (a flat open-addressing map for small keys and values looked up on hot paths).
template <class K, class V, class H = std::hash<K>, template <class...> class M = std::unordered_map>
class KeyedCollection {
public:
  using Map = M<K, V, H>;
  using const_iterator = typename Map::const_iterator;

  /// @brief The entry for @p key, or null.
  V const* find(K const& key) const {
    auto it = map_.find(key);
    return it == map_.end() ? nullptr : &it->second;
  }
  /// @brief The entry for @p key, or @p fallback.
  V get(K const& key, V const& fallback = V()) const {
    auto it = map_.find(key);
    return it == map_.end() ? fallback : it->second;
  }
  bool has(K const& key) const { return map_.count(key) != 0; }

  /// @brief Inserts or replaces; true when the stored value changed (compared with ==).
  bool set(K const& key, V const& value) {
    auto [it, inserted] = map_.try_emplace(key, value);
    if (inserted) return true;
    if (it->second == value) return false;
    it->second = value;
    return true;
  }
  /// @brief Inserts or replaces without comparing; always counts as a change.
  void put(K const& key, V const& value) { map_.insert_or_assign(key, value); }

  /// @brief Removes @p key; returns the removed value, or nothing when absent.
  std::optional<V> take(K const& key) {
    auto it = map_.find(key);
    if (it == map_.end()) return std::nullopt;
    std::optional<V> v(std::move(it->second));
    map_.erase(it);
    return v;
  }
  bool erase(K const& key) { return map_.erase(key) != 0; }

  /// @brief A snapshot of the keys: safe to iterate while entries are changed.
  std::vector<K> keys() const {
    std::vector<K> out;
    out.reserve(map_.size());
    for (auto const& kv : map_) out.push_back(kv.first);
    return out;
  }

  size_t size() const noexcept { return map_.size(); }
  bool empty() const noexcept { return map_.empty(); }
  const_iterator begin() const noexcept { return map_.begin(); }
  const_iterator end() const noexcept { return map_.end(); }
  bool operator==(KeyedCollection const& o) const { return map_ == o.map_; }
  void reserve(size_t n) { map_.reserve(n); }

private:
  Map map_;
};

}  // namespace Kiv
