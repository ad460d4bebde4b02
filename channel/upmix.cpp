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

// ---- by units of whole frames: each output vector takes its bytes from a window of the input by a table

constexpr int kMaxVectors = 4;
constexpr std::ptrdiff_t kMaxIn = 32, kMaxOut = 64;

// The vectors of a unit share a window at its start. With two blocks, where that leaves half a vector over, a unit
// has a second window half-way: the first vector is of the first window, the last of the second, one between of both.
struct Unit {
  std::ptrdiff_t frames, readBytes, vectors, secondWindow;  // 0: none
  U8x tables[kMaxVectors];
};

// What a number x is multiplied by to become x / n, in units of 2^-14, as long as x * n is below 2^14.
struct Reciprocals {
  std::int16_t of[kMaxOut + 1] = {};
  constexpr Reciprocals() {
    for (int n = 1; n <= kMaxOut; ++n) of[n] = static_cast<std::int16_t>(16384 / n + 1);
  }
};
constexpr Reciprocals kReciprocals;

// Byte p of a unit's output is byte j of a frame, j = p mod out, and comes from byte j, or j mod in, of that frame.
struct TableMaker {
  std::int16_t in, out, perIn, perOut;
  Fill fill;

  // For the output from byte `first` on, counted from the start of the unit's input less origin.
  U8x make(int first, I16x origin) const {
    I16x from[2];
    for (int half = 0; half < 2; ++half) {
      const I16x p = bytePositions() + static_cast<std::int16_t>(first + 8 * half);
      const I16x frame = scaleQ15(p + p, perOut), j = p - frame * out, again = scaleQ15(j + j, perIn);
      const I16x source = j + frame * in - origin;
      from[half] = (fill == Fill::kRepeat ? source - again * in : source | (again > 0)) & 255;
    }
    return narrowBytes(from[0], from[1]);
  }
  std::ptrdiff_t frameAt(std::ptrdiff_t p) const { return p * perOut >> 14; }
};

Unit makeUnit(std::ptrdiff_t in, std::ptrdiff_t out, Fill fill) {
  const TableMaker maker{static_cast<std::int16_t>(in), static_cast<std::int16_t>(out), kReciprocals.of[in],
                         kReciprocals.of[out], fill};
  const std::ptrdiff_t byInput = in <= 16 ? 16 * maker.perIn >> 14 : 1,
                       byOutput = maker.frameAt(kMaxVectors * kVectorBytes);
  Unit unit;
  unit.frames = byInput < byOutput ? byInput : byOutput;
  unit.readBytes = in <= 16 ? 16 : 32;
  unit.secondWindow = 0;
  const std::ptrdiff_t bytes = unit.frames * out;
  if (kBlocks == 2 && in <= 16 && (bytes == 16 || bytes == 48)) {
    unit.secondWindow = unit.frames * in;
    unit.readBytes += unit.secondWindow;
    unit.frames *= 2;
  }
  unit.vectors = (unit.frames * out + kVectorBytes - 1) / kVectorBytes;
  const I16x origin = I16x{} + static_cast<std::int16_t>(unit.secondWindow);
  for (int v = 0; v < unit.vectors; ++v) {
    const bool isSecond = 2 * v > unit.vectors, isBoth = 2 * v + 1 == unit.vectors;
    unit.tables[v] = maker.make(v * kVectorBytes, isSecond ? origin : isBoth ? origin * laneBlocks<I16x>() : I16x{});
  }
  return unit;
}

// A unit's windows: one of 16 bytes, one of 32, two of 16.
enum class Windows { kShort, kLong, kTwo };

template <Windows kWindows, int kVectors>
KESAUDIO_INLINE void permuteUnit(const Byte* src, const U8x (&tables)[kVectors], std::ptrdiff_t secondWindow,
                                 U8x (&x)[kVectors]) {
  if constexpr (kWindows == Windows::kTwo) {
    constexpr int kLast = kVectors - 1, kBoth = kVectors / 2;
    x[0] = permute(loadToEach(src), tables[0]);
    x[kLast] = permute(loadToEach(src + secondWindow), tables[kLast]);
    x[kBoth] = permute(loadBlocks<U8x>(src, secondWindow), tables[kBoth]);
  } else if constexpr (kWindows == Windows::kLong) {
    const LongWindow window = loadLongWindow(src);
    unrolled<kVectors>([&](auto v) KESAUDIO_INLINED { x[v] = permute(window, longTable(tables[v])); });
  } else {
    const U8x window = loadToEach(src);
    unrolled<kVectors>([&](auto v) KESAUDIO_INLINED { x[v] = permute(window, tables[v]); });
  }
}

