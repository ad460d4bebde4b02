// SPDX-License-Identifier: Apache-2.0
// Packed 24-bit samples in vectors: the 12 bytes of four samples against four 32-bit lanes.
#ifndef KESAUDIO_BASE_PACKED24_H
#define KESAUDIO_BASE_PACKED24_H

#include "base/simd.h"

namespace kesaudio {

// Puts the first 12 bytes of each block into the upper three bytes of its lanes, to be shifted down by 8.
KESAUDIO_INLINE U8x unpackingTable() {
  static constexpr Byte kTable[16] = {255, 0, 1, 2, 255, 3, 4, 5, 255, 6, 7, 8, 255, 9, 10, 11};
  return loadToEach(kTable);
}

// Puts the lower three bytes of each lane into the first 12 bytes of its block.
KESAUDIO_INLINE U8x packingTable() {
  static constexpr Byte kTable[16] = {0, 1, 2, 4, 5, 6, 8, 9, 10, 12, 13, 14, 255, 255, 255, 255};
  return loadToEach(kTable);
}

// Four samples a block from 12 bytes each. Reads up to 4 bytes beyond the last one.
KESAUDIO_INLINE I32x loadPacked24(const Byte* p) {
  if constexpr (kHasByteShuffle) return (I32x)permute(loadBlocks<U8x>(p, 12), unpackingTable()) >> 8;
  I32x x;
  for (int i = 0; i < 4 * kBlocks; ++i) x[i] = S24::load(p + 3 * i);
  return x;
}

// Back again. Writes up to 4 bytes beyond the last one.
KESAUDIO_INLINE void storePacked24(Byte* p, I32x x) {
  if constexpr (kHasByteShuffle) return storeBlocks(p, 12, permute((U8x)x, packingTable()));
  for (int i = 0; i < 4 * kBlocks; ++i) S24::store(p + 3 * i, x[i]);
}

// The same, and no byte more: each block as 8 bytes and 4.
KESAUDIO_INLINE void storePacked24Exactly(Byte* p, I32x x) {
  if constexpr (!kHasByteShuffle) return storePacked24(p, x);
  const U8x packed = permute((U8x)x, packingTable());
  for (int block = 0; block < kBlocks; ++block) {
    const std::int64_t first = ((I64x)packed)[2 * block];
    const std::int32_t last = ((I32x)packed)[4 * block + 2];
    std::memcpy(p + 12 * block, &first, 8);
    std::memcpy(p + 12 * block + 8, &last, 4);
  }
}

}  // namespace kesaudio

#endif
