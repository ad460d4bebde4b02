// SPDX-License-Identifier: Apache-2.0
// The vector operations of simd.h on x86-64; simd_neon.h says what each one does.
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
typedef float Floats __attribute__((vector_size(kVectorBytes)));
typedef double Doubles __attribute__((vector_size(kVectorBytes)));
typedef std::int32_t HalfI32x __attribute__((vector_size(kVectorBytes / 2)));

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

KESAUDIO_INLINE U8x loadToEach(const Byte* p) {
#if defined(__AVX2__)
  return (U8x)_mm256_broadcastsi128_si256(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p)));
#else
  return load<U8x>(p);
#endif
}

#if defined(__SSE4_1__)
inline constexpr bool kHasByteShuffle = true;
KESAUDIO_INLINE U8x permute(U8x x, U8x table) {
  return (U8x)KESAUDIO_X86(shuffle_epi8)((Register)x, (Register)table);
}
#else
inline constexpr bool kHasByteShuffle = false;
inline U8x permute(U8x x, U8x table) {
  U8x y = {};
  for (int i = 0; i < 16; ++i) y[i] = table[i] < 128 ? x[table[i] % 16] : Byte{};
  return y;
}
#endif

// A table for each half of a window of 32 bytes: PSHUFB takes four bits of an index, and makes 0 of 128 or more.
struct LongTable {
  U8x low, high;
};
KESAUDIO_INLINE LongTable longTable(U8x table) {
  const Register low = KESAUDIO_X86(adds_epu8)((Register)table, KESAUDIO_X86(set1_epi8)(112));
  return {(U8x)low, table - 16};
}
struct LongWindow {
  U8x low, high;
};
KESAUDIO_INLINE LongWindow loadLongWindow(const Byte* p) { return {loadToEach(p), loadToEach(p + 16)}; }
KESAUDIO_INLINE U8x permute(const LongWindow& x, LongTable table) {
  return permute(x.low, table.low) | permute(x.high, table.high);
}

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

// SHUFPS, SHUFPD: in every block lanes of x, then lanes of y.
template <int i0, int i1, int i2, int i3>
KESAUDIO_INLINE I32x shuffle(I32x x, I32x y) {
  return (I32x)KESAUDIO_X86(shuffle_ps)((FloatRegister)x, (FloatRegister)y, i0 | i1 << 2 | i2 << 4 | i3 << 6);
}
template <int i0, int i1>
KESAUDIO_INLINE I64x shuffle(I64x x, I64x y) {
  constexpr int kBlock = i0 | i1 << 1;
  return (I64x)KESAUDIO_X86(shuffle_pd)((DoubleRegister)x, (DoubleRegister)y, kBlocks == 2 ? kBlock * 5 : kBlock);
}
// In every block the lanes of x in another order.
template <int... i>
KESAUDIO_INLINE I16x reorder(I16x x) {
#if defined(__AVX2__)
  return __builtin_shufflevector(x, x, i..., (i + 8)...);
#else
  return __builtin_shufflevector(x, x, i...);
#endif
}

// Of lanes from 0 to 255.
KESAUDIO_INLINE U8x narrowBytes(I16x x, I16x y) { return (U8x)KESAUDIO_X86(packus_epi16)((Register)x, (Register)y); }

KESAUDIO_INLINE I64x zipLow(I64x x, I64x y) { return (I64x)KESAUDIO_X86(unpacklo_epi64)((Register)x, (Register)y); }
KESAUDIO_INLINE I64x zipHigh(I64x x, I64x y) { return (I64x)KESAUDIO_X86(unpackhi_epi64)((Register)x, (Register)y); }
KESAUDIO_INLINE I32x zipLow(I32x x, I32x y) { return (I32x)KESAUDIO_X86(unpacklo_epi32)((Register)x, (Register)y); }
KESAUDIO_INLINE I32x zipHigh(I32x x, I32x y) { return (I32x)KESAUDIO_X86(unpackhi_epi32)((Register)x, (Register)y); }
KESAUDIO_INLINE I16x zipLow(I16x x, I16x y) { return (I16x)KESAUDIO_X86(unpacklo_epi16)((Register)x, (Register)y); }
KESAUDIO_INLINE I16x zipHigh(I16x x, I16x y) { return (I16x)KESAUDIO_X86(unpackhi_epi16)((Register)x, (Register)y); }

