// SPDX-License-Identifier: Apache-2.0
// Vectors of integer lanes on 64-bit Arm (NEON) and x86-64 (SSE2, SSE4.1, AVX2). Lanes are added, subtracted, shifted
// and compared by the compilers' operators; simd_neon.h and simd_x86.h hold every other operation, under one name on
// both machines. Kernels have no #if: they tell machines apart by the constants of these three files alone (kBlocks,
// kStrides, kHasByteShuffle, kHasSaturatingAdd32).
//
// A vector is kBlocks blocks of 16 bytes: one, or with AVX2 two. AVX2 shuffles inside a block only, so each block
// holds frames of its own: the shuffles, zips and narrowing below treat every block by itself.
#ifndef KESAUDIO_BASE_SIMD_H
#define KESAUDIO_BASE_SIMD_H

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <type_traits>
#include <utility>

#include "base/sample_format.h"

// GCC warns that passing vectors depends on the target's options. Ours are passed inside one file only.
#pragma GCC diagnostic ignored "-Wpsabi"

// Forced inline: a call would pass its vectors through memory.
#define KESAUDIO_INLINE [[gnu::always_inline]] inline
#define KESAUDIO_INLINED __attribute__((always_inline))  // of a lambda

namespace kesaudio {

#if defined(__AVX2__)
inline constexpr int kBlocks = 2;
#else
inline constexpr int kBlocks = 1;
#endif
inline constexpr int kVectorBytes = 16 * kBlocks;

typedef std::uint8_t U8x __attribute__((vector_size(kVectorBytes)));
typedef std::int16_t I16x __attribute__((vector_size(kVectorBytes)));
typedef std::int32_t I32x __attribute__((vector_size(kVectorBytes)));
typedef std::uint32_t U32x __attribute__((vector_size(kVectorBytes)));
typedef std::int64_t I64x __attribute__((vector_size(kVectorBytes)));
typedef float F32x __attribute__((vector_size(kVectorBytes)));
typedef double F64x __attribute__((vector_size(kVectorBytes)));

template <class Vector>
KESAUDIO_INLINE Vector load(const Byte* p) {
  Vector x;
  std::memcpy(&x, p, sizeof x);
  return x;
}

template <class Vector>
KESAUDIO_INLINE void store(Byte* p, Vector x) {
  std::memcpy(p, &x, sizeof x);
}

// Calls body(0) to body(kCount - 1) with compile-time constants, so that arrays of vectors stay in registers.
template <int kCount, class Body>
KESAUDIO_INLINE void unrolled(Body body) {
  [&]<int... i>(std::integer_sequence<int, i...>) KESAUDIO_INLINED { (body(std::integral_constant<int, i>{}), ...); }
  (std::make_integer_sequence<int, kCount>());
}

// Reorders lanes in every block: lane i of the result is lane source(i, n) of the block's n lanes of x followed by
// its n lanes of y.
template <class Vector, class Source>
KESAUDIO_INLINE Vector shuffle(Vector x, Vector y, Source) {
  constexpr int kLaneBytes = sizeof x[0], kAll = kVectorBytes / kLaneBytes, n = 16 / kLaneBytes;
  constexpr auto at = [](int lane) {
    const int from = Source()(lane % n, n);
    return lane / n * n + (from < n ? from : from - n + kAll);
  };
  // As floating point: g++ then takes one SHUFPS where it would take two shuffles of integers.
  using Shuffled = std::conditional_t<kLaneBytes == 4, F32x, std::conditional_t<kLaneBytes == 8, F64x, Vector>>;
  return [&]<int... lane>(std::integer_sequence<int, lane...>) KESAUDIO_INLINED {
    return (Vector)__builtin_shufflevector((Shuffled)x, (Shuffled)y, at(lane)...);
  }
  (std::make_integer_sequence<int, kAll>());
}
template <int... from, class Vector>
KESAUDIO_INLINE Vector shuffle(Vector x, Vector y) {
  return shuffle(x, y, [](int i, int) {
    constexpr int kFrom[] = {from...};
    return kFrom[i];
  });
}

// Alternates lanes of x and y, from the lower and from the upper half of each block (ZIP1, ZIP2; UNPCKL, UNPCKH).
template <class Vector>
KESAUDIO_INLINE Vector zipLow(Vector x, Vector y) {
  return shuffle(x, y, [](int i, int n) { return i / 2 + i % 2 * n; });
}
template <class Vector>
KESAUDIO_INLINE Vector zipHigh(Vector x, Vector y) {
  return shuffle(x, y, [](int i, int n) { return (n + i) / 2 + i % 2 * n; });
}

// The even lanes of x, then of y; the odd ones (UZP1, UZP2; SHUFPS).
template <class Vector>
KESAUDIO_INLINE Vector unzipEven(Vector x, Vector y) {
  return shuffle(x, y, [](int i, int) { return 2 * i; });
}
template <class Vector>
KESAUDIO_INLINE Vector unzipOdd(Vector x, Vector y) {
  return shuffle(x, y, [](int i, int) { return 2 * i + 1; });
}

// Each even lane twice (TRN1).
template <class Vector>
KESAUDIO_INLINE Vector duplicateEven(Vector x) {
  return shuffle(x, x, [](int i, int) { return i / 2 * 2; });
}

// SMIN, SMAX; PMINS, PMAXS.
template <class Vector>
KESAUDIO_INLINE Vector minimum(Vector x, Vector y) {
  return x < y ? x : y;
}
template <class Vector>
KESAUDIO_INLINE Vector maximum(Vector x, Vector y) {
  return x < y ? y : x;
}

// Index of the source byte for each byte of a vector; kSilent makes it 0.
inline constexpr Byte kSilent = 255;
struct ByteTable {
  Byte bytes[kVectorBytes] = {};
  constexpr ByteTable() = default;
  constexpr explicit ByteTable(const Byte* sources) {
    for (int i = 0; i < kVectorBytes; ++i) bytes[i] = sources[i];
  }
};

}  // namespace kesaudio

