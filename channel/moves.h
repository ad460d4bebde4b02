// SPDX-License-Identifier: Apache-2.0
// Moves of channels: steps in which every byte of the output is a byte of the input, or silence.
//
// Each vector of the output is put together from windows of the input: vectors that may begin at any byte. With
// AVX-512 elements are taken from a whole window; elsewhere each quarter of the output has windows of its own, a
// quarter long, and single bytes are taken from them.
#ifndef KESAUDIO_CHANNEL_MOVES_H
#define KESAUDIO_CHANNEL_MOVES_H

#include <numeric>

#include "channel/blocks.h"

namespace kesaudio::channel {

// Two quarters are put together at once where that is one store.
inline constexpr int kMoveBytes = kLanes == 4 ? 16 : 32;
typedef Byte MoveBytes __attribute__((vector_size(kMoveBytes)));

// For a vector of which byte i is byte from[i] of the step's kBytes, or silence where that is negative: windows of
// kWindow bytes, w-th of each run of as many bytes of the vector at at[w][run]; byte i is in window ofByte[i] of its
// run.
template <int kSize, int kWindow, int kBytes>
struct Windows {
  static constexpr int kMax = 16, kRuns = kSize / kWindow;
  int from[kSize] = {}, count = 1, at[kMax][kRuns] = {}, ofByte[kSize] = {};

  // A window begins at the first byte that is not in one yet, or at the multiple of kStart below, and ends inside the
  // step.
  template <int kStart>
  constexpr void find() {
    count = 1;
    for (int run = 0; run < kRuns; ++run)
      for (int w = 0, next = 0;; ++w) {
        int rest = kBytes;  // the first byte that is in no window yet
        for (int i = run * kWindow; i < (run + 1) * kWindow; ++i)
          if (from[i] >= next) rest = std::min(rest, from[i]);
        if (rest == kBytes) break;
        const int begin = std::min(rest / kStart * kStart, kBytes - kWindow);
        next = begin + kWindow;
        for (int i = run * kWindow; i < (run + 1) * kWindow; ++i)
          if (from[i] >= rest && from[i] < next) ofByte[i] = w;
        at[w][run] = begin;
        count = std::max(count, w + 1);
      }
  }

  // One window for all runs if it can be; else the fewest, and aligned with the step where that takes no more.
  template <class From>
  explicit constexpr Windows(From source) {
    int first = kBytes - kWindow, last = 0;
    for (int i = 0; i < kSize; ++i) {
      from[i] = source(i);
      if (from[i] >= 0) first = std::min(first, from[i]), last = std::max(last, from[i]);
    }
    if (last < first + kWindow) {
      for (int& begin : at[0]) begin = first;
      return;
    }
    find<1>();
    const int fewest = count;
    find<kWindow>();
    if (count > fewest) find<1>();
  }
};

// Those of the vector that begins with byte kBegin of a step's output, of which byte i is byte From()(i) of the
// input's kBytes.
template <class Vector, int kWindow, int kBytes, int kBegin, class From>
struct Source {
  using Element = ElementOf<Vector>;
  static constexpr int kSize = static_cast<int>(sizeof(Vector)), kElementBytes = static_cast<int>(sizeof(Element));
  static constexpr Windows<kSize, kWindow, kBytes> kWindows{[](int i) { return From()(kBegin + i); }};

