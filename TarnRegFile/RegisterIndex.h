#pragma once
/// @file RegisterIndex.h
/// @brief The one in-memory index of a register map: registers by name and names by address.
///
/// Every register map of the library (a loaded CSV `RegisterFile`, the platform's
/// `HardwareRegisterFile` model, and through them the transports' `RegFileHelper`) keeps
/// its registers in one `RegisterIndex`, so a map's names exist once, in one block:
///
///   arena        entries one after the other, in the order they were added; an entry is
///                16 bytes of fields (address, width, access width, type, flags, name
///                length) followed by the name and a NUL, padded to 4 bytes;
///   name table   open addressing with linear probing over {32-bit name hash, entry};
///   address table the same over {address, entry}.
///
/// An entry is named by its reference: its offset in the arena divided by 4, plus one
/// (0 is "none"), so a slot is 8 bytes on both architectures and moving the arena
/// (it grows by realloc) invalidates nothing. A lookup by name costs one slot probe
/// (almost always within one cache line, the hash rejecting nearly every other
/// name) and one visit to the entry, whose fields and name share a cache line: two
/// dependent memory accesses, none to a separately allocated node. A loader that
/// knows how many lines it has sizes both tables once (at most 4/5 full); a map
/// built register by register (the model) grows them by doubling.
///
/// Names never contain a NUL byte (the loader and the model refuse one), so the NUL
/// after each name makes `Entry::name()` a C string that outlives every lookup.

#include "TarnRegFile/platform/Export.h"
#include "TarnRegFile/platform/Types.h"

#include <cstddef>
#include <cstring>
#include <string_view>

namespace TarnRegFile {

class TARN_API RegisterIndex {
public:
  /// @brief A register as stored: its fields, then its name and a NUL.
  struct Entry {
    U32 address;      ///< byte address
    U32 width;        ///< width in bits
    U32 accessWidth;  ///< width of one access in bits
    U8 type;          ///< the map's type number (RegisterType and HardwareRegisterType share it)
    U8 flags;         ///< kWriteable, kErased
    U16 shortLength;  ///< the name's length, or kLongName for 65535 characters and more

    /// @brief The name, NUL-terminated.
    char const* name() const noexcept { return reinterpret_cast<char const*>(this + 1); }
    size_t length() const noexcept { return shortLength != kLongName ? shortLength : std::strlen(name()); }
    std::string_view nameView() const noexcept { return {name(), length()}; }
    bool writeable() const noexcept { return flags & kWriteable; }
  };
  static constexpr U8 kWriteable = 1;
  static constexpr U8 kErased = 2;
  static constexpr U16 kLongName = 0xFFFF;

  /// @brief What a register is besides its name.
  struct Fields {
    U32 address = 0;
    U32 width = 0;
    U32 accessWidth = 32;
    U8 type = 0;
    bool writeable = false;
  };

  /// @brief An entry's reference; 0 is none.
  using Ref = U32;

  RegisterIndex() noexcept = default;
  RegisterIndex(RegisterIndex const& other);
  RegisterIndex(RegisterIndex&& other) noexcept;
  RegisterIndex& operator=(RegisterIndex other) noexcept;
  ~RegisterIndex();
  void swap(RegisterIndex& other) noexcept;

  /// @brief The hash of a name (length @p size) that both tables' users compute once per lookup.
  static U32 hashName(char const* name, size_t size) noexcept;

  /// @brief Sizes the tables for @p registers names and addresses and the arena for
  /// @p arenaBytes, once, so that adding that many allocates nothing more.
  void reserve(size_t registers, size_t arenaBytes);
  /// @brief Gives back the arena space a generous reserve() left unused.
  void shrinkToFit();
  /// @brief Arena bytes one entry of a @p nameLength character name takes.
  static constexpr size_t entryBytes(size_t nameLength) noexcept {
    return (sizeof(Entry) + nameLength + 1 + 3) & ~size_t(3);
  }

  // ------------------------------------------------------------ by name

