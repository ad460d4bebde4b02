// SPDX-License-Identifier: Apache-2.0
// The sample formats of the kernels: how a sample is read and written, and the widths of its arithmetic.
//
//   Pcm   bytes  range                       Sum: width of a frame's sum
//   S16   2      -32768 .. 32767             32 bits
//   S32   4      -2147483648 .. 2147483647   64 bits   (8.24 samples are moved and mixed as S32)
//   P24   3      -8388608 .. 8388607         32 bits
//
// Addresses may be odd, so samples are read and written through memcpy, which compiles to plain loads and stores.
#ifndef KESAUDIO_CHANNEL_PCM_H
#define KESAUDIO_CHANNEL_PCM_H

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "kesaudio/types.h"

namespace kesaudio::channel {

static_assert(std::endian::native == std::endian::little, "samples are little-endian");
static_assert(sizeof(std::ptrdiff_t) == 8, "offsets need 64 bits");

using Byte = unsigned char;

struct S16 {
  using Sum = std::int32_t;
  static constexpr std::int32_t kBytes = 2;
  static constexpr std::int32_t kMin = INT16_MIN, kMax = INT16_MAX;
  static std::int32_t load(const Byte* p) {
    std::int16_t sample;
    std::memcpy(&sample, p, kBytes);
    return sample;
  }
  static void store(Byte* p, std::int32_t value) {
    const auto sample = static_cast<std::int16_t>(value);
    std::memcpy(p, &sample, kBytes);
  }
};

struct S32 {
  using Sum = std::int64_t;
  static constexpr std::int32_t kBytes = 4;
  static constexpr std::int32_t kMin = INT32_MIN, kMax = INT32_MAX;
  static std::int32_t load(const Byte* p) {
    std::int32_t sample;
    std::memcpy(&sample, p, kBytes);
    return sample;
  }
  static void store(Byte* p, std::int32_t value) { std::memcpy(p, &value, kBytes); }
};

struct P24 {
  using Sum = std::int32_t;
  static constexpr std::int32_t kBytes = 3;
  static constexpr std::int32_t kMin = -(1 << 23), kMax = (1 << 23) - 1;
  static std::int32_t load(const Byte* p) {
    // Into the upper three bytes, so that the shift back extends the sign.
    const std::uint32_t top = std::uint32_t{p[0]} << 8 | std::uint32_t{p[1]} << 16 | std::uint32_t{p[2]} << 24;
    return static_cast<std::int32_t>(top) >> 8;
  }
  static void store(Byte* p, std::int32_t value) { std::memcpy(p, &value, kBytes); }
};

// value limited to the sample range of Pcm.
template <class Pcm>
constexpr std::int32_t clampTo(std::int64_t value) {
  return static_cast<std::int32_t>(value < Pcm::kMin ? Pcm::kMin : value > Pcm::kMax ? Pcm::kMax : value);
}

// Calls body with the sample type of the format; not at all for a format that no kernel converts.
template <class Body>
void withPcm(PcmFormat format, Body body) {
  switch (format) {
    case KES_PCM_S16: return body(S16{});
    case KES_PCM_S32:
    case KES_PCM_Q8_24: return body(S32{});
    case KES_PCM_S24_PACKED: return body(P24{});
  }
}

}  // namespace kesaudio::channel

#endif
