// SPDX-License-Identifier: Apache-2.0
// Runs a mix over a block: a loop of steps of vectors, each of which loads its frames before it stores any, so that a
// block can be mixed in place.
#ifndef KESAUDIO_CHANNEL_MIX_H
#define KESAUDIO_CHANNEL_MIX_H

#include "base/packed24.h"
#include "channel/frames.h"
#include "channel/gain.h"
#include "channel/moves.h"

namespace kesaudio::channel {

// ---- samples in memory

template <class Format>
inline constexpr int kStepFrames = (std::is_same_v<Format, S16> ? 8 : 4) * kBlocks;

struct MixCall {
  std::int32_t channels;  // of the input
  Divisor divisor;
};

// Loads half a step's frames of 2 * kPairs channels, pairs[p] being channels 2p and 2p + 1 of each, left and right in
// turn.
template <class Format, int kPairs>
struct PairsLoader {
  explicit PairsLoader(const MixCall&) {}
  static constexpr std::ptrdiff_t inBytes(std::int32_t = 0) { return frameBytes<Format>(2 * kPairs); }  // in any call

  template <int kHalf>
  KESAUDIO_INLINE void load(const Byte* p, Samples<Format> (&pairs)[kPairs]) const {
    std::conditional_t<std::is_same_v<Format, S16>, I32x, I64x> elements[kPairs];
    loadElements(p, elements);
    for (int i = 0; i < kPairs; ++i) pairs[i] = (Samples<Format>)elements[i];
  }
};

// Packed samples are loaded in rows of four. First-half rows read past their end, second-half rows before their
// start, so neither leaves the step. With two pairs a row is a frame, which may also have three channels, the fourth
// then being silent, or more than four.
template <int kPairs>
struct PairsLoader<S24, kPairs> {
  const std::ptrdiff_t rowBytes;
  const PackedLoader first, second;

  explicit PairsLoader(const MixCall& call)
      : rowBytes(kPairs == 2 ? inBytes(call.channels) : 12),
        first(0, kPairs == 2 ? call.channels : 4),
        second(rowBytes < 16 ? 16 - static_cast<int>(rowBytes) : 0, first.count) {}
  static constexpr std::ptrdiff_t inBytes(std::int32_t channels) {
    return frameBytes<S24>(kPairs == 2 ? channels : 2 * kPairs);
  }
  std::ptrdiff_t inBytes() const { return kPairs == 2 ? rowBytes : inBytes(0); }

  template <int kHalf>
  KESAUDIO_INLINE void load(const Byte* p, I32x (&pairs)[kPairs]) const {
    const PackedLoader& loader = kHalf == 0 ? first : second;
    I64x rows[kPairs], elements[kPairs];
    for (int i = 0; i < kPairs; ++i) rows[i] = (I64x)loader.loadHigh(p + i * rowBytes - loader.at, kPairs * rowBytes);
    deinterleave(rows, elements);
    for (int i = 0; i < kPairs; ++i) pairs[i] = (I32x)elements[i] >> 8;
  }
};

// A packed vector writes up to 4 bytes beyond its samples, which the step's next vector overwrites; the last one
// writes none.
template <class Format, bool kIsLast>
KESAUDIO_INLINE void storeSamples(Byte* p, Samples<Format> x) {
  if constexpr (!std::is_same_v<Format, S24>)
    store(p, x);
  else if constexpr (kIsLast)
    storePacked24Exactly(p, x);
  else
    storePacked24(p, x);
}

// ---- loops

inline constexpr std::int32_t kMaxMixChannels = 8;

// Converts whole steps of `frames` frames of in bytes to frames of out bytes.
struct MixLoop {
  void (*run)(Byte* dst, const Byte* src, std::ptrdiff_t steps, const MixCall& call);
  std::ptrdiff_t frames, in, out;
};

// Step's operator converts kFrames frames of inBytes() bytes to frames of kOut samples of Step::Format.
template <class Step>
[[gnu::noinline]] void runSteps(Byte* dst, const Byte* src, std::ptrdiff_t steps, const MixCall& call) {
  const Step step(call);
  for (; steps > 0; --steps) {
    step(dst, src);
    dst += frameBytes<typename Step::Format>(Step::kOut) * Step::kFrames;
    src += step.inBytes() * Step::kFrames;
  }
}
template <class Step>
MixLoop loopOf(std::int32_t channels) {
  return {runSteps<Step>, Step::kFrames, Step::inBytes(channels), frameBytes<typename Step::Format>(Step::kOut)};
}

// A step of a mix of pairs: two halves, each a vector's worth of pairs of channels. With AVX2 a half's first block
// has its first frames, the second block the rest. Mix is constructed from a MixCall; its operator mixes the pairs of
// both halves into kOut vectors of samples.
template <class FormatType, class Mix, int kPairs>
struct PairsStep {
  using Format = FormatType;
  static constexpr int kOut = Mix::kOut, kFrames = kStepFrames<Format>;
  const PairsLoader<Format, kPairs> loader;
  const Mix mix;
  explicit PairsStep(const MixCall& call) : loader(call), mix(call) {}
  static constexpr std::ptrdiff_t inBytes(std::int32_t channels) {
    return PairsLoader<Format, kPairs>::inBytes(channels);
  }
  std::ptrdiff_t inBytes() const { return loader.inBytes(); }

