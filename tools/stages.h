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

// A Process call: converts as much as fits, and sets the counts to the bytes not consumed and the bytes made.
using ProcessCall = std::function<void(const void* src, std::uint32_t* inBytes, void* dst, std::uint32_t* outBytes)>;

struct Stage {
  ProcessCall process;  // empty if nothing changes
  StreamFormat in, out;
  std::string description;
  unsigned delayFrames = 0;  // output frames ahead of the first input frame
  bool canClip = false;
};

// Mixes to the given channels, and replaces the layout by the output's. Calls an entry point for a layout's mix and
// for silent channels, which the channel converter does not offer.
Stage mixTo(unsigned channels, const StreamFormat& in, ChannelMask& layout, bool addSilentChannels);

// The rates that resampleTo takes.
inline constexpr int kMinRate = 4000, kMaxRate = 768000;

// Changes the rate, of stereo by the resampler's plain variant, of others by its multichannel one. The first output
// frame stands at the time of the first input frame. Takes any samples but packed 24-bit.
Stage resampleTo(int rate, const StreamFormat& in);

// Changes the sample format, by the bit converter's shifter.
Stage convertSampleFormat(PcmFormat samples, const StreamFormat& in);

// Limits 8.24 to 16 bits, by the bit converter. Keeps the greatest input magnitude in highest.
Stage limit(const StreamFormat& in, const std::shared_ptr<std::uint32_t>& highest);

// Decibels by which an 8.24 peak exceeds the highest 16-bit sample; 0 if it does not.
double decibelsOver16Bits(std::uint32_t highest);

}  // namespace kesconvert

#endif
