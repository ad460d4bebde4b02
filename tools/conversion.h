// SPDX-License-Identifier: Apache-2.0
// The conversion itself: what a stream goes through, and the work block by block.
#ifndef KESCONVERT_CONVERSION_H
#define KESCONVERT_CONVERSION_H

#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <vector>

#include "audio_file.h"
#include "layout.h"

namespace kesconvert {

// A step of the conversion, in the library's process-call form: converts as much as fits, and rewrites both counts to
// the bytes not consumed and the bytes made.
using ProcessCall = std::function<void(const void* src, std::uint32_t* inBytes, void* dst, std::uint32_t* outBytes)>;

struct Step {
  ProcessCall process;  // null when there is nothing to do
  unsigned inChannels = 0;
  unsigned outChannels = 0;
  unsigned sampleBytes = 0;
  int inRate = 0;
  int outRate = 0;
};

struct Mix {
  Step step;
  std::string description;
  ChannelMask layout = KES_LAYOUT_NONE;  // of the output
  bool canClip = false;
};

// The mix to so many channels: the component of the library, or an entry point where the component cannot be told
// what is wanted (a layout, silent channels).
Mix chooseMix(const StreamFormat& format, ChannelMask layout, unsigned outChannels, bool addSilentChannels);

struct Resampling {
  Step step;
  std::string description;
};

// The change of rate of so many channels: by the plain flavour of the resampler, or by its multichannel one. The
// first output frame stands at the time of the first input frame.
Resampling chooseResampling(const StreamFormat& format, unsigned channels, int outRate, bool multichannel);

// The frames that a stream has at another rate, rounded up.
std::uint64_t framesAt(std::uint64_t frames, int inRate, int outRate);

struct Level {
  std::uint32_t peak = 0;            // of 2^31
  std::uint64_t clippedSamples = 0;  // at a limit of their range

  void add(std::span<const std::int32_t> samples, unsigned sampleBytes);
  double decibels() const;  // of full scale, minus infinity for silence
};

struct Report {
  std::uint64_t inFrames = 0;
  std::uint64_t outFrames = 0;
  Level in;
  Level out;
};

// Converts the source to its end, through one step after the other. After every block progress is told how many input
// frames are done.
Report convert(AudioSource& source, const std::vector<Step>& steps, const StreamFormat& out, AudioSink& sink,
               std::size_t blockFrames, const std::function<void(std::uint64_t)>& progress);

}  // namespace kesconvert

#endif
