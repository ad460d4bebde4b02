// SPDX-License-Identifier: Apache-2.0
// Stereo downmix. With g the mix gain and every output clamped to the sample range:
//
//   mix      layout of the frame            left                     right
//   Front    FL FR and one of FC, LFE, BC   s0 + g(s2)               s1 + g(s2)
//   Quad     FL FR BL BR                    s0 + g(s2)               s1 + g(s3)
//   Mix5_1   FL FR FC LFE BL BR             s0 + g(t) + g(s4)        s1 + g(t) + g(s5),   t = s2 + g(s3), clamped
//   pairwise n channels                     (s0 + s2 + ...) / n      (s1 + s3 + ...) / n
#include "channel/mix.h"
#include "channel/moves.h"
#include "kesaudio/channel_kernels.h"

using namespace kesaudio;
using namespace kesaudio::channel;

namespace {

// ---- the mixes, of samples or of vectors of either side or of both

template <class Format, class Value>
KESAUDIO_INLINE Value mixSide(Value front, Value back) {
  return clampedSum<Format>(front, gain<Format>(back));
}

template <class Format, class Value, class GainedValue>
KESAUDIO_INLINE Value mixSide(Value front, GainedValue gainedCentre, Value back) {
  return clampedSum<Format>(front, gainedCentre, gain<Format>(back));
}

// t, an intermediate sample: 16 bits wide among 16-bit samples, else 32, which 24-bit ones cannot leave.
template <class Format, class Value>
KESAUDIO_INLINE Value mixCentre(Value front, Value lfe) {
  if constexpr (std::is_same_v<Format, S24>) return front + gain<Format>(lfe);
  return mixSide<Format>(front, lfe);
}

// ---- a step of a mix

// Loads both halves before anything else: a processor that keeps to the order of instructions waits less.
template <class LoaderType, class Mix>
struct StereoStep {
  using Loader = LoaderType;
  using Format = typename Loader::Format;
  static constexpr std::ptrdiff_t kOutBytes = frameBytes<Format>(2);
  static constexpr int kFrames = kStepFrames<Format>;
  const Loader loader;
  const Mix mix;

  explicit StereoStep(const MixCall& call) : loader(call), mix(call) {}
  static constexpr std::ptrdiff_t readBytes(std::ptrdiff_t frameBytes) { return Loader::readBytes(frameBytes); }
  std::ptrdiff_t stride() const { return loader.stride(); }
  KESAUDIO_INLINE void operator()(Byte* dst, const Byte* src) const {
    Samples<Format> pairs[2][Loader::kPairs], sides[2];
    loader.load(src, pairs[0]);
    loader.load(src + kFrames / 2 * stride(), pairs[1]);
    mix(pairs, sides);
    storeSamples<Format>(dst, sides[0]);
    storeSamples<Format, true>(dst + kFrames / 2 * kOutBytes, sides[1]);
  }
};

// Of frames of three 16- or 32-bit samples.
template <class FormatType>
struct TriplesStep {
  using Format = FormatType;
  static constexpr std::ptrdiff_t kOutBytes = frameBytes<Format>(2);
  static constexpr int kFrames = kStepFrames<Format>;

  explicit TriplesStep(const MixCall&) {}
  static constexpr std::ptrdiff_t readBytes(std::ptrdiff_t frameBytes) { return frameBytes; }
  static constexpr std::ptrdiff_t stride() { return frameBytes<Format>(3); }
  KESAUDIO_INLINE void operator()(Byte* dst, const Byte* src) const {
    Samples<Format> sides[2], third[2];
    loadTriples(src, sides, third);
    storeSides(dst, mixSide<Format>(sides[0], third[0]), mixSide<Format>(sides[1], third[1]));
  }
};

// ---- the mixes of frames and of steps
//
// mixFrame takes the samples of a frame. The operator takes the pairs of both halves of a step and gives their sides.
// loop is the loop for frames of a count of channels.

struct Stereo {
  int32_t left, right;
};

template <class Format>
struct Front {
  static constexpr int32_t kChannels = 3;
  static Stereo mixFrame(const int32_t* s) { return {mixSide<Format>(s[0], s[2]), mixSide<Format>(s[1], s[2])}; }

