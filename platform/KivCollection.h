#pragma once
/// @file KivCollection.h
/// @brief `Kiv::KeyedCollection`: the in-process keyed collection behind entity attributes.
///
/// Entities expose a collection attribute `x` through `x(key)`, `xIs`, `xDel`,
/// `xDelAll` and `xHas`; this class does the storage and tells the entity whether
/// a mutation really changed something, so that it notifies only then.

#include <functional>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

namespace Kiv {

/// @p M is the storage: std::unordered_map by default; any map of the same shape fits
/// (boost::unordered_flat_map, open addressing, for keys looked up on hot paths).
///
/// Lookups take the key type or, when @p H and @p Eq are transparent (declare
/// `is_transparent`), any type they accept: a key given by its parts then needs no
/// key value built.
template <class K, class V, class H = std::hash<K>, class Eq = std::equal_to<K>,
          template <class...> class M = std::unordered_map>
class KeyedCollection {
public:
  using Map = M<K, V, H, Eq>;
  using const_iterator = typename Map::const_iterator;

  /// @brief The entry for @p key, or null. The pointer is valid until the next insertion or removal.
  template <class Key = K>
  V const* find(Key const& key) const {
    auto it = map_.find(key);
    return it == map_.end() ? nullptr : &it->second;
  }
  /// @brief Mutable access for owners that change an entry in place (and notify for it themselves).
  template <class Key = K>
  V* find(Key const& key) {
    auto it = map_.find(key);
    return it == map_.end() ? nullptr : &it->second;
  }
  /// @brief The entry for @p key, or @p fallback.
  template <class Key = K>
  V get(Key const& key, V const& fallback = V()) const {
    auto it = map_.find(key);
    return it == map_.end() ? fallback : it->second;
  }
  template <class Key = K>
  bool has(Key const& key) const {
    return map_.find(key) != map_.end();
  }

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
  void clear() noexcept { map_.clear(); }

private:
  Map map_;
};

/// @brief Collections have no text form of their own: an attribute holding one reads None.
template <class K, class V, class H, class Eq, template <class...> class M>
std::string toStrep(KeyedCollection<K, V, H, Eq, M> const&) {
  return "None";
}

}  // namespace Kiv
