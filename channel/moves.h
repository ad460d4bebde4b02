// SPDX-License-Identifier: Apache-2.0
// Moves of channels: steps in which every byte of the output is a byte of the input, or silence.
//
// Each vector of the output is put together from windows of the input: vectors that may begin at any byte. With
// AVX-512 elements are taken from a whole window; elsewhere each quarter of the output has windows of its own, a
// quarter long, and single bytes are taken from them.
#ifndef KESAUDIO_CHANNEL_MOVES_H
#define KESAUDIO_CHANNEL_MOVES_H

#include "channel/blocks.h"

namespace kesaudio::channel {

// Two quarters are put together at once where that is one store.
inline constexpr int kMoveBytes = kLanes == 4 ? 16 : 32;
typedef Byte MoveBytes __attribute__((vector_size(kMoveBytes)));

// Windows of kWindow bytes, for each run of as many bytes of a vector: w-th of each run begins at at[w][run], and
// byte i of the vector is in window ofByte[i] of its run.
template <int kSize, int kWindow>
struct Windows {
  static constexpr int kMax = 16;
  int count = 1, at[kMax][kSize / kWindow] = {}, ofByte[kSize] = {};
};

// For a vector of which byte i is byte from(i) of the step's kBytes, or silence where that is negative. A window
// begins at the first byte that is not in one yet, or at the multiple of `start` below, and ends inside the step.
template <int kSize, int kWindow, int kBytes, class From>
constexpr auto windowsFrom(From from, int start) {
  Windows<kSize, kWindow> windows;
  // One window for all runs, if it can be.
  int first = kBytes - kWindow, last = 0;
  for (int i = 0; i < kSize; ++i)
    if (from(i) >= 0) first = std::min(first, from(i)), last = std::max(last, from(i));
  if (first >= 0 && last < first + kWindow) {
    for (int& at : windows.at[0]) at = first;
    return windows;
  }
  for (int run = 0; run < kSize / kWindow; ++run)
    for (int w = 0, next = 0;; ++w) {
      int rest = kBytes;  // the first byte that is in no window yet
      for (int i = run * kWindow; i < (run + 1) * kWindow; ++i)
        if (from(i) >= next) rest = std::min(rest, from(i));
      if (rest == kBytes) break;
      const int at = std::max(0, std::min(rest / start * start, kBytes - kWindow));
      next = at + kWindow;
      for (int i = run * kWindow; i < (run + 1) * kWindow; ++i)
        if (from(i) >= rest && from(i) < next) windows.ofByte[i] = w;
      windows.at[w][run] = at;
      windows.count = std::max(windows.count, w + 1);
    }
  return windows;
}

// The fewest windows, and aligned with the step where that takes no more.
template <int kSize, int kWindow, int kBytes, class From>
constexpr auto windowsFor(From from) {
  const auto anywhere = windowsFrom<kSize, kWindow, kBytes>(from, 1);
  const auto aligned = windowsFrom<kSize, kWindow, kBytes>(from, kWindow);
  return aligned.count <= anywhere.count ? aligned : anywhere;
}

// The elements of loaded windows: element i is the one that begins with byte i * kBytes of the vector.
template <class Vector, int kWindow, class From, const auto& kWindows, int kCount>
KESAUDIO_INLINE Vector taken(const Vector (&loaded)[kCount], From) {
  static constexpr int kBytes = static_cast<int>(sizeof(ElementOf<Vector>)),
                       kAll = static_cast<int>(sizeof(Vector)) / kBytes;
  // Where element i is in window w of two that are shuffled; `otherwise` if it is in another or silent.
  static constexpr auto kPlace = [](int w, int i, int otherwise) {
    const int byte = i * kBytes, from = From()(byte);
    if (from < 0 || kWindows.ofByte[byte] != w) return otherwise;
    return (w > 0 ? kAll : 0) + (byte / kWindow * kWindow + from - kWindows.at[w][byte / kWindow]) / kBytes;
  };
  return [&]<int... i>(std::integer_sequence<int, i...>) KESAUDIO_INLINED {
    constexpr int kSecond = kCount > 1 ? 1 : 0;
    Vector result = __builtin_shufflevector(loaded[0], loaded[kSecond], kPlace(kSecond, i, kPlace(0, i, i))...);
    unrolled<(kCount > 2 ? kCount - 2 : 0)>([&](auto further) KESAUDIO_INLINED {
      result = __builtin_shufflevector(result, loaded[further + 2], kPlace(decltype(further)::value + 2, i, i)...);
    });
    if constexpr (((From()(i * kBytes) < 0) || ...))
      result &= Vector{static_cast<ElementOf<Vector>>(From()(i * kBytes) < 0 ? 0 : -1)...};
    return result;
  }
  (std::make_integer_sequence<int, kAll>());
}

// Calls store(v, vector) for each vector of a step's output, kCount of them, of which byte i of all is byte From()(i)
// of the step's kBytes; all are loaded before the first is stored.
template <class Vector, int kWindow, int kBytes, int kCount, class From>
KESAUDIO_INLINE void moveBytes(Byte* dst, const Byte* src, From) {
  static constexpr int kSize = static_cast<int>(sizeof(Vector));
  Vector out[kCount];
  unrolled<kCount>([&](auto v) KESAUDIO_INLINED {
    constexpr auto kFrom = [](int i) { return From()(decltype(v)::value * kSize + i); };
    static constexpr auto kWindows = windowsFor<kSize, kWindow, kBytes>(kFrom);
    Vector loaded[kWindows.count];
    unrolled<kWindows.count>([&](auto w) KESAUDIO_INLINED {
      const auto& at = kWindows.at[w];
      if constexpr (kSize == kWindow)
        loaded[w] = loadVector<Vector>(src + at[0]);
      else
        loaded[w] = (Vector)loadTwoQuarters<kWindows.at[w][1] - kWindows.at[w][0]>(src + at[0]);
    });
    out[v] = taken<Vector, kWindow, decltype(kFrom), kWindows>(loaded, kFrom);
  });
  unrolled<kCount>([&](auto v) KESAUDIO_INLINED { std::memcpy(dst + v * kSize, &out[v], kSize); });
}

// What is moved as one element where whole vectors are: a 32-bit sample, a pair of 16-bit ones that stay together, a
// third of a packed 24-bit pair; void where bytes are.
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

// The frames of a step: whole vectors of output from whole vectors of input.
template <class Pcm, int kSrc, int kDst>
inline constexpr int kMoveFrames = [] {
  constexpr int kSize = static_cast<int>(sizeof(MovedElements<Pcm, kSrc, kDst>));
  int frames = kSize / std::gcd(kSize, kDst * Pcm::kBytes);
  while (frames < 8 || frames * kSrc * Pcm::kBytes % kSize != 0) frames *= 2;
  return frames;
}();

// kMoveFrames frames of kSrc channels to as many of kDst: channel c of the output is channel Map()(c) of the input,
// or silent where that is kSrc.
template <class Pcm, int kSrc, int kDst, class Map>
KESAUDIO_INLINE void moveChannels(Byte* dst, const Byte* src, Map) {
  using Vector = MovedElements<Pcm, kSrc, kDst>;
  static constexpr int kIn = kSrc * Pcm::kBytes, kOut = kDst * Pcm::kBytes, kFrames = kMoveFrames<Pcm, kSrc, kDst>;
  constexpr int kSize = static_cast<int>(sizeof(Vector)), kWindow = std::is_same_v<Vector, MoveBytes> ? 16 : kSize;
  moveBytes<Vector, kWindow, kFrames * kIn, kFrames * kOut / kSize>(dst, src, [](int byte) {
    const int channel = Map()(byte % kOut / Pcm::kBytes);
    return channel == kSrc ? -1 : byte / kOut * kIn + channel * Pcm::kBytes + byte % Pcm::kBytes;
  });
}

}  // namespace kesaudio::channel

#endif
