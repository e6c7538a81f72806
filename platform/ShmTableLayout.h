#pragma once
/// @file ShmTableLayout.h
/// @brief Internal: the byte layout of a shared-memory table file (header, entry images, geometry) and the
/// word-level accessors every process uses on it. ShmTable.h describes the protocol these words carry;
/// docs/shared-memory.md has the byte map. Not installed.

#include "TarnRegFile/platform/ShmTable.h"

#include <atomic>
#include <bit>
#include <cstddef>
#include <cstring>

namespace Kiv::Shm::layout {

static_assert(std::endian::native == std::endian::little, "the table layout is little-endian");

inline constexpr U32 kMagic = 0x4C42544Bu;  // the bytes "KTBL"
inline constexpr U32 kEmpty = 0;
inline constexpr U32 kUsed = 1;
inline constexpr U32 kDeleted = 2;
inline constexpr U32 kNoBucket = ~0u;
inline constexpr U32 kMaxReadAttempts = 100000;
inline constexpr U64 kMaxFileBytes = U64{1} << 30;
inline constexpr U32 kMinBuckets = 16;  // a new table's buckets, when its capacity needs that many
// Layout 1 differs only in its capacity: a fixed word under the header check, which
// set the bucket count to bit_ceil(2 x capacity). Tables of layout 1 are read, and
// a writer attaching to one rebuilds it in the current layout.
inline constexpr U32 kLayout1 = 1;

/// The file header. The words before headerCheck never change after creation and are covered by it.
struct Header {
  U32 magic;          // 0
  U32 layoutVersion;  // 4
  U32 headerBytes;    // 8
  U32 valueSize;      // 12
  U32 keySize;        // 16
  U32 layout1Capacity;  // 20: 0; layout 1 kept its fixed capacity here
  U32 bucketCount;    // 24
  U32 bucketBytes;    // 28
  U32 slotOffset;     // 32
  U32 journalOffset;  // 36
  U32 bucketsOffset;  // 40
  U32 seed;           // 44
  U32 headerCheck;    // 48
  U32 retired;        // 52: 1 once a rebuilt file replaces this one
  U32 reserved1[2];   // 56
  // A separate cache line: the writer changes these on every write, readers
  // poll `retired` on every operation.
  U32 writerPid;        // 64
  U32 size;             // 68
  U32 changeCounter;    // 72
  U32 capacity;         // 76: the most entries the table may hold; only a writer raises it, in place
  U32 reserved2[12];    // 80
};
static_assert(sizeof(Header) == Table::kHeaderBytes);
static_assert(offsetof(Header, bucketsOffset) == 40 && offsetof(Header, seed) == 44);
static_assert(offsetof(Header, headerCheck) == 48 && offsetof(Header, retired) == 52);
static_assert(offsetof(Header, writerPid) == 64 && offsetof(Header, size) == 68);
static_assert(offsetof(Header, changeCounter) == 72 && offsetof(Header, capacity) == 76);
inline constexpr U32 kCheckedHeaderWords = offsetof(Header, headerCheck) / 4;

// An entry (the image of one bucket): seq, state, hash, check, then the value
// as stride/4 words. The journal is a seq word, a bucket index and an entry image.
inline constexpr U32 kSeq = 0, kState = 1, kHash = 2, kCheck = 3, kData = 4;
inline constexpr U32 kJournalSeq = 0, kJournalBucket = 1, kJournalImage = 2;

/// Sizes derived from the value size, key size and bucket count.
struct Geometry {
  U32 valueSize = 0;
  U32 keySize = 0;
  U32 stride = 0;  // value size rounded up to whole words
  U32 bucketCount = 0;
  U32 homeShift = 0;  // 32 - log2(bucketCount)
  U32 bucketBytes = 0;
  U32 slotOffset = 0;
  U32 journalOffset = 0;
  U32 bucketsOffset = 0;
  U64 fileBytes = 0;
};

constexpr U32 roundUp64(U32 bytes) { return (bytes + 63u) & ~63u; }

/// Assumes sizes within their limits and a power-of-two bucket count of at least 2 (checked by the callers).
Geometry geometryOf(U32 valueSize, U32 keySize, U32 bucketCount);

/// The first bucket probed for @p hash. Fibonacci hashing takes the top bits of
/// a multiple, so a caller's hash with weak low bits still spreads evenly.
inline U32 homeOf(Geometry const& g, U32 hash) { return (hash * 0x9E3779B1u) >> g.homeShift; }

inline bool sizesPlausible(U32 valueSize, U32 keySize) {
  return valueSize >= 1 && valueSize <= Table::kMaxValueSize && keySize >= 1 && keySize <= valueSize;
}

inline bool capacityPlausible(U32 capacity) { return capacity >= 1 && capacity <= Table::kMaxCapacity; }

/// The most buckets a file of these values may have: the largest power of two that keeps it within kMaxFileBytes.
U32 fileBucketLimit(U32 valueSize, U32 keySize);

/// The most buckets a table limited to @p capacity entries ever needs: twice the
/// capacity (so that a full table is at most half used), within the file limit.
U32 bucketCeiling(U32 valueSize, U32 keySize, U32 capacity);

/// Buckets for @p entries: twice as many (at least kMinBuckets), at most @p ceiling.
U32 bucketsFor(U32 entries, U32 ceiling);

/// Entries and deleted markers together may fill three quarters of the buckets; beyond, probes get long.
constexpr U32 crowdedAt(U32 bucketCount) { return bucketCount - bucketCount / 4; }

// Everything in the mapping is read and written as whole 32-bit atomics so
// that readers racing with the writer (in any process) are well defined.
inline U32 loadAcquire(U32 const& word) {
  return std::atomic_ref<U32>(const_cast<U32&>(word)).load(std::memory_order_acquire);
}
inline U32 loadRelaxed(U32 const& word) {
  return std::atomic_ref<U32>(const_cast<U32&>(word)).load(std::memory_order_relaxed);
}
inline void storeRelaxed(U32& word, U32 value) { std::atomic_ref<U32>(word).store(value, std::memory_order_relaxed); }
inline void storeRelease(U32& word, U32 value) { std::atomic_ref<U32>(word).store(value, std::memory_order_release); }

/// One step of the check: xor, multiply by an odd constant, rotate; each a bijection.
/// (The rotation keeps a difference in the top bit from cancelling against the next word.)
constexpr U32 mix(U32 sum, U32 word) { return std::rotl((sum ^ word) * 0x9E3779B1u, 15); }
constexpr U32 checkBasis(U32 bucket) { return mix(0x811C9DC5u, bucket); }

/// What a read of an entry image found, with the check it should carry.
struct Image {
  U32 state;
  U32 hash;
  U32 check;     // as stored
  U32 computed;  // from the words read
};

/// Reads the image at @p image (its tag given separately), copying the value into @p out.
inline Image readImage(Geometry const& g, U32 bucket, U32 tag, U32 const* image, std::byte* out) {
  Image r;
  r.state = loadRelaxed(image[kState]);
  r.hash = loadRelaxed(image[kHash]);
  r.check = loadRelaxed(image[kCheck]);
  U32 sum = mix(mix(mix(checkBasis(bucket), tag), r.state), r.hash);
  U32 const fullWords = g.valueSize / 4;
  U32 const tailBytes = g.valueSize % 4;
  U32 const* data = image + kData;
  for (U32 i = 0; i < fullWords; ++i) {
    U32 const word = loadRelaxed(data[i]);
    sum = mix(sum, word);
    std::memcpy(out + 4 * i, &word, 4);
  }
  if (tailBytes != 0) {
    U32 const word = loadRelaxed(data[fullWords]);
    sum = mix(sum, word);
    std::byte* tail = out + 4 * fullWords;
    switch (tailBytes) {  // cheaper than a call to memcpy for one to three bytes
      case 3:
        tail[2] = static_cast<std::byte>(word >> 16);
        [[fallthrough]];
      case 2:
        tail[1] = static_cast<std::byte>(word >> 8);
        [[fallthrough]];
      default:
        tail[0] = static_cast<std::byte>(word);
    }
  }
  r.computed = sum;
  return r;
}

/// Writes state, hash, value (zero-padded; all zero when @p value is null) and check of an image.
inline void fillImage(Geometry const& g, U32* image, U32 bucket, U32 tag, U32 state, U32 hash,
                      std::byte const* value) {
  storeRelaxed(image[kState], state);
  storeRelaxed(image[kHash], hash);
  U32 sum = mix(mix(mix(checkBasis(bucket), tag), state), hash);
  U32 const fullWords = g.valueSize / 4;
  U32 const tailBytes = g.valueSize % 4;
  U32* const data = image + kData;
  for (U32 i = 0; i < fullWords; ++i) {
    U32 word = 0;
    if (value != nullptr)
      std::memcpy(&word, value + 4 * i, 4);
    sum = mix(sum, word);
    storeRelaxed(data[i], word);
  }
  if (tailBytes != 0) {
    U32 word = 0;
    for (U32 i = 0; value != nullptr && i < tailBytes; ++i)
      word |= U32{static_cast<U8>(value[4 * fullWords + i])} << (8 * i);
    sum = mix(sum, word);
    storeRelaxed(data[fullWords], word);
  }
  storeRelaxed(image[kCheck], sum);
}

U32 headerCheckOf(Header const& h);

}  // namespace Kiv::Shm::layout
