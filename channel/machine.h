// SPDX-License-Identifier: Apache-2.0
// What the machines have an instruction for, or a few, and the compilers' vector extensions no word: on 64-bit Arm,
// and on x86-64 in registers of 16, 32 or 64 bytes.
//
// 16-bit samples are worked on as they lie in memory, so results of 32 bits come as two vectors: the first of the
// first four elements of each quarter, the second of the last four. With AVX2 that is 0-3, 8-11 and 4-7, 12-15.
#ifndef KESAUDIO_CHANNEL_MACHINE_H
#define KESAUDIO_CHANNEL_MACHINE_H

#include "channel/fixed_point.h"
#include "channel/vectors.h"

namespace kesaudio::channel {

#if defined(__AVX512BW__)
#define KESAUDIO_X86(name) _mm512_##name
typedef __m512i Register;
#elif defined(__AVX2__)
#define KESAUDIO_X86(name) _mm256_##name
typedef __m256i Register;
#elif defined(__x86_64__)
#define KESAUDIO_X86(name) _mm_##name
typedef __m128i Register;
#endif

// What g adds to a sample: g(x) - x = floor(x * 13578 / 2^15).
inline constexpr std::int16_t kBeyondOneQ15 = kMixGainQ15 - (1 << kMixGainShift);

KESAUDIO_INLINE Shorts beyondOne(Shorts x) {
#if defined(__x86_64__)
  return (Shorts)KESAUDIO_X86(mulhi_epi16)((Register)x, KESAUDIO_X86(set1_epi16)(2 * kBeyondOneQ15));
#elif defined(__aarch64__)
  return (Shorts)vqdmulhq_n_s16((int16x8_t)x, kBeyondOneQ15);
#endif
}

// Each sum limited to 16 bits.
KESAUDIO_INLINE Shorts addSaturated(Shorts x, Shorts y) {
#if defined(__x86_64__)
  return (Shorts)KESAUDIO_X86(adds_epi16)((Register)x, (Register)y);
#elif defined(__aarch64__)
  return (Shorts)vqaddq_s16((int16x8_t)x, (int16x8_t)y);
#endif
}

#if defined(__x86_64__)
// Of each pair x0, x1: x0 * kWeight0 + x1 * kWeight1.
template <std::int16_t kWeight0, std::int16_t kWeight1>
KESAUDIO_INLINE Words weightedPairs(Shorts x) {
  constexpr std::uint32_t kWeights =
      static_cast<std::uint16_t>(kWeight0) | std::uint32_t{static_cast<std::uint16_t>(kWeight1)} << 16;
  return (Words)KESAUDIO_X86(madd_epi16)((Register)x, KESAUDIO_X86(set1_epi32)(static_cast<std::int32_t>(kWeights)));
}
#endif

// The sum of each pair.
KESAUDIO_INLINE Words sumOfPairs(Shorts x) {
#if defined(__x86_64__)
  return weightedPairs<1, 1>(x);
#elif defined(__aarch64__)
  return (Words)vpaddlq_s16((int16x8_t)x);
#endif
}

// Adds x and y in 32 bits.
KESAUDIO_INLINE void addWide(Shorts x, Shorts y, Words (&sum)[2]) {
#if defined(__x86_64__)
  sum[0] += weightedPairs<1, 1>((Shorts)KESAUDIO_X86(unpacklo_epi16)((Register)x, (Register)y));
  sum[1] += weightedPairs<1, 1>((Shorts)KESAUDIO_X86(unpackhi_epi16)((Register)x, (Register)y));
#elif defined(__aarch64__)
  const auto a = (int16x8_t)x, b = (int16x8_t)y;
  sum[0] += (Words)vaddl_s16(vget_low_s16(a), vget_low_s16(b));
  sum[1] += (Words)vaddl_high_s16(a, b);
#endif
}

// Two vectors to one of 16-bit samples, limited.
KESAUDIO_INLINE Shorts narrowed(const Words (&x)[2]) {
#if defined(__x86_64__)
  return (Shorts)KESAUDIO_X86(packs_epi32)((Register)x[0], (Register)x[1]);
#elif defined(__aarch64__)
  return (Shorts)vqmovn_high_s32(vqmovn_s32((int32x4_t)x[0]), (int32x4_t)x[1]);
#endif
}

// From the order of narrowed sums of pairs, halves by quarter, to that of the group.
KESAUDIO_INLINE Shorts inOrder(Shorts x) {
  if constexpr (kGroupBytes == 16) return x;
  return (Shorts)shuffled((Longs)x, (Longs)x, [](int i) { return i % kQuarters * 2 + i / kQuarters; });
}

// x0 + g(x1) of each pair x0, x1 of two vectors, limited: a pair is a product of sums, x0 * 2^14 + x1 * 46346 / 2.
KESAUDIO_INLINE Shorts mixedPairs(Shorts x, Shorts y) {
#if defined(__x86_64__)
  constexpr int kShift = kMixGainShift - 1;
  const Words mixed[2] = {weightedPairs<1 << kShift, kMixGainQ15 / 2>(x) >> kShift,
                          weightedPairs<1 << kShift, kMixGainQ15 / 2>(y) >> kShift};
  return narrowed(mixed);
#elif defined(__aarch64__)
  const Shorts second = (Shorts)vuzp2q_s16((int16x8_t)x, (int16x8_t)y);
  return addSaturated(addSaturated((Shorts)vuzp1q_s16((int16x8_t)x, (int16x8_t)y), second), beyondOne(second));
#endif
}

// The first half (kPart 0) or the second (1) of each quarter, each sample twice.
template <int kPart>
KESAUDIO_INLINE Shorts doubledInQuarters(Shorts x) {
  return shuffled(x, x, [](int i) { return i / 8 * 8 + kPart * 4 + i % 8 / 2; });
}

// g(x) - x of 32-bit numbers, from the halves of x, high * 2^16 + low: high * 13578 * 2 + floor(low * 13578 / 2^15).
KESAUDIO_INLINE Words beyondOne(Words x) {
#if defined(__x86_64__)
  return weightedPairs<0, 2 * kBeyondOneQ15>((Shorts)x) +
         (Words)KESAUDIO_X86(mulhi_epu16)((Register)x, KESAUDIO_X86(set1_epi32)(2 * kBeyondOneQ15));
#elif defined(__aarch64__)
  return (Words)vqdmulhq_n_s32((int32x4_t)x, kBeyondOneQ15 << 16);
#endif
}

// floor(x * 46346 / 2^16) of 32-bit numbers, in the same way.
KESAUDIO_INLINE Words scaledBy16(Words x) {
#if defined(__x86_64__)
  return (weightedPairs<0, kMixGainQ15 / 2>((Shorts)x) << 1) +
         (Words)KESAUDIO_X86(mulhi_epu16)((Register)x, KESAUDIO_X86(set1_epi32)(kMixGainQ15));
#elif defined(__aarch64__)
  return (Words)vqdmulhq_n_s32((int32x4_t)x, kMixGainQ15 / 2 << 16);
#endif
}

// Each sum limited to 32 bits.
KESAUDIO_INLINE Words addSaturated(Words x, Words y) {
#if defined(__aarch64__)
  return (Words)vqaddq_s32((int32x4_t)x, (int32x4_t)y);
#else
  const auto sum = (Words)((UnsignedWords)x + (UnsignedWords)y);
  return ((sum ^ x) & (sum ^ y)) < 0 ? (x >> 31) ^ INT32_MAX : sum;
#endif
}

// The elements of x in 64 bits: on x86-64 the even ones, then the odd ones; on Arm one half, then the other.
KESAUDIO_INLINE void widened(Words x, Longs (&wide)[2]) {
#if defined(__SSE4_1__)
  const Register one = KESAUDIO_X86(set1_epi32)(1);
  wide[0] = (Longs)KESAUDIO_X86(mul_epi32)((Register)x, one);
#if defined(__AVX512F__)
  wide[1] = (Longs)x >> 32;
#else
  wide[1] = (Longs)KESAUDIO_X86(mul_epi32)((Register)((UnsignedLongs)x >> 32), one);
#endif
#elif defined(__aarch64__)
  wide[0] = (Longs)vmovl_s32(vget_low_s32((int32x4_t)x));
  wide[1] = (Longs)vmovl_high_s32((int32x4_t)x);
#else
  wide[0] = (Longs)x << 32 >> 32;
  wide[1] = (Longs)x >> 32;
#endif
}

// What widened has parted, as 32-bit elements again.
KESAUDIO_INLINE Words rejoined(HalfWords x, HalfWords y) {
  return [&]<int... i>(std::integer_sequence<int, i...>) KESAUDIO_INLINED {
#if defined(__aarch64__)
    return __builtin_shufflevector(x, y, i...);
#else
    return __builtin_shufflevector(x, y, (i % 2 * kLanes / 2 + i / 2)...);
#endif
  }
  (std::make_integer_sequence<int, kLanes>());
}

// The first halves of the groups from x, the second from y.
KESAUDIO_INLINE Words joinedHalves(HalfWords x, HalfWords y) {
  return [&]<int... i>(std::integer_sequence<int, i...>) KESAUDIO_INLINED {
    constexpr int kHalf = kGroupElements<Words> / 2;
    return __builtin_shufflevector(x, y, (i / kHalf % 2 * kLanes / 2 + i / kHalf / 2 * kHalf + i % kHalf)...);
  }
  (std::make_integer_sequence<int, kLanes>());
}

// The sum of each pair of elements that widened has parted.
KESAUDIO_INLINE Longs sumOfPairs(const Longs (&wide)[2]) {
#if defined(__aarch64__)
  return (Longs)vpaddq_s64((int64x2_t)wide[0], (int64x2_t)wide[1]);
#else
  return wide[0] + wide[1];
#endif
}

// floor(x * kFactor / 2^31) of 32-bit numbers.
template <std::int32_t kFactor>
KESAUDIO_INLINE Words highProduct(Words x) {
#if defined(__aarch64__)
  return (Words)vqdmulhq_n_s32((int32x4_t)x, kFactor);
#elif defined(__SSE4_1__)
  static_assert(kFactor < 1 << 30);
  const Register factor = KESAUDIO_X86(set1_epi32)(2 * kFactor);
  const auto even = (Words)KESAUDIO_X86(mul_epi32)((Register)x, factor);
  const auto odd = (Words)KESAUDIO_X86(mul_epi32)((Register)((UnsignedLongs)x >> 32), factor);
  return shuffled(even, odd, [](int i) { return i % 2 == 0 ? i + 1 : kLanes + i; });
#else
  static_assert(kFactor < 0, "for packed 24-bit samples, which are not mixed in vectors before SSE4.1");
  return x;
#endif
}

// ---- loads

// Whether memory is loaded and deinterleaved at once, kCount elements a frame.
#if defined(__aarch64__)
template <int kCount>
inline constexpr bool kLoadsParts = kCount >= 2 && kCount <= 4;

template <int kCount>
KESAUDIO_INLINE auto loadInterleaved(const std::int16_t* p) {
  if constexpr (kCount == 2) return vld2q_s16(p);
  if constexpr (kCount == 3) return vld3q_s16(p);
  if constexpr (kCount == 4) return vld4q_s16(p);
}
template <int kCount>
KESAUDIO_INLINE auto loadInterleaved(const std::int32_t* p) {
  if constexpr (kCount == 2) return vld2q_s32(p);
  if constexpr (kCount == 3) return vld3q_s32(p);
  if constexpr (kCount == 4) return vld4q_s32(p);
}
template <int kCount>
KESAUDIO_INLINE auto loadInterleaved(const std::int64_t* p) {
  if constexpr (kCount == 2) return vld2q_s64(p);
  if constexpr (kCount == 3) return vld3q_s64(p);
  if constexpr (kCount == 4) return vld4q_s64(p);
}
#else
template <int kCount>
inline constexpr bool kLoadsParts = false;
#endif

template <int kCount, class Vector>
KESAUDIO_INLINE void loadParts([[maybe_unused]] const Byte* p, [[maybe_unused]] Vector (&parts)[kCount]) {
#if defined(__aarch64__)
  // The instruction takes any address; the type of the pointer only says how wide an element is.
  const auto loaded = loadInterleaved<kCount>(reinterpret_cast<const ElementOf<Vector>*>(p));
  unrolled<kCount>([&](auto c) KESAUDIO_INLINED { parts[c] = (Vector)loaded.val[c]; });
#endif
}

}  // namespace kesaudio::channel

#endif