  // Where element i is in window w of two that are shuffled; `otherwise` if it is in another or silent. An element is
  // where its first byte is.
  static constexpr int placeOf(int w, int i, int otherwise) {
    const int byte = i * kElementBytes, from = kWindows.from[byte];
    if (from < 0 || kWindows.ofByte[byte] != w) return otherwise;
    return (w > 0 ? kSize : 0) / kElementBytes +
           (byte / kWindow * kWindow + from - kWindows.at[w][byte / kWindow]) / kElementBytes;
  }
  static constexpr bool isSilent(int i) { return kWindows.from[i * kElementBytes] < 0; }
};

// The vector, from the first two windows at once (the first twice, where there is one), then from each further one.
template <class Vector, int kWindow, class From>
KESAUDIO_INLINE Vector loadFrom(const Byte* src) {
  constexpr int kCount = From::kWindows.count, kSecond = kCount > 1 ? 1 : 0;
  Vector loaded[kCount];
  unrolled<kCount>([&](auto w) KESAUDIO_INLINED {
    constexpr int kAt = From::kWindows.at[w][0];
    if constexpr (From::kSize == kWindow)
      loaded[w] = loadVector<Vector>(src + kAt);
#if defined(__AVX2__)
    else
      loaded[w] = (Vector)loadTwoQuarters<From::kWindows.at[w][1] - kAt>(src + kAt);
#endif
  });
  return [&]<int... i>(std::integer_sequence<int, i...>) KESAUDIO_INLINED {
    Vector result =
        __builtin_shufflevector(loaded[0], loaded[kSecond], From::placeOf(kSecond, i, From::placeOf(0, i, i))...);
    unrolled<(kCount > 2 ? kCount - 2 : 0)>([&](auto further) KESAUDIO_INLINED {
      constexpr int w = further + 2;
      result = __builtin_shufflevector(result, loaded[w], From::placeOf(w, i, i)...);
    });
    if constexpr ((From::isSilent(i) || ...))
      result &= Vector{static_cast<typename From::Element>(From::isSilent(i) ? 0 : -1)...};
    return result;
  }
  (std::make_integer_sequence<int, From::kSize / From::kElementBytes>());
}

// What is moved as one element where whole vectors are: a 32-bit sample, a pair of 16-bit ones that stay together, a
// third of a packed 24-bit pair; else single bytes.
template <class Pcm, int kSrc, int kDst>
constexpr auto movedElements() {
  constexpr bool kPairs = kSrc % 2 == 0 && kDst % 2 == 0, kIsPacked = std::is_same_v<Pcm, P24>;
  if constexpr (kMovesBytes && (kLanes < 16 || (kIsPacked && !kPairs)))
    return MoveBytes{};
  else if constexpr (std::is_same_v<Pcm, S32> || (!kIsPacked && kPairs))
    return Words{};
  else
    return Shorts{};
}
template <class Pcm, int kSrc, int kDst>
using MovedElements = decltype(movedElements<Pcm, kSrc, kDst>());

// The frames of a step: whole vectors of output from at least one of input, and where few more do, from whole ones,
// which then are aligned as the first.
template <class Pcm, int kSrc, int kDst>
inline constexpr int kMoveFrames = [] {
  constexpr int kSize = static_cast<int>(sizeof(MovedElements<Pcm, kSrc, kDst>));
  int frames = kSize / std::gcd(kSize, kDst * Pcm::kBytes);
  const auto isWhole = [&] { return frames * kSrc * Pcm::kBytes % kSize == 0; };
  while (frames < 8 || frames * kSrc * Pcm::kBytes < kSize || (frames < 16 && !isWhole())) frames *= 2;
  return frames;
}();

// kMoveFrames frames of kSrc channels to as many of kDst: channel c of the output is channel Map()(c) of the input,
// or silent where that is kSrc.
template <class Pcm, int kSrc, int kDst, class Map>
KESAUDIO_INLINE void moveChannels(Byte* dst, const Byte* src, Map) {
  using Vector = MovedElements<Pcm, kSrc, kDst>;
  static constexpr int kIn = kSrc * Pcm::kBytes, kOut = kDst * Pcm::kBytes, kFrames = kMoveFrames<Pcm, kSrc, kDst>;
  constexpr int kSize = static_cast<int>(sizeof(Vector)), kWindow = std::is_same_v<Vector, MoveBytes> ? 16 : kSize;
  constexpr int kCount = kFrames * kOut / kSize;
  constexpr auto kFrom = [](int byte) {
    const int channel = Map()(byte % kOut / Pcm::kBytes);
    return channel == kSrc ? -1 : byte / kOut * kIn + channel * Pcm::kBytes + byte % Pcm::kBytes;
  };
  Vector out[kCount];
  unrolled<kCount>([&](auto v) KESAUDIO_INLINED {
    out[v] = loadFrom<Vector, kWindow, Source<Vector, kWindow, kFrames * kIn, v * kSize, decltype(kFrom)>>(src);
  });
  unrolled<kCount>([&](auto v) KESAUDIO_INLINED { std::memcpy(dst + v * kSize, &out[v], kSize); });
}

}  // namespace kesaudio::channel

#endif
