// SPDX-License-Identifier: Apache-2.0
// The gain and the clamped sum of the mixes, for vectors of samples and, where a frame has too many channels for the
// vector loops, for single samples.
//
//   g(x) = floor(x * 46346 / 2^15) = x + floor(x * 13578 / 2^15)
#ifndef KESAUDIO_CHANNEL_GAIN_H
#define KESAUDIO_CHANNEL_GAIN_H

#include <cstdint>
#include <type_traits>

#include "base/simd.h"

namespace kesaudio::channel {

// 46346 / 32768 = 1.41437 (+3.01 dB). Deliberately not 46341, the nearest to the square root of two: users compare
// results bit for bit.
inline constexpr std::int32_t kMixGainQ15 = 46346;
inline constexpr int kMixGainShift = 15;
inline constexpr std::int16_t kFractionQ15 = kMixGainQ15 - (1 << kMixGainShift);

// ---- single samples

// value limited to the range of the format.
template <class Format>
constexpr std::int32_t clamp(std::int64_t value) {
  return static_cast<std::int32_t>(value < Format::kMin ? Format::kMin : value > Format::kMax ? Format::kMax : value);
}

// x * 46346 / 2^shift, rounded down (an arithmetic shift, not a division). |x| <= 2^31, so the product is below 2^47.
constexpr std::int64_t scale(std::int32_t x, int shift) { return std::int64_t{x} * kMixGainQ15 >> shift; }

// Adds a term to a frame's sum. Sums of very many channels wrap (24-bit folds from 181 channels on); the unsigned
// addition keeps that defined.
template <class Sum>
constexpr Sum addWrapping(Sum sum, std::int64_t term) {
  using Unsigned = std::make_unsigned_t<Sum>;
  return static_cast<Sum>(static_cast<Unsigned>(sum) + static_cast<Unsigned>(term));
}

// ---- vectors of samples: 16-bit ones as they are, the others in 32-bit lanes

template <class Format>
using Samples = std::conditional_t<std::is_same_v<Format, S16>, I16x, I32x>;

KESAUDIO_INLINE I32x limit(I32x x, std::int32_t low, std::int32_t high) {
  return maximum(minimum(x, I32x{} + high), I32x{} + low);
}
template <class Format>
KESAUDIO_INLINE I32x clamp(I32x x) {
  return limit(x, Format::kMin, Format::kMax);
}

// g(x): saturated for 32-bit samples; exact for 24-bit samples and their sums below 2^25. Without a saturating
// addition (x86-64) a 32-bit x is limited first: g of 1518334790 and of its negative are the ends of the range.
template <class Format>
KESAUDIO_INLINE I32x gain(I32x x) {
  if constexpr (!std::is_same_v<Format, S32>) return x + scaleQ15(x, kFractionQ15);
  if constexpr (kHasSaturatingAdd32) return saturatingAdd(x, scaleQ15(x, kFractionQ15));
  constexpr std::int32_t kLargest = 1518334790;
  static_assert(scale(kLargest, kMixGainShift) == S32::kMax && scale(-kLargest, kMixGainShift) == S32::kMin);
  x = limit(x, -kLargest, kLargest);
  return x + scaleQ15(x, kFractionQ15);
}

template <class Format>
KESAUDIO_INLINE I32x clampedSum(I32x x, I32x y) {
  return std::is_same_v<Format, S32> ? saturatingAdd(x, y) : clamp<Format>(x + y);
}
template <class Format>
KESAUDIO_INLINE I32x clampedSum(I32x x, I32x y, I32x z) {
  return std::is_same_v<Format, S32> ? saturatingSum(x, y, z) : clamp<Format>(x + y + z);
}

// g(x) of a 16-bit sample has 17 bits, so it stays in two parts: x, and the fraction of x that g adds, which is 0 or
// has the sign of x.
struct Gained {
  I16x x, fraction;
};
template <class Format>
KESAUDIO_INLINE Gained gain(I16x x) {
  return {x, scaleQ15(x, kFractionQ15)};
}
// y.x and y.fraction have the same sign, so saturating twice equals saturating once.
template <class Format>
KESAUDIO_INLINE I16x clampedSum(I16x x, Gained y) {
  return saturatingAdd(saturatingAdd(x, y.x), y.fraction);
}
// The fractions fit together: 2 * 13578 < 2^15.
template <class Format>
KESAUDIO_INLINE I16x clampedSum(I16x x, Gained y, Gained z) {
  const Wide sum = widenAndAdd(x, y.x) + widenAndAdd(z.x, y.fraction + z.fraction);
  return saturateNarrow(sum.low, sum.high);
}

}  // namespace kesaudio::channel

#endif
