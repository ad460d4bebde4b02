// SPDX-License-Identifier: Apache-2.0
// Stereo downmix. With g the mix gain and every output clamped to the sample range:
//
//   mix      layout of the frame            left                     right
//   Front    FL FR and one of FC, LFE, BC   s0 + g(s2)               s1 + g(s2)
//   Quad     FL FR BL BR                    s0 + g(s2)               s1 + g(s3)
//   Mix5_1   FL FR FC LFE BL BR             s0 + g(t) + g(s4)        s1 + g(t) + g(s5),   t = s2 + g(s3), clamped
//   pairwise n channels                     (s0 + s2 + ...) / n      (s1 + s3 + ...) / n
//
// Each mix stands once, for every sample format and machine: Samples<Format> is a vector of 16-bit lanes for S16 and
// of 32-bit lanes for S24 (packed 24-bit, unpacked by samples.h) and S32 (8.24, too); gain and clampedSum are in
// gain.h. A new layout is a struct below and its mask in channel_DownMix_To_Stereo.
#include <algorithm>

#include "channel/mix.h"
#include "kesaudio/channel_kernels.h"

using namespace kesaudio;
using namespace kesaudio::channel;

namespace {

// ---- the layouts' mixes
//
// pairs[half][p] holds channels 2p and 2p + 1 of half a step's frames, interleaved. kChannels: channels of the
// layout; kPairs: pairs loaded for each frame.

// clamp(x + g(y))
template <class Format>
KESAUDIO_INLINE Samples<Format> addWithGain(Samples<Format> x, Samples<Format> y) {
  return clampedSum<Format>(x, gain<Format>(y));
}

struct StereoMix {
  static constexpr int kOut = 2;
  explicit StereoMix(const MixCall&) {}
};

template <class Format>
struct Front : StereoMix {
  static constexpr int32_t kChannels = 3, kPairs = 2;
  using StereoMix::StereoMix;
  KESAUDIO_INLINE void operator()(const Samples<Format> (&pairs)[2][2], Samples<Format> (&mixed)[2]) const {
    unrolled<2>([&](auto half) KESAUDIO_INLINED {
      mixed[half] = addWithGain<Format>(pairs[half][0], duplicateEven(pairs[half][1]));
    });
  }
};

template <class Format>
struct Quad : StereoMix {
  static constexpr int32_t kChannels = 4, kPairs = 2;
  using StereoMix::StereoMix;
  KESAUDIO_INLINE void operator()(const Samples<Format> (&pairs)[2][2], Samples<Format> (&mixed)[2]) const {
    unrolled<2>([&](auto half)
                    KESAUDIO_INLINED { mixed[half] = addWithGain<Format>(pairs[half][0], pairs[half][1]); });
  }
};

template <class Format>
struct Mix5_1 : StereoMix {
  static constexpr int32_t kChannels = 6, kPairs = 3;
  using StereoMix::StereoMix;
  template <int kFramePairs>  // 3, or 4 for frames of 8 channels, whose last pair is not used
  KESAUDIO_INLINE void operator()(const Samples<Format> (&pairs)[2][kFramePairs], Samples<Format> (&mixed)[2]) const {
    // t is clamped to 16 bits for 16-bit samples and to 32 bits for the others; a 24-bit t is below 2^25.
    const auto centre = unzipEven(pairs[0][1], pairs[1][1]), lfe = unzipOdd(pairs[0][1], pairs[1][1]);
    Samples<Format> t;
    if constexpr (std::is_same_v<Format, S24>)
      t = centre + gain<S24>(lfe);
    else
      t = addWithGain<Format>(centre, lfe);
    const Samples<Format> tTwice[2] = {zipLow(t, t), zipHigh(t, t)};
    unrolled<2>([&](auto half) KESAUDIO_INLINED {
      mixed[half] = clampedSum<Format>(pairs[half][0], gain<Format>(tTwice[half]), gain<Format>(pairs[half][2]));
    });
  }
};

// Front of 16- or 32-bit frames without a fourth channel.
template <class FormatType>
struct FrontOfThree {
  using Format = FormatType;
  static constexpr int kOut = 2, kFrames = kStepFrames<Format>, kTogether = 1;
  explicit FrontOfThree(const MixCall&) {}
  static constexpr std::ptrdiff_t inBytes(int32_t = 0) { return frameBytes<Format>(3); }
  KESAUDIO_INLINE void operator()(Byte* dst, const Byte* src) const {
    Samples<Format> sides[2], third[2];
    loadTriples(src, sides, third);
    storeStereo(dst, addWithGain<Format>(sides[0], third[0]), addWithGain<Format>(sides[1], third[1]));
  }
};

template <class Format, template <class> class Layout>
MixLoop loopOfLayout(int32_t srcChannels) {
  using Mix = Layout<Format>;
  if constexpr (std::is_same_v<Mix, Front<Format>> && !std::is_same_v<Format, S24>)
    if (srcChannels == 3) return loopOf<FrontOfThree<Format>>(srcChannels);
  if constexpr (std::is_same_v<Mix, Mix5_1<Format>>)
    if (srcChannels == 8) return loopOf<PairsStep<Format, Mix, PairsLoader<Format, 4>>>(srcChannels);
  using Loader = std::conditional_t<std::is_same_v<Format, S24> && Mix::kPairs == 2, RowsLoader<S24, 1>,
                                    PairsLoader<Format, Mix::kPairs>>;
  return loopOf<PairsStep<Format, Mix, Loader>>(srcChannels);
}

// ---- the pairwise average

// For mono frames and those of more than kMaxMixChannels.
template <class Format>
void averagePairwise(Byte* out, const Byte* in, int32_t channels) {
  typename Format::Sum sums[2] = {};
  for (int32_t c = 0; c < channels; ++c)
    sums[c % 2] = addWrapping(sums[c % 2], Format::load(in + frameBytes<Format>(c)));
  for (int32_t c = 0; c < 2; ++c) Format::store(out + frameBytes<Format>(c), clamp<Format>(sums[c] / channels));
}

template <class Format>
struct Pairwise : StereoMix {
  const Divisor divisor;
  explicit Pairwise(const MixCall& call) : StereoMix(call), divisor(call.divisor) {}
  template <int kPairs>
  KESAUDIO_INLINE void operator()(const Samples<Format> (&pairs)[2][kPairs], Samples<Format> (&mixed)[2]) const {
    unrolled<2>([&](auto half) KESAUDIO_INLINED {
      if constexpr (kPairs == 1)
        mixed[half] = averageOfTwo(pairs[half][0], Samples<Format>{});
      else
        mixed[half] = average(pairs[half]);
    });
  }

