// SPDX-License-Identifier: Apache-2.0
// Upmix. Bytes are moved, never interpreted:
//
//   zero fill     out[j] = in[j] for j < srcChannels, silence from there on
//   duplication   out[j] = in[j mod srcChannels]
#include "channel/moves.h"
#include "channel/pieces.h"
#include "kesaudio/channel_kernels.h"

using namespace kesaudio;
using namespace kesaudio::channel;

namespace {

// ---- frame by frame

void expandFrame(Byte* out, std::ptrdiff_t outBytes, const Byte* in, std::ptrdiff_t inBytes, Fill fill) {
  const auto first = static_cast<std::size_t>(inBytes), all = static_cast<std::size_t>(outBytes);
  if (fill == Fill::kSilence) {
    // The silence lies behind the input frame's own bytes wherever out may begin, so it can come first.
    std::memset(out + first, 0, all - first);
    std::memmove(out, in, first);
    return;
  }
  // One copy of the input frame, then copies of that: the input may be gone after the first.
  std::memmove(out, in, first);
  for (std::size_t done = first; done < all; done += first)
    std::memcpy(out + done, out, all - done < first ? all - done : first);
}

void expandByFrame(Byte* dst, std::ptrdiff_t out, const Byte* src, std::ptrdiff_t in, std::ptrdiff_t frames,
                   Fill fill) {
  if (disjoint(dst, frames * out, src, frames * in))
    return forEachFrame(dst, out, src, in, frames,
                        [=](Byte* outFrame, const Byte* inFrame) { expandFrame(outFrame, out, inFrame, in, fill); });
  // The last frame first: an output frame may cover the input of later ones.
  while (--frames >= 0) expandFrame(dst + frames * out, out, src + frames * in, in, fill);
}

// ---- by units: each output vector takes its bytes from a window of the input by a table
//
// A unit is as many whole frames as one window of input holds and at most kMaxVectors vectors of output take.

constexpr int kMaxVectors = 4;
constexpr std::ptrdiff_t kMaxIn = 32, kMaxOut = 64;

// x / n == x * of[n] >> 14, while x * n < 2^14.
struct Reciprocals {
  std::int16_t of[kMaxOut + 1] = {};
  constexpr Reciprocals() {
    for (int n = 1; n <= kMaxOut; ++n) of[n] = static_cast<std::int16_t>(16384 / n + 1);
  }
};
constexpr Reciprocals kReciprocals;

struct FrameSizes {
  std::ptrdiff_t in, out;
  Fill fill;

  std::ptrdiff_t dividedByIn(std::ptrdiff_t x) const { return x * kReciprocals.of[in] >> 14; }
  std::ptrdiff_t dividedByOut(std::ptrdiff_t x) const { return x * kReciprocals.of[out] >> 14; }

  // The table for a vector of the output that begins with byte `first` of its unit. Byte p of the unit is byte
  // j = p mod out of a frame, and comes from byte j, or j mod in, of that frame.
  template <class Window>
  typename Window::Table table(int first) const {
    const auto in16 = static_cast<std::int16_t>(in), out16 = static_cast<std::int16_t>(out);
    I16x starts, sources[2];
    for (int half = 1; half >= 0; --half) {  // the lower half last: its starts are the block's
      const I16x p = bytePositions() + static_cast<std::int16_t>(first + 8 * half);
      const I16x frame = scaleQ15(p + p, kReciprocals.of[out]), j = p - frame * out16;
      const I16x repeat = scaleQ15(j + j, kReciprocals.of[in]);  // j / in
      starts = frame * in16;
      sources[half] = (fill == Fill::kRepeat ? starts + j - repeat * in16 : (starts + j) | (repeat > 0)) & 255;
    }
    return Window::table(narrowBytes(sources[0], sources[1]), starts);
  }
};

template <class Window>
struct Unit {
  std::ptrdiff_t frames, vectors;
  typename Window::Table tables[kMaxVectors];

