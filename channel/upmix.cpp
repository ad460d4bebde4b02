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

void expandFrame(Byte* out, std::size_t outBytes, const Byte* in, std::size_t inBytes, Fill fill) {
  if (fill == Fill::kSilence) {
    // The silence lies behind the input frame's own bytes wherever out may begin, so it can come first.
    std::memset(out + inBytes, 0, outBytes - inBytes);
    std::memmove(out, in, inBytes);
    return;
  }
  // One copy of the input frame, then copies of that: the input may be gone after the first.
  std::memmove(out, in, inBytes);
  for (std::size_t done = inBytes; done < outBytes; done += inBytes)
    std::memcpy(out + done, out, outBytes - done < inBytes ? outBytes - done : inBytes);
}

// ---- by vectors: a unit of whole frames is one window of input, of which each output vector takes its bytes by a table

constexpr int kMaxVectors = 4;
constexpr std::ptrdiff_t kMaxIn = 32, kMaxOut = 64;

struct Unit {
  std::ptrdiff_t frames, window, vectors;
  U8x tables[kMaxVectors];
};

// Byte p of a unit's output is byte j of a frame, j = p mod out, and comes from byte j, or j mod in, of that frame.
U8x makeTable(int first, std::int16_t in, std::int16_t out, Fill fill) {
  I16x from[2];
  // x / n as a product of 15 bits: x * n is below 2^14.
  const auto quotient = [](I16x x, int n) { return scaleQ15(x + x, static_cast<std::int16_t>(16384 / n + 1)); };
  for (int half = 0; half < 2; ++half) {
    const I16x p = bytePositions() + static_cast<std::int16_t>(first + 8 * half);
    const I16x frame = quotient(p, out), j = p - frame * out;
    const I16x again = fill == Fill::kRepeat ? quotient(j, in) : I16x{}, silent = again == 0 ? j >= in : I16x{};
    from[half] = ((j + (frame - again) * in) | silent) & 255;
  }
  return narrowBytes(from[0], from[1]);
}

Unit makeUnit(std::ptrdiff_t in, std::ptrdiff_t out, Fill fill) {
  Unit unit;
  unit.window = in <= 16 ? 16 : 32;
  const std::ptrdiff_t byInput = in <= 16 ? 16 / in : 1, byOutput = kMaxVectors * kVectorBytes / out;
  unit.frames = byInput < byOutput ? byInput : byOutput;
  unit.vectors = (unit.frames * out + kVectorBytes - 1) / kVectorBytes;
  for (int v = 0; v < unit.vectors; ++v)
    unit.tables[v] = makeTable(v * kVectorBytes, static_cast<std::int16_t>(in), static_cast<std::int16_t>(out), fill);
  return unit;
}

// The tables for a window of 16 bytes, and of 32.
template <int kVectors, bool kIsLong>
struct Tables {
  U8x table[kVectors];
  explicit Tables(const U8x* from) {
    for (int v = 0; v < kVectors; ++v) table[v] = from[v];
  }
  KESAUDIO_INLINE void apply(const Byte* src, U8x (&x)[kVectors]) const {
    const U8x window = loadToEach(src);
    for (int v = 0; v < kVectors; ++v) x[v] = permute(window, table[v]);
  }
};

template <int kVectors>
struct Tables<kVectors, true> {
  LongTable table[kVectors];
  explicit Tables(const U8x* from) {
    for (int v = 0; v < kVectors; ++v) table[v] = longTable(from[v]);
  }
  KESAUDIO_INLINE void apply(const Byte* src, U8x (&x)[kVectors]) const {
    const LongWindow window = loadLongWindow(src);
    for (int v = 0; v < kVectors; ++v) x[v] = permute(window, table[v]);
  }
};

// A vector's bytes beyond its unit are covered by the next one.
template <int kVectors, bool kIsLong>
[[gnu::noinline]] void expandUnits(Byte* dst, std::ptrdiff_t out, const Byte* src, std::ptrdiff_t in,
                                   std::ptrdiff_t units, const U8x* from) {
  constexpr int kTogether = kVectors == 1 ? kStrides : kVectors == 2 ? kStrides / 2 : 2;
  const Strides<kTogether> outs(out), ins(in);
  const Tables<kVectors, kIsLong> tables(from);
  for (; units >= kTogether; units -= kTogether) {
    U8x x[kTogether][kVectors];
    unrolled<kTogether>([&](auto i) KESAUDIO_INLINED { tables.apply(src + ins[i], x[i]); });
    src += kTogether * in;
    unrolled<kTogether>([&](auto i) KESAUDIO_INLINED { storeAll(dst + outs[i], x[i]); });
    dst += kTogether * out;
  }
  for (; units > 0; --units, dst += out, src += in) {
    U8x x[kVectors];
    tables.apply(src, x);
    storeAll(dst, x);
  }
}

using ExpandUnits = void (*)(Byte* dst, std::ptrdiff_t out, const Byte* src, std::ptrdiff_t in, std::ptrdiff_t units,
                             const U8x* tables);

