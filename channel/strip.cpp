// SPDX-License-Identifier: Apache-2.0
// Strip downmix: out[j] = in[j] for j < dstChannels. Bytes are moved, never interpreted.
#include <cstring>

#include "channel/moves.h"
#include "kesaudio/channel_kernels.h"

using namespace kesaudio::channel;

namespace {

template <class Pcm, int32_t kSrc, int32_t kDst>
void stripSteps(Byte* dst, const Byte* src, int32_t frames) {
  stepsForwards<kMoveFrames<Pcm, kSrc, kDst>, kSrc * Pcm::kBytes, kDst * Pcm::kBytes>(
      dst, kDst * Pcm::kBytes, src, frames, [](Byte* out, const Byte* in) KESAUDIO_INLINED {
        moveChannels<Pcm, kSrc, kDst>(out, in, [](int c) { return c; });
      });
}

}  // namespace

void channel_DownMix_Strip(void* dst, int32_t dstChannels, const void* src, int32_t srcChannels, int32_t byteCount,
                           PcmFormat format) {
  if (dstChannels <= 0 || dstChannels > srcChannels) return;
  withPcm(format, [&](auto pcm) {
    using Pcm = decltype(pcm);
    const auto out = static_cast<Byte*>(dst);
    const auto in = static_cast<const Byte*>(src);
    const auto bytes = frameBytes<Pcm>(dstChannels);
    if (dstChannels == srcChannels) {
      const int32_t frames = frameCount<Pcm>(byteCount, srcChannels);
      if (frames > 0) std::memmove(out, in, static_cast<std::size_t>(frames * bytes));
      return;
    }
    withTwoCounts(srcChannels, dstChannels, [&](auto from, auto to) {
      const int32_t frames = frameCount<Pcm>(byteCount, from);
      if constexpr (kIsConstant<decltype(from)> && kHasLanes<Pcm>) {
        if constexpr (from > to) stripSteps<Pcm, from, to>(out, in, frames);
      } else {
        // memmove, since in place the two frames may overlap by any number of bytes.
        forwards(out, bytes, in, frameBytes<Pcm>(srcChannels), frames, [=](Byte* outFrame, const Byte* inFrame) {
          std::memmove(outFrame, inFrame, static_cast<std::size_t>(bytes));
        });
      }
    });
  });
}
