// SPDX-License-Identifier: Apache-2.0
// Mono average: (s0 + s1 + ... ) / srcChannels, rounded towards zero: a division, since a shift would round down.
#include "channel/mix.h"
#include "kesaudio/channel_kernels.h"

using namespace kesaudio;
using namespace kesaudio::channel;

namespace {

// For mono frames and those of more than kMaxMixChannels.
template <class Format>
int32_t averageFrame(const Byte* in, int32_t channels) {
  typename Format::Sum sum = 0;
  for (int32_t c = 0; c < channels; ++c) sum = addWrapping(sum, Format::load(in + frameBytes<Format>(c)));
  return clamp<Format>(sum / channels);
}

template <int kPairs>
KESAUDIO_INLINE I32x total(const I16x (&pairs)[kPairs]) {
  I32x sum = addPairs(pairs[0]);
  for (int i = 1; i < kPairs; ++i) sum = addPairs(sum, pairs[i]);
  return sum;
}
template <int kPairs>
KESAUDIO_INLINE I32x total(const I32x (&pairs)[kPairs]) {
  I32x sum = pairs[0];
  for (int i = 1; i < kPairs; ++i) sum += pairs[i];
  return sum;
}

template <class Format>
struct Average {
  static constexpr int kOut = 1;
  const Divisor divisor;
  explicit Average(const MixCall& call) : divisor(call.divisor) {}

  template <int kPairs>
  KESAUDIO_INLINE void operator()(const Samples<Format> (&pairs)[2][kPairs], Samples<Format> (&mixed)[1]) const {
    if constexpr (std::is_same_v<Format, S16>) {
      const I32x first = divideSmall(total(pairs[0]), divisor), second = divideSmall(total(pairs[1]), divisor);
      mixed[0] = undoBlockOrder(narrow(first, second));
    } else if constexpr (std::is_same_v<Format, S24> && kPairs == 1) {
      const I32x left = unzipEven(pairs[0][0], pairs[1][0]), right = unzipOdd(pairs[0][0], pairs[1][0]);
      mixed[0] = undoBlockOrder(averageOfTwo(left, right));
    } else if constexpr (std::is_same_v<Format, S24>) {
      mixed[0] = undoBlockOrder(divide(addAdjacent(total(pairs[0]), total(pairs[1])), divisor));
    } else {
      WideSums sum = addPairs(pairs[0][0], pairs[1][0]);
      for (int i = 1; i < kPairs; ++i) sum = sum + addPairs(pairs[0][i], pairs[1][i]);
      mixed[0] = dividePairs(sum, divisor);
    }
  }
};

// Stereo frames of 16 or 32 bits: averages left and right without a wider sum.
template <class FormatType>
struct AverageOfTwo {
  using Format = FormatType;
  static constexpr int kOut = 1, kFrames = kStepFrames<Format>, kTogether = 4;
  explicit AverageOfTwo(const MixCall&) {}
  static constexpr std::ptrdiff_t inBytes(std::int32_t = 0) { return frameBytes<Format>(2); }
  KESAUDIO_INLINE void operator()(Byte* dst, const Byte* src) const {
    Samples<Format> left, right;
    loadSides(src, left, right);
    store(dst, undoBlockOrder(averageOfTwo(left, right)));
  }
};

template <class Format>
struct Steps {
  template <class Loader>
  using Step = std::conditional_t<Loader::kPairs == 1 && !std::is_same_v<Format, S24>, AverageOfTwo<Format>,
                                  PairsStep<Format, Average<Format>, Loader>>;
};

}  // namespace

void channel_DownMix_Fold_Mono_Average(void* dst, int32_t /*dstChannels*/, const void* src, int32_t srcChannels,
                                       int32_t byteCount, PcmFormat format) {
  const Blocks blocks{static_cast<Byte*>(dst), 1, static_cast<const Byte*>(src), srcChannels, byteCount};
  withFormat(format, [&](auto formatTag) {
    using Format = decltype(formatTag);
    const std::ptrdiff_t in = frameBytes<Format>(srcChannels), out = Format::kBytes;
    if (srcChannels >= 2 && srcChannels <= kMaxMixChannels)
      return mixBlock(loopForChannels<Format, Steps<Format>>(srcChannels), {srcChannels, makeDivisor(srcChannels)},
                      blocks.dst, out, blocks.src, in, frameCount<Format>(blocks));
    forEachFrame(blocks.dst, out, blocks.src, in, frameCount<Format>(blocks),
                 [=](Byte* outFrame, const Byte* inFrame) {
                   Format::store(outFrame, averageFrame<Format>(inFrame, srcChannels));
                 });
  });
}

void channel_DownMix_To_Mono(void* dst, int32_t dstChannels, const void* src, int32_t srcChannels, int32_t byteCount,
                             PcmFormat format, ChannelMask mask) {
  if (mask == KES_LAYOUT_NONE)
    channel_DownMix_Fold_Mono_Average(dst, dstChannels, src, srcChannels, byteCount, format);
  else
    channel_DownMix_Fold_Minus3dB(dst, dstChannels, src, srcChannels, byteCount, format);
}
