// SPDX-License-Identifier: Apache-2.0
// Walking a block kLanes frames at a time, with vectors of samples.
//
// A step loads all of its frames before it stores any, so a block can be converted in place in the same direction as
// frame by frame. What is left over is one more step on a copy: not a byte outside the frames is touched.
#ifndef KESAUDIO_CHANNEL_BLOCKS_H
#define KESAUDIO_CHANNEL_BLOCKS_H

#include "channel/frames.h"
#include "channel/lanes.h"

namespace kesaudio::channel {

// Whether the machine has what the steps of a format are made of: x86-64 only from SSSE3 on can move single bytes.
// KESAUDIO_PLAIN leaves the loops over single samples, to compare with.
template <class Pcm>
#if defined(KESAUDIO_PLAIN)
inline constexpr bool kHasLanes = false;
#elif defined(__x86_64__) && !defined(__SSSE3__)
inline constexpr bool kHasLanes = !std::is_same_v<Pcm, P24>;
#else
inline constexpr bool kHasLanes = true;
#endif

// Whether steps are the faster way to mix and average a format: not for 32-bit samples on 64-bit Arm, whose wide
// products and sums compilers make better use of in plain loops.
#if defined(__aarch64__)
template <class Pcm>
inline constexpr bool kMixesInLanes = kHasLanes<Pcm> && !std::is_same_v<Pcm, S32>;
#else
template <class Pcm>
inline constexpr bool kMixesInLanes = kHasLanes<Pcm>;
#endif

// The samples of kChannels, kLanes frames of them, in stream order.
template <class Pcm, int kChannels, int kRoom>
[[gnu::always_inline]] inline void loadStream(const Byte* src, Words (&stream)[kRoom]) {
  unrolled<kChannels>([&](auto v) __attribute__((always_inline)) {
    const Byte* const from = src + v * kLanes * Pcm::kBytes;
    if constexpr (!std::is_same_v<Pcm, P24> || kChannels == 1 || kLanes == 4)
      stream[v] = loadLanes<Pcm>(from);
    else if constexpr (v < kChannels - 1)
      stream[v] = loadPacked<0>(from);
    else
      stream[v] = loadPacked<kLanes>(from - kLanes);  // ends where the samples end
  });
}

template <class Pcm, int kChannels>
[[gnu::always_inline]] inline void storeStream(Byte* dst, const Words (&stream)[kChannels]) {
  unrolled<kChannels>([&](auto v) __attribute__((always_inline)) {
    Byte* const to = dst + v * kLanes * Pcm::kBytes;
    if constexpr (std::is_same_v<Pcm, P24> && v < kChannels - 1 && kLanes > 4)
      storePacked(to, stream[v]);  // the next one is stored over what is behind it
    else
      storeLanes<Pcm>(to, stream[v]);
  });
}

// Whether a frame is made of pairs of 16-bit samples, which are moved as one element.
template <class Pcm, int kChannels>
inline constexpr bool kHasPairs = std::is_same_v<Pcm, S16>&& kChannels % 2 == 0;

template <int kPairs>
[[gnu::always_inline]] inline void loadPairs(const Byte* src, Words (&pairs)[kPairs]) {
  Words stream[kPairs];
  loadStream<S32, kPairs>(src, stream);
  deinterleave<kPairs>(stream, pairs);
}

// A vector for each channel.
template <class Pcm, int kChannels>
[[gnu::always_inline]] inline void loadChannels(const Byte* src, Words (&channels)[kChannels]) {
  if constexpr (kHasPairs<Pcm, kChannels>) {
    constexpr int kPairs = kChannels / 2;
    Words pairs[kPairs];
    loadPairs(src, pairs);
    unrolled<kPairs>([&](auto p) __attribute__((always_inline)) {
      channels[2 * p] = (Words)((UnsignedWords)pairs[p] << 16) >> 16;
      channels[2 * p + 1] = pairs[p] >> 16;
    });
  } else {
    Words stream[kChannels];
    loadStream<Pcm, kChannels>(src, stream);
    deinterleave<kChannels>(stream, channels);
  }
}

template <class Pcm>
[[gnu::always_inline]] inline void storeStereo(Byte* dst, Words left, Words right) {
  if constexpr (std::is_same_v<Pcm, S16>) {
    const Words pairs = (left & 0xFFFF) | (Words)((UnsignedWords)right << 16);
    storeLanes<S32>(dst, pairs);
  } else {
    const Words channels[2] = {left, right};
    Words stream[2];
    rearrange<2>(channels, stream, [](int e) { return e % 2 * kLanes + e / 2; });
    storeStream<Pcm>(dst, stream);
  }
}

// Runs step(dst, src), which converts kLanes frames, on a copy of fewer.
template <int kSrcBytes, int kMaxDstBytes, class Step>
void restStep(Byte* dst, std::ptrdiff_t dstBytes, const Byte* src, std::ptrdiff_t frames, Step step) {
  Byte in[kSrcBytes * kLanes], out[kMaxDstBytes * kLanes];
  const auto inBytes = static_cast<std::size_t>(frames * kSrcBytes);
  std::memcpy(in, src, inBytes);
  std::memset(in + inBytes, 0, sizeof in - inBytes);
  step(out, in);
  std::memcpy(dst, out, static_cast<std::size_t>(frames * dstBytes));
}

// Runs step(dst, src) over the block from its start to its end; dstBytes of a frame, kMaxDstBytes at most.
template <int kSrcBytes, int kMaxDstBytes, class Step>
void stepsForwards(Byte* dst, std::ptrdiff_t dstBytes, const Byte* src, std::int32_t frames, Step step) {
  for (; frames >= kLanes; frames -= kLanes, dst += kLanes * dstBytes, src += kLanes * kSrcBytes) step(dst, src);
  if (frames > 0) restStep<kSrcBytes, kMaxDstBytes>(dst, dstBytes, src, frames, step);
}

// The same from its end to its start.
template <int kSrcBytes, int kMaxDstBytes, class Step>
void stepsBackwards(Byte* dst, std::ptrdiff_t dstBytes, const Byte* src, std::int32_t frames, Step step) {
  std::ptrdiff_t at = frames / kLanes * kLanes;
  if (at < frames)
    restStep<kSrcBytes, kMaxDstBytes>(dst + at * dstBytes, dstBytes, src + at * kSrcBytes, frames - at, step);
  while ((at -= kLanes) >= 0) step(dst + at * dstBytes, src + at * kSrcBytes);
}

// ---- moves of channels

// kLanes frames of kSrc channels to as many of kDst: channel c of the output is channel Map()(c) of the input, or
// silent where that is kSrc. Pairs of 16-bit samples are moved as one element when they stay together.
template <class Pcm, int kSrc, int kDst, class Map>
[[gnu::always_inline]] inline void moveChannels(Byte* dst, const Byte* src, Map) {
  constexpr bool kPairs = std::is_same_v<Pcm, S16> && kSrc % 2 == 0 && kDst % 2 == 0;
  using Element = std::conditional_t<kPairs, S32, Pcm>;
  constexpr int kIn = kPairs ? kSrc / 2 : kSrc, kOut = kPairs ? kDst / 2 : kDst, kScale = kPairs ? 2 : 1;
  Words in[kIn + 1], out[kOut];  // with a vector of silence behind
  loadStream<Element, kIn>(src, in);
  in[kIn] = Words{};
  rearrange<kOut>(in, out, [](int e) {
    const int from = Map()(e % kOut * kScale) / kScale;
    return from == kIn ? kIn * kLanes : e / kOut * kIn + from;
  });
  storeStream<Element>(dst, out);
}

}  // namespace kesaudio::channel

#endif