  explicit Front(const MixCall&) {}
  template <int kPairs>
  KESAUDIO_INLINE void operator()(const Samples<Format> (&pairs)[2][kPairs], Samples<Format> (&sides)[2]) const {
    unrolled<2>([&](auto half) KESAUDIO_INLINED {
      sides[half] = mixSide<Format>(pairs[half][0], duplicateEven(pairs[half][1]));
    });
  }
  static MixLoop loop(int32_t channels) {
    if constexpr (!std::is_same_v<Format, S24>)
      if (channels == kChannels) return mixLoop<TriplesStep<Format>>(channels);
    return mixLoop<StereoStep<Rows<Format, 2>, Front>>(channels);
  }
};

template <class Format>
struct Quad {
  static constexpr int32_t kChannels = 4;
  static Stereo mixFrame(const int32_t* s) { return {mixSide<Format>(s[0], s[2]), mixSide<Format>(s[1], s[3])}; }

  explicit Quad(const MixCall&) {}
  template <int kPairs>
  KESAUDIO_INLINE void operator()(const Samples<Format> (&pairs)[2][kPairs], Samples<Format> (&sides)[2]) const {
    unrolled<2>([&](auto half) KESAUDIO_INLINED { sides[half] = mixSide<Format>(pairs[half][0], pairs[half][1]); });
  }
  static MixLoop loop(int32_t channels) {
    if constexpr (!std::is_same_v<Format, S24>)
      if (channels == kChannels) return mixLoop<StereoStep<Dense<Format, 2>, Quad>>(channels);
    return mixLoop<StereoStep<Rows<Format, 2>, Quad>>(channels);
  }
};

template <class Format>
struct Mix5_1 {
  static constexpr int32_t kChannels = 6;
  static Stereo mixFrame(const int32_t* s) {
    const int32_t centre = gain<Format>(mixCentre<Format>(s[2], s[3]));
    return {mixSide<Format>(s[0], centre, s[4]), mixSide<Format>(s[1], centre, s[5])};
  }

  explicit Mix5_1(const MixCall&) {}
  template <int kPairs>
  KESAUDIO_INLINE void operator()(const Samples<Format> (&pairs)[2][kPairs], Samples<Format> (&sides)[2]) const {
    const auto t = mixCentre<Format>(unzipEven(pairs[0][1], pairs[1][1]), unzipOdd(pairs[0][1], pairs[1][1]));
    const Samples<Format> centre[2] = {zipLow(t, t), zipHigh(t, t)};  // for both sides
    unrolled<2>([&](auto half) KESAUDIO_INLINED {
      sides[half] = mixSide<Format>(pairs[half][0], gain<Format>(centre[half]), pairs[half][2]);
    });
  }
  static MixLoop loop(int32_t channels) {
    if constexpr (!std::is_same_v<Format, S24>) {
      if (channels == kChannels) return mixLoop<StereoStep<Dense<Format, 3>, Mix5_1>>(channels);
      if (channels == 8) return mixLoop<StereoStep<Dense<Format, 4>, Mix5_1>>(channels);
    }
    return mixLoop<StereoStep<Rows<Format, 3>, Mix5_1>>(channels);
  }
};

template <class Format>
Stereo pairwiseFrame(const Byte* in, int32_t channels) {
  typename Format::Sum sums[2] = {};
  for (int32_t c = 0; c < channels; ++c)
    sums[c % 2] = addWrapping(sums[c % 2], Format::load(in + frameBytes<Format>(c)));
  return {clamp<Format>(sums[0] / channels), clamp<Format>(sums[1] / channels)};
}

// kChannels is 0 where the divisor has the count.
template <class Format, int kChannels>
struct Pairwise {
  const Divisor divisor;
  explicit Pairwise(const MixCall& call) : divisor(call.divisor) {}
  template <int kPairs>
  KESAUDIO_INLINE void operator()(const Samples<Format> (&pairs)[2][kPairs], Samples<Format> (&sides)[2]) const {
    unrolled<2>([&](auto half) KESAUDIO_INLINED { sides[half] = average(pairs[half]); });
  }

