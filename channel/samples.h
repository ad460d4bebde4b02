// SPDX-License-Identifier: Apache-2.0
// Loads frames as vectors of pairs of channels: pairs[p] has channels 2p and 2p + 1 of half a step's frames, left and
// right in turn. Stores vectors of samples.
#ifndef KESAUDIO_CHANNEL_SAMPLES_H
#define KESAUDIO_CHANNEL_SAMPLES_H

#include "base/packed24.h"
#include "channel/frames.h"
#include "channel/gain.h"

namespace kesaudio::channel {

template <class Format>
inline constexpr int kStepFrames = (std::is_same_v<Format, S16> ? 8 : 4) * kBlocks;

// ---- samples side by side in 16 bytes

// A row of neighbouring samples in the lanes of a block, taken from byte `at` on of 16 bytes; lanes from `count` on
// are silent. Packed samples, four to a row, are in the upper three bytes of their lanes; the low byte is undefined.
template <class Format>
struct Row {
  static constexpr int kSamples = std::is_same_v<Format, S16> ? 8 : 4, kLaneBytes = 16 / kSamples;
  U8x table;
  int at, count;

  KESAUDIO_INLINE Row(int first, int samples) : at(first), count(samples) {
    static constexpr Byte kInOrder[16] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15};
    const U8x inOrder = broadcastLoad(kInOrder), silent = (U8x)(inOrder >= static_cast<Byte>(count * kLaneBytes));
    table = ((std::is_same_v<Format, S24> ? broadcastLoad(kUnpack24) : inOrder) + static_cast<Byte>(at)) | silent;
  }
  KESAUDIO_INLINE I32x load(const Byte* p, std::ptrdiff_t second) const {
    if constexpr (!kHasByteShuffle) return loadEach(p);
    return (I32x)permute(loadBlocks<U8x>(p - at, second), table);
  }
  [[gnu::noinline]] I32x loadEach(const Byte* p) const {
    I32x x = {};
    for (int i = 0; i < count; ++i) {
      const std::int32_t sample =
          std::is_same_v<Format, S24> ? Format::load(p + 3 * i) << 8 : Format::load(p + i * Format::kBytes);
      std::memcpy(reinterpret_cast<Byte*>(&x) + kLaneBytes * i, &sample, kLaneBytes);
    }
    return x;
  }
};

// Shifts the packed samples of a row down to their values.
template <class Format>
KESAUDIO_INLINE Samples<Format> unpacked(Samples<Format> x) {
  if constexpr (std::is_same_v<Format, S24>) return x >> 8;
  return x;
}

// ---- frames

template <class Format>
using PairLanes = std::conditional_t<std::is_same_v<Format, S16>, I32x, I64x>;  // a pair of samples in each

// Loads frames of 2 * kCount channels.
template <class Format, int kCount>
struct PairsLoader {
  static constexpr int kPairs = kCount;
  explicit PairsLoader(std::int32_t /*channels*/) {}
  static constexpr std::ptrdiff_t inBytes(std::int32_t = 0) { return frameBytes<Format>(2 * kPairs); }

  template <int kHalf>
  KESAUDIO_INLINE void load(const Byte* p, Samples<Format> (&pairs)[kPairs]) const {
    PairLanes<Format> lanes[kPairs];
    loadElements(p, lanes);
    for (int i = 0; i < kPairs; ++i) pairs[i] = (Samples<Format>)lanes[i];
  }
};
// Packed samples are loaded in rows of four, across frames. A row has 12 bytes of the 16 that are read: those of the
// first half are read from their start on, those of the second half up to their end, so that no read leaves the step.
template <int kCount>
struct PairsLoader<S24, kCount> {
  static constexpr int kPairs = kCount;
  const Row<S24> rows[2];
  explicit PairsLoader(std::int32_t /*channels*/) : rows{{0, 4}, {4, 4}} {}
  static constexpr std::ptrdiff_t inBytes(std::int32_t = 0) { return frameBytes<S24>(2 * kPairs); }

  template <int kHalf>
  KESAUDIO_INLINE void load(const Byte* p, I32x (&pairs)[kPairs]) const {
    I64x loaded[kPairs], lanes[kPairs];
    for (int i = 0; i < kPairs; ++i) loaded[i] = (I64x)rows[kHalf].load(p + 12 * i, 12 * kPairs);
    deinterleave(loaded, lanes);
    for (int i = 0; i < kPairs; ++i) pairs[i] = unpacked<S24>((I32x)lanes[i]);
  }
};

// Loads frames of any channel count in kRows rows each: channels that a frame lacks are silent, those beyond the rows
// are left out. Rows are read from their start on or up to their end as above.
template <class Format, int kRows>
struct RowsLoader {
  static constexpr int kSamples = Row<Format>::kSamples, kPairs = kRows * kSamples / 2;
  static constexpr int kBlockFrames = kStepFrames<Format> / 2 / kBlocks;  // of half a step
  const std::ptrdiff_t in;
  const Row<Format> full[2], last[2];  // for each half: the first of two rows, and a frame's last one

  explicit RowsLoader(std::int32_t channels)
      : in(inBytes(channels)),
        full{{0, kSamples}, row(kSamples)},
        last{{0, inLastRow(channels)}, row(inLastRow(channels))} {}
  static constexpr int inLastRow(std::int32_t channels) {
    return std::min(channels - (kRows - 1) * kSamples, kSamples);
  }
  static Row<Format> row(int count) { return {16 - count * Format::kBytes, count}; }  // that ends with its samples
  static constexpr std::ptrdiff_t inBytes(std::int32_t channels) { return frameBytes<Format>(channels); }
  std::ptrdiff_t inBytes() const { return in; }

  template <int kHalf>
  KESAUDIO_INLINE void load(const Byte* p, Samples<Format> (&pairs)[kPairs]) const {
    unrolled<kRows>([&](auto r) KESAUDIO_INLINED {
      const Row<Format>& samples = r < kRows - 1 ? full[kHalf] : last[kHalf];
      PairLanes<Format> frames[kBlockFrames], lanes[kBlockFrames];
      for (int i = 0; i < kBlockFrames; ++i)
        frames[i] = (PairLanes<Format>)samples.load(p + i * in + frameBytes<Format>(r * kSamples), kBlockFrames * in);
      transpose(frames, lanes);
      for (int i = 0; i < kBlockFrames; ++i)
        pairs[r * kBlockFrames + i] = unpacked<Format>((Samples<Format>)lanes[i]);
    });
  }
};

// Stores a vector of samples. A packed one writes up to 4 bytes beyond its samples, which the next vector of the step
// overwrites; the last one writes none.
template <class Format, bool kIsLast>
KESAUDIO_INLINE void storeSamples(Byte* p, Samples<Format> x) {
  if constexpr (!std::is_same_v<Format, S24>)
    store(p, x);
  else if constexpr (kIsLast)
    storePacked24Exactly(p, x);
  else
    storePacked24(p, x);
}

}  // namespace kesaudio::channel

#endif
