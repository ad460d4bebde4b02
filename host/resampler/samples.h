// SPDX-License-Identifier: Apache-2.0
// The host resampler's samples: interleaved integers at its ends, planar float between them.
#ifndef KESAUDIO_HOST_RESAMPLER_SAMPLES_H
#define KESAUDIO_HOST_RESAMPLER_SAMPLES_H

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>

namespace palix {

// To the nearest integer, ties to even: a float of 2^23 or more has no bits for a fraction.
inline float rounded(float value) {
  const float offset = std::copysign(0x1p23f, value);
  return std::abs(value) < 0x1p23f ? (value + offset) - offset : value;
}

// Rounds a value and limits it to the range of the sample.
inline int16_t sampleOf(float value, int16_t) {
  return static_cast<int16_t>(rounded(std::min(std::max(value, -32768.0f), 32767.0f)));
}
inline int32_t sampleOf(float value, int32_t) {
  constexpr float kHighest = 0x1p31f - 0x1p7f;  // largest float below 2^31
  const auto inside = static_cast<int32_t>(rounded(std::min(std::max(value, -0x1p31f), kHighest)));
  return value > kHighest ? INT32_MAX : inside;
}

// Calls body with the channel count, 1 to 8, as a compile-time constant.
template <class Body>
void withChannels(uint32_t count, Body body) {
  [&]<uint32_t... kCount>(std::integer_sequence<uint32_t, kCount...>) {
    ((count == kCount + 1 ? body(std::integral_constant<uint32_t, kCount + 1>()) : void()), ...);
  }
  (std::make_integer_sequence<uint32_t, 8>());
}

// Frames per step. A step makes two passes: compilers vectorise each of them, but not both in one.
constexpr size_t kStepFrames = 64;

// Converts frames of src to planes of floats, channel c at planes + c * planeFloats; interleave converts them back.
template <class Sample>
void deinterleave(const unsigned char* src, uint32_t channels, size_t frames, float* planes, size_t planeFloats) {
  withChannels(channels, [&](auto count) {
    Sample samples[count][kStepFrames];
    for (size_t begin = 0; begin < frames; begin += kStepFrames) {
      const size_t step = std::min(kStepFrames, frames - begin);
      for (size_t f = 0; f < step; ++f) {
        Sample frame[count];
        std::memcpy(frame, src + (begin + f) * sizeof frame, sizeof frame);
        for (uint32_t c = 0; c < count; ++c) samples[c][f] = frame[c];
      }
      for (uint32_t c = 0; c < count; ++c)
        for (size_t f = 0; f < step; ++f) planes[c * planeFloats + begin + f] = static_cast<float>(samples[c][f]);
    }
  });
}

template <class Sample>
void interleave(const float* planes, size_t planeFloats, float gain, uint32_t channels, size_t frames,
                unsigned char* dst) {
  withChannels(channels, [&](auto count) {
    Sample samples[count][kStepFrames];
    for (size_t begin = 0; begin < frames; begin += kStepFrames) {
      const size_t step = std::min(kStepFrames, frames - begin);
      for (uint32_t c = 0; c < count; ++c)
        for (size_t f = 0; f < step; ++f)
          samples[c][f] = sampleOf(planes[c * planeFloats + begin + f] * gain, Sample());
      for (size_t f = 0; f < step; ++f) {
        Sample frame[count];
        for (uint32_t c = 0; c < count; ++c) frame[c] = samples[c][f];
        std::memcpy(dst + (begin + f) * sizeof frame, frame, sizeof frame);
      }
    }
  });
}

}  // namespace palix

#endif