  template <int kPairs>
  KESAUDIO_INLINE Samples<Format> average(const Samples<Format> (&pairs)[kPairs]) const {
    if constexpr (std::is_same_v<Format, S24>) {
      I32x sum = pairs[0];
      for (int i = 1; i < kPairs; ++i) sum += pairs[i];
      return divide(sum, divisor);
    } else {
      auto sum = widenAndAdd(pairs[0], pairs[1]);
      if constexpr (kPairs == 3) sum = sum + widen(pairs[2]);
      if constexpr (kPairs == 4) sum = sum + widenAndAdd(pairs[2], pairs[3]);
      if constexpr (std::is_same_v<Format, S16>)
        return narrow(divideSmall(sum.low, divisor), divideSmall(sum.high, divisor));
      else
        return divide(sum, divisor);
    }
  }
};

template <class Format>
struct PairwiseSteps {
  template <class Loader>
  using Step = PairsStep<Format, Pairwise<Format>, Loader>;
};

// ---- blocks

template <class Format>
void mixPairwise(const Blocks& blocks) {
  const int32_t channels = blocks.srcChannels;
  const std::ptrdiff_t in = frameBytes<Format>(channels), out = frameBytes<Format>(2);
  if (channels >= 2 && channels <= kMaxMixChannels)
    return mixBlock(loopForChannels<Format, PairwiseSteps<Format>>(channels), {channels, makeDivisor(channels)},
                    blocks.dst, out, blocks.src, in, frameCount<Format>(blocks));
  forEachFrame(blocks.dst, out, blocks.src, in, frameCount<Format>(blocks),
               [=](Byte* outFrame, const Byte* inFrame) { averagePairwise<Format>(outFrame, inFrame, channels); });
}

// Of stereo frames to any other width. The plain way, since few callers want it and the vectors of an upmix would
// come along into every program that mixes.
[[gnu::noinline]] void resizeStereo(Byte* dst, std::ptrdiff_t out, const Byte* src, std::ptrdiff_t in,
                                    std::ptrdiff_t frames) {
  const auto kept = static_cast<std::size_t>(std::min(in, out)), all = static_cast<std::size_t>(out);
  forEachFrame(dst, out, src, in, frames, [=](Byte* outFrame, const Byte* inFrame) {
    std::memcpy(outFrame, inFrame, kept);
    std::memset(outFrame + kept, 0, all - kept);
  });
}

template <template <class> class Layout>
void mixLayout(const Blocks& blocks, PcmFormat format) {
  withFormat(format, [&](auto formatTag) {
    using Format = decltype(formatTag);
    if (blocks.srcChannels < Layout<Format>::kChannels) return mixPairwise<Format>(blocks);
    // Packed 24-bit frames are as wide as the caller says; the others are stereo whatever it says.
    const int32_t dstChannels = std::is_same_v<Format, S24> ? blocks.dstChannels : 2;
    if (dstChannels <= 0) return;
    // Frames of more than kMaxMixChannels are cut down to the layout's channels first.
    const int32_t channels = blocks.srcChannels <= kMaxMixChannels ? blocks.srcChannels : Layout<Format>::kChannels;
    mixBlock(loopOfLayout<Format, Layout>(channels), {channels, {}}, blocks.dst, frameBytes<Format>(dstChannels),
             blocks.src, frameBytes<Format>(blocks.srcChannels), frameCount<Format>(blocks), resizeStereo);
  });
}

}  // namespace

