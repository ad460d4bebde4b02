// SPDX-License-Identifier: Apache-2.0
// Moves each frame as one piece, loaded and stored at once. A piece may exceed its frame: the next frame overwrites
// the surplus.
#ifndef KESAUDIO_CHANNEL_PIECES_H
#define KESAUDIO_CHANNEL_PIECES_H

#include "base/simd.h"
#include "channel/frames.h"

namespace kesaudio::channel {

// Pieces of 2, 4 and 8 bytes are integers, those of 16 and 32 bytes vectors.
typedef Byte Piece16 __attribute__((vector_size(16)));
typedef Byte Piece32 __attribute__((vector_size(32)));

// Copies one piece of each frame, ANDed with the mask if kMasked; kStrides loads, then their stores. On 64-bit Arm a
// piece of 16 bytes is one LDR and one STR, with the address and a multiple of the frame size as operands.
template <class Piece, bool kMasked = false>
[[gnu::noinline]] void copyPieces(Byte* dst, std::ptrdiff_t out, const Byte* src, std::ptrdiff_t in,
                                  std::ptrdiff_t frames, const Byte* mask = nullptr) {
  typedef Piece Unaligned __attribute__((aligned(1), may_alias));
  const Strides<kStrides> outs(out), ins(in);
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
  for (; frames >= kStrides; frames -= kStrides) copy(std::make_integer_sequence<int, kStrides>());
  for (; frames > 0; --frames) copy(std::make_integer_sequence<int, 1>());
}

// Calls move(output, input, frames) with blocks that do not overlap: the caller's, or, if those overlap, a copy of
// each chunk of the input. Chunks go from first to last if frames get shorter and from last to first if they get
// longer, so that every frame is read before it is overwritten. Input frames have at most 1024 bytes.
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
