#include "TarnRegFile/platform/ShmTableLayout.h"

#include <algorithm>

namespace Kiv::Shm::layout {

Geometry geometryOf(U32 valueSize, U32 keySize, U32 bucketCount) {
  Geometry g;
  g.valueSize = valueSize;
  g.keySize = keySize;
  g.stride = (valueSize + 3u) & ~3u;
  g.bucketCount = bucketCount;
  g.homeShift = 32u - static_cast<U32>(std::countr_zero(g.bucketCount));
  U32 const entryBytes = 4 * kData + g.stride;
  // Buckets never straddle cache lines needlessly: a power of two up to a line, whole lines beyond.
  g.bucketBytes = entryBytes <= 64 ? std::bit_ceil(entryBytes) : roundUp64(entryBytes);
  g.slotOffset = Table::kHeaderBytes;
  g.journalOffset = g.slotOffset + roundUp64(g.stride);
  g.bucketsOffset = g.journalOffset + roundUp64(4 * kJournalImage + entryBytes);
  g.fileBytes = g.bucketsOffset + U64{g.bucketCount} * g.bucketBytes;
  return g;
}

U32 fileBucketLimit(U32 valueSize, U32 keySize) {
  Geometry const g = geometryOf(valueSize, keySize, 2);
  return static_cast<U32>(std::bit_floor((kMaxFileBytes - g.bucketsOffset) / g.bucketBytes));
}

U32 bucketCeiling(U32 valueSize, U32 keySize, U32 capacity) {
  return static_cast<U32>(std::min<U64>(std::bit_ceil(U64{2} * capacity), fileBucketLimit(valueSize, keySize)));
}

U32 bucketsFor(U32 entries, U32 ceiling) {
  return static_cast<U32>(std::min<U64>(ceiling, std::max<U64>(kMinBuckets, std::bit_ceil(U64{2} * entries))));
}

U32 headerCheckOf(Header const& h) {
  U32 const* words = &h.magic;
  U32 sum = 0x811C9DC5u;
  for (U32 i = 0; i < kCheckedHeaderWords; ++i)
    sum = mix(sum, loadRelaxed(words[i]));
  return sum;
}

}  // namespace Kiv::Shm::layout