KESAUDIO_INLINE I32x unzipEven(I32x x, I32x y) { return shuffle<0, 2, 0, 2>(x, y); }
KESAUDIO_INLINE I32x unzipOdd(I32x x, I32x y) { return shuffle<1, 3, 1, 3>(x, y); }
KESAUDIO_INLINE I64x partsApart(I16x x) { return (I64x)reorder<0, 2, 4, 6, 1, 3, 5, 7>(x); }
KESAUDIO_INLINE I16x unzipEven(I16x x, I16x y) { return (I16x)zipLow(partsApart(x), partsApart(y)); }
KESAUDIO_INLINE I16x unzipOdd(I16x x, I16x y) { return (I16x)zipHigh(partsApart(x), partsApart(y)); }

KESAUDIO_INLINE I16x duplicateEven(I16x x) { return reorder<0, 0, 2, 2, 4, 4, 6, 6>(x); }
KESAUDIO_INLINE I32x duplicateEven(I32x x) { return shuffle<0, 0, 2, 2>(x, x); }

template <class Vector>
KESAUDIO_INLINE Vector inOrder(Vector x) {
#if defined(__AVX2__)
  return (Vector)_mm256_permute4x64_epi64((Register)x, 0 | 2 << 2 | 1 << 4 | 3 << 6);
#else
  return x;
#endif
}

template <int kCount>
KESAUDIO_INLINE void loadElements(const Byte* p, I32x (&x)[kCount]) {
  I32x m[kCount];
  for (int i = 0; i < kCount; ++i) m[i] = loadBlocks<I32x>(p + 16 * i, 16 * kCount);
  if constexpr (kCount == 1) {
    x[0] = m[0];
  } else if constexpr (kCount == 2) {
    x[0] = unzipEven(m[0], m[1]), x[1] = unzipOdd(m[0], m[1]);
  } else if constexpr (kCount == 3) {  // a0 b0 c0 a1, b1 c1 a2 b2, c2 a3 b3 c3
    const I32x a2b2c2a3 = shuffle<2, 3, 0, 1>(m[1], m[2]), b0c0b1c1 = shuffle<1, 2, 0, 1>(m[0], m[1]);
    const I32x b2b2b3b3 = shuffle<1, 1, 2, 2>(a2b2c2a3, m[2]);
    x[0] = shuffle<0, 3, 0, 3>(m[0], a2b2c2a3);
    x[1] = shuffle<0, 2, 0, 2>(b0c0b1c1, b2b2b3b3);
    x[2] = shuffle<1, 3, 0, 3>(b0c0b1c1, m[2]);
  } else {
    const auto ab01 = (I64x)zipLow(m[0], m[1]), cd01 = (I64x)zipHigh(m[0], m[1]);
    const auto ab23 = (I64x)zipLow(m[2], m[3]), cd23 = (I64x)zipHigh(m[2], m[3]);
    x[0] = (I32x)zipLow(ab01, ab23), x[1] = (I32x)zipHigh(ab01, ab23);
    x[2] = (I32x)zipLow(cd01, cd23), x[3] = (I32x)zipHigh(cd01, cd23);
  }
}
template <int kCount>
KESAUDIO_INLINE void loadElements(const Byte* p, I64x (&x)[kCount]) {
  I64x m[kCount];
  for (int i = 0; i < kCount; ++i) m[i] = loadBlocks<I64x>(p + 16 * i, 16 * kCount);
  if constexpr (kCount == 1) {
    x[0] = m[0];
  } else if constexpr (kCount == 3) {  // a0 b0, c0 a1, b1 c1
    x[0] = shuffle<0, 1>(m[0], m[1]), x[1] = shuffle<1, 0>(m[0], m[2]), x[2] = shuffle<0, 1>(m[1], m[2]);
  } else {
    constexpr int kHalf = kCount / 2;
    for (int i = 0; i < kHalf; ++i) x[2 * i] = zipLow(m[i], m[i + kHalf]), x[2 * i + 1] = zipHigh(m[i], m[i + kHalf]);
  }
}

