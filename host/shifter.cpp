// SPDX-License-Identifier: Apache-2.0
// The shifter library for machines without the platform's: loads a vector of samples into 32-bit lanes, shifts them
// from one full scale to the other, and stores them. The tail goes through a copy: no byte outside the blocks is
// touched.
#include "platform/shifter_lib.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <type_traits>

#include "base/packed24.h"

namespace {

using kesaudio::Byte;
using kesaudio::I32x;
constexpr uint32_t kLanes = 4 * kesaudio::kBlocks;

// ---- samples in lanes

typedef int16_t HalfVector __attribute__((vector_size(2 * kLanes)));

template <class Sample>
I32x loadLanes(const Byte* src) {
  if constexpr (std::is_same_v<Sample, kesaudio::S24>)
    return kesaudio::loadPacked24(src);
  else if constexpr (std::is_same_v<Sample, kesaudio::S16>)
    return __builtin_convertvector(kesaudio::load<HalfVector>(src), I32x);
  else
    return kesaudio::load<I32x>(src);
}

template <class Sample>
void storeLanes(Byte* dst, I32x x) {
  if constexpr (std::is_same_v<Sample, kesaudio::S24>)
    kesaudio::storePacked24(dst, x);
  else if constexpr (std::is_same_v<Sample, kesaudio::S16>)
    kesaudio::store(dst, __builtin_convertvector(x, HalfVector));
  else
    kesaudio::store(dst, x);
}

// ---- from one full scale to another

// Limits x to -highest - 1 .. highest.
I32x clamp(I32x x, int32_t highest) {
  const I32x high = I32x{} + highest, low = ~high;
  x = x > high ? high : x;
  return x < low ? low : x;
}

// x / 2^kBits to the nearest integer, ties to even.
template <int kBits>
I32x roundToEven(I32x x) {
  const I32x below = x >> kBits, rest = x & ((1 << kBits) - 1);
  return below + ((rest + (below & 1) + ((1 << (kBits - 1)) - 1)) >> kBits);
}

// Converts samples between formats: full scale is 2^kFullScaleBits, and values stay below 2^kRangeBits.
template <class From, class To>
I32x rescale(I32x x) {
  constexpr int kUp = To::kFullScaleBits - From::kFullScaleBits;
  constexpr auto kHighest = static_cast<int32_t>((uint32_t{1} << To::kRangeBits) - 1);
  if constexpr (kUp < 0) {
    x = roundToEven<-kUp>(x);
    return From::kRangeBits + kUp >= To::kRangeBits ? clamp(x, kHighest) : x;
  } else if constexpr (From::kRangeBits + kUp > To::kRangeBits) {
    constexpr int32_t kLast = kHighest >> kUp;  // greater values become kHighest
    return x > kLast ? I32x{} + kHighest : clamp(x, kLast) << kUp;
  } else {
    return x << kUp;
  }
}

// ---- the formats

template <class SampleType, int kFullScale>
struct Format {
  using Sample = SampleType;
  static constexpr int kFullScaleBits = kFullScale, kRangeBits = 8 * Sample::kBytes - 1;
  static constexpr uint32_t kBytes = Sample::kBytes;
};
using S16 = Format<kesaudio::S16, 15>;
using S32 = Format<kesaudio::S32, 31>;
using Q8_24 = Format<kesaudio::S32, 24>;
using S24 = Format<kesaudio::S24, 23>;

// ---- blocks

template <class From, class To>
void convertLanes(const Byte* src, Byte* dst) {
  storeLanes<typename To::Sample>(dst, rescale<From, To>(loadLanes<typename From::Sample>(src)));
}

template <class From, class To>
void convert(const Byte* src, Byte* dst, uint32_t samples) {
  // A vector of packed samples reads or writes 4 bytes beyond its end.
  constexpr uint32_t kBehind = From::kBytes == 3 || To::kBytes == 3 ? 2 : 0;
  for (; samples >= kLanes + kBehind; samples -= kLanes, src += kLanes * From::kBytes, dst += kLanes * To::kBytes)
    convertLanes<From, To>(src, dst);
  if (samples == 0) return;
  Byte in[8 * kLanes + 4] = {}, out[8 * kLanes + 4];
  std::memcpy(in, src, samples * From::kBytes);
  for (uint32_t done = 0; done < samples; done += kLanes)
    convertLanes<From, To>(in + done * From::kBytes, out + done * To::kBytes);
  std::memcpy(dst, out, samples * To::kBytes);
}

struct Conversion {
  void (*convert)(const Byte* src, Byte* dst, uint32_t samples);
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
  conversion.convert(static_cast<const Byte*>(src), static_cast<Byte*>(dst), samples);
  *inBytes -= samples * conversion.fromBytes;
  *outBytes = samples * conversion.toBytes;
  return SHIFTER_OK;
}
