// SPDX-License-Identifier: Apache-2.0
// A step of the mixes to one channel: the totals of its frames, and what the mix makes of them.
#ifndef KESAUDIO_CHANNEL_MONO_H
#define KESAUDIO_CHANNEL_MONO_H

#include "channel/mix.h"

namespace kesaudio::channel {

// Mix is constructed from a MixCall, is a term for the loader's total, and has finish(first half's total, second's),
// which gives the frames' samples.
template <template <class Format, int kChannels> class Mix, class LoaderType>
struct MonoStep {
  using Loader = LoaderType;
  using Format = typename Loader::Format;
  static constexpr std::ptrdiff_t kOutBytes = frameBytes<Format>(1);
  static constexpr int kFrames = kStepFrames<Format>;
  const Loader loader;
  const Mix<Format, Loader::kChannels> mix;

  explicit MonoStep(const MixCall& call) : loader(call), mix(call) {}
  static constexpr std::ptrdiff_t readBytes(std::ptrdiff_t frameBytes) { return Loader::readBytes(frameBytes); }
  std::ptrdiff_t stride() const { return loader.stride(); }
  KESAUDIO_INLINE void operator()(Byte* dst, const Byte* src) const {
    const auto first = loader.total(src, mix);
    const auto second = loader.total(src + kFrames / 2 * stride(), mix);
    storeSamples<Format, true>(dst, mix.finish(first, second));
  }
};

}  // namespace kesaudio::channel

#endif
