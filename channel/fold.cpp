// SPDX-License-Identifier: Apache-2.0
// Fold downmix: every output channel of a frame carries the same sum of all input channels.
//
//   S16, P24   clamp(g(s0) + g(s1) + ...)     g(x) = (x * 46346) >> 15
//   S32        k(s0) + k(s1) + ...            k(x) = (x * 46346) >> (16 + ceil(log2(srcChannels)))
//
// Each term is rounded on its own. The 32-bit sum is stored as it is, so its terms must leave room for one another:
// n channels <= 2^L with L = ceil(log2(n)), so |sum| <= 2^L * 2^31 * 46346 / 2^(16 + L) = 0.7072 * 2^31 for any n.
#include <bit>
#include <type_traits>

#include "channel/fixed_point.h"
#include "channel/frames.h"
#include "kesaudio/channel_kernels.h"

using namespace kesaudio::channel;

namespace {

template <class Pcm>
int termShift(int32_t srcChannels) {
  if constexpr (!std::is_same_v<Pcm, S32>) return kMixGainShift;
  return kMixGainShift + 1 + static_cast<int>(std::bit_width(static_cast<uint32_t>(srcChannels) - 1));
}

template <class Pcm, class Channels>
int32_t foldedFrame(const Byte* in, Channels channels, int shift) {
  typename Pcm::Sum sum = 0;
  for (int32_t c = 0; c < channels; ++c) sum = addWrapping(sum, scaled(Pcm::load(in + frameBytes<Pcm>(c)), shift));
  if constexpr (std::is_same_v<Pcm, S32>) return static_cast<int32_t>(sum);  // a clamp would change nothing
  return clampTo<Pcm>(sum);
}

}  // namespace

void channel_DownMix_Fold_Minus3dB(void* dst, int32_t dstChannels, const void* src, int32_t srcChannels,
                                   int32_t byteCount, PcmFormat format) {
  if (dstChannels <= 0) return;
  withPcm(format, [&](auto pcm) {
    using Pcm = decltype(pcm);
    withChannels(srcChannels, [&](auto channels) {
      const int shift = termShift<Pcm>(srcChannels);
      forwards(static_cast<Byte*>(dst), frameBytes<Pcm>(dstChannels), static_cast<const Byte*>(src),
               frameBytes<Pcm>(srcChannels), frameCount<Pcm>(byteCount, srcChannels), [=](Byte* out, const Byte* in) {
                 const int32_t value = foldedFrame<Pcm>(in, channels, shift);
                 for (int32_t c = 0; c < dstChannels; ++c) Pcm::store(out + frameBytes<Pcm>(c), value);
               });
    });
  });
}
