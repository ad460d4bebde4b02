// SPDX-License-Identifier: Apache-2.0
// Strip downmix: out[j] = in[j] for j < dstChannels. Bytes are moved, never interpreted.
#include <bit>

#include "channel/moves.h"
#include "channel/pieces.h"
#include "kesaudio/channel_kernels.h"

using namespace kesaudio;
using namespace kesaudio::channel;

// Copies each frame as one piece of 2, 4, 8, 16 or 32 bytes (8 to 6 channels of 16 bits: 12 bytes, as a Piece16). The
// next frame overwrites the surplus; the last frame is copied exactly.
void kesaudio::channel::stripFrames(Byte* dst, std::ptrdiff_t out, const Byte* src, std::ptrdiff_t in,
                                    std::ptrdiff_t frames) {
  if (frames <= 0) return;
  if (out == in) {
    std::memmove(dst, src, static_cast<std::size_t>(frames * out));
    return;
  }
  const auto piece = static_cast<std::ptrdiff_t>(std::bit_ceil(static_cast<std::size_t>(out)));
  if (piece > 32)  // memmove, since in place the two frames may overlap by any number of bytes
    return forEachFrame(dst, out, src, in, frames, [=](Byte* outFrame, const Byte* inFrame) {
      std::memmove(outFrame, inFrame, static_cast<std::size_t>(out));
    });
  const auto strip = [=](Byte* to, const Byte* from, std::ptrdiff_t count) {
    const std::ptrdiff_t whole = piece == out ? count : count - 1;
    switch (piece) {
      case 2: copyPieces<std::uint16_t>(to, out, from, in, whole); break;
      case 4: copyPieces<std::uint32_t>(to, out, from, in, whole); break;
      case 8: copyPieces<std::uint64_t>(to, out, from, in, whole); break;
      case 16: copyPieces<Piece16>(to, out, from, in, whole); break;
      default: copyPieces<Piece32>(to, out, from, in, whole);
    }
    if (whole < count) std::memmove(to + whole * out, from + whole * in, static_cast<std::size_t>(out));
  };
  // In place, a piece longer than an input frame would overwrite the next frame before it is read.
  if (piece <= in) return strip(dst, src, frames);
  moveApart(dst, out, src, in, frames, strip);
}

void channel_DownMix_Strip(void* dst, int32_t dstChannels, const void* src, int32_t srcChannels, int32_t byteCount,
                           PcmFormat format) {
  if (dstChannels <= 0 || dstChannels > srcChannels) return;
  const Blocks blocks{static_cast<Byte*>(dst), dstChannels, static_cast<const Byte*>(src), srcChannels, byteCount};
  withFormat(format, [&](auto formatTag) {
    using Format = decltype(formatTag);
    stripFrames(blocks.dst, frameBytes<Format>(dstChannels), blocks.src, frameBytes<Format>(srcChannels),
                frameCount<Format>(blocks));
  });
}
