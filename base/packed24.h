// SPDX-License-Identifier: Apache-2.0
// Packed 24-bit samples in vectors: the 12 bytes of four samples against four 32-bit lanes.
#ifndef KESAUDIO_BASE_PACKED24_H
#define KESAUDIO_BASE_PACKED24_H

#include "base/simd.h"

namespace kesaudio {

// Table that puts the four packed samples of a block into the upper three bytes of its lanes, to be shifted down.
inline constexpr Byte kUnpack24[16] = {255, 0, 1, 2, 255, 3, 4, 5, 255, 6, 7, 8, 255, 9, 10, 11};

// Four samples a block from 12 bytes each. Reads 16 bytes a block.
KESAUDIO_INLINE I32x loadPacked24(const Byte* p) {
  if constexpr (kHasByteShuffle) return (I32x)permute(loadBlocks<U8x>(p, 12), broadcastLoad(kUnpack24)) >> 8;
  I32x x = {};
  for (int i = 0; i < 4; ++i) x[i] = S24::load(p + 3 * i);
  return x;
}

// The lower three bytes of each lane, in the first 12 bytes of each block.
KESAUDIO_INLINE U8x packed24(I32x x) {
  static constexpr Byte kTable[16] = {0, 1, 2, 4, 5, 6, 8, 9, 10, 12, 13, 14, 255, 255, 255, 255};
  return permute((U8x)x, broadcastLoad(kTable));
}

// Four samples a block to 12 bytes each. Writes up to 4 bytes beyond the last one.
KESAUDIO_INLINE void storePacked24(Byte* p, I32x x) {
  if constexpr (kHasByteShuffle) return storeBlocks(p, 12, packed24(x));
  for (int i = 0; i < 4; ++i) S24::store(p + 3 * i, x[i]);
}

// The same without a byte beyond: the last block as 8 bytes and 4.
KESAUDIO_INLINE void storePacked24Exactly(Byte* p, I32x x) {
  if constexpr (!kHasByteShuffle) return storePacked24(p, x);
  const U8x packed = packed24(x);
  constexpr int kLast = kBlocks - 1;
  std::memcpy(p, &packed, 16 * kLast);
  const std::int64_t first = ((I64x)packed)[2 * kLast];
  const std::int32_t last = ((I32x)packed)[4 * kLast + 2];
  std::memcpy(p + 12 * kLast, &first, 8);
  std::memcpy(p + 12 * kLast + 8, &last, 4);
}

}  // namespace kesaudio

#endif
