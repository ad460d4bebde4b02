// SPDX-License-Identifier: Apache-2.0
// Stereo downmix. With g the mix gain and every output clamped to the sample range:
//
//   mix      layout of the frame            left                     right
//   Front3   FL FR and one of FC, LFE, BC   s0 + g(s2)               s1 + g(s2)
//   Quad     FL FR BL BR                    s0 + g(s2)               s1 + g(s3)
//   Mix5_1   FL FR FC LFE BL BR             s0 + g(t) + g(s4)        s1 + g(t) + g(s5),   t = s2 + g(s3), clamped
//   pairwise n channels                     (s0 + s2 + ...) / n      (s1 + s3 + ...) / n
#include <type_traits>

#include "channel/blocks.h"
#include "channel/mixing.h"
#include "kesaudio/channel_kernels.h"

using namespace kesaudio::channel;

namespace {

struct Stereo {
  int32_t left, right;
};

// One side of the mixes: of a frame, or of vectors of either side or of both.

template <class Pcm, class Value>
KESAUDIO_INLINE Value mixedSide(Value front, Value back) {
  return clampedSum<Pcm>(front, mixGain<Pcm>(back));
}

template <class Pcm, class Value, class GainedValue>
KESAUDIO_INLINE Value mixedSide(Value front, GainedValue gainedCentre, Value back) {
  return clampedSum<Pcm>(front, gainedCentre, mixGain<Pcm>(back));
}

// t, an intermediate sample: 16 bits wide among 16-bit samples, else 32, which 24-bit ones cannot leave.
template <class Pcm, class Value>
KESAUDIO_INLINE Value centre(Value front, Value lfe) {
  if constexpr (std::is_same_v<Pcm, P24>) return front + mixGain<Pcm>(lfe);
  return mixedSide<Pcm>(front, lfe);
}

// g(t) for both sides of a half of a step, from t of all its frames.
template <class Pcm, int kHalf>
KESAUDIO_INLINE Words gainedCentre(Words t) {
  return doubled<kHalf>(mixGain<Pcm>(t));
}
template <class Pcm, int kHalf>
KESAUDIO_INLINE Gained gainedCentre(Shorts t) {
  return mixGain<Pcm>(doubledInQuarters<kHalf>(t));
}

// From a vector of either side to both sides of each half of a step.
template <class Vector>
KESAUDIO_INLINE void interleave(const Vector (&sides)[2], Vector (&out)[2]) {
  rearrange<2>(sides, out, [](int e) { return e % 2 * kGroupElements<Vector> + e / 2; });
}

// The mixes of a frame s, and of a step, whose result is both sides of the first half of each group's frames and of
// the second.

struct Front3 {
  static constexpr int32_t kChannels = 3;
  template <class Pcm>
  static Stereo mixFrame(const int32_t* s) {
    return {mixedSide<Pcm>(s[0], s[2]), mixedSide<Pcm>(s[1], s[2])};
  }
  template <class Pcm, int32_t kSrc>
  KESAUDIO_INLINE static void mixStep(const Byte* in, Samples<Pcm> (&out)[2]) {
    if constexpr (kLoadsParts<kSrc> && kSrc == kChannels && !std::is_same_v<Pcm, P24>) {
      Samples<Pcm> s[kSrc];
      loadChannels<Pcm>(in, s);
      interleave({mixedSide<Pcm>(s[0], s[2]), mixedSide<Pcm>(s[1], s[2])}, out);
    } else {
      Samples<Pcm> stream[kSrc], third[2];
      loadStream<Pcm>(in, stream);
      rearrange<2>(stream, out, [](int e) { return e / 2 * kSrc + e % 2; });
      rearrange<2>(stream, third, [](int e) { return e / 2 * kSrc + 2; });
      for (int half = 0; half < 2; ++half) out[half] = mixedSide<Pcm>(out[half], third[half]);
    }
  }
};

struct Quad {
  static constexpr int32_t kChannels = 4;
  template <class Pcm>
  static Stereo mixFrame(const int32_t* s) {
    return {mixedSide<Pcm>(s[0], s[2]), mixedSide<Pcm>(s[1], s[3])};
  }
  template <class Pcm, int32_t kSrc>
  KESAUDIO_INLINE static void mixStep(const Byte* in, Samples<Pcm> (&out)[2]) {
    Samples<Pcm> pairs[kSrc / 2][2];
    loadPairs<Pcm, kSrc>(in, pairs);
    for (int half = 0; half < 2; ++half) out[half] = mixedSide<Pcm>(pairs[0][half], pairs[1][half]);
  }
};

struct Mix5_1 {
  static constexpr int32_t kChannels = 6;
  template <class Pcm>
  static Stereo mixFrame(const int32_t* s) {
    const int32_t gained = mixGain<Pcm>(centre<Pcm>(s[2], s[3]));
    return {mixedSide<Pcm>(s[0], gained, s[4]), mixedSide<Pcm>(s[1], gained, s[5])};
  }
  template <class Pcm, int32_t kSrc>
  KESAUDIO_INLINE static void mixStep(const Byte* in, Samples<Pcm> (&out)[2]) {
    Samples<Pcm> pairs[kSrc / 2][2], t;
    loadPairs<Pcm, kSrc>(in, pairs);
    if constexpr (std::is_same_v<Pcm, S16>)
      t = mixedPairs(pairs[1][0], pairs[1][1]);
    else
      t = centre<Pcm>(everySecond<0>(pairs[1][0], pairs[1][1]), everySecond<1>(pairs[1][0], pairs[1][1]));
    unrolled<2>([&](auto half) KESAUDIO_INLINED {
      out[half] = mixedSide<Pcm>(pairs[0][half], gainedCentre<Pcm, half>(t), pairs[2][half]);
    });
  }
};

struct Pairwise {
  template <class Pcm>
  static Stereo mixFrame(const Byte* in, int32_t channels) {
    typename Pcm::Sum left = 0, right = 0;
    for (int32_t c = 0; c < channels; c += 2) left = addWrapping(left, Pcm::load(in + frameBytes<Pcm>(c)));
    for (int32_t c = 1; c < channels; c += 2) right = addWrapping(right, Pcm::load(in + frameBytes<Pcm>(c)));
    return {clampTo<Pcm>(left / channels), clampTo<Pcm>(right / channels)};
  }
  template <class Pcm, int32_t kSrc>
  KESAUDIO_INLINE static void mixStep(const Byte* in, Samples<Pcm> (&out)[2]) {
    if constexpr (kSrc % 2 == 0) {
      Samples<Pcm> pairs[kSrc / 2][2];
      loadPairs<Pcm, kSrc>(in, pairs);
      unrolled<2>([&](auto half) KESAUDIO_INLINED {
        Samples<Pcm> both[kSrc / 2];
        unrolled<kSrc / 2>([&](auto p) KESAUDIO_INLINED { both[p] = pairs[p][half]; });
        out[half] = averagedLanes<Pcm, kSrc>(both);
      });
    } else {
      Samples<Pcm> channels[kSrc], left[kSrc / 2 + 1], right[kSrc / 2 + 1] = {};
      loadChannels<Pcm>(in, channels);
      unrolled<kSrc>([&](auto c) KESAUDIO_INLINED { (c % 2 == 0 ? left : right)[c / 2] = channels[c]; });
      interleave({averagedLanes<Pcm, kSrc>(left), averagedLanes<Pcm, kSrc>(right)}, out);
    }
  }
};

// The two blocks of a call.
struct Blocks {
  Byte* dst;
  int32_t dstChannels;
  const Byte* src;
  int32_t srcChannels;
  int32_t byteCount;
};

// A block of kSrc channels a frame.
template <class Mix, class Pcm, int32_t kSrc>
void mixSteps(const Blocks& blocks) {
  stepsForwards<kStepFrames<Pcm>, kSrc * Pcm::kBytes, 2 * Pcm::kBytes>(
      blocks.dst, 2 * Pcm::kBytes, blocks.src, frameCount<Pcm>(blocks.byteCount, kSrc),
      [](Byte* out, const Byte* in) KESAUDIO_INLINED {
        Samples<Pcm> stereo[2];
        Mix::template mixStep<Pcm, kSrc>(in, stereo);
        storeStream<Pcm>(out, stereo);
      });
}

// Runs mixFrame(input frame) -> Stereo over a block of any count, and writes dstChannels samples a frame, silent from
// the third on.
template <class Pcm, class MixFrame>
void mixFrames(const Blocks& blocks, int32_t dstChannels, MixFrame mixFrame) {
  if (dstChannels <= 0) return;
  forwards(blocks.dst, frameBytes<Pcm>(dstChannels), blocks.src, frameBytes<Pcm>(blocks.srcChannels),
           frameCount<Pcm>(blocks.byteCount, blocks.srcChannels), [=](Byte* out, const Byte* in) {
             const Stereo stereo = mixFrame(in);
             Pcm::store(out, stereo.left);
             if (dstChannels > 1) Pcm::store(out + frameBytes<Pcm>(1), stereo.right);
             for (int32_t c = 2; c < dstChannels; ++c) Pcm::store(out + frameBytes<Pcm>(c), 0);
           });
}

template <class Pcm>
void mixPairwise(const Blocks& blocks) {
  withChannels(blocks.srcChannels, [&](auto channels) {
    if constexpr (kIsConstant<decltype(channels)> && kHasLanes<Pcm>)
      mixSteps<Pairwise, Pcm, channels>(blocks);
    else
      mixFrames<Pcm>(blocks, 2, [=](const Byte* in) { return Pairwise::mixFrame<Pcm>(in, channels); });
  });
}

template <class Mix>
void mixLayout(const Blocks& blocks, PcmFormat format) {
  withPcm(format, [&](auto pcm) {
    using Pcm = decltype(pcm);
    if (blocks.srcChannels < Mix::kChannels) return mixPairwise<Pcm>(blocks);
    // Packed 24-bit frames are as wide as the caller says; the others are stereo whatever it says.
    const int32_t dstChannels = std::is_same_v<Pcm, P24> ? blocks.dstChannels : 2;
    withChannels(dstChannels == 2 ? blocks.srcChannels : 0, [&](auto channels) {
      if constexpr (kIsConstant<decltype(channels)> && kHasLanes<Pcm>) {
        if constexpr (channels >= Mix::kChannels) mixSteps<Mix, Pcm, channels>(blocks);
      } else {
        mixFrames<Pcm>(blocks, dstChannels, [](const Byte* in) {
          int32_t samples[Mix::kChannels];
          for (int32_t c = 0; c < Mix::kChannels; ++c) samples[c] = Pcm::load(in + frameBytes<Pcm>(c));
          return Mix::template mixFrame<Pcm>(samples);
        });
      }
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
    case KES_LAYOUT_STEREO_BACK: return mixLayout<Front3>(blocks, format);
    case KES_LAYOUT_QUAD: return mixLayout<Quad>(blocks, format);
    case KES_LAYOUT_5POINT1: return mixLayout<Mix5_1>(blocks, format);
    default: return withPcm(format, [&](auto pcm) { mixPairwise<decltype(pcm)>(blocks); });
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
