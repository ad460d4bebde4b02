// SPDX-License-Identifier: Apache-2.0
// Moves of whole frames, of any sample size: bytes are never interpreted. Sizes are bytes per frame. stripFrames is
// in strip.cpp, expandFrames in upmix.cpp.
#ifndef KESAUDIO_CHANNEL_MOVES_H
#define KESAUDIO_CHANNEL_MOVES_H

#include "channel/frames.h"

namespace kesaudio::channel {

// Content of the bytes by which an output frame exceeds its input frame.
enum class Fill { kSilence, kRepeat };

// Keeps the first out bytes of each frame, out <= in. Also in place, and onto any place before src.
void stripFrames(Byte* dst, std::ptrdiff_t out, const Byte* src, std::ptrdiff_t in, std::ptrdiff_t frames);

// Makes each frame longer, out > in. Also in place, and onto any place behind src.
void expandFrames(Byte* dst, std::ptrdiff_t out, const Byte* src, std::ptrdiff_t in, std::ptrdiff_t frames,
                  Fill fill);

}  // namespace kesaudio::channel

#endif
