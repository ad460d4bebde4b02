// SPDX-License-Identifier: Apache-2.0
// The host resampler's inner loop: a group of four outputs at a time, so that each load of the history serves four
// rows of taps, and each load of taps every channel.
//
//   out[c][o] = sum over k < width of rows[o][k] * history[c][k]      o < 4, width a multiple of 16
//
// A sum has 16 partial sums; number i adds the products i, i + 16, .... They are then added pairwise: 8 to 8, 4 to 4,
// 2 to 2, 1 to 1. The result is the same for every width of
// the machine's vectors.
#ifndef KESAUDIO_HOST_RESAMPLER_POLYPHASE_H
#define KESAUDIO_HOST_RESAMPLER_POLYPHASE_H

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <utility>

namespace palix {

constexpr uint32_t kLanes = 16;  // partial sums
constexpr uint32_t kGroup = 4;   // outputs

// Vectors of the machine's own width: compilers generate poor code for wider ones.
#if defined(__AVX512F__)
constexpr uint32_t kVectorLanes = 16;
#elif defined(__AVX__)
constexpr uint32_t kVectorLanes = 8;
#else
constexpr uint32_t kVectorLanes = 4;
#endif
constexpr uint32_t kVectors = kLanes / kVectorLanes;

typedef float Vector __attribute__((vector_size(4 * kVectorLanes)));

inline Vector load(const float* from) {
  Vector v;
  std::memcpy(&v, from, sizeof v);
  return v;
}

// Weighted sum of four rows that lie `floats` apart; floats is a multiple of 16.
inline void blend(const float* rows, size_t floats, const float (&weights)[4], float* sum) {
  for (size_t k = 0; k < floats; k += kVectorLanes) {
    const Vector outer = weights[0] * load(rows + k) + weights[3] * load(rows + 3 * floats + k);
    const Vector inner = weights[1] * load(rows + floats + k) + weights[2] * load(rows + 2 * floats + k);
    const Vector all = outer + inner;
    std::memcpy(sum + k, &all, sizeof all);
  }
}

// Calls body(0) to body(kCount - 1) with compile-time constants, so that arrays of vectors stay in registers.
template <uint32_t kCount, class Body>
[[gnu::always_inline]] inline void unrolled(Body body) {
  [&]<uint32_t... kIndex>(std::integer_sequence<uint32_t, kIndex...>) __attribute__((always_inline)) {
    (body(std::integral_constant<uint32_t, kIndex>()), ...);
  }
  (std::make_integer_sequence<uint32_t, kCount>());
}

// Adds the halves of every block of kBlock lanes, a's blocks first.
template <uint32_t kBlock>
[[gnu::always_inline]] inline Vector addHalves(Vector a, Vector b) {
  constexpr uint32_t kHalf = kBlock / 2;
  return [&]<uint32_t... kLane>(std::integer_sequence<uint32_t, kLane...>) __attribute__((always_inline)) {
    return __builtin_shufflevector(a, b, (kLane / kHalf * kBlock + kLane % kHalf)...) +
           __builtin_shufflevector(a, b, (kLane / kHalf * kBlock + kLane % kHalf + kHalf)...);
  }
  (std::make_integer_sequence<uint32_t, kVectorLanes>());
}

// Sums each block of kBlock lanes of the vectors into one float.
template <uint32_t kBlock, uint32_t kCount>
[[gnu::always_inline]] inline void totals(const Vector (&sums)[kCount], float* results) {
  if constexpr (kBlock == 1) {
    std::memcpy(results, sums, sizeof sums);
  } else {
    Vector halves[(kCount + 1) / 2];
    unrolled<(kCount + 1) / 2>([&](auto i) __attribute__((always_inline)) {
      halves[i] = addHalves<kBlock>(sums[2 * i], sums[std::min(2 * i + 1, kCount - 1)]);
    });
    totals<kBlock / 2>(halves, results);
  }
}

// Convolves a group for kChannels channels; rows, histories and outputs lie width, historyFloats and outFloats apart.
template <uint32_t kChannels>
void convolve(const float* rows, uint32_t width, const float* history, size_t historyFloats, float* out,
              size_t outFloats) {
  constexpr uint32_t kSums = kChannels * kGroup;
  Vector sums[kVectors][kSums];
  unrolled<kVectors>([&](auto v) __attribute__((always_inline)) {
    // One vector of partial sums at a time: the registers hold no more.
    Vector lanes[kSums] = {};
    for (uint32_t k = v * kVectorLanes; k < width; k += kLanes) {
      unrolled<kChannels>([&](auto c) __attribute__((always_inline)) {
        const Vector frames = load(history + c * historyFloats + k);
        unrolled<kGroup>([&](auto o) __attribute__((always_inline)) {
          lanes[c * kGroup + o] += load(rows + o * width + k) * frames;
        });
      });
    }
    std::copy_n(lanes, kSums, sums[v]);
  });
  if constexpr (kVectors > 2) {
    unrolled<kSums>([&](auto i) __attribute__((always_inline)) {
      sums[0][i] += sums[2][i];
      sums[1][i] += sums[3][i];
    });
  }
  if constexpr (kVectors > 1)
    unrolled<kSums>([&](auto i) __attribute__((always_inline)) { sums[0][i] += sums[1][i]; });
  float results[std::max(kSums, kVectorLanes)];
  totals<kVectorLanes>(sums[0], results);
  for (uint32_t c = 0; c < kChannels; ++c)
    std::memcpy(out + c * outFloats, results + c * kGroup, kGroup * sizeof(float));
}

}  // namespace palix

#endif
