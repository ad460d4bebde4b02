// SPDX-License-Identifier: Apache-2.0
// The host resampler's inner loop: a group of three or four outputs at a time, so that each load of the history
// serves all its rows of taps, and each load of taps every channel.
//
//   out[c][o] = sum over k < width of row(o)[k] * history[c][k]      width a multiple of 8
//
// The rows of a group are interleaved in blocks of 8 taps. A sum has 8 partial sums; number i adds the products i,
// i + 8, .... They are then added 4 to 4, and neighbours twice. The result is the same for every width of the
// machine's vectors.
#ifndef KESAUDIO_HOST_RESAMPLER_POLYPHASE_H
#define KESAUDIO_HOST_RESAMPLER_POLYPHASE_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <utility>

namespace palix {

constexpr uint32_t kBlock = 8;       // taps of a row at a time, and partial sums
constexpr uint32_t kMaxOutputs = 4;  // of a group

template <uint32_t kLanes>
struct VectorOf {
  typedef float Type __attribute__((vector_size(4 * kLanes)));
};
template <uint32_t kLanes>
using Vector = typename VectorOf<kLanes>::Type;
using Quad = Vector<4>;

// Lanes of the machine's own vectors: compilers generate poor code for wider ones. They hold half a block of a row,
// or a block; or, where the rows of a group lie side by side, a block of two rows.
#if defined(__AVX__)
constexpr uint32_t kBlockLanes = 8;
#else
constexpr uint32_t kBlockLanes = 4;
#endif
#if defined(__AVX512F__)
constexpr uint32_t kPairLanes = 16;
#else
constexpr uint32_t kPairLanes = kBlockLanes;
#endif

#if defined(__aarch64__) || defined(__AVX512F__)
constexpr uint32_t kRegisters = 32;
#else
constexpr uint32_t kRegisters = 16;
#endif

template <uint32_t kLanes>
Vector<kLanes> load(const float* from) {
  Vector<kLanes> v;
  std::memcpy(&v, from, sizeof v);
  return v;
}

// Samples for all rows of a vector.
template <uint32_t kLanes>
Vector<kLanes> loadSamples(const float* from) {
  if constexpr (kLanes <= kBlock)
    return load<kLanes>(from);
  else
    return __builtin_shufflevector(load<8>(from), load<8>(from), 0, 1, 2, 3, 4, 5, 6, 7, 0, 1, 2, 3, 4, 5, 6, 7);
}

template <uint32_t kQuad, class AnyVector>
Quad quadOf(AnyVector v) {
  return __builtin_shufflevector(v, v, 4 * kQuad, 4 * kQuad + 1, 4 * kQuad + 2, 4 * kQuad + 3);
}

// Adds neighbours: a's, then b's.
inline Quad addNeighbours(Quad a, Quad b) {
  return __builtin_shufflevector(a, b, 0, 2, 4, 6) + __builtin_shufflevector(a, b, 1, 3, 5, 7);
}

// Calls body(0) to body(kCount - 1) with compile-time constants, so that arrays of vectors stay in registers.
template <uint32_t kCount, class Body>
[[gnu::always_inline]] inline void unrolled(Body body) {
  [&]<uint32_t... kIndex>(std::integer_sequence<uint32_t, kIndex...>) __attribute__((always_inline)) {
    (body(std::integral_constant<uint32_t, kIndex>()), ...);
  }
  (std::make_integer_sequence<uint32_t, kCount>());
}

// The rows of a group: their blocks are interleaved.
template <uint32_t kOutputs>
struct OrderedRows {
  static constexpr uint32_t kRows = kOutputs, kLanes = kOutputs % 2 == 0 ? kPairLanes : kBlockLanes;
  static constexpr uint32_t kBlockFloats = kOutputs * kBlock;
  const float* taps;

  Vector<kLanes> operator()(size_t at) const { return load<kLanes>(taps + at); }
};

// One row, x of the way from one to the next, `floats` behind it.
struct InterpolatedRow {
  static constexpr uint32_t kRows = 1, kLanes = kBlockLanes;
  static constexpr uint32_t kBlockFloats = kBlock;
  const float* taps;
  size_t floats;
  float x;

  Vector<kLanes> operator()(size_t at) const {
    const auto from = load<kLanes>(taps + at);
    return from + x * (load<kLanes>(taps + floats + at) - from);
  }
};

// Sums of the rows for one or two channels, whose histories lie historyFloats apart.
template <uint32_t kChannels, class Rows>
[[gnu::always_inline]] inline void filterRows(const Rows rows, uint32_t width, const float* history,
                                              size_t historyFloats, Quad (&results)[kChannels]) {
  constexpr uint32_t kLanes = Rows::kLanes, kRows = Rows::kRows;
  constexpr uint32_t kTogether = kLanes > kBlock ? kLanes / kBlock : 1;  // rows in a vector
  constexpr uint32_t kVectors = kRows / kTogether, kParts = kBlock * kTogether / kLanes;
  constexpr uint32_t kAtOnce = kParts * kChannels * kVectors <= kRegisters / 2 ? kParts : 1;
  constexpr uint32_t kSums = kChannels * kVectors;
  Vector<kLanes> sums[kParts * kSums];
  unrolled<kParts / kAtOnce>([&](auto pass) __attribute__((always_inline)) {
    Vector<kLanes> partial[kAtOnce * kSums] = {};
    const float* frames = history + pass * kLanes;
    size_t taps = pass * kLanes;
#pragma GCC unroll 2
    for (uint32_t k = 0; k < width; k += kBlock, taps += Rows::kBlockFloats, frames += kBlock) {
      unrolled<kAtOnce>([&](auto part) __attribute__((always_inline)) {
        Vector<kLanes> samples[kChannels];
        unrolled<kChannels>([&](auto c) __attribute__((always_inline)) {
          samples[c] = loadSamples<kLanes>(frames + c * historyFloats + part * kLanes);
        });
        unrolled<kVectors>([&](auto v) __attribute__((always_inline)) {
          const auto row = rows(taps + v * kTogether * kBlock + part * kLanes);
          unrolled<kChannels>([&](auto c) __attribute__((always_inline)) {
            partial[part * kSums + c * kVectors + v] += row * samples[c];
          });
        });
      });
    }
    std::copy_n(partial, kAtOnce * kSums, sums + pass * kSums);
  });
  unrolled<kChannels>([&](auto c) __attribute__((always_inline)) {
    Quad quads[4] = {};
    unrolled<kVectors>([&](auto v) __attribute__((always_inline)) {
      const auto sum = sums[c * kVectors + v];
      if constexpr (kParts == 2) {
        quads[v] = sum + sums[kSums + c * kVectors + v];
      } else {
        quads[v * kTogether] = quadOf<0>(sum) + quadOf<1>(sum);
        if constexpr (kTogether == 2) quads[2 * v + 1] = quadOf<2>(sum) + quadOf<3>(sum);
      }
    });
    results[c] = addNeighbours(addNeighbours(quads[0], quads[1]), addNeighbours(quads[2], quads[3]));
  });
}

}  // namespace palix

#endif
