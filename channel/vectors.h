// SPDX-License-Identifier: Apache-2.0
// The vector layer: vectors and the moves of their elements that put channels side by side. One body of code for
// 64-bit Arm and x86-64, in the compilers' vector extensions; what those cannot say is in machine.h.
//
// x86-64 moves elements cheaply inside 16 bytes, and with AVX-512 from anywhere to anywhere. A vector is therefore
// kGroups groups, each of which holds frames of its own: with AVX2 two of them go through a step's frames side by
// side, and no element ever crosses from one to the other.
//
//   element   what the vector's type holds
//   quarter   16 bytes, whatever the vector's size
//   group     16 bytes, or with AVX-512 the whole vector
#ifndef KESAUDIO_CHANNEL_VECTORS_H
#define KESAUDIO_CHANNEL_VECTORS_H

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <type_traits>
#include <utility>

#if defined(__x86_64__)
#include <immintrin.h>
#elif defined(__aarch64__)
#include <arm_neon.h>
#else
#error "the kernels' vectors are for 64-bit Arm and x86-64"
#endif

#include "channel/pcm.h"

// Vectors are passed between functions of one file only, so no other object can disagree about how.
#pragma GCC diagnostic ignored "-Wpsabi"
#ifndef __clang__
// g++ 12 finds the operand that its own 512-bit intrinsics leave undefined.
#pragma GCC diagnostic ignored "-Wuninitialized"
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif

// Functions and lambdas of which no call may be left: what they handle would go through memory.
#define KESAUDIO_INLINE [[gnu::always_inline]] inline
#define KESAUDIO_INLINED __attribute__((always_inline))

