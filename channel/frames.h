// SPDX-License-Identifier: Apache-2.0
// What every kernel does around its arithmetic: counting frames, choosing a loop by channel count, walking frames.
#ifndef KESAUDIO_CHANNEL_FRAMES_H
#define KESAUDIO_CHANNEL_FRAMES_H

#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "channel/pcm.h"

namespace kesaudio::channel {

// Whole input frames in byteCount bytes: 0 for counts of 0 or less.
template <class Pcm>
constexpr std::int32_t frameCount(std::int32_t byteCount, std::int32_t srcChannels) {
  return byteCount > 0 && srcChannels > 0 ? byteCount / Pcm::kBytes / srcChannels : 0;
}

// Bytes of a frame, wide enough for any channel count.
template <class Pcm>
constexpr std::ptrdiff_t frameBytes(std::int32_t channels) {
  return std::ptrdiff_t{channels} * Pcm::kBytes;
}

// Calls body with the channel count: as a compile-time constant for the usual counts, so that loops over channels
// unroll, and as a plain number for the rest.
template <class Body>
void withChannels(std::int32_t channels, Body body) {
  switch (channels) {
    case 1: return body(std::integral_constant<std::int32_t, 1>{});
    case 2: return body(std::integral_constant<std::int32_t, 2>{});
    case 3: return body(std::integral_constant<std::int32_t, 3>{});
    case 4: return body(std::integral_constant<std::int32_t, 4>{});
    case 5: return body(std::integral_constant<std::int32_t, 5>{});
    case 6: return body(std::integral_constant<std::int32_t, 6>{});
    case 7: return body(std::integral_constant<std::int32_t, 7>{});
    case 8: return body(std::integral_constant<std::int32_t, 8>{});
    default: return body(channels);
  }
}

// Whether a count came as a constant.
template <class Channels>
inline constexpr bool kIsConstant = !std::is_same_v<Channels, std::int32_t>;

// The same with two counts, both constants or both numbers.
template <class Body>
void withTwoCounts(std::int32_t first, std::int32_t second, Body body) {
  withChannels(second <= 8 ? first : 0, [&](auto one) {
    if constexpr (kIsConstant<decltype(one)>)
      withChannels(second, [&](auto other) {
        if constexpr (kIsConstant<decltype(other)>) body(one, other);
      });
    else
      body(first, second);
  });
}

// Calls convert(outputFrame, inputFrame) for each frame, first to last: right for output frames no longer than the
// input's, in place too.
template <class Convert>
void forwards(Byte* dst, std::ptrdiff_t dstStride, const Byte* src, std::ptrdiff_t srcStride, std::int32_t frames,
              Convert convert) {
  for (; frames > 0; --frames, dst += dstStride, src += srcStride) convert(dst, src);
}

// The same, last to first: right for output frames no shorter than the input's, in place too.
template <class Convert>
void backwards(Byte* dst, std::ptrdiff_t dstStride, const Byte* src, std::ptrdiff_t srcStride, std::int32_t frames,
               Convert convert) {
  while (--frames >= 0) convert(dst + frames * dstStride, src + frames * srcStride);
}

}  // namespace kesaudio::channel

#endif
