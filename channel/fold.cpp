// SPDX-License-Identifier: Apache-2.0
// Fold downmix: every output channel of a frame carries the same sum of all input channels.
//
//   S16, S24   clamp(g(s0) + g(s1) + ...)     g(x) = (x * 46346) >> 15
//   S32        k(s0) + k(s1) + ...            k(x) = (x * 46346) >> (16 + ceil(log2(srcChannels)))
//
// Each term is rounded on its own. The 32-bit sum is stored as it is, so its terms must leave room for one another:
// n channels <= 2^L with L = ceil(log2(n)), so |sum| <= 2^L * 2^31 * 46346 / 2^(16 + L) = 0.7072 * 2^31 for any n.
#include "channel/mix.h"
#include "kesaudio/channel_kernels.h"

using namespace kesaudio;
using namespace kesaudio::channel;

namespace {

// Shift of a term beyond the gain's 15 bits.
template <class Format>
int extraShift(int32_t srcChannels) {
  if constexpr (!std::is_same_v<Format, S32>) return 0;
  return 1 + static_cast<int>(std::bit_width(static_cast<uint32_t>(srcChannels) - 1));
}

// For mono frames and those of more than kMaxMixChannels.
template <class Format>
int32_t foldFrame(const Byte* in, int32_t channels, int shift) {
  typename Format::Sum sum = 0;
  for (int32_t c = 0; c < channels; ++c)
    sum = addWrapping(sum, scale(Format::load(in + frameBytes<Format>(c)), shift));
  if constexpr (std::is_same_v<Format, S32>) return static_cast<int32_t>(sum);  // a clamp would change nothing
  return clamp<Format>(sum);
}

template <class Format>
struct Fold {
  static constexpr int kOut = 1;
  const int shift;
  explicit Fold(const MixCall& call) : shift(extraShift<Format>(call.channels)) {}

  template <int kPairs>
  KESAUDIO_INLINE void operator()(const Samples<Format> (&pairs)[2][kPairs], Samples<Format> (&mixed)[1]) const {
    I32x first = term(pairs[0][0]), second = term(pairs[1][0]);
    for (int i = 1; i < kPairs; ++i) first = add(first, pairs[0][i]), second = add(second, pairs[1][i]);
    if constexpr (std::is_same_v<Format, S16>)
      mixed[0] = undoBlockOrder(saturateNarrow(first, second));
    else
      mixed[0] = undoBlockOrder(clamp<Format>(addAdjacent(first, second)));
  }

  // The sum of both terms of each pair of 16-bit samples.
  KESAUDIO_INLINE I32x term(I16x x) const { return addPairs(addPairs(x), scaleQ15(x, kFractionQ15)); }
  KESAUDIO_INLINE I32x add(I32x sum, I16x x) const { return addPairs(addPairs(sum, x), scaleQ15(x, kFractionQ15)); }
  KESAUDIO_INLINE I32x term(I32x x) const {
    return std::is_same_v<Format, S32> ? scaleAndShift(x, kMixGainQ15, shift) : gain<S24>(x);
  }
  KESAUDIO_INLINE I32x add(I32x sum, I32x x) const { return sum + term(x); }
};

template <class Format>
struct Steps {
  template <class Loader>
  using Step = PairsStep<Format, Fold<Format>, Loader>;
};

void repeatChannel(Byte* dst, std::ptrdiff_t out, const Byte* src, std::ptrdiff_t in, std::ptrdiff_t frames) {
  expandFrames(dst, out, src, in, frames, Fill::kRepeat);
}

}  // namespace

void channel_DownMix_Fold_Minus3dB(void* dst, int32_t dstChannels, const void* src, int32_t srcChannels,
                                   int32_t byteCount, PcmFormat format) {
  if (dstChannels <= 0) return;
  const Blocks blocks{static_cast<Byte*>(dst), dstChannels, static_cast<const Byte*>(src), srcChannels, byteCount};
  withFormat(format, [&](auto formatTag) {
    using Format = decltype(formatTag);
    const std::ptrdiff_t in = frameBytes<Format>(srcChannels), out = frameBytes<Format>(dstChannels);
    const std::ptrdiff_t frames = frameCount<Format>(blocks);
    if (srcChannels >= 2 && srcChannels <= kMaxMixChannels)
      return mixBlock(loopForChannels<Format, Steps<Format>>(srcChannels), {srcChannels, {}}, blocks.dst, out,
                      blocks.src, in, frames, repeatChannel);
    const int shift = kMixGainShift + extraShift<Format>(srcChannels);
    forEachFrame(blocks.dst, out, blocks.src, in, frames, [=](Byte* outFrame, const Byte* inFrame) {
      const int32_t value = foldFrame<Format>(inFrame, srcChannels, shift);
      for (int32_t c = 0; c < dstChannels; ++c) Format::store(outFrame + frameBytes<Format>(c), value);
    });
  });
}
