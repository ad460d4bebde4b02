// SPDX-License-Identifier: Apache-2.0
// The vector operations of simd.h on 64-bit Arm, most of them one instruction.
#ifndef KESAUDIO_BASE_SIMD_NEON_H
#define KESAUDIO_BASE_SIMD_NEON_H

#include <arm_neon.h>

namespace kesaudio {

inline constexpr bool kHasByteShuffle = true;  // permute

// ---- moves

// Loads 16 bytes from p; in vectors of two blocks, the second block from p + second.
template <class Vector>
KESAUDIO_INLINE Vector loadBlocks(const Byte* p, std::ptrdiff_t /*second*/) {
  return (Vector)vld1q_u8(p);
}

// Stores 16 bytes to p; in vectors of two blocks, the second block to p + second.
template <class Vector>
KESAUDIO_INLINE void storeBlocks(Byte* p, std::ptrdiff_t /*second*/, Vector x) {
  vst1q_u8(p, (uint8x16_t)x);
}

// Loads 16 bytes from p into every block.
KESAUDIO_INLINE U8x broadcastLoad(const Byte* p) { return (U8x)vld1q_u8(p); }

// TBL: byte i of the result is byte table[i] of the block, or 0 if table[i] is 128 or more.
KESAUDIO_INLINE U8x permute(U8x x, U8x table) { return (U8x)vqtbl1q_u8((uint8x16_t)x, (uint8x16_t)table); }

// A window of memory, whose bytes a table permutes: an entry is the index of a window byte, or kSilent for 0.
struct ShortWindow {
  static constexpr int kBytes = 16;
  using Table = ByteTable;
  using Indexes = U8x;  // a table in registers
  KESAUDIO_INLINE static Indexes load(const Table& table) { return kesaudio::load<U8x>(table.bytes); }
  // True if one vector can be made of these window bytes.
  static constexpr bool reaches(const Byte* /*sources*/) { return true; }
  U8x bytes;
  KESAUDIO_INLINE explicit ShortWindow(const Byte* p) : bytes(kesaudio::load<U8x>(p)) {}
  KESAUDIO_INLINE U8x permute(Indexes indexes) const { return kesaudio::permute(bytes, indexes); }
};
struct LongWindow {
  static constexpr int kBytes = 32;
  using Table = ByteTable;
  using Indexes = U8x;
  KESAUDIO_INLINE static Indexes load(const Table& table) { return ShortWindow::load(table); }
  static constexpr bool reaches(const Byte* /*sources*/) { return true; }
  uint8x16x2_t bytes;
  KESAUDIO_INLINE explicit LongWindow(const Byte* p) : bytes(vld1q_u8_x2(p)) {}
  KESAUDIO_INLINE U8x permute(Indexes indexes) const { return (U8x)vqtbl2q_u8(bytes, (uint8x16_t)indexes); }
};

// Hides x's value from the optimiser.
template <class Value>
KESAUDIO_INLINE Value opaque(Value x) {
  __asm__("" : "+r"(x));
  return x;
}

// Multiples of a stride, kept in registers for the base-plus-index addresses of loads and stores. Without opaque()
// the compilers add the stride to an address before each access.
template <int kCount>
struct Strides {
  std::ptrdiff_t multiples[kCount];
  KESAUDIO_INLINE explicit Strides(std::ptrdiff_t stride) {
    unrolled<kCount>([&](auto i) KESAUDIO_INLINED { multiples[i] = i == 0 ? 0 : opaque(i * stride); });
  }
  KESAUDIO_INLINE std::ptrdiff_t operator[](int i) const { return multiples[i]; }
};
inline constexpr int kStrides = 8;  // eight for the input and eight for the output fit into the registers

// ST1: stores kCount vectors side by side.
template <int kCount>
KESAUDIO_INLINE void storeAll(Byte* p, const U8x (&x)[kCount]) {
  if constexpr (kCount == 1) {
    store(p, x[0]);
  } else if constexpr (kCount == 2) {
    const uint8x16x2_t all = {{(uint8x16_t)x[0], (uint8x16_t)x[1]}};
    vst1q_u8_x2(p, all);
  } else if constexpr (kCount == 3) {
    const uint8x16x3_t all = {{(uint8x16_t)x[0], (uint8x16_t)x[1], (uint8x16_t)x[2]}};
    vst1q_u8_x3(p, all);
  } else {
    const uint8x16x4_t all = {{(uint8x16_t)x[0], (uint8x16_t)x[1], (uint8x16_t)x[2], (uint8x16_t)x[3]}};
    vst1q_u8_x4(p, all);
  }
}

// Restores memory order after two vectors were unzipped or narrowed block by block.
template <class Vector>
KESAUDIO_INLINE Vector undoBlockOrder(Vector x) {
  return x;
}

// LD2, LD3, LD4: loads frames of kCount elements (here pairs of samples), one vector for each element.
template <class Vector, int kCount, class Loaded>
KESAUDIO_INLINE void take(const Loaded& loaded, Vector (&x)[kCount]) {
  unrolled<kCount>([&](auto i) KESAUDIO_INLINED { x[i] = (Vector)loaded.val[i]; });
}
template <int kCount>
KESAUDIO_INLINE void loadElements(const Byte* p, I32x (&x)[kCount]) {
  const auto from = reinterpret_cast<const std::int32_t*>(p);  // the instruction takes any address
  if constexpr (kCount == 1) x[0] = load<I32x>(p);
  if constexpr (kCount == 2) take(vld2q_s32(from), x);
  if constexpr (kCount == 3) take(vld3q_s32(from), x);
  if constexpr (kCount == 4) take(vld4q_s32(from), x);
}
template <int kCount>
KESAUDIO_INLINE void loadElements(const Byte* p, I64x (&x)[kCount]) {
  const auto from = reinterpret_cast<const std::int64_t*>(p);
  if constexpr (kCount == 1) x[0] = load<I64x>(p);
  if constexpr (kCount == 2) take(vld2q_s64(from), x);
  if constexpr (kCount == 3) take(vld3q_s64(from), x);
  if constexpr (kCount == 4) take(vld4q_s64(from), x);
}

// LD2: loads the sides of stereo frames, in the order of unzipEven and unzipOdd.
KESAUDIO_INLINE void loadSides(const Byte* p, I16x& left, I16x& right) {
  const auto loaded = vld2q_s16(reinterpret_cast<const std::int16_t*>(p));
  left = (I16x)loaded.val[0], right = (I16x)loaded.val[1];
}
KESAUDIO_INLINE void loadSides(const Byte* p, I32x& left, I32x& right) {
  const auto loaded = vld2q_s32(reinterpret_cast<const std::int32_t*>(p));
  left = (I32x)loaded.val[0], right = (I32x)loaded.val[1];
}

// LD3: loads frames of three samples, as many as two vectors hold stereo frames: sides[i] has the first two samples
// of the frames, third[i] the third one for each lane of sides[i]. ST2 stores two such vectors as stereo frames. On
// Arm they are left and right.
KESAUDIO_INLINE void loadTriples(const Byte* p, I16x (&sides)[2], I16x (&third)[2]) {
  const auto loaded = vld3q_s16(reinterpret_cast<const std::int16_t*>(p));
  sides[0] = (I16x)loaded.val[0], sides[1] = (I16x)loaded.val[1], third[0] = third[1] = (I16x)loaded.val[2];
}
KESAUDIO_INLINE void loadTriples(const Byte* p, I32x (&sides)[2], I32x (&third)[2]) {
  const auto loaded = vld3q_s32(reinterpret_cast<const std::int32_t*>(p));
  sides[0] = (I32x)loaded.val[0], sides[1] = (I32x)loaded.val[1], third[0] = third[1] = (I32x)loaded.val[2];
}
KESAUDIO_INLINE void storeStereo(Byte* p, I16x left, I16x right) {
  const int16x8x2_t sides = {{(int16x8_t)left, (int16x8_t)right}};
  vst2q_s16(reinterpret_cast<std::int16_t*>(p), sides);
}
KESAUDIO_INLINE void storeStereo(Byte* p, I32x left, I32x right) {
  const int32x4x2_t sides = {{(int32x4_t)left, (int32x4_t)right}};
  vst2q_s32(reinterpret_cast<std::int32_t*>(p), sides);
}

// ---- arithmetic

// SQDMULH: floor(x * factor / 2^15), floor(x * factor / 2^31).
KESAUDIO_INLINE I16x scaleQ15(I16x x, std::int16_t factor) { return (I16x)vqdmulhq_n_s16((int16x8_t)x, factor); }
KESAUDIO_INLINE I32x scaleQ31(I32x x, std::int32_t factor) { return (I32x)vqdmulhq_n_s32((int32x4_t)x, factor); }

// floor(x * factor / 2^15) of 32-bit lanes, of a factor of at most 16 bits.
KESAUDIO_INLINE I32x scaleQ15(I32x x, std::int16_t factor) { return scaleQ31(x, factor << 16); }

// floor(x * factor / 2^(15 + shift)), of a factor of 16 bits and a shift of at least 1.
KESAUDIO_INLINE I32x scaleAndShift(I32x x, std::uint16_t factor, int shift) {
  return scaleQ31(x, static_cast<std::int32_t>(std::uint32_t{factor} << (16 - shift)));
}

// SQADD: each sum limited to its lane.
inline constexpr bool kHasSaturatingAdd32 = true;  // in one instruction
KESAUDIO_INLINE I16x saturatingAdd(I16x x, I16x y) { return (I16x)vqaddq_s16((int16x8_t)x, (int16x8_t)y); }
KESAUDIO_INLINE I32x saturatingAdd(I32x x, I32x y) { return (I32x)vqaddq_s32((int32x4_t)x, (int32x4_t)y); }

// SADDL2, SADDW2: widens and adds the upper halves. For the intrinsics clang 14 extracts the halves first.
KESAUDIO_INLINE int64x2_t addUpperHalves(int32x4_t x, int32x4_t y) {
  int64x2_t sum;
  __asm__("saddl2 %0.2d, %1.4s, %2.4s" : "=w"(sum) : "w"(x), "w"(y));
  return sum;
}
KESAUDIO_INLINE int64x2_t addUpperHalf(int64x2_t sum, int32x4_t x) {
  __asm__("saddw2 %0.2d, %0.2d, %1.4s" : "+w"(sum) : "w"(x));
  return sum;
}

// x + y + z, limited once.
KESAUDIO_INLINE I32x saturatingSum(I32x x, I32x y, I32x z) {
  const auto a = (int32x4_t)x, b = (int32x4_t)y, c = (int32x4_t)z;
  const int64x2_t low = vaddw_s32(vaddl_s32(vget_low_s32(a), vget_low_s32(b)), vget_low_s32(c));
  return (I32x)vqmovn_high_s64(vqmovn_s64(low), addUpperHalf(addUpperHalves(a, b), c));
}

// The lanes of x, widened, lower half and upper half of each block.
struct Wide {
  I32x low, high;
};
// SADDL, SADDL2; SSHLL, SSHLL2, with an addition SADDW, SADDW2.
KESAUDIO_INLINE Wide widenAndAdd(I16x x, I16x y) {
  const auto a = (int16x8_t)x, b = (int16x8_t)y;
  return {(I32x)vaddl_s16(vget_low_s16(a), vget_low_s16(b)), (I32x)vaddl_high_s16(a, b)};
}
KESAUDIO_INLINE Wide widen(I16x x) {
  return {(I32x)vmovl_s16(vget_low_s16((int16x8_t)x)), (I32x)vmovl_high_s16((int16x8_t)x)};
}

// SQXTN, SQXTN2: two vectors limited to 16 bits, block by block.
KESAUDIO_INLINE I16x saturateNarrow(I32x x, I32x y) {
  return (I16x)vqmovn_high_s32(vqmovn_s32((int32x4_t)x), (int32x4_t)y);
}

// UZP1: the same for lanes that fit into 16 bits.
KESAUDIO_INLINE I16x narrow(I32x x, I32x y) { return (I16x)vuzp1q_s16((int16x8_t)x, (int16x8_t)y); }

// SADDLP, SADALP: the sum of each pair of lanes, twice as wide; sum + the same.
KESAUDIO_INLINE I32x addPairs(I16x x) { return (I32x)vpaddlq_s16((int16x8_t)x); }
KESAUDIO_INLINE I32x addPairs(I32x sum, I16x x) { return (I32x)vpadalq_s16((int32x4_t)sum, (int16x8_t)x); }

// ADDP: the sums of pairs of lanes of x, then of y, block by block.
KESAUDIO_INLINE I32x addAdjacent(I32x x, I32x y) { return (I32x)vpaddq_s32((int32x4_t)x, (int32x4_t)y); }

// (x + y) / 2, rounded towards zero: SHADD rounds down, SRHADD up; of the two, the one nearer to zero.
KESAUDIO_INLINE I16x averageOfTwo(I16x x, I16x y) {
  const int16x8_t down = vhaddq_s16((int16x8_t)x, (int16x8_t)y), up = vrhaddq_s16((int16x8_t)x, (int16x8_t)y);
  return maximum((I16x)down, minimum((I16x)up, I16x{}));
}
KESAUDIO_INLINE I32x averageOfTwo(I32x x, I32x y) {
  const int32x4_t down = vhaddq_s32((int32x4_t)x, (int32x4_t)y), up = vrhaddq_s32((int32x4_t)x, (int32x4_t)y);
  return maximum((I32x)down, minimum((I32x)up, I32x{}));
}

// ---- averages

// Reciprocal for a division by 2 to 8: floor(2^31 / divisor) + 1. The excess keeps exact quotients from being rounded
// down, and is too small to reach the next integer.
struct Divisor {
  std::int32_t factor, times64, by64;  // by64 = 64, times64 = 64 * divisor: variables, so that MLA and MLS are used
};
KESAUDIO_INLINE Divisor makeDivisor(int divisor) {
  return {static_cast<std::int32_t>(0x80000000u / static_cast<unsigned>(divisor)) + 1, 64 * divisor, 64};
}

// sum / divisor, rounded towards zero, for sums of at most eight 16- or 24-bit samples: the floor (SQDMULH), plus one
// if negative (USRA adds the sign bit).
KESAUDIO_INLINE I32x divide(I32x sum, Divisor by) {
  const I32x floor = scaleQ31(sum, by.factor);
  return (I32x)vsraq_n_u32((uint32x4_t)floor, (uint32x4_t)floor, 31);
}
KESAUDIO_INLINE I32x divideSmall(I32x sum, Divisor by) { return divide(sum, by); }

// Sums of at most eight 32-bit samples: 34 bits and a sign.
struct WideSums {
  I64x low, high;
};
KESAUDIO_INLINE WideSums operator+(WideSums x, WideSums y) { return {x.low + y.low, x.high + y.high}; }
// The same as for 16 bits: lanes widened to 64 bits.
KESAUDIO_INLINE WideSums widenAndAdd(I32x x, I32x y) {
  const auto a = (int32x4_t)x, b = (int32x4_t)y;
  return {(I64x)vaddl_s32(vget_low_s32(a), vget_low_s32(b)), (I64x)addUpperHalves(a, b)};
}
KESAUDIO_INLINE WideSums widen(I32x x) {
  return {(I64x)vmovl_s32(vget_low_s32((int32x4_t)x)), (I64x)vmovl_high_s32((int32x4_t)x)};
}
// SADDLP, with an addition SADALP: the sum of each pair of lanes of x, then of y.
KESAUDIO_INLINE WideSums addPairs(I32x x, I32x y) {
  return {(I64x)vpaddlq_s32((int32x4_t)x), (I64x)vpaddlq_s32((int32x4_t)y)};
}

// sums / divisor, rounded towards zero, in two steps. sum / 64 fits in 32 bits; 64 times its quotient leaves a rest
// below 64 * divisor, whose quotient is exact as above. A negative sum is rounded up as floor((rest - 1) / divisor)
// + 1.
KESAUDIO_INLINE I32x divide(WideSums sum, Divisor by) {
  const int32x4_t top = vshrn_high_n_s64(vshrn_n_s64((int64x2_t)sum.low, 6), (int64x2_t)sum.high, 6);
  const int32x4_t bottom = vuzp1q_s32((int32x4_t)sum.low, (int32x4_t)sum.high);
  const int32x4_t first = vqdmulhq_n_s32(top, by.factor - 1);
  const int32x4_t rest = vsraq_n_s32(vmlsq_n_s32(bottom, first, by.times64), top, 31);
  const int32x4_t floor = vmlaq_n_s32(vqdmulhq_n_s32(rest, by.factor), first, by.by64);
  return (I32x)vsraq_n_u32((uint32x4_t)floor, (uint32x4_t)top, 31);
}
KESAUDIO_INLINE I32x dividePairs(WideSums sum, Divisor by) { return divide(sum, by); }

}  // namespace kesaudio

#endif
