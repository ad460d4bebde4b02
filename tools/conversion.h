// SPDX-License-Identifier: Apache-2.0
// The conversion itself: what a stream goes through, and the work block by block.
#ifndef KESCONVERT_CONVERSION_H
#define KESCONVERT_CONVERSION_H

#include <cstdint>
#include <functional>
#include <span>
#include <string>

#include "audio_file.h"
#include "layout.h"

namespace kesconvert {

// A step of the conversion, in the library's process-call form: converts as much as fits, and rewrites both counts to
// the bytes not consumed and the bytes made.
using Stage = std::function<void(const void* src, std::uint32_t* inBytes, void* dst, std::uint32_t* outBytes)>;

struct Mix {
  Stage stage;
  std::string description;
  ChannelMask layout = KES_LAYOUT_NONE;  // of the output
  bool canClip = false;
};

// The mix to so many channels: the component of the library, or an entry point where the component cannot be told
// what is wanted (a layout, silent channels).
Mix chooseMix(const StreamFormat& format, ChannelMask layout, unsigned outChannels, bool addSilentChannels);

struct Level {
  std::uint32_t peak = 0;            // of 2^31
  std::uint64_t clippedSamples = 0;  // at a limit of their range

  void add(std::span<const std::int32_t> samples, unsigned sampleBytes);
  double decibels() const;  // of full scale, minus infinity for silence
};

struct Report {
  std::uint64_t frames = 0;
  Level in;
  Level out;
};

// Converts the source to its end. After every block progress is told how many frames are done.
Report convert(AudioSource& source, const Mix& mix, unsigned outChannels, AudioSink& sink, std::size_t blockFrames,
               const std::function<void(std::uint64_t)>& progress);

}  // namespace kesconvert

#endif
