// SPDX-License-Identifier: Apache-2.0
// The shifter library for machines without the platform's. Eight samples at a time are read into 32-bit lanes, moved
// by the difference of the full scales, and written. A rest goes the same way through a copy, so that not a byte
// outside the blocks is touched.
#include "platform/shifter_lib.h"

#include <algorithm>
#include <cstring>
#include <iterator>

// How vectors are passed matters between objects of different flags; here nothing of them leaves this file.
#pragma GCC diagnostic ignored "-Wpsabi"

namespace {

constexpr uint32_t kLanes = 8;

typedef int32_t Words __attribute__((vector_size(4 * kLanes)));
typedef int16_t Halves __attribute__((vector_size(2 * kLanes)));
typedef uint8_t Bytes __attribute__((vector_size(4 * kLanes)));
typedef int64_t Pair __attribute__((vector_size(16)));  // half of the lanes

template <class Vector>
Vector load(const unsigned char* from) {
  Vector v;
  std::memcpy(&v, from, sizeof v);
  return v;
}

// ---- from one full scale to another

// Highest first: x is at most it, and at least its complement.
Words clamped(Words x, int32_t highest) {
  const Words high = Words{} + highest, low = ~high;
  x = x > high ? high : x;
  return x < low ? low : x;
}

// The integer nearest to x / 2^bits, of two the even one.
template <int kBits>
Words rounded(Words x) {
  const Words below = x >> kBits, rest = x & ((1 << kBits) - 1);
  return below + ((rest + (below & 1) + ((1 << (kBits - 1)) - 1)) >> kBits);
}

// A sample from one format to another: fullScaleBits and rangeBits are the powers of 2 that its values stay below.
template <class From, class To>
Words moved(Words x) {
  constexpr int kUp = To::kFullScaleBits - From::kFullScaleBits;
  constexpr auto kHighest = static_cast<int32_t>((uint32_t{1} << To::kRangeBits) - 1);
  if constexpr (kUp < 0) {
    x = rounded<-kUp>(x);
    return From::kRangeBits + kUp >= To::kRangeBits ? clamped(x, kHighest) : x;
  } else if constexpr (From::kRangeBits + kUp > To::kRangeBits) {
    constexpr int32_t kLast = kHighest >> kUp;  // that can be shifted; from the next one on the result is the highest
    return x > kLast ? Words{} + kHighest : clamped(x, kLast) << kUp;
  } else {
    return x << kUp;
  }
}

// ---- the formats

struct S16 {
  static constexpr int kFullScaleBits = 15, kRangeBits = 15;
  static constexpr uint32_t kBytes = 2;
  static Words read(const unsigned char* from) { return __builtin_convertvector(load<Halves>(from), Words); }
  static void write(Words x, unsigned char* to) {
    const Halves halves = __builtin_convertvector(x, Halves);
    std::memcpy(to, &halves, sizeof halves);
  }
};

template <int kFullScale>
struct Word {
  static constexpr int kFullScaleBits = kFullScale, kRangeBits = 31;
  static constexpr uint32_t kBytes = 4;
  static Words read(const unsigned char* from) { return load<Words>(from); }
  static void write(Words x, unsigned char* to) { std::memcpy(to, &x, sizeof x); }
};
using S32 = Word<31>;
using Q8_24 = Word<24>;

// Half of the lanes are 12 bytes, of which 16 are read and written: the next ones are written over them in their
// turn.
struct S24 {
  static constexpr int kFullScaleBits = 23, kRangeBits = 23;
  static constexpr uint32_t kBytes = 3;
  static Words read(const unsigned char* from) {
    const auto packed = (Bytes)__builtin_shufflevector(load<Pair>(from), load<Pair>(from + 12), 0, 1, 2, 3);
    const Bytes high = __builtin_shufflevector(packed, packed, 0, 0, 1, 2, 3, 3, 4, 5, 6, 6, 7, 8, 9, 9, 10, 11, 16,
                                               16, 17, 18, 19, 19, 20, 21, 22, 22, 23, 24, 25, 25, 26, 27);
    return (Words)high >> 8;
  }
  static void write(Words x, unsigned char* to) {
    const auto wide = (Bytes)x;
    const Bytes packed = __builtin_shufflevector(wide, wide, 0, 1, 2, 4, 5, 6, 8, 9, 10, 12, 13, 14, 0, 0, 0, 0, 16,
                                                 17, 18, 20, 21, 22, 24, 25, 26, 28, 29, 30, 16, 16, 16, 16);
    std::memcpy(to, &packed, 16);
    std::memcpy(to + 12, reinterpret_cast<const unsigned char*>(&packed) + 16, 16);
  }
};
constexpr uint32_t kSamplesTouched = 10;  // by kLanes of any format, rounded up: 28 bytes of packed 24-bit

// ---- blocks

template <class From, class To>
void convert(const unsigned char* src, unsigned char* dst, uint32_t samples) {
  for (; samples >= kSamplesTouched; samples -= kLanes) {
    To::write(moved<From, To>(From::read(src)), dst);
    src += kLanes * From::kBytes;
    dst += kLanes * To::kBytes;
  }
  while (samples > 0) {
    const uint32_t rest = std::min(samples, kLanes);
    unsigned char in[4 * kLanes] = {}, out[4 * kLanes];
    std::memcpy(in, src, rest * From::kBytes);
    To::write(moved<From, To>(From::read(in)), out);
    std::memcpy(dst, out, rest * To::kBytes);
    src += rest * From::kBytes;
    dst += rest * To::kBytes;
    samples -= rest;
  }
}

struct Conversion {
  void (*convert)(const unsigned char* src, unsigned char* dst, uint32_t samples);
  uint32_t fromBytes, toBytes;
};

template <class From, class To>
constexpr Conversion kConversion = {convert<From, To>, From::kBytes, To::kBytes};

constexpr Conversion kConversions[] = {  // by type
    kConversion<S16, S32>,   kConversion<S16, Q8_24>, kConversion<S16, S24>,   kConversion<S32, S16>,
    kConversion<S32, Q8_24>, kConversion<S32, S24>,   kConversion<Q8_24, S16>, kConversion<Q8_24, S32>,
    kConversion<Q8_24, S24>, kConversion<S24, S16>,   kConversion<S24, S32>,   kConversion<S24, Q8_24>};

}  // namespace

int32_t Shifter_Process(const void* src, uint32_t* inBytes, void* dst, uint32_t* outBytes, uint32_t convertType) {
  if (convertType >= std::size(kConversions)) {
    *outBytes = 0;
    return SHIFTER_BAD_TYPE;
  }
  const Conversion& conversion = kConversions[convertType];
  const uint32_t samples = std::min(*inBytes / conversion.fromBytes, *outBytes / conversion.toBytes);
  conversion.convert(static_cast<const unsigned char*>(src), static_cast<unsigned char*>(dst), samples);
  *inBytes -= samples * conversion.fromBytes;
  *outBytes = samples * conversion.toBytes;
  return SHIFTER_OK;
}
