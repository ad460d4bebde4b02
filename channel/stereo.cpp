// SPDX-License-Identifier: Apache-2.0
// Stereo downmix. With g the mix gain and every output clamped to the sample range:
//
//   mix      layout of the frame            left                     right
//   Front3   FL FR and one of FC, LFE, BC   s0 + g(s2)               s1 + g(s2)
//   Quad     FL FR BL BR                    s0 + g(s2)               s1 + g(s3)
//   Mix5_1   FL FR FC LFE BL BR             s0 + g(t) + g(s4)        s1 + g(t) + g(s5),   t = s2 + g(s3), clamped
//   pairwise n channels                     (s0 + s2 + ...) / n      (s1 + s3 + ...) / n
#include <type_traits>

#include "channel/fixed_point.h"
#include "channel/frames.h"
#include "kesaudio/channel_kernels.h"

using namespace kesaudio::channel;

namespace {

struct Stereo {
  int32_t left, right;
};

// Reads the sample of channel c of a frame.
template <class Pcm>
int32_t at(const Byte* in, int32_t c) {
  return Pcm::load(in + frameBytes<Pcm>(c));
}

struct Front3 {
  static constexpr int32_t kChannels = 3;
  template <class Pcm>
  static Stereo mix(const Byte* in) {
    const int64_t third = mixGain(at<Pcm>(in, 2));
    return {clampTo<Pcm>(at<Pcm>(in, 0) + third), clampTo<Pcm>(at<Pcm>(in, 1) + third)};
  }
};

struct Quad {
  static constexpr int32_t kChannels = 4;
  template <class Pcm>
  static Stereo mix(const Byte* in) {
    const int64_t backLeft = mixGain(at<Pcm>(in, 2)), backRight = mixGain(at<Pcm>(in, 3));
    return {clampTo<Pcm>(at<Pcm>(in, 0) + backLeft), clampTo<Pcm>(at<Pcm>(in, 1) + backRight)};
  }
};

struct Mix5_1 {
  static constexpr int32_t kChannels = 6;
  template <class Pcm>
  static Stereo mix(const Byte* in) {
    // The sum of centre and LFE is an intermediate sample: 16 bits wide among 16-bit samples, else 32.
    using Centre = std::conditional_t<std::is_same_v<Pcm, S16>, S16, S32>;
    const int32_t centre = clampTo<Centre>(int64_t{at<Pcm>(in, 2)} + mixGain(at<Pcm>(in, 3)));
    const int64_t front = mixGain(centre);
    return {clampTo<Pcm>(at<Pcm>(in, 0) + front + mixGain(at<Pcm>(in, 4))),
            clampTo<Pcm>(at<Pcm>(in, 1) + front + mixGain(at<Pcm>(in, 5)))};
  }
};

template <class Pcm, class Channels>
Stereo pairwiseAverage(const Byte* in, Channels channels) {
  typename Pcm::Sum left = 0, right = 0;
  for (int32_t c = 0; c < channels; c += 2) left = addWrapping(left, at<Pcm>(in, c));
  for (int32_t c = 1; c < channels; c += 2) right = addWrapping(right, at<Pcm>(in, c));
  return {clampTo<Pcm>(left / channels), clampTo<Pcm>(right / channels)};
}

// The two blocks of a call.
struct Blocks {
  Byte* dst;
  int32_t dstChannels;
  const Byte* src;
  int32_t srcChannels;
  int32_t byteCount;
};

// Runs mixFrame(input frame) -> Stereo over the block and writes dstChannels samples a frame, silent from the third
// on.
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
    mixFrames<Pcm>(blocks, dstChannels, [](const Byte* in) { return Mix::template mix<Pcm>(in); });
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
