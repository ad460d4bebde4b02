// SPDX-License-Identifier: Apache-2.0
// The arithmetic of the mixes on vectors of samples; fixed_point.h has it for single ones. In vectors of 16-bit
// samples it stays in 16 bits as long as it can.
#ifndef KESAUDIO_CHANNEL_MIXING_H
#define KESAUDIO_CHANNEL_MIXING_H

#include <bit>

#include "channel/machine.h"

namespace kesaudio::channel {

template <class Pcm>
KESAUDIO_INLINE Words clampedLanes(Words x) {
  const Words low = Words{} + Pcm::kMin, high = Words{} + Pcm::kMax;
  x = x > high ? high : x;
  return x < low ? low : x;
}

// g(x). 24-bit samples' sums up to 2^25 may be gained, too.
template <class Pcm>
KESAUDIO_INLINE Words mixGain(Words x) {
  return std::is_same_v<Pcm, S32> ? addSaturated(x, beyondOne(x)) : x + beyondOne(x);
}

// The sum, clamped.
template <class Pcm>
KESAUDIO_INLINE Words clampedSum(Words x, Words y) {
  return std::is_same_v<Pcm, S32> ? addSaturated(x, y) : clampedLanes<Pcm>(x + y);
}
template <class Pcm>
KESAUDIO_INLINE Words clampedSum(Words x, Words y, Words z) {
  if constexpr (!std::is_same_v<Pcm, S32>) return clampedLanes<Pcm>(x + y + z);
  // First the term whose sign may differ from x's, whose sum cannot leave 32 bits, then the other: limited once.
  const Words less = y < z ? y : z, more = y < z ? z : y;
  return addSaturated(addSaturated(x, x < 0 ? more : less), x < 0 ? less : more);
}

// g(x) of 16-bit samples has 17 bits: x and what is beyond it, of one sign (x < 0 is floor(x * 0.41) < 0).
struct Gained {
  Shorts x, beyond;
};
template <class Pcm>
KESAUDIO_INLINE Gained mixGain(Shorts x) {
  return {x, beyondOne(x)};
}
// Terms of one sign: limiting twice is limiting once.
template <class Pcm>
KESAUDIO_INLINE Shorts clampedSum(Shorts x, Gained y) {
  return addSaturated(addSaturated(x, y.x), y.beyond);
}
// y + z as three terms of one sign: what fits in 16 bits, and what two limits have cut off. A limit cuts only where
// both of its terms, and so all three, have one sign; where it cuts nothing its third is 0. The parts beyond fit
// together.
template <class Pcm>
KESAUDIO_INLINE Shorts clampedSum(Shorts x, Gained y, Gained z) {
  const auto cut = [](Shorts a, Shorts b, Shorts limited) KESAUDIO_INLINED {
    return (Shorts)((UnsignedShorts)a + (UnsignedShorts)b - (UnsignedShorts)limited);
  };
  const Shorts beyond = y.beyond + z.beyond, first = addSaturated(y.x, z.x), both = addSaturated(first, beyond);
  return addSaturated(addSaturated(addSaturated(x, both), cut(first, beyond, both)), cut(y.x, z.x, first));
}

// ---- averages

// sum / kDivisor, rounded towards zero, of at most eight 16- or 24-bit samples. A factor a little above 1 / kDivisor
// keeps exact quotients from falling below themselves, and is too little to reach the next, however a thread rounds
// its floating-point numbers: by more than their rounding, by less than 1 / kDivisor of the quotient's unit.
template <class Pcm, int kDivisor>
KESAUDIO_INLINE Words quotient(Words sum) {
  if constexpr ((kDivisor & (kDivisor - 1)) == 0) {
    return (sum + ((sum >> 31) & (kDivisor - 1))) >> std::countr_zero(std::uint32_t{kDivisor});
  } else if constexpr (std::is_same_v<Pcm, S16>) {
    constexpr float kFactor = 1.0f / kDivisor * (1 + 0x1p-20f);
    return __builtin_convertvector(__builtin_convertvector(sum, Floats) * kFactor, Words);
  } else {
    return highProduct<INT32_MAX / kDivisor + 1>(sum) - (sum >> 31);
  }
}

// The same of at most eight 32-bit samples. Below 2^52, a number in the lower bits of a double that is 1.5 * 2^52 is
// that double's fraction.
template <int kDivisor>
KESAUDIO_INLINE HalfWords quotient(Longs sum) {
#if defined(__aarch64__) || defined(__AVX512DQ__)
  const Doubles exact = __builtin_convertvector(sum, Doubles);
#else
  const Doubles exact = (Doubles)(sum + 0x4338000000000000) - 0x1.8p52;
#endif
  constexpr double kFactor = 1.0 / kDivisor * (1 + 0x1p-45);
  return __builtin_convertvector(exact * kFactor, HalfWords);
}

KESAUDIO_INLINE void addWide(Words x, Longs (&sum)[2]) {
  Longs wide[2];
  widened(x, wide);
  sum[0] += wide[0], sum[1] += wide[1];
}

// (x0 + x1 + ...) / kDivisor.
template <class Pcm, int kDivisor, int kCount>
KESAUDIO_INLINE Words averagedLanes(const Words (&x)[kCount]) {
  if constexpr (std::is_same_v<Pcm, S32>) {
    Longs sum[2] = {};
    for (const Words& each : x) addWide(each, sum);
    return rejoined(quotient<kDivisor>(sum[0]), quotient<kDivisor>(sum[1]));
  } else {
    Words sum = {};
    for (const Words& each : x) sum += each;
    return quotient<Pcm, kDivisor>(sum);
  }
}
template <class Pcm, int kDivisor, int kCount>
KESAUDIO_INLINE Shorts averagedLanes(const Shorts (&x)[kCount]) {
  Words sum[2] = {};
  unrolled<(kCount + 1) / 2>([&](auto c) KESAUDIO_INLINED {
    addWide(x[2 * c], 2 * c + 1 < kCount ? x[(2 * c + 1) % kCount] : Shorts{}, sum);
  });
  sum[0] = quotient<Pcm, kDivisor>(sum[0]), sum[1] = quotient<Pcm, kDivisor>(sum[1]);
  return narrowed(sum);
}

// The same of both channels of each pair, from the halves of a step, in the order of its frames.
template <class Pcm, int kDivisor, int kPairs>
KESAUDIO_INLINE auto averagedPairs(const Words (&pairs)[kPairs][2]) {
  if constexpr (std::is_same_v<Pcm, S32>) {
    HalfWords halves[2];
    unrolled<2>([&](auto half) KESAUDIO_INLINED {
      Longs sum[2] = {};
      for (const auto& pair : pairs) addWide(pair[half], sum);
      halves[half] = quotient<kDivisor>(sumOfPairs(sum));
    });
    return joinedHalves(halves[0], halves[1]);
  } else {
    Words sum[2] = {};
    for (const auto& pair : pairs) sum[0] += pair[0], sum[1] += pair[1];
    return quotient<Pcm, kDivisor>(everySecond<0>(sum[0], sum[1]) + everySecond<1>(sum[0], sum[1]));
  }
}
template <class Pcm, int kDivisor, int kPairs>
KESAUDIO_INLINE auto averagedPairs(const Shorts (&pairs)[kPairs][2]) {
  Words sum[2] = {};
  for (const auto& pair : pairs) sum[0] += sumOfPairs(pair[0]), sum[1] += sumOfPairs(pair[1]);
  sum[0] = quotient<Pcm, kDivisor>(sum[0]), sum[1] = quotient<Pcm, kDivisor>(sum[1]);
  return inOrder(narrowed(sum));
}

}  // namespace kesaudio::channel

#endif
