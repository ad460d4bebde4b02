// SPDX-License-Identifier: Apache-2.0
// Walking a block in steps of whole vectors: how a step's samples come out of memory and go back.
//
// A step loads all of its frames before it stores any, so a block can be converted in place in the same direction as
// frame by frame. What is left over is one more step, over frames that were converted already or, where those have
// been written over, on a copy: not a byte outside the frames is touched.
//
// The samples of a step are taken as streams: each group of lanes has frames that follow one another, and vector v of
// a stream holds what comes v-th in each group. Two channels of a frame, left and right, make a pair.
#ifndef KESAUDIO_CHANNEL_BLOCKS_H
#define KESAUDIO_CHANNEL_BLOCKS_H

#include "channel/frames.h"
#include "channel/machine.h"

namespace kesaudio::channel {

// Before x86-64-v2 single bytes can't be moved, nor can 32 bits be multiplied to 64.
#if defined(__x86_64__) && !defined(__SSE4_1__)
inline constexpr bool kMovesBytes = false;
#else
inline constexpr bool kMovesBytes = true;
#endif

// KESAUDIO_PLAIN leaves the loops over single samples, to compare with.
#if defined(KESAUDIO_PLAIN)
inline constexpr bool kIsPlain = true;
#else
inline constexpr bool kIsPlain = false;
#endif

// Whether the machine has what the steps of a format are made of.
template <class Pcm>
inline constexpr bool kHasLanes = !kIsPlain && (kMovesBytes || !std::is_same_v<Pcm, P24>);

// What samples are mixed in: 16-bit ones as they are, the others a sample in 32 bits.
template <class Pcm>
using Samples = std::conditional_t<std::is_same_v<Pcm, S16>, Shorts, Words>;

// The frames of a step: so many that a channel's samples are a vector.
template <class Pcm>
inline constexpr int kStepFrames = kElements<Samples<Pcm>>;

// ---- packed 24-bit samples: in a quarter 12 bytes of memory are 16

// Vector v of kCount of a stream: where quarter q has its bytes in the step, and where its group ends.
template <int kCount>
constexpr int packedAt(int v, int q) {
  constexpr int kEach = kQuarters / kGroups;
  return (q / kEach * kCount * kEach + v * kEach + q % kEach) * 12;
}
template <int kCount>
constexpr int packedEnd(int q) {
  constexpr int kEach = kQuarters / kGroups;
  return (q / kEach + 1) * kCount * kEach * 12;
}

// From quarters of which Before()(q) bytes are not theirs, to the three high bytes of each lane; then the fourth is
// shifted out.
template <class Before>
KESAUDIO_INLINE Words unpacked(Words quarters, Before) {
  return movedBytes(
             quarters,
             [](int i) { return i / 16 * 16 + Before()(i / 16) + 3 * (i % 16 / 4) + std::max(i % 4 - 1, 0); }) >>
         8;
}

template <int kCount, int v>
KESAUDIO_INLINE Words loadPacked(const Byte* src) {
  constexpr int kBytes = 12 * kQuarters * kCount;
  if constexpr (kLanes == 16 && kCount > 1) {
    // In one load, from where it ends inside the step.
    constexpr int kAt = std::min(48 * v, kBytes - 64), kFirst = (48 * v - kAt) / 4;
    const auto words = loadVector<Words>(src + kAt);
    return unpacked(shuffled(words, words, [](int l) { return std::min(kFirst + l / 4 * 3 + l % 4, 15); }),
                    [](int) { return 0; });
  } else {
    // In 16 bytes a quarter, which end inside the step, too; a step may be shorter than that.
    static constexpr auto kAt = [](int q) { return std::max(0, std::min(packedAt<kCount>(v, q), kBytes - 16)); };
    Quarter quarters[kQuarters] = {};
    unrolled<kQuarters>([&](auto q)
                            KESAUDIO_INLINED { std::memcpy(&quarters[q], src + kAt(q), std::min(16, kBytes)); });
    return unpacked(joined(quarters), [](int q) { return packedAt<kCount>(v, q) - kAt(q); });
  }
}

// The lanes hold values in the sample range.
template <int kCount, int v>
KESAUDIO_INLINE void storePacked(Byte* dst, Words x) {
  const Words packed =
      movedBytes(x, [](int i) { return i / 16 * 16 + (i % 16 < 12 ? i % 16 / 3 * 4 + i % 16 % 3 : 3); });
#if defined(__AVX512BW__)
  const Words words = shuffled(packed, packed, [](int l) { return std::min(l / 3 * 4 + l % 3, 15); });
  _mm512_mask_storeu_epi32(dst + 48 * v, 0xFFF, (__m512i)words);
#else
  unrolled<kQuarters>([&](auto q) KESAUDIO_INLINED {
    constexpr int kAt = packedAt<kCount>(v, q);
    const Quarter quarter = __builtin_shufflevector((Longs)packed, (Longs)packed, 2 * q, 2 * q + 1);
    std::memcpy(dst + kAt, &quarter, kAt + 16 <= packedEnd<kCount>(q) ? 16 : 12);
  });
#endif
}

// ---- streams

// Vector v of kCount; 16-bit samples are loaded and stored two in a lane, as they are.
template <class Pcm, int kCount, int v>
KESAUDIO_INLINE Samples<Pcm> loadStream(const Byte* src) {
  if constexpr (std::is_same_v<Pcm, P24>)
    return loadPacked<kCount, v>(src);
  else
    return (Samples<Pcm>)loadGroups<kCount * kGroupBytes>(src + v * kGroupBytes);
}

template <class Pcm, int kCount>
KESAUDIO_INLINE void loadStream(const Byte* src, Samples<Pcm> (&stream)[kCount]) {
  unrolled<kCount>([&](auto v) KESAUDIO_INLINED { stream[v] = loadStream<Pcm, kCount, v>(src); });
}

template <class Pcm, int kCount>
KESAUDIO_INLINE void storeStream(Byte* dst, const Samples<Pcm> (&stream)[kCount]) {
  unrolled<kCount>([&](auto v) KESAUDIO_INLINED {
    if constexpr (std::is_same_v<Pcm, P24>)
      storePacked<kCount, v>(dst, stream[v]);
    else
      storeGroups<kCount * kGroupBytes>(dst + v * kGroupBytes, (Words)stream[v]);
  });
}

// A vector for each channel.
template <class Pcm, int kChannels>
KESAUDIO_INLINE void loadChannels(const Byte* src, Samples<Pcm> (&channels)[kChannels]) {
  if constexpr (kLoadsParts<kChannels> && !std::is_same_v<Pcm, P24>) return loadParts(src, channels);
  Samples<Pcm> stream[kChannels];
  loadStream<Pcm>(src, stream);
  deinterleave<kChannels>(stream, channels);
}

#if defined(__AVX512BW__)
// Of packed 24-bit samples the dwords that hold a pair are moved as they lie in memory, before they are unpacked. The
// pairs of half a step's frames come from windows of 64 bytes, each of as many whole pairs as it can hold, and the
// last one ends with the step.
template <int kChannels, int kPair, int kHalf>
struct PairWindows {
  static constexpr int kFrameBytes = 3 * kChannels, kFrames = 8, kEach = (64 - 6) / kFrameBytes + 1;
  static constexpr int kCount = (kFrames + kEach - 1) / kEach;
  static constexpr int pairAt(int frame) { return (kHalf * kFrames + frame) * kFrameBytes + 6 * kPair; }
  static constexpr int windowAt(int w) { return std::min(pairAt(w * kEach), 2 * kFrames * kFrameBytes - 64); }
  // Where a frame's pair is, in bytes counted through all windows.
  static constexpr int placeOf(int frame) { return frame / kEach * 64 + pairAt(frame) - windowAt(frame / kEach); }
};

template <int kChannels>
KESAUDIO_INLINE void loadPackedPairs(const Byte* src, Words (&pairs)[kChannels / 2][2]) {
  unrolled<kChannels>([&](auto at) KESAUDIO_INLINED {
    using From = PairWindows<kChannels, at / 2, at % 2>;
    Words windows[From::kCount], words[1];
    unrolled<From::kCount>([&](auto w) KESAUDIO_INLINED { windows[w] = loadVector<Words>(src + From::windowAt(w)); });
    rearrange<1>(windows, words, [](int l) { return From::placeOf(l / 2) / 4 + l % 2; });
    pairs[at / 2][at % 2] =
        movedBytes(
            words[0],
            [](int i) { return i / 8 * 8 + From::placeOf(i / 8) % 4 + i % 8 / 4 * 3 + std::max(i % 4 - 1, 0); }) >>
        8;
  });
}
#endif

// Two vectors for each pair of channels, the first half of each group's frames and the second; of an odd count
// without the last channel.
template <class Pcm, int kChannels>
KESAUDIO_INLINE void loadPairs(const Byte* src, Samples<Pcm> (&pairs)[kChannels / 2][2]) {
  constexpr int kPairs = kChannels / 2;
  Samples<Pcm> stream[kChannels];
#if defined(__AVX512BW__)
  if constexpr (std::is_same_v<Pcm, P24> && kChannels % 2 == 0) return loadPackedPairs<kChannels>(src, pairs);
#endif
  loadStream<Pcm>(src, stream);
  if constexpr (kChannels % 2 == 0) {
    using Element = std::conditional_t<std::is_same_v<Pcm, S16>, Words, Longs>;
    unrolled<2>([&](auto half) KESAUDIO_INLINED {
      Element elements[kPairs], parts[kPairs];
      unrolled<kPairs>([&](auto p) KESAUDIO_INLINED { elements[p] = (Element)stream[half * kPairs + p]; });
      if constexpr (kLoadsParts<kPairs> && !std::is_same_v<Pcm, P24>)
        loadParts(src + half * kPairs * kVectorBytes, parts);
      else
        deinterleave<kPairs>(elements, parts);
      unrolled<kPairs>([&](auto p) KESAUDIO_INLINED { pairs[p][half] = (Samples<Pcm>)parts[p]; });
    });
  } else {
    unrolled<kPairs>([&](auto p) KESAUDIO_INLINED {
      rearrange<2>(stream, pairs[p], [](int e) { return e / 2 * kChannels + 2 * decltype(p)::value + e % 2; });
    });
  }
}

// ---- steps

// Not inline: where the size is bounded, compilers put loops in the place of the C library's copy.
[[gnu::noinline]] inline void copyBytes(Byte* dst, const Byte* src, std::ptrdiff_t bytes) {
  std::memcpy(dst, src, static_cast<std::size_t>(bytes));
}

// Whether writing the first block leaves the second one as it is.
inline bool areApart(const Byte* written, std::ptrdiff_t writtenBytes, const Byte* read, std::ptrdiff_t readBytes) {
  const auto a = reinterpret_cast<std::uintptr_t>(written), b = reinterpret_cast<std::uintptr_t>(read);
  return a + static_cast<std::uintptr_t>(writtenBytes) <= b || b + static_cast<std::uintptr_t>(readBytes) <= a;
}

// Frames of a block.
struct Range {
  std::ptrdiff_t first, count;
};

// The rest of a block, less than a step, when the others are done. One more step goes over some of those again, from
// frame `again` on, unless what it reads has been written over; then it runs on a copy.
template <int kFrames, int kSrcBytes, int kMaxDstBytes, class Step>
KESAUDIO_INLINE void restStep(Byte* dst, std::ptrdiff_t dstBytes, const Byte* src, Range rest, Range done,
                              std::ptrdiff_t again, Step step) {
  Byte in[kSrcBytes * kFrames], out[kMaxDstBytes * kFrames];
  const bool isCopied = done.count == 0 || !areApart(dst + done.first * dstBytes, done.count * dstBytes,
                                                     src + again * kSrcBytes, kFrames * kSrcBytes);
  if (isCopied) {
    std::memset(in, 0, sizeof in);
    copyBytes(in, src + rest.first * kSrcBytes, rest.count * kSrcBytes);
  }
  step(isCopied ? out : dst + again * dstBytes, isCopied ? in : src + again * kSrcBytes);
  if (isCopied) copyBytes(dst + rest.first * dstBytes, out, rest.count * dstBytes);
}

// Runs step(dst, src), which converts kFrames frames, over the block from its start to its end; dstBytes of a frame,
// kMaxDstBytes at most.
template <int kFrames, int kSrcBytes, int kMaxDstBytes, class Step>
KESAUDIO_INLINE void stepsForwards(Byte* dst, std::ptrdiff_t dstBytes, const Byte* src, std::int32_t frames,
                                   Step step) {
  std::ptrdiff_t at = 0;
  for (; at + kFrames <= frames; at += kFrames) step(dst + at * dstBytes, src + at * kSrcBytes);
  if (at < frames)
    restStep<kFrames, kSrcBytes, kMaxDstBytes>(dst, dstBytes, src, {at, frames - at}, {0, at}, frames - kFrames,
                                               step);
}

// The same from its end to its start.
template <int kFrames, int kSrcBytes, int kMaxDstBytes, class Step>
KESAUDIO_INLINE void stepsBackwards(Byte* dst, std::ptrdiff_t dstBytes, const Byte* src, std::int32_t frames,
                                    Step step) {
  std::ptrdiff_t at = frames;
  for (; at >= kFrames; at -= kFrames) step(dst + (at - kFrames) * dstBytes, src + (at - kFrames) * kSrcBytes);
  if (at > 0) restStep<kFrames, kSrcBytes, kMaxDstBytes>(dst, dstBytes, src, {0, at}, {at, frames - at}, 0, step);
}

}  // namespace kesaudio::channel

#endif