  explicit Unit(const FrameSizes& f) {
    const std::ptrdiff_t fromWindow = f.dividedByIn(Window::kBytes),
                         fromVectors = f.dividedByOut(kMaxVectors * kVectorBytes);
    frames = fromWindow < fromVectors ? fromWindow : fromVectors;
    vectors = (frames * f.out + kVectorBytes - 1) / kVectorBytes;
    for (int v = 0; v < vectors; ++v) tables[v] = f.table<Window>(v * kVectorBytes);
  }
};

// A vector's bytes beyond its unit are covered by the next one.
template <class Window, int kVectors>
[[gnu::noinline]] void expandUnits(Byte* dst, std::ptrdiff_t out, const Byte* src, std::ptrdiff_t in,
                                   std::ptrdiff_t units, const typename Window::Table* from) {
  constexpr int kTogether = kVectors <= 2 ? 4 : 2;
  typename Window::Table tables[kVectors];
  unrolled<kVectors>([&](auto v) KESAUDIO_INLINED { tables[v] = from[v]; });
  const auto expand = [&](Byte* to, const Byte* window) KESAUDIO_INLINED {
    const Window bytes(window);
    U8x x[kVectors];
    unrolled<kVectors>([&](auto v) KESAUDIO_INLINED { x[v] = bytes.permute(tables[v]); });
    storeAll(to, x);
  };
  for (; units >= kTogether; units -= kTogether, dst += kTogether * out, src += kTogether * in)
    unrolled<kTogether>([&](auto i) KESAUDIO_INLINED { expand(dst + i * out, src + i * in); });
  for (; units > 0; --units, dst += out, src += in) expand(dst, src);
}

template <class Window>
auto unitLoop(std::ptrdiff_t vectors) {
  switch (vectors) {
    case 1: return expandUnits<Window, 1>;
    case 2: return expandUnits<Window, 2>;
    case 3: return expandUnits<Window, 3>;
    default: return expandUnits<Window, 4>;
  }
}

// Whole units as far as their windows and vectors end inside the blocks, the rest by way of a copy. The blocks are
// disjoint.
template <class Window>
void expandDisjoint(const Unit<Window>& unit, const FrameSizes& f, Byte* dst, const Byte* src,
                    std::ptrdiff_t frames) {
  const auto expand = unitLoop<Window>(unit.vectors);
  const std::ptrdiff_t in = unit.frames * f.in, out = unit.frames * f.out;
  const std::ptrdiff_t lastIn = frames * f.in - Window::kBytes,
                       lastOut = frames * f.out - unit.vectors * kVectorBytes;
  std::ptrdiff_t units = static_cast<std::uint32_t>(frames) / static_cast<std::uint32_t>(unit.frames);
  while (units > 0 && ((units - 1) * in > lastIn || (units - 1) * out > lastOut)) --units;
  expand(dst, out, src, in, units, unit.tables);

  const std::ptrdiff_t done = units * unit.frames, rest = frames - done;
  if (rest == 0) return;
  Byte from[64] = {}, to[1024];  // at most 15 frames are left: their windows and vectors
  std::memcpy(from, src + done * f.in, static_cast<std::size_t>(rest * f.in));
  expand(to, out, from, in, (rest + unit.frames - 1) / unit.frames, unit.tables);
  std::memcpy(dst + done * f.out, to, static_cast<std::size_t>(rest * f.out));
}

template <class Window>
void expandByUnits(const FrameSizes& f, Byte* dst, const Byte* src, std::ptrdiff_t frames) {
  const Unit<Window> unit(f);
  moveApart(dst, f.out, src, f.in, frames,
            [&](Byte* to, const Byte* from, std::ptrdiff_t count) { expandDisjoint(unit, f, to, from, count); });
}

// ---- zero fill by pieces: a frame is one piece, masked behind the input frame's end. More than half of it is input,
// so a whole piece can be read at each frame but the last.

bool fitsPiece(std::ptrdiff_t in, std::ptrdiff_t out) { return (in > 8 && out <= 16) || (in > 16 && out <= 32); }

// From kMask + 32 - n on, n bytes of ones and then zeros.
struct Mask {
  Byte bytes[64] = {};
  constexpr Mask() {
    for (int i = 0; i < 32; ++i) bytes[i] = 255;
  }
};
constexpr Mask kMask;

void expandPieces(Byte* dst, std::ptrdiff_t out, const Byte* src, std::ptrdiff_t in, std::ptrdiff_t frames) {
  const std::ptrdiff_t whole = frames - 1;
  const Byte* mask = kMask.bytes + 32 - in;
  if (out <= 16)
    copyPieces<Piece16>(dst, out, src, in, whole, Piece16::mask(mask));
  else if (out <= 24 && kBlocks == 1)
    copyPieces<Piece24>(dst, out, src, in, whole, Piece24::mask(mask));
  else
    copyPieces<Piece32>(dst, out, src, in, whole, Piece32::mask(mask));
  expandFrame(dst + whole * out, out, src + whole * in, in, Fill::kSilence);
}

}  // namespace

void kesaudio::channel::expandFrames(Byte* dst, std::ptrdiff_t out, const Byte* src, std::ptrdiff_t in,
                                     std::ptrdiff_t frames, Fill fill) {
  if (frames <= 0) return;
  const FrameSizes f{in, out, fill};
  const std::ptrdiff_t spanned =
      out <= kMaxOut ? f.dividedByOut(14) + 2 : 0;  // frames that a block of 16 bytes can touch
  if (!kHasByteShuffle || in > kMaxIn || out > kMaxOut) {
    expandByFrame(dst, out, src, in, frames, fill);
  } else if (fill == Fill::kSilence && fitsPiece(in, out)) {
    moveApart(dst, out, src, in, frames,
              [=](Byte* to, const Byte* from, std::ptrdiff_t count) { expandPieces(to, out, from, in, count); });
  } else if (ShortWindow::fits(in, spanned)) {
    expandByUnits<ShortWindow>(f, dst, src, frames);
  } else {
    expandByUnits<LongWindow>(f, dst, src, frames);
  }
}

namespace {

// Nothing is written where the output would be 2^31 bytes or more: callers account in 32 bits, so theirs would be a
// smaller buffer than that.
void upmix(const Blocks& blocks, PcmFormat format, Fill fill) {
  if (blocks.dstChannels <= 0) return;
  withFormat(format, [&](auto formatTag) {
    using Format = decltype(formatTag);
    const std::ptrdiff_t in = frameBytes<Format>(blocks.srcChannels), out = frameBytes<Format>(blocks.dstChannels);
    const std::ptrdiff_t frames = frameCount<Format>(blocks);
    if (out > INT32_MAX || frames * out > INT32_MAX) return;
    resizeFrames(blocks.dst, out, blocks.src, in, frames, fill);
  });
}

}  // namespace

void channel_UpMix_WithZero(void* dst, int32_t dstChannels, const void* src, int32_t srcChannels, int32_t byteCount,
                            PcmFormat format) {
  if (dstChannels < srcChannels) return;
  upmix({static_cast<Byte*>(dst), dstChannels, static_cast<const Byte*>(src), srcChannels, byteCount}, format,
        Fill::kSilence);
}

void channel_UpMix_Duplicate(void* dst, int32_t dstChannels, const void* src, int32_t srcChannels, int32_t byteCount,
                             PcmFormat format) {
  upmix({static_cast<Byte*>(dst), dstChannels, static_cast<const Byte*>(src), srcChannels, byteCount}, format,
        Fill::kRepeat);
}
