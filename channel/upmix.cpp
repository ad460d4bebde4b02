// SPDX-License-Identifier: Apache-2.0
// Upmix. Bytes are moved, never interpreted:
//
//   zero fill     out[j] = in[j] for j < srcChannels, silence from there on
//   duplication   out[j] = in[j mod srcChannels]
//
// Frames go from the last to the first, and within a frame from its end to its start, so that every input byte is
// read before it is overwritten when dst is src or begins anywhere after it in one buffer.
#include <cstring>

#include "channel/moves.h"
#include "kesaudio/channel_kernels.h"

using namespace kesaudio::channel;

namespace {

// Moves the channels of a block in steps of move(format, from, to, out, in), or frame by frame, with
// convertFrame(out, in, input bytes, output bytes of a frame), where a count is above 8 or no channel is added. Not
// for an output of 2^31 bytes or more: callers account in 32 bits, so theirs would be a smaller buffer than that.
template <class Move, class ConvertFrame>
void upmix(void* dst, int32_t dstChannels, const void* src, int32_t srcChannels, int32_t byteCount, PcmFormat format,
           Move move, ConvertFrame convertFrame) {
  if (dstChannels <= 0) return;
  withPcm(format, [&](auto pcm) {
    using Pcm = decltype(pcm);
    const auto out = static_cast<Byte*>(dst);
    const auto in = static_cast<const Byte*>(src);
    const std::ptrdiff_t srcBytes = frameBytes<Pcm>(srcChannels), dstBytes = frameBytes<Pcm>(dstChannels);
    bool isDone = false;
    withTwoCounts(srcChannels, dstChannels, [&](auto from, auto to) {
      if constexpr (kIsConstant<decltype(from)> && kHasLanes<Pcm>) {
        if constexpr (from < to) {
          const int32_t frames = frameCount<Pcm>(byteCount, from);
          if (frames <= INT32_MAX / (to * Pcm::kBytes))
            stepsBackwards<kMoveFrames<Pcm, from, to>, from * Pcm::kBytes, to * Pcm::kBytes>(
                out, to * Pcm::kBytes, in, frames, [=](Byte* outFrames, const Byte* inFrames) KESAUDIO_INLINED {
                  move(pcm, from, to, outFrames, inFrames);
                });
          isDone = true;
        }
      }
    });
    if (isDone) return;
    const int32_t frames = frameCount<Pcm>(byteCount, srcChannels);
    if (frames > INT32_MAX / dstBytes) return;
    if (dstChannels == srcChannels) {
      if (frames > 0) std::memmove(out, in, static_cast<std::size_t>(frames * dstBytes));
      return;
    }
    backwards(out, dstBytes, in, srcBytes, frames, [=](Byte* outFrame, const Byte* inFrame) {
      convertFrame(outFrame, inFrame, static_cast<std::size_t>(srcBytes), static_cast<std::size_t>(dstBytes));
    });
  });
}

}  // namespace

void channel_UpMix_WithZero(void* dst, int32_t dstChannels, const void* src, int32_t srcChannels, int32_t byteCount,
                            PcmFormat format) {
  if (dstChannels < srcChannels) return;
  upmix(
      dst, dstChannels, src, srcChannels, byteCount, format,
      [](auto pcm, auto from, auto to, Byte* out, const Byte* in) KESAUDIO_INLINED {
        moveChannels<decltype(pcm), from, to>(
            out, in, [](int c) { return c < decltype(from)::value ? c : decltype(from)::value; });
      },
      [](Byte* out, const Byte* in, std::size_t srcBytes, std::size_t dstBytes) {
        // The silence lies behind the input frame's own bytes wherever dst may begin, so it can come first.
        std::memset(out + srcBytes, 0, dstBytes - srcBytes);
        std::memmove(out, in, srcBytes);
      });
}

void channel_UpMix_Duplicate(void* dst, int32_t dstChannels, const void* src, int32_t srcChannels, int32_t byteCount,
                             PcmFormat format) {
  upmix(
      dst, dstChannels, src, srcChannels, byteCount, format,
      [](auto pcm, auto from, auto to, Byte* out, const Byte* in) KESAUDIO_INLINED {
        moveChannels<decltype(pcm), from, to>(out, in, [](int c) { return c % decltype(from)::value; });
      },
      [](Byte* out, const Byte* in, std::size_t srcBytes, std::size_t dstBytes) {
        // One copy of the input frame, then copies of that: the input may be gone after the first.
        const std::size_t first = srcBytes < dstBytes ? srcBytes : dstBytes;
        std::memmove(out, in, first);
        for (std::size_t done = first; done < dstBytes; done += first)
          std::memcpy(out + done, out, dstBytes - done < first ? dstBytes - done : first);
      });
}
