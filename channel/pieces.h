// SPDX-License-Identifier: Apache-2.0
// Frames moved as one piece each, of a size of its own: what a piece has beyond its frame, the next frame covers.
#ifndef KESAUDIO_CHANNEL_PIECES_H
#define KESAUDIO_CHANNEL_PIECES_H

#include "base/simd.h"
#include "channel/frames.h"

namespace kesaudio::channel {

// Pieces are integers of 2, 4 and 8 bytes and vectors of 16 and 32.
typedef Byte Piece16 __attribute__((vector_size(16)));
typedef Byte Piece32 __attribute__((vector_size(32)));

// Copies a piece of each frame, with a mask less the bits that this has not; several loads before their stores.
template <class Piece, bool kMasked = false>
[[gnu::noinline]] void copyPieces(Byte* dst, std::ptrdiff_t out, const Byte* src, std::ptrdiff_t in,
                                  std::ptrdiff_t frames, const Byte* mask = nullptr) {
  typedef Piece Unaligned __attribute__((aligned(1), may_alias));
  constexpr int kTogether = kStrides;
  const Strides<kTogether> outs(out), ins(in);
  Piece kept{};
  if constexpr (kMasked) kept = *reinterpret_cast<const Unaligned*>(mask);
  const auto copy = [&]<int... i>(std::integer_sequence<int, i...>) KESAUDIO_INLINED {
    constexpr int kCount = sizeof...(i);
    Piece pieces[kCount];
    ((pieces[i] = *reinterpret_cast<const Unaligned*>(src + ins[i])), ...);
    if constexpr (kMasked) ((pieces[i] &= kept), ...);
    ((*reinterpret_cast<Unaligned*>(dst + outs[i]) = pieces[i]), ...);
    dst += kCount * out, src += kCount * in;
  };
  for (; frames >= kTogether; frames -= kTogether) copy(std::make_integer_sequence<int, kTogether>());
  for (; frames > 0; --frames) copy(std::make_integer_sequence<int, 1>());
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