template <class Vector>
KESAUDIO_INLINE void loadSides(const Byte* p, Vector& left, Vector& right) {
  const auto first = load<Vector>(p), second = load<Vector>(p + kVectorBytes);
  left = unzipEven(first, second), right = unzipOdd(first, second);
}

// Here a side is one half of the frames, left and right in turn. A block's frames are in two loads of 16 bytes, the
// second of which ends with them.
KESAUDIO_INLINE void loadTriples(const Byte* p, I16x (&sides)[2], I16x (&third)[2]) {
  for (int half = 0; half < 2; ++half, p += 24 * kBlocks) {
    const auto first = (I64x)reorder<0, 1, 3, 4, 2, 2, 5, 5>(loadBlocks<I16x>(p, 24));
    const auto last = (I64x)reorder<2, 3, 5, 6, 4, 4, 7, 7>(loadBlocks<I16x>(p + 8, 24));
    sides[half] = (I16x)zipLow(first, last), third[half] = (I16x)zipHigh(first, last);
  }
}
KESAUDIO_INLINE void loadTriples(const Byte* p, I32x (&sides)[2], I32x (&third)[2]) {
  for (int half = 0; half < 2; ++half, p += 24 * kBlocks) {
    const I32x first = loadBlocks<I32x>(p, 24), last = loadBlocks<I32x>(p + 8, 24);
    sides[half] = shuffle<0, 1, 1, 2>(first, last), third[half] = shuffle<2, 2, 3, 3>(first, last);
  }
}
template <class Vector>
KESAUDIO_INLINE void storeSides(Byte* p, Vector first, Vector second) {
  store(p, first);
  store(p + kVectorBytes, second);
}

// ---- arithmetic

// PMULHW takes the upper half, so the factor is doubled: it must be below 2^14.
KESAUDIO_INLINE I16x scaleQ15(I16x x, std::int16_t factor) {
  return (I16x)KESAUDIO_X86(mulhi_epi16)((Register)x,
                                         KESAUDIO_X86(set1_epi16)(static_cast<std::int16_t>(2 * factor)));
}

// Of each pair of 16-bit lanes x0, x1: x0 * weight0 + x1 * weight1 (PMADDWD).
KESAUDIO_INLINE I32x weightedPairs(I16x x, std::int16_t weight0, std::int16_t weight1) {
  const auto weights = static_cast<std::uint16_t>(weight0) | static_cast<std::uint32_t>(weight1) << 16;
  return (I32x)KESAUDIO_X86(madd_epi16)((Register)x, KESAUDIO_X86(set1_epi32)(static_cast<std::int32_t>(weights)));
}

// From the halves of a lane, high * 2^16 + low.
KESAUDIO_INLINE I32x scaleQ15(I32x x, std::int16_t factor) {
  const auto doubled = static_cast<std::int16_t>(2 * factor);
  return weightedPairs((I16x)x, 0, doubled) +
         (I32x)KESAUDIO_X86(mulhi_epu16)((Register)x, KESAUDIO_X86(set1_epi32)(doubled));
}
KESAUDIO_INLINE I32x scaleAndShift(I32x x, std::uint16_t factor, int shift) {
  const I32x high = weightedPairs((I16x)x, 0, static_cast<std::int16_t>(factor / 2)) << 1;  // the factor is even
  const auto low = (I32x)KESAUDIO_X86(mulhi_epu16)((Register)x, KESAUDIO_X86(set1_epi32)(factor));
  return (high + low) >> (shift - 1);
}

