// SPDX-License-Identifier: Apache-2.0
// Upmix. Bytes are moved, never interpreted:
//
//   zero fill     out[j] = in[j] for j < srcChannels, silence from there on
//   duplication   out[j] = in[j mod srcChannels]
#include <algorithm>
#include <array>

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

// ---- by units of whole frames: a table permutes a window of input bytes into each output vector

constexpr int kMaxVectors = 4;
constexpr std::ptrdiff_t kMaxIn = 32, kMaxOut = 64;

struct FrameSizes {
  std::ptrdiff_t in, out;
  Fill fill;
};

// Writes, for each of the first `count` bytes of a unit, the index of its source byte in the window.
constexpr void findSources(Byte* sources, std::ptrdiff_t count, FrameSizes f) {
  std::ptrdiff_t frame = 0, j = 0, source = 0;  // byte j of an output frame is byte `source` of the input frame
  for (std::ptrdiff_t i = 0; i < count; ++i) {
    sources[i] = f.fill == Fill::kSilence && j >= f.in ? kSilent : static_cast<Byte>(frame + source);
    if (++source == f.in) source = 0;
    if (++j == f.out) j = source = 0, frame += f.in;
  }
}

// A unit: as many whole frames as fit in one input window and in kMaxVectors output vectors; or, if a vector cannot
// reach all of its bytes in the window, as many as fit in 16 input bytes and one vector.
template <class Window>
struct Unit {
  std::ptrdiff_t frames = 0, vectors = 0;
  typename Window::Table tables[kMaxVectors] = {};

  constexpr explicit Unit(FrameSizes f) {
    if (!make(f, Window::kBytes, kMaxVectors)) make(f, 16, 1);
  }
  constexpr bool make(FrameSizes f, int window, int mostVectors) {
    frames = std::min(window / static_cast<int>(f.in), mostVectors * kVectorBytes / static_cast<int>(f.out));
    vectors = (frames * f.out + kVectorBytes - 1) / kVectorBytes;
    Byte sources[kMaxVectors * kVectorBytes];
    std::fill(sources, std::end(sources), kSilent);
    findSources(sources, frames * f.out, f);
    bool reached = true;
    for (int v = 0; v < vectors; ++v) {
      tables[v] = typename Window::Table(sources + v * kVectorBytes);
      reached = reached && Window::reaches(sources + v * kVectorBytes);
    }
    return reached;
  }
};

// Mono and stereo to 2, 4, 6 and 8 channels: constant tables, since a call of few frames would spend most of its time
// on making them.
constexpr FrameSizes kUsualSizes[] = {{2, 4, {}},  {3, 6, {}},  {4, 8, {}},  {6, 12, {}}, {8, 16, {}}, {4, 12, {}},
                                      {6, 18, {}}, {8, 24, {}}, {4, 16, {}}, {6, 24, {}}, {8, 32, {}}};
template <Fill kFill, std::size_t... i>
constexpr std::array<Unit<ShortWindow>, sizeof...(i)> makeUnits(std::index_sequence<i...>) {
  return {Unit<ShortWindow>({kUsualSizes[i].in, kUsualSizes[i].out, kFill})...};
}
template <Fill kFill>
constexpr auto kUsualUnits = makeUnits<kFill>(std::make_index_sequence<std::size(kUsualSizes)>());

const Unit<ShortWindow>* usualUnit(const FrameSizes& f) {
  const auto& units = f.fill == Fill::kSilence ? kUsualUnits<Fill::kSilence> : kUsualUnits<Fill::kRepeat>;
  for (std::size_t i = 0; i < units.size(); ++i)
    if (kUsualSizes[i].in == f.in && kUsualSizes[i].out == f.out) return &units[i];
  return nullptr;
}

