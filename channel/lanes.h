// SPDX-License-Identifier: Apache-2.0
// The vector layer: samples of any format in 32-bit lanes, as many as the machine's vectors have, and the moves of
// whole vectors that put channels side by side. One body of code for 64-bit Arm and x86-64; what the compiler's
// vector extensions cannot say are three instructions for pairs of 16-bit samples.
#ifndef KESAUDIO_CHANNEL_LANES_H
#define KESAUDIO_CHANNEL_LANES_H

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
#endif

#include "channel/fixed_point.h"
#include "channel/pcm.h"

// Vectors are passed between functions of one file only, so no other object can disagree about how.
#pragma GCC diagnostic ignored "-Wpsabi"

namespace kesaudio::channel {

#if defined(__AVX512BW__)
inline constexpr int kLanes = 16;
#elif defined(__AVX2__)
inline constexpr int kLanes = 8;
#else
inline constexpr int kLanes = 4;
#endif

typedef std::int32_t Words __attribute__((vector_size(4 * kLanes)));
typedef std::uint32_t UnsignedWords __attribute__((vector_size(4 * kLanes)));
typedef std::int16_t Halves __attribute__((vector_size(2 * kLanes)));
typedef std::int16_t Pairs __attribute__((vector_size(4 * kLanes)));  // two samples a lane
typedef Byte WordBytes __attribute__((vector_size(4 * kLanes)));
typedef float Floats __attribute__((vector_size(4 * kLanes)));
typedef double Doubles __attribute__((vector_size(8 * kLanes)));

template <class Vector>
[[gnu::always_inline]] inline Vector loadVector(const Byte* p) {
  Vector v;
  std::memcpy(&v, p, sizeof v);
  return v;
}

// Calls body(0), body(1), ... with constants, unrolled before the optimiser looks, which then keeps arrays in
// registers.
template <int kCount, class Body>
[[gnu::always_inline]] inline void unrolled(Body body) {
  [&]<int... kIndex>(std::integer_sequence<int, kIndex...>) __attribute__((always_inline)) {
    (body(std::integral_constant<int, kIndex>()), ...);
  }
  (std::make_integer_sequence<int, kCount>());
}

// ---- samples in lanes

// Packed 24-bit: in the vector a quarter of four samples has 16 bytes, in memory 12.
inline constexpr int kQuarters = kLanes / 4;
typedef std::int64_t Quarter __attribute__((vector_size(16)));
typedef std::int64_t Longs __attribute__((vector_size(4 * kLanes)));

// Where a quarter is loaded from, 16 bytes that stay inside the vector's 3 * kLanes.
constexpr int quarterAt(int q) { return kLanes == 4 ? 0 : std::min(12 * q, 3 * kLanes - 16); }

template <int kCount>
[[gnu::always_inline]] inline auto joined(const Quarter (&q)[kCount]) {
  if constexpr (kCount == 1) {
    return q[0];
  } else if constexpr (kCount == 2) {
    return __builtin_shufflevector(q[0], q[1], 0, 1, 2, 3);
  } else {
    return __builtin_shufflevector(__builtin_shufflevector(q[0], q[1], 0, 1, 2, 3),
                                   __builtin_shufflevector(q[2], q[3], 0, 1, 2, 3), 0, 1, 2, 3, 4, 5, 6, 7);
  }
}

// Moves bytes within each quarter: byte i of the result is byte kMap(i) of the source.
template <class Map>
[[gnu::always_inline]] inline Words movedBytes(Words x, Map) {
  const auto bytes = (WordBytes)x;
  return [&]<int... i>(std::integer_sequence<int, i...>) __attribute__((always_inline)) {
    return (Words)__builtin_shufflevector(bytes, bytes, Map()(i)...);
  }
  (std::make_integer_sequence<int, 4 * kLanes>());
}

// From quarters that each begin with kSkip(q) other bytes: to the three high bytes of each lane, then the fourth is
// shifted out.
template <class Skip>
[[gnu::always_inline]] inline Words unpacked(Words quarters, Skip) {
  return movedBytes(quarters,
                    [](int i) {
                      const int q = i / 16, lane = i % 16 / 4, byte = i % 4;
                      return 16 * q + Skip()(q) + 3 * lane + (byte == 0 ? 0 : byte - 1);
                    }) >>
         8;
}

template <class Pcm>
[[gnu::always_inline]] inline Words loadLanes(const Byte* p) {
  if constexpr (std::is_same_v<Pcm, S32>) {
    return loadVector<Words>(p);
  } else if constexpr (std::is_same_v<Pcm, S16>) {
    return __builtin_convertvector(loadVector<Halves>(p), Words);
  } else {
    Quarter quarters[kQuarters] = {};
    unrolled<kQuarters>([&](auto q) __attribute__((always_inline)) {
      std::memcpy(&quarters[q], p + quarterAt(q), kLanes == 4 ? 12 : 16);
    });
    return unpacked((Words)joined(quarters), [](int q) { return 12 * q - quarterAt(q); });
  }
}

// Packed 24-bit samples of which kBefore other bytes lie in front, in a whole vector of bytes at p.
template <int kBefore>
[[gnu::always_inline]] inline Words loadPacked(const Byte* p) {
  const auto words = loadVector<Words>(p);
  return [&]<int... l>(std::integer_sequence<int, l...>) __attribute__((always_inline)) {
    const Words quarters =
        __builtin_shufflevector(words, words, std::min(kBefore / 4 + l / 4 * 3 + l % 4, kLanes - 1)...);
    return unpacked(quarters, [](int) { return 0; });
  }
  (std::make_integer_sequence<int, kLanes>());
}

// Each quarter's lanes to its first 12 bytes.
[[gnu::always_inline]] inline Words packed(Words x) {
  return movedBytes(x, [](int i) { return i / 16 * 16 + (i % 16 < 12 ? i % 16 / 3 * 4 + i % 16 % 3 : 3); });
}

// The lanes hold values in the sample range.
template <class Pcm>
[[gnu::always_inline]] inline void storeLanes(Byte* p, Words x) {
  if constexpr (std::is_same_v<Pcm, S32>) {
    std::memcpy(p, &x, sizeof x);
  } else if constexpr (std::is_same_v<Pcm, S16>) {
    const Halves halves = __builtin_convertvector(x, Halves);
    std::memcpy(p, &halves, sizeof halves);
  } else {
    const auto quarters = (Longs)packed(x);
    unrolled<kQuarters>([&](auto q) __attribute__((always_inline)) {
      const Quarter quarter = __builtin_shufflevector(quarters, quarters, 2 * q, 2 * q + 1);
      std::memcpy(p + 12 * q, &quarter, q == kQuarters - 1 ? 12 : 16);
    });
  }
}

// The same for packed 24-bit samples, with a whole vector of bytes: what is behind the samples is not theirs.
[[gnu::always_inline]] inline void storePacked(Byte* p, Words x) {
  const Words quarters = packed(x);
  [&]<int... l>(std::integer_sequence<int, l...>) __attribute__((always_inline)) {
    const Words words = __builtin_shufflevector(quarters, quarters, std::min(l / 3 * 4 + l % 3, kLanes - 1)...);
    std::memcpy(p, &words, sizeof words);
  }
  (std::make_integer_sequence<int, kLanes>());
}

// ---- moves of elements between vectors

// Rearranges kIn vectors into kOut: element e of the result, counted through all of its vectors, is element Map()(e)
// of the source, a constant for each e.
template <int kOut, class Map, int kIn>
[[gnu::always_inline]] inline void rearrange(const Words (&in)[kIn], Words (&out)[kOut], Map) {
  unrolled<kOut>([&](auto j) __attribute__((always_inline)) {
    constexpr int kFirstElement = j * kLanes;
    // The vectors that this one takes something from, in order.
    constexpr auto kUsed = [] {
      std::array<int, kIn + 1> list{};  // the last one counts
      for (int v = 0; v < kIn; ++v) {
        bool uses = false;
        for (int l = 0; l < kLanes; ++l) uses = uses || Map()(kFirstElement + l) / kLanes == v;
        if (uses) list[static_cast<std::size_t>(list[kIn]++)] = v;
      }
      return list;
    }();
    constexpr int kCount = kUsed[kIn], kFirst = kUsed[0], kSecond = kUsed[kCount > 1 ? 1 : 0];
    [&]<int... l>(std::integer_sequence<int, l...>) __attribute__((always_inline)) {
      constexpr auto kPlace = [](int lane) { return Map()(kFirstElement + lane) % kLanes; };
      constexpr auto kVector = [](int lane) { return Map()(kFirstElement + lane) / kLanes; };
      out[j] = __builtin_shufflevector(in[kFirst], in[kSecond],
                                       (kPlace(l) + (kCount > 1 && kVector(l) == kSecond ? kLanes : 0))...);
      unrolled<(kCount > 2 ? kCount - 2 : 0)>([&](auto further) __attribute__((always_inline)) {
        constexpr int kThis = kUsed[further + 2];
        out[j] = __builtin_shufflevector(out[j], in[kThis], (kVector(l) == kThis ? kLanes + kPlace(l) : l)...);
      });
    }
    (std::make_integer_sequence<int, kLanes>());
  });
}

// kLanes frames of kChannels, in stream order, to a vector for each channel. Even counts are halved first, which
// takes fewer moves.
template <int kChannels>
[[gnu::always_inline]] inline void deinterleave(const Words (&stream)[kChannels], Words (&channels)[kChannels]) {
  if constexpr (kChannels == 1) {
    channels[0] = stream[0];
  } else if constexpr (kChannels % 2 == 0) {
    constexpr int kHalf = kChannels / 2;
    Words halves[2][kHalf], parts[kHalf];
    rearrange<kHalf>(stream, halves[0], [](int e) { return 2 * e; });
    rearrange<kHalf>(stream, halves[1], [](int e) { return 2 * e + 1; });
    unrolled<2>([&](auto odd) __attribute__((always_inline)) {
      deinterleave<kHalf>(halves[odd], parts);
      unrolled<kHalf>([&](auto c) __attribute__((always_inline)) { channels[2 * c + odd] = parts[c]; });
    });
  } else {
    rearrange<kChannels>(stream, channels, [](int e) { return e % kLanes * kChannels + e / kLanes; });
  }
}

// ---- the arithmetic of the mixes (channel/fixed_point.h has it for single samples)

template <class Pcm>
[[gnu::always_inline]] inline Words clampedLanes(Words x) {
  const Words low = Words{} + Pcm::kMin, high = Words{} + Pcm::kMax;
  x = x > high ? high : x;
  return x < low ? low : x;
}

// floor(x * 46346 / 2^16), from the halves of x, whose products have 32 bits: x = high * 2^16 + low, and what the low
// one has below 2^16 cannot reach the result. And the product's bit 15.
struct Scaled {
  Words by16, bit15;
};
[[gnu::always_inline]] inline Scaled scaledLanes(Words x) {
  const auto low = (UnsignedWords)(x & 0xFFFF) * static_cast<std::uint32_t>(kMixGainQ15);
  return {(x >> 16) * kMixGainQ15 + (Words)(low >> 16), (Words)(low >> 15) & 1};
}

// g(x); of any sample, and of 24-bit ones also of their sums up to 2^25. g(x) = x + floor(x * (46346 - 2^15) / 2^15),
// whose product 24-bit samples leave room for once x is split at its 8th bit: what the low part has below 2^8 cannot
// reach the result.
template <class Pcm>
[[gnu::always_inline]] inline Words mixGain(Words x) {
  if constexpr (std::is_same_v<Pcm, S16>) {
    return x * kMixGainQ15 >> kMixGainShift;
  } else if constexpr (std::is_same_v<Pcm, P24>) {
    constexpr std::int32_t kBeyondOne = kMixGainQ15 - (1 << kMixGainShift);
    return x + (((x >> 8) * kBeyondOne + ((x & 0xFF) * kBeyondOne >> 8)) >> (kMixGainShift - 8));
  } else {
    const auto [by16, bit15] = scaledLanes(x);
    const Words twice = (Words)((UnsignedWords)by16 << 1) | bit15;
    const Words limit = (by16 >> 31) ^ INT32_MAX;
    return (by16 ^ (by16 << 1)) < 0 ? limit : twice;  // by16's two highest bits differ: twice has left 32 bits
  }
}

// The sum, clamped. Where it can leave 32 bits, by how often it has wrapped: each time towards the sign of what was
// there before.
template <class Pcm, class... Terms>
[[gnu::always_inline]] inline Words clampedSum(Words sum, Terms... terms) {
  if constexpr (std::is_same_v<Pcm, S32>) {
    Words wraps = {};
    const auto add = [&](Words term) __attribute__((always_inline)) {
      const auto next = (Words)((UnsignedWords)sum + (UnsignedWords)term);
      wraps += (((sum ^ next) & (term ^ next)) >> 31) & (sum >> 31 | 1);
      sum = next;
    };
    (add(terms), ...);
    sum = wraps > 0 ? Words{} + INT32_MAX : sum;
    return wraps < 0 ? Words{} + INT32_MIN : sum;
  } else {
    return clampedLanes<Pcm>((sum + ... + terms));
  }
}

// ---- pairs of 16-bit samples

inline constexpr std::int16_t kBeyondOneQ15 = kMixGainQ15 - (1 << kMixGainShift);

// g(x) - x = floor(x * 13578 / 2^15).
[[gnu::always_inline]] inline Pairs beyondOne(Pairs x) {
#if defined(__AVX512BW__)
  return (Pairs)_mm512_mulhi_epi16((__m512i)x, _mm512_set1_epi16(2 * kBeyondOneQ15));
#elif defined(__AVX2__)
  return (Pairs)_mm256_mulhi_epi16((__m256i)x, _mm256_set1_epi16(2 * kBeyondOneQ15));
#elif defined(__x86_64__)
  return (Pairs)_mm_mulhi_epi16((__m128i)x, _mm_set1_epi16(2 * kBeyondOneQ15));
#elif defined(__aarch64__)
  return (Pairs)vqdmulhq_n_s16((int16x8_t)x, kBeyondOneQ15);
#endif
}

// Each sum limited to 16 bits.
[[gnu::always_inline]] inline Pairs addSaturated(Pairs a, Pairs b) {
#if defined(__AVX512BW__)
  return (Pairs)_mm512_adds_epi16((__m512i)a, (__m512i)b);
#elif defined(__AVX2__)
  return (Pairs)_mm256_adds_epi16((__m256i)a, (__m256i)b);
#elif defined(__x86_64__)
  return (Pairs)_mm_adds_epi16((__m128i)a, (__m128i)b);
#elif defined(__aarch64__)
  return (Pairs)vqaddq_s16((int16x8_t)a, (int16x8_t)b);
#endif
}

// The sum of each pair.
[[gnu::always_inline]] inline Words sumOfPairs(Pairs x) {
#if defined(__AVX512BW__)
  return (Words)_mm512_madd_epi16((__m512i)x, _mm512_set1_epi16(1));
#elif defined(__AVX2__)
  return (Words)_mm256_madd_epi16((__m256i)x, _mm256_set1_epi16(1));
#elif defined(__x86_64__)
  return (Words)_mm_madd_epi16((__m128i)x, _mm_set1_epi16(1));
#elif defined(__aarch64__)
  return (Words)vpaddlq_s16((int16x8_t)x);
#endif
}

// ---- averages

// sum / kDivisor, rounded towards zero. The sum is exact in floating point: of eight 16-bit samples in float, of
// 24-bit ones in double. Half a unit more, away from zero, keeps a product with a rounded reciprocal off the
// integers, without reaching the next.
template <class Pcm, int kDivisor>
[[gnu::always_inline]] inline Words quotient(Words sum) {
  using Wide = std::conditional_t<std::is_same_v<Pcm, S16>, Floats, Doubles>;
  using Number = std::conditional_t<std::is_same_v<Pcm, S16>, float, double>;
  const Words half = (sum >> 31) | 1;
  return __builtin_convertvector(__builtin_convertvector(2 * sum + half, Wide) * (Number{0.5} / kDivisor), Words);
}

// (x0 + x1 + ...) / kDivisor; of 32-bit samples the sum is in double, too.
template <class Pcm, int kDivisor, int kCount>
[[gnu::always_inline]] inline Words averagedLanes(const Words (&x)[kCount]) {
  if constexpr (std::is_same_v<Pcm, S32>) {
    Doubles sum = {};
    for (const Words& each : x) sum += __builtin_convertvector(each, Doubles);
    const Doubles half = sum < 0 ? Doubles{} - 0.5 : Doubles{} + 0.5;
    return __builtin_convertvector((sum + half) * (1.0 / kDivisor), Words);
  } else {
    Words sum = {};
    for (const Words& each : x) sum += each;
    return quotient<Pcm, kDivisor>(sum);
  }
}

}  // namespace kesaudio::channel

#endif
