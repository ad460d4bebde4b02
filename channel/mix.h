// SPDX-License-Identifier: Apache-2.0
// Runs a mix over a block in steps of vectors. A step loads its frames before it stores any, and mixed frames are no
// longer than the input's, so a block can be mixed in place. What is left at its end, less than a step or too close
// to it for whole vectors, goes the same way through a copy: not a byte outside the frames is touched.
#ifndef KESAUDIO_CHANNEL_MIX_H
#define KESAUDIO_CHANNEL_MIX_H

#include "channel/pairs.h"

namespace kesaudio::channel {

// Whether samples of the format are mixed in vectors, in frames of up to kMaxMixChannels.
template <class Format>
inline constexpr bool kHasMixes = kHasByteShuffle || !std::is_same_v<Format, S24>;
inline constexpr std::int32_t kMaxMixChannels = 8;

// A mix's loop: converts whole steps of `frames` frames to frames of outBytes. It reads readBytes from the start of a
// step's last frame.
struct MixLoop {
  void (*run)(Byte* dst, const Byte* src, std::ptrdiff_t steps, const MixCall& call);
  std::int16_t frames, readBytes, outBytes;
};

// A step has kFrames, kOutBytes, the bytes it reads from the start of its last frame as readBytes, the bytes of an
// input frame as stride(), and converts by its operator.
template <class Step>
[[gnu::noinline]] void runSteps(Byte* dst, const Byte* src, std::ptrdiff_t steps, const MixCall& call) {
  const Step step(call);
  for (; steps > 0; --steps) {
    step(dst, src);
    dst += Step::kOutBytes * Step::kFrames;
    src += step.stride() * Step::kFrames;
  }
}

template <class Step>
MixLoop mixLoop(std::int32_t channels) {
  const std::ptrdiff_t readBytes = Step::readBytes(frameBytes<typename Step::Format>(channels));
  return {runSteps<Step>, Step::kFrames, static_cast<std::int16_t>(readBytes), Step::kOutBytes};
}

// The loop of a step over all channels of a frame, of 2 to 8.
template <template <class Loader> class Step, class Format>
MixLoop mixLoop(std::int32_t channels) {
  switch (channels) {
    case 2: return mixLoop<Step<AllPairs<Format, 2>>>(channels);
    case 3: return mixLoop<Step<AllPairs<Format, 3>>>(channels);
    case 4: return mixLoop<Step<AllPairs<Format, 4>>>(channels);
    case 5: return mixLoop<Step<AllPairs<Format, 5>>>(channels);
    case 6: return mixLoop<Step<AllPairs<Format, 6>>>(channels);
    case 7: return mixLoop<Step<AllPairs<Format, 7>>>(channels);
    default: return mixLoop<Step<AllPairs<Format, 8>>>(channels);
  }
}

// Mixes the frames of a block.
[[gnu::noinline]] inline void mixFrames(const MixLoop& loop, Byte* dst, const Byte* src, std::ptrdiff_t frames,
                                        const MixCall& call) {
  const std::ptrdiff_t in = call.frameBytes, out = loop.outBytes;
  // Less a step where the last one would reach beyond the block.
  std::ptrdiff_t steps = static_cast<std::uint32_t>(frames) / static_cast<std::uint32_t>(loop.frames);
  while (steps > 0 && (steps * loop.frames - 1) * in + loop.readBytes > frames * in) --steps;
  loop.run(dst, src, steps, call);

  const std::ptrdiff_t done = steps * loop.frames, rest = frames - done;
  if (rest == 0) return;
  // Twice a step at most, since less than a step's frames must follow the last one.
  constexpr std::ptrdiff_t kMaxFrames = 2 * kStepFrames<S16>;
  Byte from[kMaxFrames * kMaxMixChannels * 4 + 32], to[kMaxFrames * 2 * 4];
  const std::ptrdiff_t restSteps = rest > loop.frames ? 2 : 1, missing = restSteps * loop.frames - rest;
  std::memcpy(from, src + done * in, static_cast<std::size_t>(rest * in));
  if (missing > 0) std::memset(from + rest * in, 0, static_cast<std::size_t>(missing * in));
  std::memset(from + restSteps * loop.frames * in, 0, 32);
  loop.run(to, from, restSteps, call);
  std::memcpy(dst + done * out, to, static_cast<std::size_t>(rest * out));
}

}  // namespace kesaudio::channel

#endif
