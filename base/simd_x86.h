// SPDX-License-Identifier: Apache-2.0
// The vector operations of simd.h on x86-64; simd_neon.h describes each of them.
#ifndef KESAUDIO_BASE_SIMD_X86_H
#define KESAUDIO_BASE_SIMD_X86_H

#include <immintrin.h>

#if defined(__AVX2__)
#define KESAUDIO_X86(name) _mm256_##name
#else
#define KESAUDIO_X86(name) _mm_##name
#endif

namespace kesaudio {

#if defined(__AVX2__)
typedef __m256i Register;
typedef __m256 FloatRegister;
typedef __m256d DoubleRegister;
#else
typedef __m128i Register;
typedef __m128 FloatRegister;
typedef __m128d DoubleRegister;
#endif

// ---- moves

template <class Vector>
KESAUDIO_INLINE Vector loadBlocks(const Byte* p, [[maybe_unused]] std::ptrdiff_t second) {
#if defined(__AVX2__)
  return (Vector)_mm256_loadu2_m128i(reinterpret_cast<const __m128i*>(p + second),
                                     reinterpret_cast<const __m128i*>(p));
#else
  return load<Vector>(p);
#endif
}

// The first block first: the second may begin inside it.
template <class Vector>
KESAUDIO_INLINE void storeBlocks(Byte* p, [[maybe_unused]] std::ptrdiff_t second, Vector x) {
#if defined(__AVX2__)
  _mm_storeu_si128(reinterpret_cast<__m128i*>(p), _mm256_castsi256_si128((Register)x));
  _mm_storeu_si128(reinterpret_cast<__m128i*>(p + second), _mm256_extracti128_si256((Register)x, 1));
#else
  store(p, x);
#endif
}

KESAUDIO_INLINE U8x broadcastLoad(const Byte* p) { return loadBlocks<U8x>(p, 0); }

// PSHUFB: an index of 128 or more gives 0; of others the low four bits count.
#if defined(__SSE4_1__)
inline constexpr bool kHasByteShuffle = true;
KESAUDIO_INLINE U8x permute(U8x x, U8x table) {
  return (U8x)KESAUDIO_X86(shuffle_epi8)((Register)x, (Register)table);
}
#else
inline constexpr bool kHasByteShuffle = false;
inline U8x permute(U8x x, U8x) { return x; }
#endif

#if defined(__AVX2__)
// Each vector takes its bytes from 16 neighbours in the window, which VBROADCASTI128 loads into both blocks.
struct ShortWindow {
  static constexpr int kBytes = 32;
  static constexpr Byte first(const Byte* sources) {
    Byte least = 16;
    for (int i = 0; i < kVectorBytes; ++i) least = std::min(least, sources[i]);
    return least;
  }
  static constexpr bool reaches(const Byte* sources) {
    Byte most = 0;
    for (int i = 0; i < kVectorBytes; ++i) most = std::max(most, sources[i] == kSilent ? Byte{0} : sources[i]);
    return most < first(sources) + 16;
  }
  struct Table {
    ByteTable bytes;
    std::ptrdiff_t at = 0;
    constexpr Table() = default;
    constexpr explicit Table(const Byte* sources) : bytes(sources), at(first(sources)) {
      for (Byte& s : bytes.bytes) s = s == kSilent ? s : static_cast<Byte>(s - at);
    }
  };
  struct Indexes {
    U8x bytes;
    std::ptrdiff_t at;
  };
  KESAUDIO_INLINE static Indexes load(const Table& table) {
    return {kesaudio::load<U8x>(table.bytes.bytes), table.at};
  }
  const Byte* bytes;
  KESAUDIO_INLINE explicit ShortWindow(const Byte* p) : bytes(p) {}
  KESAUDIO_INLINE U8x permute(const Indexes& indexes) const {
    return kesaudio::permute(broadcastLoad(bytes + indexes.at), indexes.bytes);
  }
};
#else
struct ShortWindow {
  static constexpr int kBytes = 16;
  using Table = ByteTable;
  using Indexes = U8x;
  static constexpr bool reaches(const Byte*) { return true; }
  KESAUDIO_INLINE static Indexes load(const Table& table) { return kesaudio::load<U8x>(table.bytes); }
  U8x bytes;
  KESAUDIO_INLINE explicit ShortWindow(const Byte* p) : bytes(kesaudio::load<U8x>(p)) {}
  KESAUDIO_INLINE U8x permute(Indexes indexes) const { return kesaudio::permute(bytes, indexes); }
};
#endif

// Two PSHUFBs, one for each half of the window: an index into the other half is 128 or more there and gives 0.
struct LongWindow {
  static constexpr int kBytes = 32;
  using Table = ByteTable;
  static constexpr bool reaches(const Byte*) { return true; }
  struct Indexes {
    U8x low, high;
  };
  KESAUDIO_INLINE static Indexes load(const Table& table) {
    const U8x sources = kesaudio::load<U8x>(table.bytes);
    return {(U8x)KESAUDIO_X86(adds_epu8)((Register)sources, KESAUDIO_X86(set1_epi8)(112)), sources - 16};
  }
  U8x low, high;
  KESAUDIO_INLINE explicit LongWindow(const Byte* p) : low(broadcastLoad(p)), high(broadcastLoad(p + 16)) {}
  KESAUDIO_INLINE U8x permute(const Indexes& indexes) const {
    return kesaudio::permute(low, indexes.low) | kesaudio::permute(high, indexes.high);
  }
};

template <class Value>
KESAUDIO_INLINE Value opaque(Value x) {
  return x;
}

template <int kCount>
struct Strides {
  std::ptrdiff_t stride;
  KESAUDIO_INLINE explicit Strides(std::ptrdiff_t bytes) : stride(bytes) {}
  KESAUDIO_INLINE std::ptrdiff_t operator[](int i) const { return i * stride; }
};
inline constexpr int kStrides = 4;

template <int kCount>
KESAUDIO_INLINE void storeAll(Byte* p, const U8x (&x)[kCount]) {
  for (int i = 0; i < kCount; ++i) store(p + i * kVectorBytes, x[i]);
}

KESAUDIO_INLINE I64x evenThenOdd(I16x x) { return (I64x)shuffle<0, 2, 4, 6, 1, 3, 5, 7>(x, x); }
KESAUDIO_INLINE I16x unzipEven(I16x x, I16x y) { return (I16x)zipLow(evenThenOdd(x), evenThenOdd(y)); }
KESAUDIO_INLINE I16x unzipOdd(I16x x, I16x y) { return (I16x)zipHigh(evenThenOdd(x), evenThenOdd(y)); }

template <class Vector>
KESAUDIO_INLINE Vector undoBlockOrder(Vector x) {
#if defined(__AVX2__)
  return (Vector)_mm256_permute4x64_epi64((Register)x, 0 | 2 << 2 | 1 << 4 | 3 << 6);
#else
  return x;
#endif
}

template <class Vector, int kCount>
KESAUDIO_INLINE void loadBlocks(const Byte* p, Vector (&x)[kCount]) {
  for (int i = 0; i < kCount; ++i) x[i] = loadBlocks<Vector>(p + 16 * i, 16 * kCount);
}
KESAUDIO_INLINE void transpose(const I32x (&m)[4], I32x (&x)[4]);
template <int kCount>
KESAUDIO_INLINE void loadElements(const Byte* p, I32x (&x)[kCount]) {
  I32x m[kCount];
  loadBlocks(p, m);
  if constexpr (kCount == 1) {
    x[0] = m[0];
  } else if constexpr (kCount == 2) {
    x[0] = unzipEven(m[0], m[1]), x[1] = unzipOdd(m[0], m[1]);
  } else if constexpr (kCount == 3) {  // a0 b0 c0 a1, b1 c1 a2 b2, c2 a3 b3 c3
    const I32x a2b2c2a3 = shuffle<2, 3, 4, 5>(m[1], m[2]), b0c0b1c1 = shuffle<1, 2, 4, 5>(m[0], m[1]);
    const I32x b2b2b3b3 = shuffle<1, 1, 6, 6>(a2b2c2a3, m[2]);
    x[0] = shuffle<0, 3, 4, 7>(m[0], a2b2c2a3);
    x[1] = shuffle<0, 2, 4, 6>(b0c0b1c1, b2b2b3b3);
    x[2] = shuffle<1, 3, 4, 7>(b0c0b1c1, m[2]);
  } else {
    transpose(m, x);
  }
}
template <int kCount>
KESAUDIO_INLINE void deinterleave(const I64x (&m)[kCount], I64x (&x)[kCount]);
template <int kCount>
KESAUDIO_INLINE void loadElements(const Byte* p, I64x (&x)[kCount]) {
  I64x m[kCount];
  loadBlocks(p, m);
  deinterleave(m, x);
}

template <class Vector>
KESAUDIO_INLINE void loadSides(const Byte* p, Vector& left, Vector& right) {
  const auto first = load<Vector>(p), second = load<Vector>(p + kVectorBytes);
  left = unzipEven(first, second), right = unzipOdd(first, second);
}

// On x86-64 the two vectors of stereo frames are the first and the second half of the frames, left and right in turn.
// A block's frames are in two loads of 16 bytes; the second load ends where they end.
KESAUDIO_INLINE void loadTriples(const Byte* p, I16x (&sides)[2], I16x (&third)[2]) {
  for (int half = 0; half < 2; ++half, p += 24 * kBlocks) {
    const I16x a = loadBlocks<I16x>(p, 24), b = loadBlocks<I16x>(p + 8, 24);
    const auto first = (I64x)shuffle<0, 1, 3, 4, 2, 2, 5, 5>(a, a);
    const auto last = (I64x)shuffle<2, 3, 5, 6, 4, 4, 7, 7>(b, b);
    sides[half] = (I16x)zipLow(first, last), third[half] = (I16x)zipHigh(first, last);
  }
}
KESAUDIO_INLINE void loadTriples(const Byte* p, I32x (&sides)[2], I32x (&third)[2]) {
  for (int half = 0; half < 2; ++half, p += 24 * kBlocks) {
    const I32x first = loadBlocks<I32x>(p, 24), last = loadBlocks<I32x>(p + 8, 24);
    sides[half] = shuffle<0, 1, 5, 6>(first, last), third[half] = shuffle<2, 2, 7, 7>(first, last);
  }
}
template <class Vector>
KESAUDIO_INLINE void storeStereo(Byte* p, Vector first, Vector second) {
  store(p, first);
  store(p + kVectorBytes, second);
}

// ---- arithmetic

// PMULHW takes the upper half, so the factor is doubled: it must be below 2^14.
KESAUDIO_INLINE I16x scaleQ15(I16x x, std::int16_t factor) {
  return (I16x)KESAUDIO_X86(mulhi_epi16)((Register)x,
                                         KESAUDIO_X86(set1_epi16)(static_cast<std::int16_t>(2 * factor)));
}

// PMADDWD: x0 * weight0 + x1 * weight1 of each pair of 16-bit lanes x0, x1.
KESAUDIO_INLINE I32x multiplyAddPairs(I16x x, std::int16_t weight0, std::int16_t weight1) {
  const auto weights = static_cast<std::uint16_t>(weight0) | static_cast<std::uint32_t>(weight1) << 16;
  return (I32x)KESAUDIO_X86(madd_epi16)((Register)x, KESAUDIO_X86(set1_epi32)(static_cast<std::int32_t>(weights)));
}

// Multiplies the two halves of a lane, high * 2^16 + low, separately: PMADDWD and PMULHUW.
KESAUDIO_INLINE I32x scaleQ15(I32x x, std::int16_t factor) {
  const auto doubled = static_cast<std::int16_t>(2 * factor);
  return multiplyAddPairs((I16x)x, 0, doubled) +
         (I32x)KESAUDIO_X86(mulhi_epu16)((Register)x, KESAUDIO_X86(set1_epi32)(doubled));
}
KESAUDIO_INLINE I32x scaleAndShift(I32x x, std::uint16_t factor, int shift) {
  const I32x high = multiplyAddPairs((I16x)x, 0, static_cast<std::int16_t>(factor / 2)) << 1;  // the factor is even
  const auto low = (I32x)KESAUDIO_X86(mulhi_epu16)((Register)x, KESAUDIO_X86(set1_epi32)(factor));
  return (high + low) >> (shift - 1);
}

KESAUDIO_INLINE I16x saturatingAdd(I16x x, I16x y) {
  return (I16x)KESAUDIO_X86(adds_epi16)((Register)x, (Register)y);
}
// BLENDV: lanes of y where x is negative, else of z.
KESAUDIO_INLINE I32x selectNegative(I32x x, I32x y, I32x z) { return x < 0 ? y : z; }
inline constexpr bool kHasSaturatingAdd32 = false;
KESAUDIO_INLINE I32x saturatingAdd(I32x x, I32x y) {
  const auto sum = (I32x)((U32x)x + (U32x)y);
  return selectNegative((sum ^ x) & (sum ^ y), (x >> 31) ^ INT32_MAX, sum);
}
// Adds first the term that may have the other sign than x: opposite signs cannot overflow.
KESAUDIO_INLINE I32x saturatingSum(I32x x, I32x y, I32x z) {
  const I32x less = minimum(y, z), more = maximum(y, z);
  return saturatingAdd(saturatingAdd(x, selectNegative(x, more, less)), selectNegative(x, less, more));
}

struct Wide {
  I32x low, high;
};
KESAUDIO_INLINE Wide widenAndAdd(I16x x, I16x y) {
  return {multiplyAddPairs(zipLow(x, y), 1, 1), multiplyAddPairs(zipHigh(x, y), 1, 1)};
}
KESAUDIO_INLINE Wide widen(I16x x) { return {(I32x)zipLow(x, x) >> 16, (I32x)zipHigh(x, x) >> 16}; }

KESAUDIO_INLINE I16x saturateNarrow(I32x x, I32x y) {
  return (I16x)KESAUDIO_X86(packs_epi32)((Register)x, (Register)y);
}

KESAUDIO_INLINE I16x narrow(I32x x, I32x y) { return saturateNarrow(x, y); }

KESAUDIO_INLINE I32x addPairs(I16x x) { return multiplyAddPairs(x, 1, 1); }
KESAUDIO_INLINE I32x addPairs(I32x sum, I16x x) { return sum + addPairs(x); }

KESAUDIO_INLINE I32x addAdjacent(I32x x, I32x y) { return unzipEven(x, y) + unzipOdd(x, y); }

// The floor, (x & y) + (x ^ y) / 2, plus the bit that it drops if negative.
template <class Vector>
KESAUDIO_INLINE Vector averageOfTwo(Vector x, Vector y) {
  const Vector down = (x & y) + ((x ^ y) >> 1);
  return down + ((x ^ y) & 1 & (down < 0));
}

// ---- averages

// Reciprocal for a division by 2 to 8: slightly more than 1 / divisor, so that exact quotients are not rounded down
// in any floating-point rounding mode, and too little to reach the next integer.
struct Divisor {
  float small;
  std::int32_t factor;  // times 2^-31
  double wide;
};
KESAUDIO_INLINE Divisor makeDivisor(int divisor) {
  return {1.0f / static_cast<float>(divisor) * (1 + 0x1p-20f),
          static_cast<std::int32_t>(0x80000000u / static_cast<unsigned>(divisor)) + 1, 1.0 / divisor * (1 + 0x1p-45)};
}

// For sums of at most eight 16-bit samples.
KESAUDIO_INLINE I32x divideSmall(I32x sum, Divisor by) {
  return __builtin_convertvector(__builtin_convertvector(sum, F32x) * by.small, I32x);
}

// CVTTPD2DQ: doubles to 32-bit lanes, rounded towards zero.
#if defined(__AVX2__)
KESAUDIO_INLINE __m128i truncate(F64x x) { return _mm256_cvttpd_epi32((DoubleRegister)x); }
KESAUDIO_INLINE I32x joinHalves(__m128i low, __m128i high) { return (I32x)_mm256_set_m128i(high, low); }
KESAUDIO_INLINE I32x interleaveHalves(__m128i even, __m128i odd) {
  return joinHalves(_mm_unpacklo_epi32(even, odd), _mm_unpackhi_epi32(even, odd));
}
#else
KESAUDIO_INLINE __m128i truncate(F64x x) { return _mm_cvttpd_epi32((DoubleRegister)x); }
KESAUDIO_INLINE I32x joinHalves(__m128i low, __m128i high) { return (I32x)_mm_unpacklo_epi64(low, high); }
KESAUDIO_INLINE I32x interleaveHalves(__m128i even, __m128i odd) { return (I32x)_mm_unpacklo_epi32(even, odd); }
#endif

// For sums of at most eight 24-bit samples.
KESAUDIO_INLINE I32x divide(I32x sum, Divisor by) {
#if defined(__SSE4_1__)
  // PMULDQ multiplies the even lanes; the floor of a negative quotient, whose factor is too large, is one too low.
  const auto factor = KESAUDIO_X86(set1_epi32)(by.factor);
  const auto even = (I64x)KESAUDIO_X86(mul_epi32)((Register)sum, factor);
  const auto odd = (I64x)KESAUDIO_X86(mul_epi32)(KESAUDIO_X86(srli_epi64)((Register)sum, 32), factor);
  const auto floor =
      (I32x)KESAUDIO_X86(blend_epi16)(KESAUDIO_X86(srli_epi64)((Register)even, 31), (Register)(odd << 1), 0xCC);
  return floor - (floor >> 31);
#else
  const auto low = (F64x)_mm_cvtepi32_pd((Register)sum);
  const auto high = (F64x)_mm_cvtepi32_pd((Register)zipHigh((I64x)sum, (I64x)sum));
  return joinHalves(truncate(low * by.wide), truncate(high * by.wide));
#endif
}

// Sums of at most eight 32-bit samples. They are zero-extended with the sign bit flipped, since 64-bit lanes have no
// arithmetic shift: each sum is too large by `excess`.
struct WideSums {
  I64x even, odd;
  std::int64_t excess;
};
KESAUDIO_INLINE WideSums operator+(WideSums x, WideSums y) {
  return {x.even + y.even, x.odd + y.odd, x.excess + y.excess};
}
KESAUDIO_INLINE WideSums widen(I32x x) {
  const I64x biased = (I64x)(x ^ INT32_MIN);
  return {biased & UINT32_MAX, (I64x)KESAUDIO_X86(srli_epi64)((Register)biased, 32), std::int64_t{1} << 31};
}
KESAUDIO_INLINE WideSums widenAndAdd(I32x x, I32x y) { return widen(x) + widen(y); }
KESAUDIO_INLINE WideSums addPairs(I32x x, I32x y) {
  const WideSums first = widen(x), second = widen(y);
  return {first.even + first.odd, second.even + second.odd, 2 * first.excess};
}
// Adding a sum to the bits of 1.5 * 2^52 gives the double 1.5 * 2^52 + sum.
KESAUDIO_INLINE __m128i divide(I64x sum, std::int64_t excess, Divisor by) {
  return truncate(((F64x)(sum + (0x4338000000000000 - excess)) - 0x1.8p52) * by.wide);
}
KESAUDIO_INLINE I32x divide(WideSums sum, Divisor by) {
  return interleaveHalves(divide(sum.even, sum.excess, by), divide(sum.odd, sum.excess, by));
}
// The quotients of sums by addPairs, in the order of the frames.
KESAUDIO_INLINE I32x dividePairs(WideSums sum, Divisor by) {
  return joinHalves(divide(sum.even, sum.excess, by), divide(sum.odd, sum.excess, by));
}

}  // namespace kesaudio

#endif