namespace kesaudio::channel {

#if defined(__AVX512BW__)
inline constexpr int kLanes = 16, kGroups = 1;
#elif defined(__AVX2__)
inline constexpr int kLanes = 8, kGroups = 2;
#else
inline constexpr int kLanes = 4, kGroups = 1;
#endif
inline constexpr int kVectorBytes = 4 * kLanes, kGroupBytes = kVectorBytes / kGroups, kQuarters = kLanes / 4;

typedef std::int16_t Shorts __attribute__((vector_size(kVectorBytes)));
typedef std::uint16_t UnsignedShorts __attribute__((vector_size(kVectorBytes)));
typedef std::int32_t Words __attribute__((vector_size(kVectorBytes)));
typedef std::uint32_t UnsignedWords __attribute__((vector_size(kVectorBytes)));
typedef std::int64_t Longs __attribute__((vector_size(kVectorBytes)));
typedef std::uint64_t UnsignedLongs __attribute__((vector_size(kVectorBytes)));
typedef Byte VectorBytes __attribute__((vector_size(kVectorBytes)));
typedef float Floats __attribute__((vector_size(kVectorBytes)));
typedef double Doubles __attribute__((vector_size(kVectorBytes)));
typedef std::int32_t HalfWords __attribute__((vector_size(kVectorBytes / 2)));
typedef std::int64_t Quarter __attribute__((vector_size(16)));

// What a vector holds one element of.
template <class Vector>
using ElementOf = std::remove_cvref_t<decltype(std::declval<Vector>()[0])>;
template <class Vector>
inline constexpr int kElements = kVectorBytes / static_cast<int>(sizeof(ElementOf<Vector>));
template <class Vector>
inline constexpr int kGroupElements = kElements<Vector> / kGroups;

template <class Vector>
KESAUDIO_INLINE Vector loadVector(const Byte* p) {
  Vector v;
  std::memcpy(&v, p, sizeof v);
  return v;
}

// Calls body(0), body(1), ... with constants, unrolled before the optimiser looks, which then keeps arrays in
// registers.
template <int kCount, class Body>
KESAUDIO_INLINE void unrolled(Body body) {
  [&]<int... kIndex>(std::integer_sequence<int, kIndex...>) KESAUDIO_INLINED {
    (body(std::integral_constant<int, kIndex>()), ...);
  }
  (std::make_integer_sequence<int, kCount>());
}

// ---- moves of elements

// What elements are shuffled as: numbers of their size, since x86-64 has one instruction for most moves of those from
// two vectors, and g++ would take three for integers.
template <class Vector>
using Shuffled = std::conditional_t<sizeof(ElementOf<Vector>) == 4, Floats,
                                    std::conditional_t<sizeof(ElementOf<Vector>) == 8, Doubles, Vector>>;

// The vector whose element i is element Map()(i) of x and y, counted through both.
template <class Vector, class Map>
KESAUDIO_INLINE Vector shuffled(Vector x, Vector y, Map) {
  return [&]<int... i>(std::integer_sequence<int, i...>) KESAUDIO_INLINED {
    return (Vector)__builtin_shufflevector((Shuffled<Vector>)x, (Shuffled<Vector>)y, Map()(i)...);
  }
  (std::make_integer_sequence<int, kElements<Vector>>());
}

// Bytes moved: byte i of the result is byte Map()(i) of x, both counted through the vector, and in the same quarter.
template <class Map>
KESAUDIO_INLINE Words movedBytes(Words x, Map map) {
  return (Words)shuffled((VectorBytes)x, (VectorBytes)x, map);
}

#if defined(__AVX2__)
typedef std::int64_t TwoQuarters __attribute__((vector_size(32)));
// g++ makes a load and a move of it, where one instruction is both.
KESAUDIO_INLINE TwoQuarters joined(Quarter x, Quarter y) {
  return (TwoQuarters)_mm256_inserti128_si256(_mm256_castsi128_si256((__m128i)x), (__m128i)y, 1);
}

// Two quarters kDistance bytes apart.
template <std::ptrdiff_t kDistance>
KESAUDIO_INLINE TwoQuarters loadTwoQuarters(const Byte* p) {
  if constexpr (kDistance == 0) return (TwoQuarters)_mm256_broadcastsi128_si256((__m128i)loadVector<Quarter>(p));
  return joined(loadVector<Quarter>(p), loadVector<Quarter>(p + kDistance));
}
#endif

template <int kCount>
KESAUDIO_INLINE Words joined(const Quarter (&q)[kCount]) {
  if constexpr (kCount == 1)
    return (Words)q[0];
  else if constexpr (kCount == 2)
    return (Words)joined(q[0], q[1]);
  else
    return (Words)__builtin_shufflevector(joined(q[0], q[1]), joined(q[2], q[3]), 0, 1, 2, 3, 4, 5, 6, 7);
}

// A vector whose groups lie kStride bytes apart.
template <std::ptrdiff_t kStride>
KESAUDIO_INLINE Words loadGroups(const Byte* p) {
  if constexpr (kStride == kGroupBytes || kGroups == 1) {
    return loadVector<Words>(p);
  } else {
    Quarter quarters[kQuarters] = {};
    unrolled<kQuarters>([&](auto q) KESAUDIO_INLINED { quarters[q] = loadVector<Quarter>(p + q * kStride); });
    return joined(quarters);
  }
}

template <std::ptrdiff_t kStride>
KESAUDIO_INLINE void storeGroups(Byte* p, Words x) {
  if constexpr (kStride == kGroupBytes || kGroups == 1) {
    std::memcpy(p, &x, sizeof x);
  } else {
    unrolled<kQuarters>([&](auto q) KESAUDIO_INLINED {
      const Quarter quarter = __builtin_shufflevector((Longs)x, (Longs)x, 2 * q, 2 * q + 1);
      std::memcpy(p + q * kStride, &quarter, sizeof quarter);
    });
  }
}

// Where the elements of a vector come from that begins with element kBegin of a rearranged group: which of kIn
// vectors, and from where in it.
template <class Vector, int kIn, int kBegin, class Map>
struct Sources {
  static constexpr int kSize = kGroupElements<Vector>;
  static constexpr int vectorOf(int i) { return Map()(kBegin + i % kSize) / kSize; }
  static constexpr int placeOf(int i) { return i / kSize * kSize + Map()(kBegin + i % kSize) % kSize; }

  // The vectors that something is taken from, in order; the last entry counts.
  static constexpr auto kUsed = [] {
    std::array<int, kIn + 1> list{};
    for (int v = 0; v < kIn; ++v) {
      bool isUsed = false;
      for (int i = 0; i < kSize; ++i) isUsed = isUsed || vectorOf(i) == v;
      if (isUsed) list[static_cast<std::size_t>(list[kIn]++)] = v;
    }
    return list;
  }();
  static constexpr int kCount = kUsed[kIn], kFirst = kUsed[0], kSecond = kUsed[kCount > 1 ? 1 : 0];

