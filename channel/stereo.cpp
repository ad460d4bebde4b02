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
#include "kesaudio/channel_kernels.h"

using namespace kesaudio::channel;

namespace {

// A frame of results, or a vector of each side's.
template <class Value>
struct Stereo {
  Value left, right;
};

// The mixes of a frame s, or of vectors of its channels.

struct Front3 {
  static constexpr int32_t kChannels = 3;
  template <class Pcm, class Value>
  static Stereo<Value> mix(const Value* s) {
    const Value third = mixGain<Pcm>(s[2]);
    return {clampedSum<Pcm>(s[0], third), clampedSum<Pcm>(s[1], third)};
  }
};

struct Quad {
  static constexpr int32_t kChannels = 4;
  template <class Pcm, class Value>
  static Stereo<Value> mix(const Value* s) {
    return {clampedSum<Pcm>(s[0], mixGain<Pcm>(s[2])), clampedSum<Pcm>(s[1], mixGain<Pcm>(s[3]))};
  }
  // Of pairs, left and right at once. What is added to the front has one sign, so limiting twice is limiting once.
  static Pairs mixPairs(Pairs front, Pairs back) { return addSaturated(addSaturated(front, back), beyondOne(back)); }
};

struct Mix5_1 {
  static constexpr int32_t kChannels = 6;
  template <class Pcm, class Value>
  static Stereo<Value> mix(const Value* s) {
    const Value front = mixGain<Pcm>(centre<Pcm>(s[2], mixGain<Pcm>(s[3])));
    return {clampedSum<Pcm>(s[0], front, mixGain<Pcm>(s[4])), clampedSum<Pcm>(s[1], front, mixGain<Pcm>(s[5]))};
  }
  // An intermediate sample: 16 bits wide among 16-bit samples, else 32, which 24-bit ones cannot leave.
  template <class Pcm, class Value>
  static Value centre(Value front, Value lfe) {
    if constexpr (std::is_same_v<Pcm, P24>) return front + lfe;
    return clampedSum<Pcm>(front, lfe);
  }
};

template <class Pcm>
Stereo<int32_t> pairwiseAverage(const Byte* in, int32_t channels) {
  typename Pcm::Sum left = 0, right = 0;
  for (int32_t c = 0; c < channels; c += 2) left = addWrapping(left, Pcm::load(in + frameBytes<Pcm>(c)));
  for (int32_t c = 1; c < channels; c += 2) right = addWrapping(right, Pcm::load(in + frameBytes<Pcm>(c)));
  return {clampTo<Pcm>(left / channels), clampTo<Pcm>(right / channels)};
}

template <class Pcm, int32_t kChannels>
Stereo<Words> pairwiseAverage(const Words (&s)[kChannels]) {
  constexpr int32_t kLeft = (kChannels + 1) / 2, kRight = kChannels / 2;
  Words left[kLeft], right[kRight + 1] = {};
  unrolled<kChannels>([&](auto c) __attribute__((always_inline)) { (c % 2 == 0 ? left : right)[c / 2] = s[c]; });
  return {averagedLanes<Pcm, kChannels>(left), averagedLanes<Pcm, kChannels>(right)};
}

// The two blocks of a call.
struct Blocks {
  Byte* dst;
  int32_t dstChannels;
  const Byte* src;
  int32_t srcChannels;
  int32_t byteCount;
};

// Runs mixLanes(channels) -> Stereo over a block of kChannels a frame.
template <class Pcm, int32_t kChannels, class MixLanes>
void mixSteps(const Blocks& blocks, MixLanes mixLanes) {
  stepsForwards<kChannels * Pcm::kBytes, 2 * Pcm::kBytes>(blocks.dst, 2 * Pcm::kBytes, blocks.src,
                                                          frameCount<Pcm>(blocks.byteCount, kChannels),
                                                          [=](Byte* out, const Byte* in) {
                                                            Words channels[kChannels];
                                                            loadChannels<Pcm>(in, channels);
                                                            const Stereo<Words> stereo = mixLanes(channels);
                                                            storeStereo<Pcm>(out, stereo.left, stereo.right);
                                                          });
}

template <int32_t kChannels>
void mixPairSteps(const Blocks& blocks) {
  stepsForwards<kChannels * S16::kBytes, 2 * S16::kBytes>(
      blocks.dst, 2 * S16::kBytes, blocks.src, frameCount<S16>(blocks.byteCount, kChannels),
      [](Byte* out, const Byte* in) {
        Words pairs[kChannels / 2];
        loadPairs(in, pairs);
        storeLanes<S32>(out, (Words)Quad::mixPairs((Pairs)pairs[0], (Pairs)pairs[1]));
      });
}

// Runs mixFrame(input frame) -> Stereo over a block of any count, and writes dstChannels samples a frame, silent from
// the third on.
template <class Pcm, class MixFrame>
void mixFrames(const Blocks& blocks, int32_t dstChannels, MixFrame mixFrame) {
  if (dstChannels <= 0) return;
  forwards(blocks.dst, frameBytes<Pcm>(dstChannels), blocks.src, frameBytes<Pcm>(blocks.srcChannels),
           frameCount<Pcm>(blocks.byteCount, blocks.srcChannels), [=](Byte* out, const Byte* in) {
             const Stereo<int32_t> stereo = mixFrame(in);
             Pcm::store(out, stereo.left);
             if (dstChannels > 1) Pcm::store(out + frameBytes<Pcm>(1), stereo.right);
             for (int32_t c = 2; c < dstChannels; ++c) Pcm::store(out + frameBytes<Pcm>(c), 0);
           });
}

template <class Pcm>
void mixPairwise(const Blocks& blocks) {
  withChannels(blocks.srcChannels, [&](auto channels) {
    if constexpr (kIsConstant<decltype(channels)> && kMixesInLanes<Pcm>)
      mixSteps<Pcm, channels>(blocks, [](const auto& lanes) { return pairwiseAverage<Pcm>(lanes); });
    else
      mixFrames<Pcm>(blocks, 2, [=](const Byte* in) { return pairwiseAverage<Pcm>(in, channels); });
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
      if constexpr (kIsConstant<decltype(channels)> && kMixesInLanes<Pcm>) {
        if constexpr (std::is_same_v<Mix, Quad> && kHasPairs<Pcm, channels> && channels >= Mix::kChannels)
          mixPairSteps<channels>(blocks);
        else if constexpr (channels >= Mix::kChannels)
          mixSteps<Pcm, channels>(blocks, [](const auto& lanes) { return Mix::template mix<Pcm, Words>(lanes); });
      } else {
        mixFrames<Pcm>(blocks, dstChannels, [](const Byte* in) {
          int32_t samples[Mix::kChannels];
          for (int32_t c = 0; c < Mix::kChannels; ++c) samples[c] = Pcm::load(in + frameBytes<Pcm>(c));
          return Mix::template mix<Pcm, int32_t>(samples);
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
