// SPDX-License-Identifier: Apache-2.0
// How the frames of a mix's step come out of memory: a vector for each pair of channels, left and right in turn.
//
// A step is two halves, each a vector's worth of pairs. With AVX2 a half's first block has its first frames, the
// second block the rest of them. Loaders take the start of a half and give
//
//   load    pairs[p]: channels 2p and 2p + 1 of every frame, silent where there is no such channel
//   total   the sum of term(samples) over all channels of a frame, as far as whole vectors give it: of 16-bit samples
//           and of 64-bit terms a lane for each frame, of the others a pair of lanes
#ifndef KESAUDIO_CHANNEL_PAIRS_H
#define KESAUDIO_CHANNEL_PAIRS_H

#include "base/packed24.h"
#include "channel/frames.h"
#include "channel/gain.h"

namespace kesaudio::channel {

template <class Format>
inline constexpr int kBlockFrames = std::is_same_v<Format, S16> ? 4 : 2;  // of a half
template <class Format>
inline constexpr int kHalfFrames = kBlockFrames<Format>* kBlocks;
template <class Format>
inline constexpr int kStepFrames = 2 * kHalfFrames<Format>;

// What a mix's loop needs to know of its call.
struct MixCall {
  std::ptrdiff_t frameBytes;  // of the input
  std::int32_t channels;
  Divisor divisor;
};

// Frames of kPairs pairs and nothing else, of 16- or 32-bit samples: loaded whole and deinterleaved.
template <class FormatType, int kPairCount>
struct Dense {
  using Format = FormatType;
  using Element = std::conditional_t<std::is_same_v<Format, S16>, I32x, I64x>;
  static constexpr int kPairs = kPairCount, kChannels = 2 * kPairs;
  static constexpr std::ptrdiff_t kFrameBytes = frameBytes<Format>(kChannels);

  explicit Dense(const MixCall&) {}
  static constexpr std::ptrdiff_t readBytes(std::ptrdiff_t frameBytes) { return frameBytes; }
  static constexpr std::ptrdiff_t stride() { return kFrameBytes; }

  KESAUDIO_INLINE void load(const Byte* p, Samples<Format> (&pairs)[kPairs]) const {
    Element elements[kPairs];
    loadElements(p, elements);
    for (int i = 0; i < kPairs; ++i) pairs[i] = (Samples<Format>)elements[i];
  }
  template <class Term>
  KESAUDIO_INLINE auto total(const Byte* p, Term term) const {
    Samples<Format> pairs[kPairs];
    load(p, pairs);
    auto sum = term(pairs[0]);
    for (int i = 1; i < kPairs; ++i) sum = term(sum, pairs[i]);
    return sum;
  }
};

// The first channels of frames of any size, up to kPairs pairs: each frame is loaded as rows of 16 bytes, and what
// follows the frame's channels in its last row is made silent.
template <class FormatType, int kPairCount>
struct Rows;

template <int kPairCount>
struct Rows<S16, kPairCount> {
  using Format = S16;
  static constexpr int kPairs = kPairCount, kChannels = 0;  // known at the call
  const std::ptrdiff_t bytes;
  const I16x mask;

  explicit Rows(const MixCall& call)
      : bytes(call.frameBytes), mask(laneNumbers<I16x>() < static_cast<std::int16_t>(call.channels)) {}
  static constexpr std::ptrdiff_t readBytes(std::ptrdiff_t) { return 16; }
  std::ptrdiff_t stride() const { return bytes; }

  KESAUDIO_INLINE I16x row(const Byte* p, int frame) const {
    return loadBlocks<I16x>(p + frame * bytes, kBlockFrames<S16> * bytes) & mask;
  }
  KESAUDIO_INLINE void load(const Byte* p, I16x (&pairs)[kPairs]) const {
    I32x rows[4];
    for (int i = 0; i < 4; ++i) rows[i] = (I32x)row(p, i);
    const auto low01 = (I64x)zipLow(rows[0], rows[1]), low23 = (I64x)zipLow(rows[2], rows[3]);
    pairs[0] = (I16x)zipLow(low01, low23), pairs[1] = (I16x)zipHigh(low01, low23);
    if constexpr (kPairs > 2) {
      const auto high01 = (I64x)zipHigh(rows[0], rows[1]), high23 = (I64x)zipHigh(rows[2], rows[3]);
      pairs[2] = (I16x)zipLow(high01, high23);
      if constexpr (kPairs > 3) pairs[3] = (I16x)zipHigh(high01, high23);
    }
  }
  template <class Term>
  KESAUDIO_INLINE I32x total(const Byte* p, Term term) const {
    return addNeighbours(addNeighbours(term(row(p, 0)), term(row(p, 1))),
                         addNeighbours(term(row(p, 2)), term(row(p, 3))));
  }
};

// Of 32-bit samples a row is four channels. Of packed 24-bit ones, too: a table puts their 12 bytes into the upper
// bytes of the lanes, still to be shifted down.
template <class Format>
struct Row;

template <>
struct Row<S32> {
  const I32x mask;
  Row(std::int32_t channels, std::ptrdiff_t) : mask(laneNumbers<I32x>() < channels) {}
  KESAUDIO_INLINE I32x load(const Byte* p, std::ptrdiff_t second) const { return loadBlocks<I32x>(p, second) & mask; }
  KESAUDIO_INLINE static I32x samples(I32x x) { return x; }
};

template <>
struct Row<S24> {
  const U8x table;
  // The first channel is `at` bytes into the row. A lane's lowest byte is shifted out, whatever it is.
  Row(std::int32_t channels, std::ptrdiff_t at)
      : table((unpackingTable() + static_cast<Byte>(at)) | (U8x)(laneNumbers<I32x>() >= channels)) {}
  KESAUDIO_INLINE I32x load(const Byte* p, std::ptrdiff_t second) const {
    return (I32x)permute(loadBlocks<U8x>(p, second), table);
  }
  KESAUDIO_INLINE static I32x samples(I32x x) { return x >> 8; }
};

template <class FormatType, int kPairCount>
struct Rows {
  using Format = FormatType;
  static constexpr int kPairs = kPairCount, kChannels = 0;
  static constexpr std::ptrdiff_t kRowBytes = frameBytes<Format>(4);
  const std::ptrdiff_t bytes, secondAt;
  const Row<Format> first, second;