  template <int kPairs>
  KESAUDIO_INLINE I16x average(const I16x (&pairs)[kPairs]) const {
    if constexpr (kChannels == 2) return averageOfTwo(pairs[0], I16x{});
    Wide sum = widenAndAdd(pairs[0], pairs[kPairs > 1 ? 1 : 0]);
    if constexpr (kPairs == 3) sum = widenAndAdd(sum, pairs[2]);
    if constexpr (kPairs == 4) {
      const Wide others = widenAndAdd(pairs[2], pairs[3]);
      sum = {sum.low + others.low, sum.high + others.high};
    }
    return narrow(divideSmall(sum.low, divisor), divideSmall(sum.high, divisor));
  }
  template <int kPairs>
  KESAUDIO_INLINE I32x average(const I32x (&pairs)[kPairs]) const {
    if constexpr (kChannels == 2) return averageOfTwo(pairs[0], I32x{});
    if constexpr (std::is_same_v<Format, S24>) {
      I32x sum = pairs[0];
      for (int i = 1; i < kPairs; ++i) sum += pairs[i];
      return divide(sum, divisor);
    } else {
      WideSums sum = widenAndAdd(pairs[0], pairs[kPairs > 1 ? 1 : 0]);
      for (int i = 2; i < kPairs; ++i) sum = widenAndAdd(sum, pairs[i]);
      if constexpr (kChannels == 4 || kChannels == 8)
        return divideWideByPowerOf2<kChannels>(sum);
      else
        return divideWide(sum, divisor);
    }
  }
};
template <class Loader>
using PairwiseStep = StereoStep<Loader, Pairwise<typename Loader::Format, Loader::kChannels>>;

// ---- of a block

// Runs mixFrame(input frame) -> Stereo over a block of any count, and writes dstChannels samples a frame, silent from
// the third on.
template <class Format, class MixFrame>
void mixByFrame(const Blocks& blocks, int32_t dstChannels, MixFrame mixFrame) {
  forEachFrame(blocks.dst, frameBytes<Format>(dstChannels), blocks.src, frameBytes<Format>(blocks.srcChannels),
               frameCount<Format>(blocks), [=](Byte* out, const Byte* in) {
                 const Stereo stereo = mixFrame(in);
                 Format::store(out, stereo.left);
                 if (dstChannels > 1) Format::store(out + frameBytes<Format>(1), stereo.right);
                 for (int32_t c = 2; c < dstChannels; ++c) Format::store(out + frameBytes<Format>(c), 0);
               });
}

template <class Format>
void mixPairwise(const Blocks& blocks) {
  const int32_t channels = blocks.srcChannels;
  if constexpr (kHasMixes<Format>) {
    if (channels >= 2 && channels <= kMaxMixChannels)
      return mixFrames(mixLoop<PairwiseStep, Format>(channels), blocks.dst, blocks.src, frameCount<Format>(blocks),
                       {frameBytes<Format>(channels), channels, makeDivisor(channels)});
  }
  mixByFrame<Format>(blocks, 2, [=](const Byte* in) { return pairwiseFrame<Format>(in, channels); });
}

// Frames of another width than stereo, by way of stereo chunks.
template <class Format>
void mixToWidth(const MixLoop& loop, const Blocks& blocks, int32_t dstChannels, const MixCall& call) {
  const std::ptrdiff_t out = frameBytes<Format>(dstChannels), stereo = loop.outBytes;
  constexpr std::ptrdiff_t kChunkFrames = 128;
  Byte chunk[kChunkFrames * 2 * Format::kBytes];
  std::ptrdiff_t frames = frameCount<Format>(blocks);
  const Byte* src = blocks.src;
  for (Byte* dst = blocks.dst; frames > 0; frames -= kChunkFrames) {
    const std::ptrdiff_t count = frames < kChunkFrames ? frames : kChunkFrames;
    mixFrames(loop, chunk, src, count, call);
    if (out < stereo)
      stripFrames(dst, out, chunk, stereo, count);
    else
      expandFrames(dst, out, chunk, stereo, count, Fill::kSilence);
    dst += count * out, src += count * call.frameBytes;
  }
}

template <template <class> class Layout>
void mixLayout(const Blocks& blocks, PcmFormat format) {
  withFormat(format, [&](auto formatTag) {
    using Format = decltype(formatTag);
    using Mix = Layout<Format>;
    if (blocks.srcChannels < Mix::kChannels) return mixPairwise<Format>(blocks);
    // Packed 24-bit frames are as wide as the caller says; the others are stereo whatever it says.
    const int32_t dstChannels = std::is_same_v<Format, S24> ? blocks.dstChannels : 2;
    if (dstChannels <= 0) return;
    if constexpr (kHasMixes<Format>) {
      if (blocks.srcChannels <= kMaxMixChannels) {
        const MixLoop loop = Mix::loop(blocks.srcChannels);
        const MixCall call{frameBytes<Format>(blocks.srcChannels), blocks.srcChannels, {}};
        if (dstChannels == 2) return mixFrames(loop, blocks.dst, blocks.src, frameCount<Format>(blocks), call);
        return mixToWidth<Format>(loop, blocks, dstChannels, call);
      }
    }
    mixByFrame<Format>(blocks, dstChannels, [](const Byte* in) {
      int32_t samples[Mix::kChannels];
      for (int32_t c = 0; c < Mix::kChannels; ++c) samples[c] = Format::load(in + frameBytes<Format>(c));
      return Mix::mixFrame(samples);
    });
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
