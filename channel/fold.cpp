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

#include "channel/blocks.h"
#include "channel/mixing.h"
#include "kesaudio/channel_kernels.h"

using namespace kesaudio::channel;

namespace {

template <class Pcm>
int termShift(int32_t srcChannels) {
  if constexpr (!std::is_same_v<Pcm, S32>) return kMixGainShift;
  return kMixGainShift + 1 + static_cast<int>(std::bit_width(static_cast<uint32_t>(srcChannels) - 1));
}

template <class Pcm>
int32_t foldedFrame(const Byte* in, int32_t channels, int shift) {
  typename Pcm::Sum sum = 0;
  for (int32_t c = 0; c < channels; ++c) sum = addWrapping(sum, scaled(Pcm::load(in + frameBytes<Pcm>(c)), shift));
  if constexpr (std::is_same_v<Pcm, S32>) return static_cast<int32_t>(sum);  // a clamp would change nothing
  return clampTo<Pcm>(sum);
}

// A term of the sum of 24- or 32-bit samples, on its way.
template <class Pcm, int32_t kChannels>
KESAUDIO_INLINE Words foldTerm(Words x) {
  if constexpr (std::is_same_v<Pcm, S32>)
    return scaledBy16(x) >> std::bit_width(static_cast<uint32_t>(kChannels) - 1);
  return mixGain<Pcm>(x);
}

// The values of a step's frames.
template <class Pcm, int32_t kChannels>
KESAUDIO_INLINE Samples<Pcm> foldedStep(const Byte* in) {
  Words sum[2] = {};
  if constexpr (kChannels % 2 == 0) {
    Samples<Pcm> pairs[kChannels / 2][2];
    loadPairs<Pcm, kChannels>(in, pairs);
    unrolled<kChannels>([&](auto at) KESAUDIO_INLINED {
      const Samples<Pcm> x = pairs[at / 2][at % 2];
      if constexpr (std::is_same_v<Pcm, S16>)
        sum[at % 2] += sumOfPairs(x) + sumOfPairs(beyondOne(x));
      else
        sum[at % 2] += foldTerm<Pcm, kChannels>(x);
    });
    if constexpr (std::is_same_v<Pcm, S16>) return inOrder(narrowed(sum));
    sum[0] = everySecond<0>(sum[0], sum[1]) + everySecond<1>(sum[0], sum[1]);
  } else {
    Samples<Pcm> channels[kChannels];
    loadChannels<Pcm>(in, channels);
    for (const Samples<Pcm>& x : channels)
      if constexpr (std::is_same_v<Pcm, S16>)
        addWide(x, beyondOne(x), sum);
      else
        sum[0] += foldTerm<Pcm, kChannels>(x);
    if constexpr (std::is_same_v<Pcm, S16>) return narrowed(sum);
  }
  return (Samples<Pcm>)(std::is_same_v<Pcm, P24> ? clampedLanes<Pcm>(sum[0]) : sum[0]);
}

// Writes a step of frames of so many channels, each with its frame's value.
template <class Pcm, int32_t kChannels>
void spread(Byte* dst, const Samples<Pcm>& value) {
  const Samples<Pcm> from[1] = {value};
  Samples<Pcm> stream[kChannels];
  rearrange<kChannels>(from, stream, [](int e) { return e / kChannels; });
  storeStream<Pcm>(dst, stream);
}

template <class Pcm>
constexpr void (*kSpreads[])(Byte*, const Samples<Pcm>&) = {  // from 2 channels on
    spread<Pcm, 2>, spread<Pcm, 3>, spread<Pcm, 4>, spread<Pcm, 5>, spread<Pcm, 6>, spread<Pcm, 7>, spread<Pcm, 8>};

template <class Pcm, int32_t kChannels>
void foldSteps(Byte* dst, int32_t dstChannels, const Byte* src, int32_t frames) {
  const auto steps = [=](auto store) {
    stepsForwards<kStepFrames<Pcm>, kChannels * Pcm::kBytes, 8 * Pcm::kBytes>(
        dst, frameBytes<Pcm>(dstChannels), src, frames,
        [=](Byte* out, const Byte* in) KESAUDIO_INLINED { store(out, foldedStep<Pcm, kChannels>(in)); });
  };
  if (dstChannels == 1)
    steps([](Byte* out, const Samples<Pcm>& value) KESAUDIO_INLINED { spread<Pcm, 1>(out, value); });
  else
    steps(kSpreads<Pcm>[dstChannels - 2]);
}

}  // namespace

void channel_DownMix_Fold_Minus3dB(void* dst, int32_t dstChannels, const void* src, int32_t srcChannels,
                                   int32_t byteCount, PcmFormat format) {
  if (dstChannels <= 0) return;
  withPcm(format, [&](auto pcm) {
    using Pcm = decltype(pcm);
    withChannels(srcChannels, [&](auto channels) {
      const int32_t frames = frameCount<Pcm>(byteCount, srcChannels);
      const auto out = static_cast<Byte*>(dst);
      const auto in = static_cast<const Byte*>(src);
      if constexpr (kIsConstant<decltype(channels)> && kHasLanes<Pcm>) {
        if (dstChannels <= 8) return foldSteps<Pcm, channels>(out, dstChannels, in, frames);
      }
      const int shift = termShift<Pcm>(srcChannels);
      forwards(out, frameBytes<Pcm>(dstChannels), in, frameBytes<Pcm>(channels), frames,
               [=](Byte* outFrame, const Byte* inFrame) {
                 const int32_t value = foldedFrame<Pcm>(inFrame, channels, shift);
                 for (int32_t c = 0; c < dstChannels; ++c) Pcm::store(outFrame + frameBytes<Pcm>(c), value);
               });
    });
  });
}