KESAUDIO_INLINE I16x saturatingAdd(I16x x, I16x y) {
  return (I16x)KESAUDIO_X86(adds_epi16)((Register)x, (Register)y);
}
// Lanes of y where x is negative, else of z.
KESAUDIO_INLINE I32x whereNegative(I32x x, I32x y, I32x z) {
#if defined(__SSE4_1__)
  return (I32x)KESAUDIO_X86(blendv_ps)((FloatRegister)z, (FloatRegister)y, (FloatRegister)x);
#else
  return x < 0 ? y : z;
#endif
}
KESAUDIO_INLINE I32x saturatingAdd(I32x x, I32x y) {
  const auto sum = (I32x)((U32x)x + (U32x)y);
  return whereNegative((sum ^ x) & (sum ^ y), (x >> 31) ^ INT32_MAX, sum);
}
// First the term whose sign may differ from x's, whose sum cannot leave 32 bits, then the other.
KESAUDIO_INLINE I32x saturatingSum(I32x x, I32x y, I32x z) {
  const I32x less = y < z ? y : z, more = y < z ? z : y;
  return saturatingAdd(saturatingAdd(x, whereNegative(x, more, less)), whereNegative(x, less, more));
}

struct Wide {
  I32x low, high;
};
KESAUDIO_INLINE Wide widenAndAdd(I16x x, I16x y) {
  return {weightedPairs(zipLow(x, y), 1, 1), weightedPairs(zipHigh(x, y), 1, 1)};
}
KESAUDIO_INLINE Wide widenAndAdd(Wide sum, I16x x) {
  return {sum.low + ((I32x)zipLow(x, x) >> 16), sum.high + ((I32x)zipHigh(x, x) >> 16)};
}

KESAUDIO_INLINE I16x saturateNarrow(I32x x, I32x y) {
  return (I16x)KESAUDIO_X86(packs_epi32)((Register)x, (Register)y);
}

KESAUDIO_INLINE I16x narrow(I32x x, I32x y) { return saturateNarrow(x, y); }

KESAUDIO_INLINE I32x addPairs(I16x x) { return weightedPairs(x, 1, 1); }
KESAUDIO_INLINE I32x addPairs(I32x sum, I16x x) { return sum + addPairs(x); }
// Without a shift of 64-bit lanes that extends the sign: as unsigned numbers, each 2^31 more.
KESAUDIO_INLINE I64x addPairs(I32x x) {
  const I64x biased = (I64x)(x ^ INT32_MIN);
  return (biased & UINT32_MAX) + (I64x)KESAUDIO_X86(srli_epi64)((Register)biased, 32) - (std::int64_t{1} << 32);
}
KESAUDIO_INLINE I64x addPairs(I64x sum, I32x x) { return sum + addPairs(x); }

KESAUDIO_INLINE I32x addNeighbours(I32x x, I32x y) { return unzipEven(x, y) + unzipOdd(x, y); }
KESAUDIO_INLINE I64x addNeighbours(I64x x, I64x y) { return zipLow(x, y) + zipHigh(x, y); }

// The floor, (x & y) + (x ^ y) / 2, and the bit it drops where it is below zero.
template <class Vector>
KESAUDIO_INLINE Vector averageOfTwo(Vector x, Vector y) {
  const Vector down = (x & y) + ((x ^ y) >> 1);
  return down + ((x ^ y) & 1 & (down < 0));
}

// ---- division

// What a division by 2 to 8 multiplies by: a little more than 1 / divisor, so that exact quotients do not fall below
// themselves however a thread rounds its floating-point numbers, and too little to reach the next quotient.
struct Divisor {
  float small;
  std::int32_t factor;
  double wide;
};
KESAUDIO_INLINE Divisor makeDivisor(int divisor) {
  return {1.0f / static_cast<float>(divisor) * (1 + 0x1p-20f),
          static_cast<std::int32_t>(0x80000000u / static_cast<unsigned>(divisor)) + 1, 1.0 / divisor * (1 + 0x1p-45)};
}

// The sum of at most eight 16-bit samples.
KESAUDIO_INLINE I32x divideSmall(I32x sum, Divisor by) {
  return __builtin_convertvector(__builtin_convertvector(sum, Floats) * by.small, I32x);
}

