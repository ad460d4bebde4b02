// SPDX-License-Identifier: Apache-2.0
// The shifter library for machines without the platform's. A vector of samples at a time is read into 32-bit lanes,
// with the channel kernels' vectors (channel/blocks.h), moved by the difference of the full scales, and written.
// A rest goes the same way through a copy, so that not a byte outside the blocks is touched.
#include "platform/shifter_lib.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <type_traits>

#include "channel/blocks.h"

namespace {

namespace pcm = kesaudio::channel;
using pcm::Words;
constexpr uint32_t kLanes = pcm::kLanes;

// ---- samples in lanes

typedef int16_t HalfVector __attribute__((vector_size(2 * kLanes)));

template <class Pcm>
Words loadLanes(const unsigned char* src) {
  if constexpr (std::is_same_v<Pcm, pcm::P24>)
    return pcm::loadPacked<1, 0>(src);
  else if constexpr (std::is_same_v<Pcm, pcm::S16>)
    return __builtin_convertvector(pcm::loadVector<HalfVector>(src), Words);
  else
    return pcm::loadVector<Words>(src);
}

template <class Pcm>
void storeLanes(unsigned char* dst, Words x) {
  if constexpr (std::is_same_v<Pcm, pcm::P24>) {
    pcm::storePacked<1, 0>(dst, x);
  } else if constexpr (std::is_same_v<Pcm, pcm::S16>) {
    const HalfVector halves = __builtin_convertvector(x, HalfVector);
    std::memcpy(dst, &halves, sizeof halves);
  } else {
    std::memcpy(dst, &x, sizeof x);
  }
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

template <class PcmFormat, int kFullScale>
struct Format {
  using Pcm = PcmFormat;
  static constexpr int kFullScaleBits = kFullScale, kRangeBits = 8 * Pcm::kBytes - 1;
  static constexpr uint32_t kBytes = Pcm::kBytes;
};
using S16 = Format<pcm::S16, 15>;
using S32 = Format<pcm::S32, 31>;
using Q8_24 = Format<pcm::S32, 24>;
using S24 = Format<pcm::P24, 23>;

// ---- blocks

template <class From, class To>
void convertLanes(const unsigned char* src, unsigned char* dst) {
  storeLanes<typename To::Pcm>(dst, moved<From, To>(loadLanes<typename From::Pcm>(src)));
}

template <class From, class To>
void convert(const unsigned char* src, unsigned char* dst, uint32_t samples) {
  for (; samples >= kLanes; samples -= kLanes, src += kLanes * From::kBytes, dst += kLanes * To::kBytes)
    convertLanes<From, To>(src, dst);
  if (samples == 0) return;
  unsigned char in[4 * kLanes] = {}, out[4 * kLanes];
  std::memcpy(in, src, samples * From::kBytes);
  convertLanes<From, To>(in, out);
  std::memcpy(dst, out, samples * To::kBytes);
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