  // The vector that an element is taken from by its place; whether none is needed from two.
  static constexpr int holderOf(int place) {
    for (int i = 0; i < kSize; ++i)
      if (placeOf(i) == place % kSize) return vectorOf(i);
    return kFirst;
  }
  static constexpr bool kIsBlend = [] {
    for (int i = 0; i < kSize; ++i)
      if (holderOf(placeOf(i)) != vectorOf(i)) return false;
    return true;
  }();
};

// Rearranges kIn vectors into kOut, each group for itself: element e of a group, counted through all the vectors of
// the result, is element Map()(e) of the source's, a constant for each e.
template <int kOut, class Map, class Vector, int kIn>
KESAUDIO_INLINE void rearrange(const Vector (&in)[kIn], Vector (&out)[kOut], Map) {
  unrolled<kOut>([&](auto j) KESAUDIO_INLINED {
    using From = Sources<Vector, kIn, decltype(j)::value * kGroupElements<Vector>, Map>;
    static constexpr int kAll = kElements<Vector>;
    if constexpr (From::kCount > 2 && From::kIsBlend && kGroupBytes == 16) {
      // Every place with what it holds in the vector that it is taken from, then one move.
      Vector blend = in[From::kFirst];
      unrolled<From::kCount - 1>([&](auto further) KESAUDIO_INLINED {
        constexpr int kThis = From::kUsed[further + 1];
        blend = shuffled(blend, in[kThis], [](int i) { return From::holderOf(i) == kThis ? kAll + i : i; });
      });
      out[j] = shuffled(blend, blend, [](int i) { return From::placeOf(i); });
    } else {
      out[j] = shuffled(in[From::kFirst], in[From::kSecond], [](int i) {
        return From::placeOf(i) + (From::kCount > 1 && From::vectorOf(i) == From::kSecond ? kAll : 0);
      });
      unrolled<(From::kCount > 2 ? From::kCount - 2 : 0)>([&](auto further) KESAUDIO_INLINED {
        constexpr int kThis = From::kUsed[further + 2];
        out[j] = shuffled(out[j], in[kThis],
                          [](int i) { return From::vectorOf(i) == kThis ? kAll + From::placeOf(i) : i; });
      });
    }
  });
}

// From elements in stream order, kCount a frame, to a vector for each of the kCount. Even counts are halved first,
// which takes fewer moves.
template <int kCount, class Vector>
KESAUDIO_INLINE void deinterleave(const Vector (&stream)[kCount], Vector (&parts)[kCount]) {
  constexpr int kSize = kGroupElements<Vector>;
  if constexpr (kCount == 1) {
    parts[0] = stream[0];
  } else if constexpr (kCount % 2 == 0) {
    constexpr int kHalf = kCount / 2;
    Vector halves[2][kHalf], half[kHalf];
    rearrange<kHalf>(stream, halves[0], [](int e) { return 2 * e; });
    rearrange<kHalf>(stream, halves[1], [](int e) { return 2 * e + 1; });
    unrolled<2>([&](auto odd) KESAUDIO_INLINED {
      deinterleave<kHalf>(halves[odd], half);
      unrolled<kHalf>([&](auto c) KESAUDIO_INLINED { parts[2 * c + odd] = half[c]; });
    });
  } else {
    rearrange<kCount>(stream, parts, [](int e) { return e % kSize * kCount + e / kSize; });
  }
}

// The even (kOdd 0) or odd (1) elements of x and then of y.
template <int kOdd, class Vector>
KESAUDIO_INLINE Vector everySecond(Vector x, Vector y) {
  const Vector in[2] = {x, y};
  Vector out[1];
  rearrange<1>(in, out, [](int e) { return 2 * e + kOdd; });
  return out[0];
}

// The first half (kPart 0) or the second (1) of x, each element twice.
template <int kPart, class Vector>
KESAUDIO_INLINE Vector doubled(Vector x) {
  const Vector in[1] = {x};
  Vector out[1];
  rearrange<1>(in, out, [](int e) { return kPart * kGroupElements<Vector> / 2 + e / 2; });
  return out[0];
}

}  // namespace kesaudio::channel

#endif