void channel_DownMix_To_Stereo(void* dst, int32_t dstChannels, const void* src, int32_t srcChannels,
                               int32_t byteCount, PcmFormat format, ChannelMask mask) {
  const Blocks blocks{static_cast<Byte*>(dst), dstChannels, static_cast<const Byte*>(src), srcChannels, byteCount};
  switch (mask) {
    case KES_LAYOUT_FRONT:
    case KES_LAYOUT_2POINT1:
    case KES_LAYOUT_STEREO_BACK: return mixLayout<Front>(blocks, format);
    case KES_LAYOUT_QUAD: return mixLayout<Quad>(blocks, format);
    case KES_LAYOUT_5POINT1: return mixLayout<Mix5_1>(blocks, format);
    default: return withFormat(format, [&](auto formatTag) { mixPairwise<decltype(formatTag)>(blocks); });
  }
}

void channel_DownMix_FOLD(void* dst, int32_t dstChannels, const void* src, int32_t srcChannels, int32_t byteCount,
                          PcmFormat format, ChannelMask mask) {
  if (dstChannels == 2)
    channel_DownMix_To_Stereo(dst, dstChannels, src, srcChannels, byteCount, format, mask);
  else if (dstChannels == 1 && mask == KES_LAYOUT_NONE)
    channel_DownMix_Fold_Mono_Average(dst, dstChannels, src, srcChannels, byteCount, format);
  else
    channel_DownMix_Fold_Minus3dB(dst, dstChannels, src, srcChannels, byteCount, format);
}
