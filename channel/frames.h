// SPDX-License-Identifier: Apache-2.0
// Shared by all kernels: the sample type of a format, the count of frames, a loop over single frames.
#ifndef KESAUDIO_CHANNEL_FRAMES_H
#define KESAUDIO_CHANNEL_FRAMES_H

#include "base/sample_format.h"
#include "kesaudio/types.h"

namespace kesaudio::channel {

// The two blocks of a call.
struct Blocks {
  Byte* dst;
  std::int32_t dstChannels;
  const Byte* src;
  std::int32_t srcChannels;
  std::int32_t byteCount;
};

// Calls body with the sample type of the format (S16, S24 or S32), or not at all for a format that no kernel
// converts.
template <class Body>
void withFormat(PcmFormat format, Body body) {
  switch (format) {
    case KES_PCM_S16: return body(S16{});
    case KES_PCM_S32:
    case KES_PCM_Q8_24: return body(S32{});
    case KES_PCM_S24_PACKED: return body(S24{});
  }
}

// Whole input frames: 0 for counts of 0 or less.
template <class Format>
std::ptrdiff_t frameCount(const Blocks& blocks) {
  if (blocks.byteCount <= 0 || blocks.srcChannels <= 0) return 0;
  return blocks.byteCount / Format::kBytes / blocks.srcChannels;
}

// Bytes of a frame, wide enough for any channel count.
template <class Format>
constexpr std::ptrdiff_t frameBytes(std::int32_t channels) {
  return std::ptrdiff_t{channels} * Format::kBytes;
}

// Calls convert(output frame, input frame) for each frame, first to last: correct in place if an output frame is no
// longer than an input frame.
template <class Convert>
void forEachFrame(Byte* dst, std::ptrdiff_t dstBytes, const Byte* src, std::ptrdiff_t srcBytes, std::ptrdiff_t frames,
                  Convert convert) {
  for (; frames > 0; --frames, dst += dstBytes, src += srcBytes) convert(dst, src);
}

// True if the two byte ranges do not overlap.
inline bool disjoint(const Byte* written, std::ptrdiff_t writtenBytes, const Byte* read, std::ptrdiff_t readBytes) {
  const auto a = reinterpret_cast<std::uintptr_t>(written), b = reinterpret_cast<std::uintptr_t>(read);
  return a + static_cast<std::uintptr_t>(writtenBytes) <= b || b + static_cast<std::uintptr_t>(readBytes) <= a;
}

}  // namespace kesaudio::channel

#endif
