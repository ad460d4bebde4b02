// SPDX-License-Identifier: Apache-2.0
// The steps of a conversion, each of them one component of the library at work.
#ifndef KESCONVERT_STEPS_H
#define KESCONVERT_STEPS_H

#include <kesaudio/types.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "layout.h"

namespace kesconvert {

// The form of a stream between two steps.
struct Form {
  int rate = 0;
  unsigned channels = 0;
  PcmFormat samples = KES_PCM_S16;

  std::uint64_t frameBytes() const;
};

unsigned bytesOf(PcmFormat samples);
PcmFormat integersOf(unsigned sampleBytes);

// The frames that a stream has at another rate, rounded up.
std::uint64_t framesAt(std::uint64_t frames, int inRate, int outRate);

// The library's process-call form: converts as much as fits, and rewrites both counts to the bytes not consumed and
// the bytes made.
using ProcessCall = std::function<void(const void* src, std::uint32_t* inBytes, void* dst, std::uint32_t* outBytes)>;

struct Step {
  ProcessCall process;
  Form in, out;
  std::string description;
  unsigned delayFrames = 0;  // of the output, that come before the first one of the input's
  bool canClip = false;
};

struct Mix {
  Step step;                             // without a process call when the channels stay as they are
  ChannelMask layout = KES_LAYOUT_NONE;  // of the output
};

// The mix to so many channels: by the channel converter, or by an entry point where that cannot be told what is
// wanted (a layout, silent channels).
Mix mixTo(unsigned channels, const Form& in, ChannelMask layout, bool addSilentChannels);

// What resampleTo takes as either rate.
inline constexpr int kLeastRate = 4000, kMostRate = 768000;

// The change of rate: by the plain variant of the resampler, or by its multichannel one. The first output frame
// stands at the time of the first input frame. Of any samples but packed 24-bit.
Step resampleTo(int rate, const Form& in, bool multichannel);

// The change of sample format, by the bit converter's shifter.
Step shiftTo(PcmFormat samples, const Form& in);

// The bit converter's limiter, from 8.24 to 16 bits. Notes in highest the greatest sample that went in.
Step limit(const Form& in, const std::shared_ptr<std::uint32_t>& highest);

// By how much an 8.24 peak is above the highest that 16 bits hold.
double decibelsOver16Bits(std::uint32_t highest);

}  // namespace kesconvert

#endif
