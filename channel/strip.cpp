// SPDX-License-Identifier: Apache-2.0
// Strip downmix: out[j] = in[j] for j < dstChannels. Bytes are moved, never interpreted.
#include <cstring>

#include "channel/frames.h"
#include "kesaudio/channel_kernels.h"

using namespace kesaudio::channel;

void channel_DownMix_Strip(void* dst, int32_t dstChannels, const void* src, int32_t srcChannels, int32_t byteCount,
                           PcmFormat format) {
  if (dstChannels <= 0 || dstChannels > srcChannels) return;
  withPcm(format, [&](auto pcm) {
    using Pcm = decltype(pcm);
    withChannels(dstChannels, [&](auto channels) {
      // memmove, since in place the two frames may overlap by any number of bytes.
      const auto bytes = static_cast<std::size_t>(frameBytes<Pcm>(channels));
      forwards(static_cast<Byte*>(dst), frameBytes<Pcm>(channels), static_cast<const Byte*>(src),
               frameBytes<Pcm>(srcChannels), frameCount<Pcm>(byteCount, srcChannels),
               [=](Byte* out, const Byte* in) { std::memmove(out, in, bytes); });
    });
  });
}
