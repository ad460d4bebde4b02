// SPDX-License-Identifier: Apache-2.0
#ifndef KESCONVERT_STREAM_FORMAT_H
#define KESCONVERT_STREAM_FORMAT_H

#include <kesaudio/types.h>

#include <cstdint>

namespace kesconvert {

inline unsigned bytesOf(PcmFormat samples) {
  return samples == KES_PCM_S16 ? 2 : samples == KES_PCM_S24_PACKED ? 3 : 4;
}

inline const char* nameOf(PcmFormat samples) {
  constexpr const char* kNames[] = {"16-bit", "24-bit", "32-bit"};
  return samples == KES_PCM_Q8_24 ? "8.24" : kNames[bytesOf(samples) - 2];
}

struct StreamFormat {
  int rate = 0;
  unsigned channels = 0;
  PcmFormat samples = KES_PCM_S16;

  std::uint64_t frameBytes() const { return std::uint64_t{channels} * bytesOf(samples); }
};

}  // namespace kesconvert

#endif
