// SPDX-License-Identifier: Apache-2.0
// Conversion stages, each one component of the library.
#ifndef KESCONVERT_STAGES_H
#define KESCONVERT_STAGES_H

#include <functional>
#include <memory>
#include <string>

#include "layout.h"
#include "stream_format.h"

namespace kesconvert {

// The frames of a stream at another rate, rounded up.
std::uint64_t rescaledFrameCount(std::uint64_t frames, int inRate, int outRate);

// The library's process-call form: converts what fits, and sets both counts to the bytes not consumed and the bytes
// made.
using ProcessCall = std::function<void(const void* src, std::uint32_t* inBytes, void* dst, std::uint32_t* outBytes)>;

struct Stage {
  ProcessCall process;  // empty if nothing changes
  StreamFormat in, out;
  std::string description;
  unsigned delayFrames = 0;  // output frames ahead of the first input frame
  bool canClip = false;
};

// Mixes to that many channels, and replaces the layout by the output's. Calls an entry point where the channel
// converter does not take the arguments (a layout, silent channels).
Stage mixTo(unsigned channels, const StreamFormat& in, ChannelMask& layout, bool addSilentChannels);

// The rates that resampleTo takes.
inline constexpr int kMinRate = 4000, kMaxRate = 768000;

// Changes the rate, by the plain variant of the resampler or by its multichannel one. The first output frame stands
// at the time of the first input frame. Takes any samples but packed 24-bit.
Stage resampleTo(int rate, const StreamFormat& in, bool multichannel);

// Changes the sample format, by the bit converter's shifter.
Stage convertSampleFormat(PcmFormat samples, const StreamFormat& in);

// Limits 8.24 to 16 bits, by the bit converter. Keeps in highest the greatest sample that went in.
Stage limit(const StreamFormat& in, const std::shared_ptr<std::uint32_t>& highest);

// By how much an 8.24 peak is above the highest that 16 bits hold.
double decibelsOver16Bits(std::uint32_t highest);

}  // namespace kesconvert

#endif
