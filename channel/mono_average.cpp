// SPDX-License-Identifier: Apache-2.0
// Mono average: (s0 + s1 + ... ) / srcChannels, rounded towards zero: a division, since a shift would round down.
#include "channel/blocks.h"
#include "channel/mixing.h"
#include "kesaudio/channel_kernels.h"

using namespace kesaudio::channel;

namespace {

template <class Pcm>
int32_t averagedFrame(const Byte* in, int32_t channels) {
  typename Pcm::Sum sum = 0;
  for (int32_t c = 0; c < channels; ++c) sum = addWrapping(sum, Pcm::load(in + frameBytes<Pcm>(c)));
  return clampTo<Pcm>(sum / channels);
}

// The averages of a step's frames.
template <class Pcm, int32_t kChannels>
KESAUDIO_INLINE Samples<Pcm> averagedStep(const Byte* in) {
  if constexpr (kChannels % 2 == 0) {
    Samples<Pcm> pairs[kChannels / 2][2];
    loadPairs<Pcm, kChannels>(in, pairs);
    return averagedPairs<Pcm, kChannels>(pairs);
  } else {
    Samples<Pcm> channels[kChannels];
    loadChannels<Pcm>(in, channels);
    return averagedLanes<Pcm, kChannels>(channels);
  }
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
      if constexpr (kIsConstant<decltype(channels)> && kHasLanes<Pcm>)
        stepsForwards<kStepFrames<Pcm>, channels * Pcm::kBytes, Pcm::kBytes>(
            out, Pcm::kBytes, in, frames, [](Byte* outFrames, const Byte* inFrames) KESAUDIO_INLINED {
              const Samples<Pcm> averages[1] = {averagedStep<Pcm, decltype(channels)::value>(inFrames)};
              storeStream<Pcm>(outFrames, averages);
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