// The next unit overwrites the bytes that the last vector has beyond its unit.
template <class Window, int kVectors>
[[gnu::noinline]] void expandUnits(Byte* dst, std::ptrdiff_t out, const Byte* src, std::ptrdiff_t in,
                                   std::ptrdiff_t units, const typename Window::Table* from) {
  constexpr int kTogether = kVectors <= 2 ? 4 : 2 / kBlocks;
  typename Window::Indexes indexes[kVectors];
  unrolled<kVectors>([&](auto v) KESAUDIO_INLINED { indexes[v] = Window::load(from[v]); });
  const auto expand = [&](Byte* to, const Byte* window) KESAUDIO_INLINED {
    const Window bytes(window);
    U8x x[kVectors];
    unrolled<kVectors>([&](auto v) KESAUDIO_INLINED { x[v] = bytes.permute(indexes[v]); });
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

// Expands whole units while their windows and vectors end inside the blocks, the tail through a copy. The blocks do
// not overlap.
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
void expandByUnits(const Unit<Window>& unit, const FrameSizes& f, Byte* dst, const Byte* src, std::ptrdiff_t frames) {
  moveApart(dst, f.out, src, f.in, frames,
            [&](Byte* to, const Byte* from, std::ptrdiff_t count) { expandDisjoint(unit, f, to, from, count); });
}

// ---- zero fill by pieces: a frame is one piece, ANDed with a mask that silences the new channels. More than half of
// a piece is input, so that a whole piece can be read at each frame but the last.

bool fitsPiece(std::ptrdiff_t in, std::ptrdiff_t out) { return (in > 8 && out <= 16) || (in > 16 && out <= 32); }

// At bytes + 32 - n: n bytes of ones, then zeros.
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
    copyPieces<Piece16, true>(dst, out, src, in, whole, mask);
  else
    copyPieces<Piece32, true>(dst, out, src, in, whole, mask);
  expandFrame(dst + whole * out, out, src + whole * in, in, Fill::kSilence);
}

// Frame sizes without constant tables.
[[gnu::noinline]] void expandOtherSizes(const FrameSizes& f, Byte* dst, const Byte* src, std::ptrdiff_t frames) {
  const auto [in, out, fill] = f;
  if (fill == Fill::kSilence && fitsPiece(in, out))
    moveApart(dst, out, src, in, frames,
              [&](Byte* to, const Byte* from, std::ptrdiff_t count) { expandPieces(to, f.out, from, f.in, count); });
  else if (const Unit<ShortWindow> unit(f); unit.frames > 0)
    expandByUnits(unit, f, dst, src, frames);
  else
    expandByUnits(Unit<LongWindow>(f), f, dst, src, frames);
}

}  // namespace

void kesaudio::channel::expandFrames(Byte* dst, std::ptrdiff_t out, const Byte* src, std::ptrdiff_t in,
                                     std::ptrdiff_t frames, Fill fill) {
  const FrameSizes f{in, out, fill};
  if (frames <= 0) return;
  if (!kHasByteShuffle || in > kMaxIn || out > kMaxOut) return expandByFrame(dst, out, src, in, frames, fill);
  if (const Unit<ShortWindow>* unit = usualUnit(f)) return expandByUnits(*unit, f, dst, src, frames);
  expandOtherSizes(f, dst, src, frames);
}

namespace {

// Writes nothing if the output would be 2^31 bytes or more: callers count in 32 bits, so their buffer is smaller.
void upmix(const Blocks& blocks, PcmFormat format, Fill fill) {
  if (blocks.dstChannels <= 0) return;
  withFormat(format, [&](auto formatTag) {
    using Format = decltype(formatTag);
    const std::ptrdiff_t in = frameBytes<Format>(blocks.srcChannels), out = frameBytes<Format>(blocks.dstChannels);
    const std::ptrdiff_t frames = frameCount<Format>(blocks);
    if (out > INT32_MAX || frames * out > INT32_MAX) return;
    if (out > in) return expandFrames(blocks.dst, out, blocks.src, in, frames, fill);
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
