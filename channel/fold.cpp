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

template <class Pcm, int32_t kChannels>
Words foldedLanes(const Byte* in) {
  Words sum = {};
  if constexpr (kHasPairs<Pcm, kChannels>) {
    Words pairs[kChannels / 2];
    loadPairs(in, pairs);
    for (const Words& pair : pairs) sum += sumOfPairs((Pairs)pair) + sumOfPairs(beyondOne((Pairs)pair));
    return clampedLanes<Pcm>(sum);
  }
  Words s[kChannels];
  loadChannels<Pcm>(in, s);
  unrolled<kChannels>([&](auto c) __attribute__((always_inline)) {
    if constexpr (std::is_same_v<Pcm, S32>)
      sum += scaledLanes(s[c]).by16 >> std::bit_width(static_cast<uint32_t>(kChannels) - 1);
    else
      sum += mixGain<Pcm>(s[c]);
  });
  return std::is_same_v<Pcm, S32> ? sum : clampedLanes<Pcm>(sum);
}

// Writes kLanes frames of so many channels, each with its frame's value.
template <class Pcm, int32_t kChannels>
void spread(Byte* dst, const Words& value) {
  const Words from[1] = {value};
  Words stream[kChannels];
  rearrange<kChannels>(from, stream, [](int e) { return e / kChannels; });
  storeStream<Pcm>(dst, stream);
}

template <class Pcm>
constexpr void (*kSpreads[])(Byte*, const Words&) = {  // from 2 channels on
    spread<Pcm, 2>, spread<Pcm, 3>, spread<Pcm, 4>, spread<Pcm, 5>, spread<Pcm, 6>, spread<Pcm, 7>, spread<Pcm, 8>};

template <class Pcm, int32_t kChannels>
void foldSteps(Byte* dst, int32_t dstChannels, const Byte* src, int32_t frames) {
  const auto steps = [=](auto store) {
    stepsForwards<kChannels * Pcm::kBytes, 8 * Pcm::kBytes>(
        dst, frameBytes<Pcm>(dstChannels), src, frames,
        [=](Byte* out, const Byte* in) { store(out, foldedLanes<Pcm, kChannels>(in)); });
  };
  if (dstChannels == 1)
    steps([](Byte * out, Words value) __attribute__((always_inline)) { storeLanes<Pcm>(out, value); });
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
