// SPDX-License-Identifier: Apache-2.0
// The sample formats: how a sample is read and written, its range, and the width of a frame's sum.
//
//   format  bytes  range                       Sum
//   S16     2      -32768 .. 32767             32 bits
//   S24     3      -8388608 .. 8388607         32 bits
//   S32     4      -2147483648 .. 2147483647   64 bits   (8.24 samples are moved and mixed as S32)
//
// Addresses may be odd, so samples are read and written through memcpy, which compiles to plain loads and stores.
#ifndef KESAUDIO_BASE_SAMPLE_FORMAT_H
#define KESAUDIO_BASE_SAMPLE_FORMAT_H

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>

namespace kesaudio {

static_assert(std::endian::native == std::endian::little, "samples are little-endian");
static_assert(sizeof(std::ptrdiff_t) == 8, "offsets need 64 bits");

using Byte = unsigned char;

template <class Integer, class SumType>
struct IntegerFormat {
  using Sum = SumType;
  static constexpr std::int32_t kBytes = sizeof(Integer);
  static constexpr std::int32_t kMin = std::numeric_limits<Integer>::min(),
                                kMax = std::numeric_limits<Integer>::max();
  static std::int32_t load(const Byte* p) {
    Integer sample;
    std::memcpy(&sample, p, kBytes);
    return sample;
  }
  static void store(Byte* p, std::int32_t value) { std::memcpy(p, &value, kBytes); }
};
using S16 = IntegerFormat<std::int16_t, std::int32_t>;
using S32 = IntegerFormat<std::int32_t, std::int64_t>;

struct S24 {
  using Sum = std::int32_t;
  static constexpr std::int32_t kBytes = 3;
  static constexpr std::int32_t kMin = -(1 << 23), kMax = (1 << 23) - 1;
  static std::int32_t load(const Byte* p) {
    // Assembled in the upper three bytes: the shift back extends the sign.
    const std::uint32_t top = std::uint32_t{p[0]} << 8 | std::uint32_t{p[1]} << 16 | std::uint32_t{p[2]} << 24;
    return static_cast<std::int32_t>(top) >> 8;
  }
  static void store(Byte* p, std::int32_t value) { std::memcpy(p, &value, kBytes); }
};

}  // namespace kesaudio

#endif
