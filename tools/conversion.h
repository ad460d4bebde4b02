// SPDX-License-Identifier: Apache-2.0
// The conversion itself: which steps a stream goes through, and the work block by block.
#ifndef KESCONVERT_CONVERSION_H
#define KESCONVERT_CONVERSION_H

#include <span>
#include <vector>

#include "audio_file.h"
#include "steps.h"

namespace kesconvert {

struct Wishes {
  bool addSilentChannels = false;
  bool multichannel = false;  // resampler, for stereo too
  bool limit = false;
};

struct Plan {
  std::vector<Step> steps;
  std::vector<std::string> descriptions;   // of all that is done, and of a mix that is not
  ChannelMask layout = KES_LAYOUT_NONE;    // of the output
  std::shared_ptr<std::uint32_t> limited;  // the limiter's highest input; null without one
};

// The way from one form to another on which the fewest samples are resampled.
Plan makePlan(const Form& in, ChannelMask layout, const Form& out, const Wishes& wishes);

struct Level {
  std::uint32_t peak = 0;  // of 2^31

  void add(std::span<const std::int32_t> samples);
  double decibels() const;  // of full scale, minus infinity for silence
};

struct Report {
  std::uint64_t outFrames = 0;
  Level in;
  Level out;
  std::uint64_t clippedSamples = 0;  // at most: at a limit of their range behind a step that can clip
};

// Converts the source to its end. After every block progress is told how many input frames are done.
Report convert(AudioSource& source, const std::vector<Step>& steps, const Form& out, AudioSink& sink,
               std::size_t blockFrames, const std::function<void(std::uint64_t)>& progress);

}  // namespace kesconvert

#endif
