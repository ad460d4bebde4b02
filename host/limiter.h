// SPDX-License-Identifier: Apache-2.0
// Limits of our limiter library. A device's has its own.
#ifndef KESAUDIO_HOST_LIMITER_H
#define KESAUDIO_HOST_LIMITER_H

#include <cstdint>

// The highest sample of 16 bits, in 8.24.
constexpr uint32_t kLimiterThreshold = 32767 << 9;

// 1.5 ms, rounded down; above 192 kHz as many frames as at 192 kHz.
constexpr uint32_t limiterDelayFrames(uint32_t sampleRate) {
  return sampleRate < 192000 ? sampleRate * 3 / 2000 : 288;
}

#endif
