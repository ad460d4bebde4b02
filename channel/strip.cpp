// SPDX-License-Identifier: Apache-2.0
// Strip downmix: out[j] = in[j] for j < dstChannels. Bytes are moved, never interpreted.
#include <bit>

#include "channel/moves.h"
#include "channel/pieces.h"
#include "kesaudio/channel_kernels.h"

using namespace kesaudio;
using namespace kesaudio::channel;

namespace {

// Copies each frame as two pieces, the second of which ends with it.
template <class Piece>
void copyTwoPieces(Byte* dst, std::ptrdiff_t out, const Byte* src, std::ptrdiff_t in, std::ptrdiff_t frames) {
  const std::ptrdiff_t second = out - static_cast<std::ptrdiff_t>(sizeof(Piece));
  for (; frames > 0; --frames, dst += out, src += in) {
    const Piece head(src), end(src + second);
    head.store(dst);
    end.store(dst + second);
  }
}

}  // namespace

// A frame is copied as one piece of a power of 2: what it has too much, the next frame covers. The last frame is
// copied by itself. Where a piece would reach into the next input frame before that is read, two smaller ones do.
void kesaudio::channel::stripFrames(Byte* dst, std::ptrdiff_t out, const Byte* src, std::ptrdiff_t in,
                                    std::ptrdiff_t frames) {
  if (frames <= 0) return;
  const auto powerOf2 = static_cast<std::ptrdiff_t>(std::bit_ceil(static_cast<std::size_t>(out)));
  const std::ptrdiff_t piece = kBlocks == 1 && out > 16 && out <= 24 ? 24 : powerOf2;
  const bool isAlone = piece <= in || areApart(dst, frames * out, src, frames * in);
  const std::ptrdiff_t whole = piece == out ? frames : frames - 1;
  if (piece <= 32 && isAlone) {
    switch (piece) {
      case 2: copyPieces<Piece<std::uint16_t>>(dst, out, src, in, whole); break;
      case 4: copyPieces<Piece<std::uint32_t>>(dst, out, src, in, whole); break;
      case 8: copyPieces<Piece<std::uint64_t>>(dst, out, src, in, whole); break;
      case 16: copyPieces<Piece16>(dst, out, src, in, whole); break;
      case 24: copyPieces<Piece24>(dst, out, src, in, whole); break;
      default: copyPieces<Piece32>(dst, out, src, in, whole);
    }
    if (whole < frames) std::memmove(dst + whole * out, src + whole * in, static_cast<std::size_t>(out));
  } else if (piece == 16) {
    copyTwoPieces<Piece<std::uint64_t>>(dst, out, src, in, frames);
  } else if (piece == 24 || piece == 32) {
    copyTwoPieces<Piece16>(dst, out, src, in, frames);
  } else {
    // memmove, since in place the two frames may overlap by any number of bytes.
    forEachFrame(dst, out, src, in, frames, [=](Byte* outFrame, const Byte* inFrame) {
      std::memmove(outFrame, inFrame, static_cast<std::size_t>(out));
    });
  }
}

void channel_DownMix_Strip(void* dst, int32_t dstChannels, const void* src, int32_t srcChannels, int32_t byteCount,
                           PcmFormat format) {
  if (dstChannels <= 0 || dstChannels > srcChannels) return;
  const Blocks blocks{static_cast<Byte*>(dst), dstChannels, static_cast<const Byte*>(src), srcChannels, byteCount};
  withFormat(format, [&](auto formatTag) {
    using Format = decltype(formatTag);
    const std::ptrdiff_t out = frameBytes<Format>(dstChannels), frames = frameCount<Format>(blocks);
    if (dstChannels < srcChannels)
      stripFrames(blocks.dst, out, blocks.src, frameBytes<Format>(srcChannels), frames);
    else if (frames > 0)
      std::memmove(dst, src, static_cast<std::size_t>(frames * out));
  });
}