// A vector's bytes beyond its unit are covered by the next one.
template <Windows kWindows, int kVectors>
[[gnu::noinline]] void expandUnits(Byte* dst, std::ptrdiff_t out, const Byte* src, std::ptrdiff_t in,
                                   std::ptrdiff_t units, const Unit& unit) {
  constexpr int kTogether = kVectors == 1 ? kStrides : kVectors == 2 ? kStrides / 2 : 2;
  // For three vectors and more ST1 adds a stride by itself.
  const Strides<kVectors <= 2 ? kTogether : 1> outs(out), ins(in);
  const auto at = [](const auto& strides, auto i, std::ptrdiff_t stride) KESAUDIO_INLINED {
    if constexpr (kVectors <= 2) return strides[i];
    return i * stride;
  };
  const std::ptrdiff_t second = unit.secondWindow;
  U8x tables[kVectors];
  unrolled<kVectors>([&](auto v) KESAUDIO_INLINED { tables[v] = unit.tables[v]; });
  for (; units >= kTogether; units -= kTogether) {
    U8x x[kTogether][kVectors];
    unrolled<kTogether>([&](auto i)
                            KESAUDIO_INLINED { permuteUnit<kWindows>(src + at(ins, i, in), tables, second, x[i]); });
    src += kTogether * in;
    unrolled<kTogether>([&](auto i) KESAUDIO_INLINED { storeAll(dst + at(outs, i, out), x[i]); });
    dst += kTogether * out;
  }
  for (; units > 0; --units, dst += out, src += in) {
    U8x x[kVectors];
    permuteUnit<kWindows>(src, tables, second, x);
    storeAll(dst, x);
  }
}

using ExpandUnits = void (*)(Byte* dst, std::ptrdiff_t out, const Byte* src, std::ptrdiff_t in, std::ptrdiff_t units,
                             const Unit& unit);

template <Windows kWindows>
ExpandUnits expandUnitsOf(std::ptrdiff_t vectors) {
  switch (vectors) {
    case 1: return expandUnits<kWindows, 1>;
    case 2: return expandUnits<kWindows, 2>;
    case 3: return expandUnits<kWindows, 3>;
    default: return expandUnits<kWindows, 4>;
  }
}

ExpandUnits expandUnitsOf(const Unit& unit, std::ptrdiff_t in) {
  if (in > 16) return expandUnitsOf<Windows::kLong>(unit.vectors);
  if constexpr (kBlocks == 2)
    if (unit.secondWindow != 0)
      return unit.vectors == 1 ? expandUnits<Windows::kTwo, 1> : expandUnits<Windows::kTwo, 3>;
  return expandUnitsOf<Windows::kShort>(unit.vectors);
}

// Whole units as far as their windows and vectors end inside the blocks, the rest by way of a copy. The blocks are
// apart.
void expandByUnits(const Unit& unit, Byte* dst, std::ptrdiff_t out, const Byte* src, std::ptrdiff_t in,
                   std::ptrdiff_t frames) {
  const ExpandUnits expand = expandUnitsOf(unit, in);
  const std::ptrdiff_t unitIn = unit.frames * in, unitOut = unit.frames * out;
  // Less a unit where the last window or vectors would reach beyond the block.
  const std::ptrdiff_t lastIn = frames * in - unit.readBytes, lastOut = frames * out - unit.vectors * kVectorBytes;
  std::ptrdiff_t units = static_cast<std::uint32_t>(frames) / static_cast<std::uint32_t>(unit.frames);
  while (units > 0 && ((units - 1) * unitIn > lastIn || (units - 1) * unitOut > lastOut)) --units;
  expand(dst, unitOut, src, unitIn, units, unit);

  const std::ptrdiff_t done = units * unit.frames, rest = frames - done;
  if (rest == 0) return;
  Byte from[256] = {}, to[1024];
  std::memcpy(from, src + done * in, static_cast<std::size_t>(rest * in));
  expand(to, unitOut, from, unitIn, (rest + unit.frames - 1) / unit.frames, unit);
  std::memcpy(dst + done * out, to, static_cast<std::size_t>(rest * out));
}

// ---- zero fill by pieces: a frame is one piece, masked behind the input frame's end

bool isPiece(std::ptrdiff_t in, std::ptrdiff_t out) { return (in > 8 && out <= 16) || (in > 16 && out <= 32); }

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
  expandFrame(dst + whole * out, static_cast<std::size_t>(out), src + whole * in, static_cast<std::size_t>(in),
              Fill::kSilence);
}

// Calls expandApart(output, input, frames), for blocks that are apart: once, or where the blocks overlap from the
// last chunk to the first, each from a copy, so that every frame is read before it is written over.
template <class ExpandApart>
void expandAnywhere(Byte* dst, std::ptrdiff_t out, const Byte* src, std::ptrdiff_t in, std::ptrdiff_t frames,
                    ExpandApart expandApart) {
  if (areApart(dst, frames * out, src, frames * in)) return expandApart(dst, src, frames);
  Byte chunk[1024];
  const std::ptrdiff_t most = static_cast<std::ptrdiff_t>(sizeof chunk) / in;
  while (frames > 0) {
    const std::ptrdiff_t count = frames < most ? frames : most;
    frames -= count;
    std::memcpy(chunk, src + frames * in, static_cast<std::size_t>(count * in));
    expandApart(dst + frames * out, chunk, count);
  }
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
  if (fill == Fill::kSilence && isPiece(in, out))
    return expandAnywhere(dst, out, src, in, frames, [=](Byte* to, const Byte* from, std::ptrdiff_t count) {
      expandPieces(to, out, from, in, count);
    });
  const Unit unit = makeUnit(in, out, fill);
  expandAnywhere(dst, out, src, in, frames, [&](Byte* to, const Byte* from, std::ptrdiff_t count) {
    expandByUnits(unit, to, out, from, in, count);
  });
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
    if (frames == 0 || out > INT32_MAX || frames * out > INT32_MAX) return;
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
