// SPDX-License-Identifier: Apache-2.0
// Mono average: (s0 + s1 + ... ) / srcChannels, rounded towards zero: a division, since a shift would round down.
#include "channel/fixed_point.h"
#include "channel/frames.h"
#include "kesaudio/channel_kernels.h"

using namespace kesaudio::channel;

namespace {

template <class Pcm, class Channels>
int32_t averagedFrame(const Byte* in, Channels channels) {
  typename Pcm::Sum sum = 0;
  for (int32_t c = 0; c < channels; ++c) sum = addWrapping(sum, Pcm::load(in + frameBytes<Pcm>(c)));
  return clampTo<Pcm>(sum / channels);
}

}  // namespace

void channel_DownMix_Fold_Mono_Average(void* dst, int32_t /*dstChannels*/, const void* src, int32_t srcChannels,
                                       int32_t byteCount, PcmFormat format) {
  withPcm(format, [&](auto pcm) {
    using Pcm = decltype(pcm);
    withChannels(srcChannels, [&](auto channels) {
      forwards(static_cast<Byte*>(dst), frameBytes<Pcm>(1), static_cast<const Byte*>(src),
               frameBytes<Pcm>(srcChannels), frameCount<Pcm>(byteCount, srcChannels),
               [=](Byte* out, const Byte* in) { Pcm::store(out, averagedFrame<Pcm>(in, channels)); });
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
