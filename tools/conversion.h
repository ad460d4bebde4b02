// SPDX-License-Identifier: Apache-2.0
// Plans the stages of a conversion and runs a stream through them, block by block.
#ifndef KESCONVERT_CONVERSION_H
#define KESCONVERT_CONVERSION_H

#include <span>
#include <vector>

#include "audio_file.h"
#include "stages.h"

namespace kesconvert {

struct ConversionOptions {
  bool addSilentChannels = false;
  bool limit = false;
};

struct Plan {
  std::vector<Stage> stages;
  std::vector<std::string> descriptions;       // of every stage, even a mix that changes nothing
  ChannelMask layout = KES_LAYOUT_NONE;        // of the output
  std::shared_ptr<std::uint32_t> limiterPeak;  // the limiter's highest input; null without one
};

// Orders the stages so that the fewest samples are resampled.
Plan makePlan(const StreamFormat& in, ChannelMask layout, const StreamFormat& out, const ConversionOptions& options);

// Keeps the greatest magnitude of all samples.
struct PeakMeter {
  std::uint32_t peak = 0;

  void add(std::span<const std::int32_t> samples);
  double decibels(PcmFormat samples) const;  // of full scale, minus infinity for silence
};

struct Report {
  std::uint64_t outFrames = 0;
  PeakMeter in;
  PeakMeter out;
  std::uint64_t clippedSamples = 0;  // upper bound: samples at a limit of their range after a stage that can clip
};

// Converts the source to its end. Calls progress after every block with the input frames done.
Report convert(AudioSource& source, const std::vector<Stage>& stages, const StreamFormat& out, AudioSink& sink,
               std::size_t blockFrames, const std::function<void(std::uint64_t)>& progress);

}  // namespace kesconvert

#endif
