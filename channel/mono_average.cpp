// SPDX-License-Identifier: Apache-2.0
// Mono average: (s0 + s1 + ... ) / srcChannels, rounded towards zero: a division, since a shift would round down.
#include "channel/mono.h"
#include "kesaudio/channel_kernels.h"

using namespace kesaudio;
using namespace kesaudio::channel;

namespace {

template <class Format>
int32_t averageFrame(const Byte* in, int32_t channels) {
  typename Format::Sum sum = 0;
  for (int32_t c = 0; c < channels; ++c) sum = addWrapping(sum, Format::load(in + frameBytes<Format>(c)));
  return clamp<Format>(sum / channels);
}

// kChannels is 0 where the divisor has the count.
template <class Format, int kChannels>
struct Average;

template <int kChannels>
struct Average<S16, kChannels> {
  const Divisor divisor;
  explicit Average(const MixCall& call) : divisor(call.divisor) {}
  KESAUDIO_INLINE I32x operator()(I16x x) const { return addPairs(x); }
  KESAUDIO_INLINE I32x operator()(I32x sum, I16x x) const { return addPairs(sum, x); }
  KESAUDIO_INLINE I16x finish(I32x first, I32x second) const {
    return inOrder(narrow(divideSmall(first, divisor), divideSmall(second, divisor)));
  }
};

template <int kChannels>
struct Average<S24, kChannels> {
  const Divisor divisor;
  explicit Average(const MixCall& call) : divisor(call.divisor) {}
  KESAUDIO_INLINE I32x operator()(I32x x) const { return x; }
  KESAUDIO_INLINE I32x operator()(I32x sum, I32x x) const { return sum + x; }
  KESAUDIO_INLINE I32x finish(I32x first, I32x second) const {
    return inOrder(divide(addNeighbours(first, second), divisor));
  }
};

template <int kChannels>
struct Average<S32, kChannels> {
  const Divisor divisor;
  explicit Average(const MixCall& call) : divisor(call.divisor) {}
  KESAUDIO_INLINE I64x operator()(I32x x) const { return addPairs(x); }
  KESAUDIO_INLINE I64x operator()(I64x sum, I32x x) const { return addPairs(sum, x); }
  KESAUDIO_INLINE I32x finish(I64x first, I64x second) const {
    if constexpr (kChannels == 4 || kChannels == 8)
      return divideTotalsByPowerOf2<kChannels>(first, second);
    else
      return divideTotals(first, second, divisor);
  }
};

// Of stereo frames the sides are averaged without their sum, two vectors of them in a step.
template <class FormatType, bool kIsPacked = std::is_same_v<FormatType, S24>>
struct AverageOfTwo {
  using Format = FormatType;
  static constexpr std::ptrdiff_t kOutBytes = frameBytes<Format>(1);
  static constexpr int kFrames = 2 * kStepFrames<Format>;

  explicit AverageOfTwo(const MixCall&) {}
  static constexpr std::ptrdiff_t readBytes(std::ptrdiff_t frameBytes) { return frameBytes; }
  static constexpr std::ptrdiff_t stride() { return frameBytes<Format>(2); }
  KESAUDIO_INLINE void operator()(Byte* dst, const Byte* src) const {
    Samples<Format> left[2], right[2];
    loadSides(src, left[0], right[0]);
    loadSides(src + 2 * kVectorBytes, left[1], right[1]);
    storeSamples<Format>(dst, inOrder(averageOfTwo(left[0], right[0])));
    storeSamples<Format>(dst + kVectorBytes, inOrder(averageOfTwo(left[1], right[1])));
  }
};

template <class FormatType>
struct AverageOfTwo<FormatType, true> {
  using Format = FormatType;
  static constexpr std::ptrdiff_t kOutBytes = frameBytes<Format>(1);
  static constexpr int kFrames = kStepFrames<Format>;
  const Rows<Format, 1> loader;

  explicit AverageOfTwo(const MixCall& call) : loader(call) {}
  static constexpr std::ptrdiff_t readBytes(std::ptrdiff_t frameBytes) {
    return Rows<Format, 1>::readBytes(frameBytes);
  }
  static constexpr std::ptrdiff_t stride() { return frameBytes<Format>(2); }
  KESAUDIO_INLINE void operator()(Byte* dst, const Byte* src) const {
    I32x first[1], second[1];
    loader.load(src, first);
    loader.load(src + kFrames / 2 * stride(), second);
    const I32x left = unzipEven(first[0], second[0]), right = unzipOdd(first[0], second[0]);
    storeSamples<Format, true>(dst, inOrder(averageOfTwo(left, right)));
  }
};

template <class Loader>
using AverageStep =
    std::conditional_t<Loader::kChannels == 2, AverageOfTwo<typename Loader::Format>, MonoStep<Average, Loader>>;

}  // namespace

void channel_DownMix_Fold_Mono_Average(void* dst, int32_t /*dstChannels*/, const void* src, int32_t srcChannels,
                                       int32_t byteCount, PcmFormat format) {
  const Blocks blocks{static_cast<Byte*>(dst), 1, static_cast<const Byte*>(src), srcChannels, byteCount};
  withFormat(format, [&](auto formatTag) {
    using Format = decltype(formatTag);
    const std::ptrdiff_t in = frameBytes<Format>(srcChannels), frames = frameCount<Format>(blocks);
    if constexpr (kHasMixes<Format>) {
      if (srcChannels >= 2 && srcChannels <= kMaxMixChannels)
        return mixFrames(mixLoop<AverageStep, Format>(srcChannels), blocks.dst, blocks.src, frames,
                         {in, srcChannels, makeDivisor(srcChannels)});
    }
    forEachFrame(blocks.dst, frameBytes<Format>(1), blocks.src, in, frames, [=](Byte* outFrame, const Byte* inFrame) {
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
