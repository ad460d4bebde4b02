// SPDX-License-Identifier: Apache-2.0
// Mono average: (s0 + s1 + ... ) / srcChannels, rounded towards zero: a division, since a shift would round down.
#include "channel/blocks.h"
#include "kesaudio/channel_kernels.h"

using namespace kesaudio::channel;

namespace {

template <class Pcm>
int32_t averagedFrame(const Byte* in, int32_t channels) {
  typename Pcm::Sum sum = 0;
  for (int32_t c = 0; c < channels; ++c) sum = addWrapping(sum, Pcm::load(in + frameBytes<Pcm>(c)));
  return clampTo<Pcm>(sum / channels);
}

template <class Pcm, int32_t kChannels>
Words averagedFrames(const Byte* in) {
  if constexpr (kHasPairs<Pcm, kChannels>) {
    Words pairs[kChannels / 2], sum = {};
    loadPairs(in, pairs);
    for (const Words& pair : pairs) sum += sumOfPairs((Pairs)pair);
    return quotient<Pcm, kChannels>(sum);
  }
  Words s[kChannels];
  loadChannels<Pcm>(in, s);
  return averagedLanes<Pcm, kChannels>(s);
}

}  // namespace

void channel_DownMix_Fold_Mono_Average(void* dst, int32_t /*dstChannels*/, const void* src, int32_t srcChannels,
                                       int32_t byteCount, PcmFormat format) {
  withPcm(format, [&](auto pcm) {
    using Pcm = decltype(pcm);
    withChannels(srcChannels, [&](auto channels) {
      const int32_t frames = frameCount<Pcm>(byteCount, srcChannels);
      const auto out = static_cast<Byte*>(dst);
      const auto in = static_cast<const Byte*>(src);
      if constexpr (kIsConstant<decltype(channels)> && kMixesInLanes<Pcm>)
        stepsForwards<channels * Pcm::kBytes, Pcm::kBytes>(
            out, Pcm::kBytes, in, frames, [](Byte* outFrames, const Byte* inFrames) {
              storeLanes<Pcm>(outFrames, averagedFrames<Pcm, decltype(channels)::value>(inFrames));
            });
      else
        forwards(out, frameBytes<Pcm>(1), in, frameBytes<Pcm>(channels), frames,
                 [=](Byte* outFrame, const Byte* inFrame) {
                   Pcm::store(outFrame, averagedFrame<Pcm>(inFrame, channels));
                 });
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