// Of at most eight 24-bit samples: the floor of the product, from the even lanes and from the odd ones, and one more
// below zero.
KESAUDIO_INLINE I32x divide(I32x sum, Divisor by) {
#if defined(__SSE4_1__)
  const Register factor = KESAUDIO_X86(set1_epi32)(by.factor);
  const auto even = (I64x)KESAUDIO_X86(mul_epi32)((Register)sum, factor);
  const Register odd = KESAUDIO_X86(mul_epi32)(KESAUDIO_X86(srli_epi64)((Register)sum, 32), factor);
  const Register evenFloor = KESAUDIO_X86(srli_epi64)((Register)(even + even), 32);
  const auto oddFloor = KESAUDIO_X86(add_epi64)(odd, odd);
  return (I32x)KESAUDIO_X86(blend_epi16)(evenFloor, oddFloor, 0xCC) - (sum >> 31);
#else
  for (int i = 0; i < 4; ++i) sum[i] = static_cast<std::int32_t>(sum[i] * by.wide);
  return sum;
#endif
}

// Of at most eight 32-bit samples and a bias. Below 2^52 a number in the lower bits of a double that is 1.5 * 2^52 is
// that double's fraction.
KESAUDIO_INLINE HalfI32x divideHalf(I64x sum, Divisor by, std::int64_t bias) {
  const Doubles exact = (Doubles)(sum + (0x4338000000000000 - bias)) - 0x1.8p52;
  const auto quotients = KESAUDIO_X86(cvttpd_epi32)((DoubleRegister)(exact * by.wide));
#if defined(__AVX2__)
  return (HalfI32x)quotients;
#else
  return (HalfI32x)_mm_cvtsi128_si64(quotients);
#endif
}

// The sums of the even lanes and of the odd ones, each of count lanes as unsigned numbers, 2^31 more than they are.
struct WideSums {
  I64x even, odd;
  int count;
};
KESAUDIO_INLINE WideSums widenAndAdd(WideSums sum, I32x x) {
  const I64x biased = (I64x)(x ^ INT32_MIN);
  return {sum.even + (biased & UINT32_MAX), sum.odd + (I64x)KESAUDIO_X86(srli_epi64)((Register)biased, 32),
          sum.count + 1};
}
KESAUDIO_INLINE WideSums widenAndAdd(I32x x, I32x y) { return widenAndAdd(widenAndAdd(WideSums{{}, {}, 0}, x), y); }

KESAUDIO_INLINE I32x divideWide(WideSums sum, Divisor by) {
  const std::int64_t bias = std::int64_t{sum.count} << 31;
  const HalfI32x even = divideHalf(sum.even, by, bias), odd = divideHalf(sum.odd, by, bias);
#if defined(__AVX2__)
  return (I32x)_mm256_set_m128i(_mm_unpackhi_epi32((__m128i)even, (__m128i)odd),
                                _mm_unpacklo_epi32((__m128i)even, (__m128i)odd));
#else
  return I32x{even[0], odd[0], even[1], odd[1]};
#endif
}

// Of the totals of the first frames and of the next.
KESAUDIO_INLINE I32x divideTotals(I64x first, I64x second, Divisor by) {
  const HalfI32x low = divideHalf(first, by, 0), high = divideHalf(second, by, 0);
#if defined(__AVX2__)
  return (I32x)_mm256_set_m128i((__m128i)high, (__m128i)low);
#else
  return I32x{low[0], low[1], high[0], high[1]};
#endif
}

template <int kDivisor>
KESAUDIO_INLINE I32x divideWideByPowerOf2(WideSums sum) {
  return divideWide(sum, makeDivisor(kDivisor));
}
template <int kDivisor>
KESAUDIO_INLINE I32x divideTotalsByPowerOf2(I64x first, I64x second) {
  return divideTotals(first, second, makeDivisor(kDivisor));
}

}  // namespace kesaudio

#endif
