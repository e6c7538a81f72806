#pragma once
// Value types, traits and data patterns shared by the shared-memory table
// tests and the shm_peer helper (which is built for both architectures).

#include "TarnRegFile/platform/ShmCollection.h"
#include "TarnRegFile/platform/Types.h"

#include <cstddef>
#include <cstring>
#include <optional>
#include <string>

namespace ShmTest {

struct Key {
  U32 address = 0;
  U8 start = 0;
  U8 size = 0;
  bool operator==(Key const&) const = default;
};

struct Value {
  Key key;
  U32 value = 0;
  bool operator==(Value const&) const = default;
};

/// A simple seeded hash (the same in 32- and 64-bit builds); the runtime's seeded hash replaces it in the real traits.
inline U32 seededHash(Key const& key, U32 seed) {
  U32 h = (key.address ^ seed) * 0xCC9E2D51u;
  h = (h ^ (h >> 15) ^ (U32{key.start} | U32{key.size} << 8)) * 0x85EBCA6Bu;
  return h ^ (h >> 13);
}

struct Traits {
  using Value = ShmTest::Value;
  using Key = ShmTest::Key;
  static constexpr U32 keySize = 6;
  static constexpr U32 valueSize = 10;
  static void encodeKey(Key const& key, std::byte* out) {
    std::memcpy(out, &key.address, 4);
    out[4] = std::byte{key.start};
    out[5] = std::byte{key.size};
  }
  static void encode(Value const& value, std::byte* out) {
    encodeKey(value.key, out);
    std::memcpy(out + 6, &value.value, 4);
  }
  static Value decode(std::byte const* in) {
    Value v;
    std::memcpy(&v.key.address, in, 4);
    v.key.start = static_cast<U8>(in[4]);
    v.key.size = static_cast<U8>(in[5]);
    std::memcpy(&v.value, in + 6, 4);
    return v;
  }
  static Key keyOf(Value const& value) { return value.key; }
  static U32 hash(Key const& key, U32 seed) { return seededHash(key, seed); }
};

using Collection = Kiv::Shm::Collection<Traits>;

// ---- the pattern exchanged between architectures ----

constexpr U32 kPatternCount = 600;
constexpr U32 kPatternCapacity = 640;

inline Key patternKey(U32 i) { return Key{i * 7u + 3u, static_cast<U8>(i % 32u), static_cast<U8>(1u + i % 31u)}; }
inline U32 patternValue(U32 i) { return i * 2654435761u ^ 0x5A5A0F0Fu; }
/// Every tenth key is removed again after all are written.
inline bool patternRemoved(U32 i) { return i % 10u == 9u; }

/// Writes the pattern: the table grows from its first few buckets as it fills, and its first
/// capacity of 300 is raised in place half way (on reopening with the final capacity).
inline void writePattern(Kiv::Shm::Root const& root, std::string const& path) {
  {
    auto small = Collection::openWriter(root, path, 300);
    for (U32 i = 0; i < 300; ++i)
      small.write(Value{patternKey(i), ~patternValue(i)});  // overwritten below
  }
  auto table = Collection::openWriter(root, path, kPatternCapacity);
  for (U32 i = 0; i < kPatternCount; ++i) {
    table.write(Value{patternKey(i), patternValue(i)});
    if (i >= 10 && patternRemoved(i - 10))
      table.remove(patternKey(i - 10));
  }
  for (U32 i = kPatternCount - 10; i < kPatternCount; ++i)
    if (patternRemoved(i))
      table.remove(patternKey(i));
}

/// Checks the pattern; returns an empty string when it matches, else what differs.
inline std::string verifyPattern(Collection& table) {
  U32 expected = 0, iterated = 0;
  for (U32 i = 0; i < kPatternCount; ++i) {
    std::optional<Value> const got = table.lookup(patternKey(i));
    expected += !patternRemoved(i);
    if (patternRemoved(i) ? got.has_value() : got != Value{patternKey(i), patternValue(i)})
      return "key " + std::to_string(i) + (got ? " has value " + std::to_string(got->value) : " is missing");
  }
  for (Value const& v : table) {
    U32 const i = (v.key.address - 3u) / 7u;
    if (i >= kPatternCount || patternRemoved(i) || !(v == Value{patternKey(i), patternValue(i)}))
      return "iteration yields a foreign value at address " + std::to_string(v.key.address);
    ++iterated;
  }
  if (table.size() != expected || iterated != expected || table.capacity() != kPatternCapacity)
    return "size " + std::to_string(table.size()) + ", iterated " + std::to_string(iterated) + ", capacity " +
           std::to_string(table.capacity()) + "; expected " + std::to_string(expected) + " entries";
  return {};
}

}  // namespace ShmTest
