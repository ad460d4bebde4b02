// SPDX-License-Identifier: Apache-2.0
// The host resampler's samples: interleaved integers at its ends, planes of floats in its history.
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
  constexpr float kOffset = 0x1.8p23f;
  return static_cast<int16_t>((std::min(std::max(value, -32768.0f), 32767.0f) + kOffset) - kOffset);
}
inline int32_t sampleOf(float value, int32_t) {
  constexpr float kHighest = 0x1p31f - 0x1p7f;  // largest float below 2^31
  const auto inside = static_cast<int32_t>(rounded(std::min(std::max(value, -0x1p31f), kHighest)));
  return value > kHighest ? INT32_MAX : inside;
}

template <class Sample>
Sample load(const unsigned char* from) {
  Sample sample;
  std::memcpy(&sample, from, sizeof sample);
  return sample;
}

// Converts samples to floats, `channels` planes of them, planeFloats apart.
template <class Sample>
void toPlanes(const unsigned char* __restrict src, uint32_t channels, size_t frames, float* __restrict planes,
              size_t planeFloats) {
  constexpr size_t kBytes = sizeof(Sample);
  if (channels == 2) {  // compilers vectorise both channels in one loop
    float* __restrict const right = planes + planeFloats;
    for (size_t f = 0; f < frames; ++f, src += 2 * kBytes) {
      planes[f] = static_cast<float>(load<Sample>(src));
      right[f] = static_cast<float>(load<Sample>(src + kBytes));
    }
    return;
  }
  for (uint32_t c = 0; c < channels; ++c, planes += planeFloats)
    for (size_t f = 0; f < frames; ++f)
      planes[f] = static_cast<float>(load<Sample>(src + (f * channels + c) * kBytes));
}

// Converts floats times the gain to samples.
template <class Sample>
void toSamples(const float* __restrict values, float gain, size_t count, unsigned char* __restrict dst) {
  for (size_t i = 0; i < count; ++i) {
    const Sample sample = sampleOf(values[i] * gain, Sample());
    std::memcpy(dst + i * sizeof sample, &sample, sizeof sample);
  }
}

}  // namespace palix

#endif
