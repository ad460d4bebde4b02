// SPDX-License-Identifier: Apache-2.0
// The gain of the mixes and the sum of a frame.
#ifndef KESAUDIO_CHANNEL_FIXED_POINT_H
#define KESAUDIO_CHANNEL_FIXED_POINT_H

#include <cstdint>
#include <type_traits>

#include "channel/pcm.h"

namespace kesaudio::channel {

// 46346 / 32768 = 1.41437 (+3.01 dB). Deliberately not 46341, the nearest to the square root of two: users compare
// results bit for bit.
inline constexpr std::int32_t kMixGainQ15 = 46346;
inline constexpr int kMixGainShift = 15;

// x * 46346 / 2^shift, rounded towards minus infinity (an arithmetic shift, not a division). |x| <= 2^31, so the
// product stays below 2^47.
constexpr std::int64_t scaled(std::int32_t x, int shift) { return std::int64_t{x} * kMixGainQ15 >> shift; }

// The mix gain g of every format. Only a 32-bit sample can leave 32 bits, and saturates.
template <class Pcm>
constexpr std::int32_t mixGain(std::int32_t x) {
  return clampTo<S32>(scaled(x, kMixGainShift));
}

// The exact sum, clamped to the sample range of Pcm.
template <class Pcm, class... Terms>
constexpr std::int32_t clampedSum(std::int32_t first, Terms... terms) {
  return clampTo<Pcm>((std::int64_t{first} + ... + terms));
}

// Adds to a frame's sum in its own width. Frames of very many channels can leave it, 24-bit folds of 182 the first,
// and wrap: defined, if meaningless.
template <class Sum>
constexpr Sum addWrapping(Sum sum, std::int64_t term) {
  using Unsigned = std::make_unsigned_t<Sum>;
  return static_cast<Sum>(static_cast<Unsigned>(sum) + static_cast<Unsigned>(term));
}

}  // namespace kesaudio::channel

#endif
