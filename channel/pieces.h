// SPDX-License-Identifier: Apache-2.0
// Frames moved as one piece each, of a size of its own: what a piece has beyond its frame, the next frame covers.
#ifndef KESAUDIO_CHANNEL_PIECES_H
#define KESAUDIO_CHANNEL_PIECES_H

#include "base/simd.h"
#include "channel/frames.h"

namespace kesaudio::channel {

// Pieces of 2, 4, 8 and 16 bytes are one integer or vector. Pieces of 24 and 32 bytes are a vector and a second part,
// or one vector with AVX2.
template <class Value>
struct Piece {
  typedef Value Unaligned __attribute__((aligned(1), may_alias));
  Value value;
  KESAUDIO_INLINE explicit Piece(const Byte* p, const Byte* = nullptr)
      : value(*reinterpret_cast<const Unaligned*>(p)) {}
  KESAUDIO_INLINE explicit Piece(Value x) : value(x) {}
  KESAUDIO_INLINE void store(Byte* p, Byte* = nullptr) const { *reinterpret_cast<Unaligned*>(p) = value; }
  KESAUDIO_INLINE Piece operator&(const Piece& mask) const { return Piece(value & mask.value); }
  // The mask of these bytes.
  static Piece mask(const Byte* p) { return Piece(p); }
};
typedef Byte Bytes16 __attribute__((vector_size(16)));
using Piece16 = Piece<Bytes16>;

template <class Last>
struct LongPiece {
  Piece16 first;
  Last last;
  KESAUDIO_INLINE LongPiece(const Byte* p, const Byte* at16) : first(p), last(at16) {}
  KESAUDIO_INLINE LongPiece(Piece16 x, Last y) : first(x), last(y) {}
  KESAUDIO_INLINE void store(Byte* p, Byte* at16) const {
    first.store(p);
    last.store(at16);
  }
  // Masks concern the last part alone.
  static Last mask(const Byte* p) { return Last(p + 16); }
  KESAUDIO_INLINE LongPiece operator&(const Last& mask) const { return LongPiece(first, last & mask); }
};

using Piece24 = LongPiece<Piece<std::uint64_t>>;
using Piece32 = std::conditional_t<kBlocks == 2, Piece<U8x>, LongPiece<Piece16>>;

struct Unmasked {};
template <class Piece>
KESAUDIO_INLINE Piece operator&(const Piece& piece, Unmasked) {
  return piece;
}

// Copies a piece of each frame, less the bytes that mask takes away; several loads before their stores.
template <class Piece, class Mask = Unmasked>
[[gnu::noinline]] void copyPieces(Byte* dst, std::ptrdiff_t out, const Byte* src, std::ptrdiff_t in,
                                  std::ptrdiff_t frames, Mask mask = {}) {
  constexpr int kTogether = sizeof(Piece) > 16 ? kStrides / 2 : kStrides;
  const Strides<kTogether> outs(out), ins(in);
  // The address of a piece's second part has a register of its own: a load takes a register offset or a constant one.
  Byte* dst16 = opaque(dst + 16);
  const Byte* src16 = opaque(src + 16);
  for (; frames >= kTogether; frames -= kTogether) {
    [&]<int... i>(std::integer_sequence<int, i...>) KESAUDIO_INLINED {
      const Piece pieces[] = {Piece(src + ins[i], src16 + ins[i])...};
      ((pieces[i] & mask).store(dst + outs[i], dst16 + outs[i]), ...);
    }
    (std::make_integer_sequence<int, kTogether>());
    dst += kTogether * out, dst16 += kTogether * out;
    src += kTogether * in, src16 += kTogether * in;
  }
  for (; frames > 0; --frames, dst += out, src += in) (Piece(src, src + 16) & mask).store(dst, dst + 16);
}

// Calls move(output, input, frames) for disjoint blocks: once, or where these overlap, chunk by chunk from a copy,
// from the first to the last for shorter frames and from the last to the first for longer ones, so that every frame
// is read before it is written over. Frames of at most 1024 input bytes.
template <class Move>
void moveApart(Byte* dst, std::ptrdiff_t out, const Byte* src, std::ptrdiff_t in, std::ptrdiff_t frames, Move move) {
  if (disjoint(dst, frames * out, src, frames * in)) return move(dst, src, frames);
  Byte chunk[1024];
  const std::ptrdiff_t most = static_cast<std::ptrdiff_t>(sizeof chunk) / in;
  for (std::ptrdiff_t left = frames, count; left > 0; left -= count) {
    count = left < most ? left : most;
    const std::ptrdiff_t at = out < in ? frames - left : left - count;
    std::memcpy(chunk, src + at * in, static_cast<std::size_t>(count * in));
    move(dst + at * out, chunk, count);
  }
}

}  // namespace kesaudio::channel

#endif