#if defined(__aarch64__)
#include "base/simd_neon.h"
#elif defined(__x86_64__)
#include "base/simd_x86.h"
#else
#error "vectors are for 64-bit Arm and x86-64"
#endif

namespace kesaudio {

// Deinterleaves 64-bit elements, block by block: x[i] gets element i of every group of kCount in m.
template <int kCount>
KESAUDIO_INLINE void deinterleave(const I64x (&m)[kCount], I64x (&x)[kCount]) {
  if constexpr (kCount == 1) {
    x[0] = m[0];
  } else if constexpr (kCount == 3) {  // a0 b0, c0 a1, b1 c1
    x[0] = shuffle<0, 3>(m[0], m[1]), x[1] = shuffle<1, 2>(m[0], m[2]), x[2] = shuffle<0, 3>(m[1], m[2]);
  } else {
    constexpr int kHalf = kCount / 2;
    for (int i = 0; i < kHalf; ++i) x[2 * i] = zipLow(m[i], m[i + kHalf]), x[2 * i + 1] = zipHigh(m[i], m[i + kHalf]);
  }
}

// In every block, lane j of x[i] is lane i of m[j].
KESAUDIO_INLINE void transpose(const I64x (&m)[2], I64x (&x)[2]) { deinterleave(m, x); }
KESAUDIO_INLINE void transpose(const I32x (&m)[4], I32x (&x)[4]) {
  const I64x halves[4] = {(I64x)zipLow(m[0], m[1]), (I64x)zipLow(m[2], m[3]), (I64x)zipHigh(m[0], m[1]),
                          (I64x)zipHigh(m[2], m[3])};
  for (int i = 0; i < 4; i += 2) {
    x[i] = (I32x)zipLow(halves[i], halves[i + 1]), x[i + 1] = (I32x)zipHigh(halves[i], halves[i + 1]);
  }
}

KESAUDIO_INLINE Wide operator+(Wide x, Wide y) { return {x.low + y.low, x.high + y.high}; }

}  // namespace kesaudio

#endif
