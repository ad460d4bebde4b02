// SPDX-License-Identifier: Apache-2.0
// Runs a mix over a block: a loop of steps of vectors, each of which loads its frames before it stores any, so that a
// block can be mixed in place.
#ifndef KESAUDIO_CHANNEL_MIX_H
#define KESAUDIO_CHANNEL_MIX_H

#include "channel/moves.h"
#include "channel/samples.h"

namespace kesaudio::channel {

// ---- loops

inline constexpr std::int32_t kMaxMixChannels = 8;

struct MixCall {
  std::int32_t channels;  // of the input
  Divisor divisor;
};

// Converts whole steps of `frames` frames of in bytes to frames of out bytes.
struct MixLoop {
  void (*run)(Byte* dst, const Byte* src, std::ptrdiff_t steps, const MixCall& call);
  std::ptrdiff_t frames, in, out;
};

// Step's operator converts kFrames frames of inBytes() bytes to frames of kOut samples of Step::Format. A turn of the
// loop makes kTogether steps: unrolling speeds up short ones.
template <class Step>
[[gnu::noinline]] void runSteps(Byte* dst, const Byte* src, std::ptrdiff_t steps, const MixCall& call) {
  const Step step(call);
  const auto out = frameBytes<typename Step::Format>(Step::kOut) * Step::kFrames, in = step.inBytes() * Step::kFrames;
  for (; steps >= Step::kTogether;
       steps -= Step::kTogether, dst += Step::kTogether * out, src += Step::kTogether * in)
    unrolled<Step::kTogether>([&](auto i) KESAUDIO_INLINED { step(dst + i * out, src + i * in); });
  if constexpr (Step::kTogether > 1)
    for (; steps > 0; --steps, dst += out, src += in) step(dst, src);
}
template <class Step>
MixLoop loopOf(std::int32_t channels) {
  return {runSteps<Step>, Step::kFrames, Step::inBytes(channels), frameBytes<typename Step::Format>(Step::kOut)};
}

// A step of a mix of pairs of channels. Its frames are loaded as two halves, each of as many frames as a vector holds
// pairs. With AVX2 the first block of a vector has the first frames of the half, the second block the rest. Mix is
// constructed from a MixCall; its operator mixes the pairs of both halves into kOut vectors of samples.
template <class FormatType, class Mix, class Loader>
struct PairsStep {
  using Format = FormatType;
  static constexpr int kOut = Mix::kOut, kFrames = kStepFrames<Format>, kTogether = 1;
  const Loader loader;
  const Mix mix;
  explicit PairsStep(const MixCall& call) : loader(call.channels), mix(call) {}
  static constexpr std::ptrdiff_t inBytes(std::int32_t channels) { return Loader::inBytes(channels); }
  std::ptrdiff_t inBytes() const { return loader.inBytes(); }

  KESAUDIO_INLINE void operator()(Byte* dst, const Byte* src) const {
    Samples<Format> pairs[2][Loader::kPairs], mixed[kOut];
    loader.template load<0>(src, pairs[0]);
    loader.template load<1>(src + kFrames / 2 * inBytes(), pairs[1]);
    mix(pairs, mixed);
    unrolled<kOut>([&](auto i) KESAUDIO_INLINED {
      storeSamples<Format, i == kOut - 1>(dst + i * (kFrames / kOut * frameBytes<Format>(kOut)), mixed[i]);
    });
  }
};

// The loop of Steps::Step<Loader> for frames of 2 to 8 channels.
template <class Format, class Steps>
MixLoop loopForChannels(std::int32_t channels) {
  switch (channels) {
    case 2: return loopOf<typename Steps::template Step<PairsLoader<Format, 1>>>(channels);
    case 6: return loopOf<typename Steps::template Step<PairsLoader<Format, 3>>>(channels);
    case 8: return loopOf<typename Steps::template Step<PairsLoader<Format, 4>>>(channels);
    case 4:
      if constexpr (!std::is_same_v<Format, S24>)
        return loopOf<typename Steps::template Step<PairsLoader<Format, 2>>>(channels);
      [[fallthrough]];
    case 3: return loopOf<typename Steps::template Step<RowsLoader<Format, 1>>>(channels);
    default:
      return loopOf<typename Steps::template Step<RowsLoader<Format, std::is_same_v<Format, S16> ? 1 : 2>>>(channels);
  }
}

// ---- blocks

// Mixes whole steps, then the tail through a copy: no byte outside the frames is touched.
[[gnu::noinline]] inline void mixFrames(const MixLoop& loop, const MixCall& call, Byte* dst, const Byte* src,
                                        std::ptrdiff_t frames) {
  const std::ptrdiff_t steps = static_cast<std::uint32_t>(frames) / static_cast<std::uint32_t>(loop.frames);
  loop.run(dst, src, steps, call);
  const std::ptrdiff_t done = steps * loop.frames, rest = frames - done;
  if (rest == 0) return;
  // The longest step has eight channels: as many bytes in 16 bits as in 32, fewer in 24.
  Byte from[kStepFrames<S16> * frameBytes<S16>(kMaxMixChannels)] = {}, to[sizeof from];
  std::memcpy(from, src + done * loop.in, static_cast<std::size_t>(rest * loop.in));
  loop.run(to, from, 1, call);
  std::memcpy(dst + done * loop.out, to, static_cast<std::size_t>(rest * loop.out));
}

// Makes frames of out bytes from frames of in bytes.
using ResizeFrames = void (*)(Byte* dst, std::ptrdiff_t out, const Byte* src, std::ptrdiff_t in,
                              std::ptrdiff_t frames);

// Mixes frames of in bytes to frames of out bytes. Frames of other sizes than the loop's go through chunks on the
// stack: surplus input channels are dropped, and resize makes the output frames.
[[gnu::noinline]] inline void mixBlock(const MixLoop& loop, const MixCall& call, Byte* dst, std::ptrdiff_t out,
                                       const Byte* src, std::ptrdiff_t in, std::ptrdiff_t frames,
                                       ResizeFrames resize = nullptr) {
  if (in == loop.in && out == loop.out) return mixFrames(loop, call, dst, src, frames);
  constexpr std::ptrdiff_t kChunkFrames = 128;
  Byte from[kChunkFrames * kMaxMixChannels * 4], to[kChunkFrames * 2 * 4];
  for (; frames > 0; frames -= kChunkFrames) {
    const std::ptrdiff_t count = frames < kChunkFrames ? frames : kChunkFrames;
    if (in != loop.in) stripFrames(from, loop.in, src, in, count);
    mixFrames(loop, call, out == loop.out ? dst : to, in == loop.in ? src : from, count);
    if (out != loop.out) resize(dst, out, to, loop.out, count);
    dst += count * out, src += count * in;
  }
}

}  // namespace kesaudio::channel

#endif
