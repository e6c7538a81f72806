#pragma once
/// @file KivHash.h
/// @brief The runtime's seeded incremental hash.
///
/// A 32-bit multiply-rotate mix over 4-byte and 1-byte quantities. It uses
/// only fixed-width arithmetic, so every process computes the same value on
/// i386 and on amd64: shared-memory tables rely on that to agree on slots.

#include "TarnRegFile/platform/Export.h"
#include "TarnRegFile/platform/Types.h"

#include <cstddef>
#include <string_view>

namespace Kiv {

class TARN_API Hash {
public:
  /// @brief Starts a hash with @p seed.
  explicit constexpr Hash(U32 seed) noexcept : h_(seed) {}

  /// @brief Mixes a 4-byte quantity.
  constexpr Hash& mix4(U32 k) noexcept {
    h_ ^= scramble(k);
    h_ = rotl(h_, 13) * 5u + 0xe6546b64u;
    length_ += 4;
    return *this;
  }

  /// @brief Mixes a 1-byte quantity.
  constexpr Hash& mix1(U8 k) noexcept {
    h_ ^= scramble(k);
    h_ = rotl(h_, 13) * 5u + 0xe6546b64u;
    length_ += 1;
    return *this;
  }

  /// @brief Mixes a byte string (4 bytes at a time, little-endian, then the tail bytewise).
  constexpr Hash& mixBytes(std::string_view bytes) noexcept {
    size_t i = 0;
    for (; i + 4 <= bytes.size(); i += 4)
      mix4(U32(U8(bytes[i])) | U32(U8(bytes[i + 1])) << 8 | U32(U8(bytes[i + 2])) << 16 |
           U32(U8(bytes[i + 3])) << 24);
    for (; i < bytes.size(); ++i) mix1(U8(bytes[i]));
    return *this;
  }

  /// @brief The final value.
  constexpr U32 result() const noexcept {
    U32 h = h_ ^ length_;
    h ^= h >> 16;
    h *= 0x85ebca6bu;
    h ^= h >> 13;
    h *= 0xc2b2ae35u;
    h ^= h >> 16;
    return h;
  }

  /// @brief Seed used for strings, so that a String's cached hash is stable everywhere.
  static constexpr U32 stringSeed = 0x9747b28cu;

private:
  static constexpr U32 rotl(U32 x, int r) noexcept { return (x << r) | (x >> (32 - r)); }
  static constexpr U32 scramble(U32 k) noexcept {
    k *= 0xcc9e2d51u;
    k = rotl(k, 15);
    return k * 0x1b873593u;
  }

  U32 h_;
  U32 length_ = 0;
};

/// @brief The runtime's string hash.
constexpr U32 stringHash(std::string_view s) noexcept { return Hash(Hash::stringSeed).mixBytes(s).result(); }

}  // namespace Kiv