  explicit Rows(const MixCall& call)
      : bytes(call.frameBytes),
        secondAt(secondRow(call.frameBytes)),
        first(call.channels, 0),
        second(call.channels - 4, kRowBytes - secondAt) {}
  std::ptrdiff_t stride() const { return bytes; }

  // Packed samples may begin anywhere in their row: in frames of 16 bytes and more the second one ends with the
  // frame.
  static constexpr std::ptrdiff_t secondRow(std::ptrdiff_t frameBytes) {
    return std::is_same_v<Format, S24> && frameBytes >= 16 ? frameBytes - 16 : kRowBytes;
  }
  static constexpr std::ptrdiff_t readBytes(std::ptrdiff_t frameBytes) {
    return 16 + (kPairs > 2 ? secondRow(frameBytes) : 0);
  }

  KESAUDIO_INLINE I32x row(const Byte* p, int frame, int which) const {
    p += frame * bytes + (which == 0 ? 0 : secondAt);
    return (which == 0 ? first : second).load(p, kBlockFrames<Format> * bytes);
  }
  KESAUDIO_INLINE void load(const Byte* p, I32x (&pairs)[kPairs]) const {
    for (int i = 0; i < kPairs; i += 2) {
      const auto x = (I64x)row(p, 0, i / 2), y = (I64x)row(p, 1, i / 2);
      pairs[i] = Row<Format>::samples((I32x)zipLow(x, y));
      if (i + 1 < kPairs) pairs[i + 1] = Row<Format>::samples((I32x)zipHigh(x, y));
    }
  }
  template <class Term>
  KESAUDIO_INLINE auto total(const Byte* p, Term term) const {
    const auto frame = [&](int i) KESAUDIO_INLINED {
      auto sum = term(Row<Format>::samples(row(p, i, 0)));
      if constexpr (kPairs > 2) sum = term(sum, Row<Format>::samples(row(p, i, 1)));
      return sum;
    };
    return addNeighbours(frame(0), frame(1));
  }
};

// Two stereo frames of packed 24-bit samples make one row.
template <>
struct Rows<S24, 1> {
  using Format = S24;
  static constexpr int kPairs = 1, kChannels = 2;
  static constexpr std::ptrdiff_t kFrameBytes = 6;
  const Row<S24> both;

  explicit Rows(const MixCall&) : both(4, 0) {}
  static constexpr std::ptrdiff_t readBytes(std::ptrdiff_t) { return 16 - kFrameBytes; }
  static constexpr std::ptrdiff_t stride() { return kFrameBytes; }

  KESAUDIO_INLINE void load(const Byte* p, I32x (&pairs)[1]) const {
    pairs[0] = Row<S24>::samples(both.load(p, 2 * kFrameBytes));
  }
  template <class Term>
  KESAUDIO_INLINE I32x total(const Byte* p, Term term) const {
    return term(Row<S24>::samples(both.load(p, 2 * kFrameBytes)));
  }
};

// The loader for all channels of frames of so many.
template <class Format, int kChannels>
using AllPairs = std::conditional_t<
    std::is_same_v<Format, S24>,
    Rows<Format, kChannels <= 2   ? 1
                 : kChannels <= 4 ? 2
                                  : 4>,
    std::conditional_t<kChannels % 2 == 0, Dense<Format, kChannels / 2>, Rows<Format, kChannels <= 4 ? 2 : 4>>>;

// ---- stores

// Samples of a step. Of packed ones all but the last may write 4 bytes more, which the next store covers.
template <class Format, bool kIsLast = false>
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