  /// @brief The entry called @p name (whose hash is @p hash), or 0.
  Ref find(std::string_view name, U32 hash) const noexcept {
    if (nameSlots_ == nullptr) return 0;
    for (size_t i = homeOf(hash, nameCapacity_);; i = next(i, nameCapacity_)) {
      Slot const& slot = nameSlots_[i];
      if (slot.ref == 0) return 0;
      if (slot.key == hash && sameName(entry(slot.ref), name)) return slot.ref;
    }
  }
  Ref find(std::string_view name) const noexcept { return find(name, hashName(name.data(), name.size())); }

  /// @brief Adds a register called @p name (hash @p hash) unless the name is there.
  /// @return the entry of the name: the new one, or the one already there (then left unchanged).
  /// @throws std::length_error when the arena would pass 16 GiB.
  Ref insert(std::string_view name, U32 hash, Fields const& fields, bool& inserted);
  /// @brief Replaces the fields of entry @p ref (its name stays).
  void update(Ref ref, Fields const& fields) noexcept;
  /// @brief Removes entry @p ref from the name table; its arena space is reclaimed by a later compaction.
  void erase(Ref ref);

  // ------------------------------------------------------------ by address

  /// @brief The entry the address maps to, or 0.
  Ref findAddress(U32 address) const noexcept {
    if (addressSlots_ == nullptr) return 0;
    for (size_t i = homeOf(addressHash(address), addressCapacity_);; i = next(i, addressCapacity_)) {
      Slot const& slot = addressSlots_[i];
      if (slot.ref == 0) return 0;
      if (slot.key == address) return (entry(slot.ref).flags & kErased) ? 0 : slot.ref;
    }
  }
  /// @brief Maps @p address to @p ref unless the address is mapped already; true when it was not.
  bool claimAddress(U32 address, Ref ref);
  /// @brief Maps @p address to @p ref, replacing any earlier mapping.
  void setAddress(U32 address, Ref ref);
  /// @brief Removes the mapping of @p address.
  void eraseAddress(U32 address);

  // ------------------------------------------------------------ entries

  Entry const& entry(Ref ref) const noexcept {
    return *reinterpret_cast<Entry const*>(arena_ + (size_t(ref - 1) << 2));
  }
  /// @brief Number of names.
  size_t size() const noexcept { return names_; }
  /// @brief Number of mapped addresses.
  size_t addressCount() const noexcept { return addresses_; }
  /// @brief Bytes held: arena and both tables.
  size_t bytes() const noexcept;

  /// @brief Calls @p f(Entry const&) for every register, in the order they were added.
  template <class F>
  void forEach(F&& f) const {
    for (size_t offset = 0; offset < arenaUsed_;) {
      auto const& e = *reinterpret_cast<Entry const*>(arena_ + offset);
      offset += entryBytes(e.length());
      if (!(e.flags & kErased)) f(e);
    }
  }
  /// @brief Calls @p f(U32 address, Entry const&) for every mapped address, in no particular order.
  template <class F>
  void forEachAddress(F&& f) const {
    for (size_t i = 0; i < addressCapacity_; ++i) {
      Slot const& slot = addressSlots_[i];
      if (slot.ref != 0 && !(entry(slot.ref).flags & kErased)) f(slot.key, entry(slot.ref));
    }
  }

private:
  struct Slot {
    U32 key;  // the name's hash, or the address
    Ref ref;
  };