  KESAUDIO_INLINE void operator()(Byte* dst, const Byte* src) const {
    Samples<Format> pairs[2][kPairs], mixed[kOut];
    loader.template load<0>(src, pairs[0]);
    loader.template load<1>(src + kFrames / 2 * inBytes(), pairs[1]);
    mix(pairs, mixed);
    unrolled<kOut>([&](auto i) KESAUDIO_INLINED {
      storeSamples<Format, i == kOut - 1>(dst + i * (kFrames / kOut * frameBytes<Format>(kOut)), mixed[i]);
    });
  }
};

// The loop of Steps::Step<kPairs>, for frames of 2 to 8 channels; an odd count is padded with a silent channel.
template <class Steps>
MixLoop loopForChannels(std::int32_t channels) {
  switch ((channels + 1) / 2) {
    case 1: return loopOf<typename Steps::template Step<1>>(channels);
    case 2: return loopOf<typename Steps::template Step<2>>(channels);
    case 3: return loopOf<typename Steps::template Step<3>>(channels);
    default: return loopOf<typename Steps::template Step<4>>(channels);
  }
}

// ---- blocks

// Whole steps, then the rest by way of a copy: not a byte outside the frames is touched.
[[gnu::noinline]] inline void mixFrames(const MixLoop& loop, const MixCall& call, Byte* dst, const Byte* src,
                                        std::ptrdiff_t frames) {
  const std::ptrdiff_t steps = static_cast<std::uint32_t>(frames) / static_cast<std::uint32_t>(loop.frames);
  loop.run(dst, src, steps, call);
  const std::ptrdiff_t done = steps * loop.frames, rest = frames - done;
  if (rest == 0) return;
  // The longest step is one of eight channels, in any format.
  Byte from[kStepFrames<S16> * frameBytes<S16>(kMaxMixChannels)] = {}, to[sizeof from];
  std::memcpy(from, src + done * loop.in, static_cast<std::size_t>(rest * loop.in));
  loop.run(to, from, 1, call);
  std::memcpy(dst + done * loop.out, to, static_cast<std::size_t>(rest * loop.out));
}

// Mixes frames of in bytes to frames of out bytes. Those of other sizes than the loop's go through chunks: missing
// input channels are silent, surplus ones dropped; fill says what further output channels are.
inline void mixBlock(const MixLoop& loop, const MixCall& call, Byte* dst, std::ptrdiff_t out, const Byte* src,
                     std::ptrdiff_t in, std::ptrdiff_t frames, Fill fill = Fill::kSilence) {
  if (in == loop.in && out == loop.out) return mixFrames(loop, call, dst, src, frames);
  constexpr std::ptrdiff_t kChunkFrames = 128;
  Byte from[kChunkFrames * kMaxMixChannels * 4], to[kChunkFrames * 2 * 4];
  for (; frames > 0; frames -= kChunkFrames) {
    const std::ptrdiff_t count = frames < kChunkFrames ? frames : kChunkFrames;
    if (in != loop.in) resizeFrames(from, loop.in, src, in, count, Fill::kSilence);
    mixFrames(loop, call, out == loop.out ? dst : to, in == loop.in ? src : from, count);
    if (out != loop.out) resizeFrames(dst, out, to, loop.out, count, fill);
    dst += count * out, src += count * in;
  }
}

}  // namespace kesaudio::channel

#endif
