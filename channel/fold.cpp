// SPDX-License-Identifier: Apache-2.0
// Fold downmix: every output channel of a frame carries the same sum of all input channels.
//
//   S16, S24   clamp(g(s0) + g(s1) + ...)     g(x) = (x * 46346) >> 15
//   S32        k(s0) + k(s1) + ...            k(x) = (x * 46346) >> (16 + ceil(log2(srcChannels)))
//
// Each term is rounded on its own. The 32-bit sum is stored as it is, so its terms must leave room for one another:
// n channels <= 2^L with L = ceil(log2(n)), so |sum| <= 2^L * 2^31 * 46346 / 2^(16 + L) = 0.7072 * 2^31 for any n.
#include "channel/mono.h"
#include "channel/moves.h"
#include "kesaudio/channel_kernels.h"

using namespace kesaudio;
using namespace kesaudio::channel;

namespace {

// What a term is shifted by beyond the gain's own 15 bits.
template <class Format>
int extraShift(int32_t srcChannels) {
  if constexpr (!std::is_same_v<Format, S32>) return 0;
  return 1 + static_cast<int>(std::bit_width(static_cast<uint32_t>(srcChannels) - 1));
}

template <class Format>
int32_t foldFrame(const Byte* in, int32_t channels, int shift) {
  typename Format::Sum sum = 0;
  for (int32_t c = 0; c < channels; ++c)
    sum = addWrapping(sum, scale(Format::load(in + frameBytes<Format>(c)), shift));
  if constexpr (std::is_same_v<Format, S32>) return static_cast<int32_t>(sum);  // a clamp would change nothing
  return clamp<Format>(sum);
}

template <class Format, int kChannels>
struct Fold;

template <int kChannels>
struct Fold<S16, kChannels> {
  explicit Fold(const MixCall&) {}
  KESAUDIO_INLINE I32x operator()(I16x x) const { return addPairs(addPairs(x), scaleQ15(x, kFractionQ15)); }
  KESAUDIO_INLINE I32x operator()(I32x sum, I16x x) const {
    return addPairs(addPairs(sum, x), scaleQ15(x, kFractionQ15));
  }
  KESAUDIO_INLINE I16x finish(I32x first, I32x second) const { return inOrder(saturateNarrow(first, second)); }
};

template <int kChannels>
struct Fold<S24, kChannels> {
  explicit Fold(const MixCall&) {}
  KESAUDIO_INLINE I32x operator()(I32x x) const { return gain<S24>(x); }
  KESAUDIO_INLINE I32x operator()(I32x sum, I32x x) const { return sum + gain<S24>(x); }
  KESAUDIO_INLINE I32x finish(I32x first, I32x second) const {
    return inOrder(clamp<S24>(addNeighbours(first, second)));
  }
};

template <int kChannels>
struct Fold<S32, kChannels> {
  const int shift;
  explicit Fold(const MixCall& call) : shift(extraShift<S32>(call.channels)) {}
  KESAUDIO_INLINE I32x operator()(I32x x) const { return scaleAndShift(x, kMixGainQ15, shift); }
  KESAUDIO_INLINE I32x operator()(I32x sum, I32x x) const { return sum + scaleAndShift(x, kMixGainQ15, shift); }
  KESAUDIO_INLINE I32x finish(I32x first, I32x second) const { return inOrder(addNeighbours(first, second)); }
};

template <class Loader>
using FoldStep = MonoStep<Fold, Loader>;

// To frames of several channels by way of a chunk of one.
template <class Format>
void foldChunks(const Blocks& blocks) {
  constexpr std::ptrdiff_t kChunkFrames = 256;
  const MixLoop loop = mixLoop<FoldStep, Format>(blocks.srcChannels);
  const MixCall call{frameBytes<Format>(blocks.srcChannels), blocks.srcChannels, {}};
  const std::ptrdiff_t out = frameBytes<Format>(blocks.dstChannels);
  std::ptrdiff_t frames = frameCount<Format>(blocks);
  if (blocks.dstChannels == 1) return mixFrames(loop, blocks.dst, blocks.src, frames, call);
  Byte chunk[kChunkFrames * Format::kBytes];
  const Byte* src = blocks.src;
  for (Byte* dst = blocks.dst; frames > 0; frames -= kChunkFrames) {
    const std::ptrdiff_t count = frames < kChunkFrames ? frames : kChunkFrames;
    mixFrames(loop, chunk, src, count, call);
    expandFrames(dst, out, chunk, Format::kBytes, count, Fill::kRepeat);
    dst += count * out, src += count * call.frameBytes;
  }
}

}  // namespace

void channel_DownMix_Fold_Minus3dB(void* dst, int32_t dstChannels, const void* src, int32_t srcChannels,
                                   int32_t byteCount, PcmFormat format) {
  if (dstChannels <= 0) return;
  const Blocks blocks{static_cast<Byte*>(dst), dstChannels, static_cast<const Byte*>(src), srcChannels, byteCount};
  withFormat(format, [&](auto formatTag) {
    using Format = decltype(formatTag);
    if constexpr (kHasMixes<Format>) {
      if (srcChannels >= 2 && srcChannels <= kMaxMixChannels) return foldChunks<Format>(blocks);
    }
    const int shift = kMixGainShift + extraShift<Format>(srcChannels);
    forEachFrame(blocks.dst, frameBytes<Format>(dstChannels), blocks.src, frameBytes<Format>(srcChannels),
                 frameCount<Format>(blocks), [=](Byte* outFrame, const Byte* inFrame) {
                   const int32_t value = foldFrame<Format>(inFrame, srcChannels, shift);
                   for (int32_t c = 0; c < dstChannels; ++c) Format::store(outFrame + frameBytes<Format>(c), value);
                 });
  });
}