  // Reduces a 32-bit hash to a slot: the high bits of hash * capacity, which spreads
  // any capacity (not only powers of two) evenly and needs no division.
  static size_t homeOf(U32 hash, size_t capacity) noexcept { return size_t((U64(hash) * capacity) >> 32); }
  static size_t next(size_t i, size_t capacity) noexcept { return i + 1 == capacity ? 0 : i + 1; }
  // Compares in words, inline: most names are a few words long, and this runs on every hit.
  static bool sameName(Entry const& e, std::string_view name) noexcept {
    size_t n = name.size();
    if (e.shortLength != n) return e.shortLength == kLongName && n >= kLongName && e.nameView() == name;
    char const* a = e.name();
    char const* b = name.data();
    if (n > 16) {
      for (; n > 16; a += 16, b += 16, n -= 16)
        if (((load64(a) ^ load64(b)) | (load64(a + 8) ^ load64(b + 8))) != 0) return false;
      // The last 16 bytes, overlapping some already compared.
      return ((load64(a + n - 16) ^ load64(b + n - 16)) | (load64(a + n - 8) ^ load64(b + n - 8))) == 0;
    }
    if (n >= 8) return ((load64(a) ^ load64(b)) | (load64(a + n - 8) ^ load64(b + n - 8))) == 0;
    if (n >= 4) return ((load32(a) ^ load32(b)) | (load32(a + n - 4) ^ load32(b + n - 4))) == 0;
    for (size_t i = 0; i < n; ++i)
      if (a[i] != b[i]) return false;
    return true;
  }
  static U64 mix(U64 x, U64 y) noexcept;
  static U64 load64(char const* p) noexcept {
    U64 v;
    std::memcpy(&v, p, 8);
    return v;
  }
  static U32 load32(char const* p) noexcept {
    U32 v;
    std::memcpy(&v, p, 4);
    return v;
  }
  static U32 addressHash(U32 address) noexcept {
    // Fibonacci hashing: the slot comes from the high bits of the product, which every bit
    // of the address reaches; regular addresses (multiples of the block size) spread evenly.
    return address * 0x9E3779B1u;
  }
  static size_t capacityFor(size_t count) noexcept { return count + count / 4 + 8; }

  Entry& mutableEntry(Ref ref) noexcept { return *reinterpret_cast<Entry*>(arena_ + (size_t(ref - 1) << 2)); }
  void growSlots(Slot*& table, size_t& tableCapacity, size_t wanted, bool byAddress);
  void growArena(size_t wanted);
  void compact();
  static void eraseSlot(Slot* slots, size_t capacity, size_t i, bool byAddress) noexcept;

  char* arena_ = nullptr;
  size_t arenaUsed_ = 0;
  size_t arenaCapacity_ = 0;
  size_t erasedBytes_ = 0;
  Slot* nameSlots_ = nullptr;
  size_t nameCapacity_ = 0;
  size_t names_ = 0;
  Slot* addressSlots_ = nullptr;
  size_t addressCapacity_ = 0;
  size_t addresses_ = 0;
};

inline U64 RegisterIndex::mix(U64 x, U64 y) noexcept {
#ifdef __SIZEOF_INT128__
  // Both halves of the 128-bit product, folded: every input bit reaches the result.
  unsigned __int128 const r = static_cast<unsigned __int128>(x) * y;
  return U64(r) ^ U64(r >> 64);
#else
  // 32-bit x86: two independent 64-bit products of rotated inputs, folded.
  U64 const r = (x * 0x9FB21C651E98DF25ull) ^ (((y << 31) | (y >> 33)) * 0xD6E8FEB86659FD93ull);
  return r ^ (r >> 29);
#endif
}

inline U32 RegisterIndex::hashName(char const* name, size_t size) noexcept {
  // Up to 16 bytes (nearly every register name) are read as two possibly overlapping
  // words without a loop, so the work barely depends on the length and its branches
  // predict well; longer names take 16 bytes per step. No byte past the name is read.
  constexpr U64 k0 = 0xA0761D6478BD642Full, k1 = 0xE7037ED1A0B428DBull, k2 = 0x8EBC6AF09C88C6E3ull;
  char const* p = name;
  size_t n = size;
  U64 h = k0 ^ U64(size);
  U64 a = 0, b = 0;
  if (n <= 16) {
    if (n >= 8) {
      a = load64(p);
      b = load64(p + n - 8);
    } else if (n >= 4) {
      a = load32(p);
      b = load32(p + n - 4);
    } else if (n > 0) {
      a = U64(U8(p[0])) << 16 | U64(U8(p[n >> 1])) << 8 | U8(p[n - 1]);
    }
  } else {
    for (; n > 16; p += 16, n -= 16) h = mix(load64(p) ^ k1, load64(p + 8) ^ h);
    a = load64(p + n - 16);
    b = load64(p + n - 8);
  }
  U64 const r = mix(a ^ k1, b ^ h ^ k2);
  return U32(r) ^ U32(r >> 32);
}

}  // namespace TarnRegFile