template <bool kIsLong>
ExpandUnits expandUnitsOf(std::ptrdiff_t vectors) {
  switch (vectors) {
    case 1: return expandUnits<1, kIsLong>;
    case 2: return expandUnits<2, kIsLong>;
    case 3: return expandUnits<3, kIsLong>;
    default: return expandUnits<4, kIsLong>;
  }
}

// Whole units as far as their windows and vectors end inside the blocks, the rest by way of
// a copy.
void expandByUnits(const Unit& unit, Byte* dst, std::ptrdiff_t out, const Byte* src, std::ptrdiff_t in,
                   std::ptrdiff_t frames) {
  const ExpandUnits expand = unit.window == 16 ? expandUnitsOf<false>(unit.vectors) : expandUnitsOf<true>(unit.vectors);
  const std::ptrdiff_t unitIn = unit.frames * in, unitOut = unit.frames * out;
  const std::ptrdiff_t forReads = (unit.window - unitIn + in - 1) / in;
  const std::ptrdiff_t forSpill = (unit.vectors * kVectorBytes - unitOut + out - 1) / out;
  const std::ptrdiff_t whole = frames - (forReads > forSpill ? forReads : forSpill);
  const std::ptrdiff_t units = whole > 0 ? whole / unit.frames : 0;
  expand(dst, unitOut, src, unitIn, units, unit.tables);

  const std::ptrdiff_t done = units * unit.frames, rest = frames - done;
  if (rest == 0) return;
  Byte from[256] = {}, to[1024];
  std::memcpy(from, src + done * in, static_cast<std::size_t>(rest * in));
  expand(to, unitOut, from, unitIn, (rest + unit.frames - 1) / unit.frames, unit.tables);
  std::memcpy(dst + done * out, to, static_cast<std::size_t>(rest * out));
}

// ---- zero fill by pieces: a frame is one piece, masked behind the input frame's end

bool isPiece(std::ptrdiff_t in, std::ptrdiff_t out) { return (in > 8 && out <= 16) || (in > 16 && out <= 32); }

std::uint64_t lowBytes(std::ptrdiff_t count) {
  return count <= 0 ? 0 : count >= 8 ? ~std::uint64_t{0} : (std::uint64_t{1} << 8 * count) - 1;
}

void expandPieces(Byte* dst, std::ptrdiff_t out, const Byte* src, std::ptrdiff_t in, std::ptrdiff_t frames) {
  const auto mask16 = [](std::ptrdiff_t count) { return Piece16((Bytes16)TwoLongs{lowBytes(count), lowBytes(count - 8)}); };
  const std::ptrdiff_t whole = frames - 1;
  if (out <= 16)
    copyPieces<Piece16>(dst, out, src, in, whole, mask16(in));
  else if (out <= 24)
    copyPieces<LongPiece<Piece<std::uint64_t>>>(dst, out, src, in, whole, Piece<std::uint64_t>(lowBytes(in - 16)));
  else
    copyPieces<LongPiece<Piece16>>(dst, out, src, in, whole, mask16(in - 16));
  expandFrame(dst + whole * out, static_cast<std::size_t>(out), src + whole * in, static_cast<std::size_t>(in),
              Fill::kSilence);
}

}  // namespace

void kesaudio::channel::expandFrames(Byte* dst, std::ptrdiff_t out, const Byte* src, std::ptrdiff_t in,
                                     std::ptrdiff_t frames, Fill fill) {
  if (frames <= 0) return;
  if (!kHasByteShuffle || in > kMaxIn || out > kMaxOut) {
    while (--frames >= 0)
      expandFrame(dst + frames * out, static_cast<std::size_t>(out), src + frames * in, static_cast<std::size_t>(in),
                  fill);
    return;
  }
  const bool byPieces = fill == Fill::kSilence && isPiece(in, out);
  Unit unit;
  if (!byPieces) unit = makeUnit(in, out, fill);
  const auto expandApart = [&](Byte* to, const Byte* from, std::ptrdiff_t count) {
    byPieces ? expandPieces(to, out, from, in, count) : expandByUnits(unit, to, out, from, in, count);
  };
  if (areApart(dst, frames * out, src, frames * in)) return expandApart(dst, src, frames);
  // From the last chunk to the first, each from a copy, so that every frame is read before it is written over.
  Byte chunk[1024];
  const std::ptrdiff_t most = static_cast<std::ptrdiff_t>(sizeof chunk) / in;
  while (frames > 0) {
    const std::ptrdiff_t count = frames < most ? frames : most;
    frames -= count;
    std::memcpy(chunk, src + frames * in, static_cast<std::size_t>(count * in));
    expandApart(dst + frames * out, chunk, count);
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
    if (frames == 0 || frames > INT32_MAX / out) return;
    if (in < out)
      expandFrames(blocks.dst, out, blocks.src, in, frames, fill);
    else if (in == out)
      std::memmove(blocks.dst, blocks.src, static_cast<std::size_t>(frames * out));
    else
      stripFrames(blocks.dst, out, blocks.src, in, frames);
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
