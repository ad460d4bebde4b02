// SPDX-License-Identifier: Apache-2.0
// The gain of the mixes and the clamped sum, of a sample and of a vector of samples.
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

// ---- samples

// value limited to the range of the format.
template <class Format>
constexpr std::int32_t clamp(std::int64_t value) {
  return static_cast<std::int32_t>(value < Format::kMin ? Format::kMin : value > Format::kMax ? Format::kMax : value);
}

// x * 46346 / 2^shift, rounded down (an arithmetic shift, not a division). |x| <= 2^31, so the product is below 2^47.
constexpr std::int64_t scale(std::int32_t x, int shift) { return std::int64_t{x} * kMixGainQ15 >> shift; }

// g(x). Only a 32-bit sample can leave 32 bits, and saturates.
template <class Format>
constexpr std::int32_t gain(std::int32_t x) {
  return clamp<S32>(scale(x, kMixGainShift));
}

// The exact sum, clamped.
template <class Format, class... Terms>
constexpr std::int32_t clampedSum(std::int32_t first, Terms... terms) {
  return clamp<Format>((std::int64_t{first} + ... + terms));
}

// Adds to a frame's sum in its own width. Frames of very many channels can leave it, 24-bit folds of 182 the first,
// and wrap: defined, if meaningless.
template <class Sum>
constexpr Sum addWrapping(Sum sum, std::int64_t term) {
  using Unsigned = std::make_unsigned_t<Sum>;
  return static_cast<Sum>(static_cast<Unsigned>(sum) + static_cast<Unsigned>(term));
}

// ---- vectors of samples: 16-bit ones as they are, the others in 32-bit lanes

template <class Format>
using Samples = std::conditional_t<std::is_same_v<Format, S16>, I16x, I32x>;

template <class Format>
KESAUDIO_INLINE I32x clamp(I32x x) {
  const I32x low = I32x{} + Format::kMin, high = I32x{} + Format::kMax;
  x = x > high ? high : x;
  return x < low ? low : x;
}

// Sums of 24-bit samples up to 2^25 may be gained, too.
template <class Format>
KESAUDIO_INLINE I32x gain(I32x x) {
  const I32x fraction = scaleQ15(x, kFractionQ15);
  return std::is_same_v<Format, S32> ? saturatingAdd(x, fraction) : x + fraction;
}

template <class Format>
KESAUDIO_INLINE I32x clampedSum(I32x x, I32x y) {
  return std::is_same_v<Format, S32> ? saturatingAdd(x, y) : clamp<Format>(x + y);
}
template <class Format>
KESAUDIO_INLINE I32x clampedSum(I32x x, I32x y, I32x z) {
  return std::is_same_v<Format, S32> ? saturatingSum(x, y, z) : clamp<Format>(x + y + z);
}

// g(x) of a 16-bit sample has 17 bits: x and the fraction of it that g adds, both of one sign.
struct Gained {
  I16x x, fraction;
};
template <class Format>
KESAUDIO_INLINE Gained gain(I16x x) {
  return {x, scaleQ15(x, kFractionQ15)};
}
// Terms of one sign: limiting twice is limiting once.
template <class Format>
KESAUDIO_INLINE I16x clampedSum(I16x x, Gained y) {
  return saturatingAdd(saturatingAdd(x, y.x), y.fraction);
}
// The fractions fit together: 2 * 13578 < 2^15.
template <class Format>
KESAUDIO_INLINE I16x clampedSum(I16x x, Gained y, Gained z) {
  const Wide some = widenAndAdd(x, y.x), others = widenAndAdd(z.x, y.fraction + z.fraction);
  return saturateNarrow(some.low + others.low, some.high + others.high);
}

}  // namespace kesaudio::channel

#endif
