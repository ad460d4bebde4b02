// SPDX-License-Identifier: Apache-2.0
#include "conversion.h"

#include <algorithm>
#include <cmath>

#include "failure.h"

namespace kesconvert {
namespace {

// Packs the high bytes of words as little-endian samples.
void pack(std::span<const std::int32_t> words, unsigned sampleBytes, unsigned char* packed) {
  for (const std::int32_t word : words)
    for (unsigned byte = 4 - sampleBytes; byte < 4; ++byte) *packed++ = static_cast<unsigned char>(word >> 8 * byte);
}

void unpack(const unsigned char* packed, unsigned sampleBytes, std::span<std::int32_t> words) {
  for (std::int32_t& word : words) {
    std::uint32_t bits = 0;
    for (unsigned byte = 4 - sampleBytes; byte < 4; ++byte) bits |= std::uint32_t{*packed++} << 8 * byte;
    word = static_cast<std::int32_t>(bits);
  }
}

constexpr unsigned kMaxDelaySeconds = 10;  // of all stages together, and more

using Block = std::span<const unsigned char>;  // of whole frames
using Next = std::function<void(Block)>;

// Runs a stage: takes blocks of input, and hands on blocks of output.
class StageRunner {
 public:
  // If the stage can clip, adds to clippedSamples the samples at a limit of their range.
  StageRunner(const Stage& stage, std::size_t blockFrames, Next next, std::uint64_t& clippedSamples)
      : stage_(stage), next_(std::move(next)), clippedSamples_(clippedSamples) {
    const std::uint64_t fitting = rescaledFrameCount(blockFrames, stage.out.rate, stage.in.rate);
    const std::uint64_t frames = std::min<std::uint64_t>(blockFrames, fitting);
    offeredBytes_ = frames * stage.in.frameBytes();
    out_.resize(rescaledFrameCount(frames, stage.in.rate, stage.out.rate) * stage.out.frameBytes());
  }

  void push(Block in) {
    while (!in.empty()) {
      const std::size_t offered = std::min(in.size(), offeredBytes_);
      auto left = static_cast<std::uint32_t>(offered), made = static_cast<std::uint32_t>(out_.size());
      stage_.process(in.data(), &left, out_.data(), &made);
      if (left >= offered && made == 0)
        fail("{}: the library takes no input and makes no output; leave this step out", stage_.description);
      in = in.subspan(offered - left);
      const Block done = Block(out_).first(made);
      if (stage_.canClip) countLimits(done);
      next_(done);
    }
  }

 private:
  void countLimits(Block block) {
    const unsigned bytes = bytesOf(stage_.out.samples);
    const auto highest = static_cast<std::int32_t>(INT32_MAX & ~0u << (32 - 8 * bytes));
    words_.resize(block.size() / bytes);
    unpack(block.data(), bytes, words_);
    clippedSamples_ +=
        static_cast<std::uint64_t>(std::ranges::count(words_, highest) + std::ranges::count(words_, INT32_MIN));
  }

  Stage stage_;
  std::size_t offeredBytes_;  // most input bytes whose output fits into out_
  std::vector<unsigned char> out_;
  std::vector<std::int32_t> words_;
  Next next_;
  std::uint64_t& clippedSamples_;
};

}  // namespace

Plan makePlan(const StreamFormat& in, ChannelMask layout, const StreamFormat& out, const ConversionOptions& options) {
  Plan plan;
  plan.layout = layout;
  StreamFormat now = in;
  const auto add = [&](const char* title, const Stage& stage) {
    plan.descriptions.push_back(title + stage.description);
    if (!stage.process) return;
    plan.stages.push_back(stage);
    now = stage.out;
  };
  const auto addFormat = [&](PcmFormat samples) {
    if (now.samples != samples) add("format: ", convertSampleFormat(samples, now));
  };
  const auto addMix = [&] { add("mix:    ", mixTo(out.channels, now, plan.layout, options.addSilentChannels)); };

  // Widen first, narrow last.
  const bool isUpmix = out.channels > in.channels;
  if (options.limit) addFormat(KES_PCM_Q8_24);
  if (bytesOf(out.samples) > bytesOf(in.samples)) addFormat(out.samples);
  if (!isUpmix) addMix();
  if (now.rate != out.rate) {
    if (now.samples == KES_PCM_S24_PACKED) addFormat(KES_PCM_S32);
    add("rate:   ", resampleTo(out.rate, now));
  }
  if (options.limit) {
    if (now.channels > 2) fail("--limit is for 1 or 2 channels, not for {}; add --channels 2", now.channels);
    plan.limiterPeak = std::make_shared<std::uint32_t>(0);
    add("limit:  ", limit(now, plan.limiterPeak));
  }
  addFormat(out.samples);
  if (isUpmix) addMix();
  return plan;
}

void PeakMeter::add(std::span<const std::int32_t> samples) {
  for (const std::int32_t sample : samples) {
    const auto bits = static_cast<std::uint32_t>(sample);
    peak = std::max(peak, sample < 0 ? 0 - bits : bits);
  }
}

double PeakMeter::decibels(PcmFormat samples) const {
  return 20 * std::log10(peak / (samples == KES_PCM_Q8_24 ? 0x1p24 : 0x1p31));
}

Report convert(AudioSource& source, const std::vector<Stage>& stages, const StreamFormat& out, AudioSink& sink,
               std::size_t blockFrames, const std::function<void(std::uint64_t)>& progress) {
  const StreamFormat& in = source.format;
  Report report;
  std::uint64_t delayLeft = 0;           // output frames still to drop
  std::uint64_t allFrames = UINT64_MAX;  // of the output, once the input has ended
  std::vector<std::int32_t> outWords;
  Next next = [&](Block block) {
    const std::uint64_t made = block.size() / out.frameBytes(), dropped = std::min(delayLeft, made);
    delayLeft -= dropped;
    const std::uint64_t frames = std::min(made - dropped, allFrames - report.outFrames);
    outWords.resize(frames * out.channels);
    unpack(block.data() + dropped * out.frameBytes(), bytesOf(out.samples), outWords);
    report.out.add(outWords);
    sink.write(outWords.data(), frames);
    report.outFrames += frames;
  };
  for (auto stage = stages.rbegin(); stage != stages.rend(); ++stage) {
    delayLeft += stage->delayFrames;
    next = [runner = std::make_shared<StageRunner>(*stage, blockFrames, next, report.clippedSamples)](Block block) {
      runner->push(block);
    };
  }

  std::vector<std::int32_t> words(blockFrames * in.channels);
  std::vector<unsigned char> block(blockFrames * in.frameBytes());
  std::uint64_t inFrames = 0;
  while (const std::size_t frames = source.read(words.data(), blockFrames)) {
    const std::span taken(words.data(), frames * in.channels);
    report.in.add(taken);
    pack(taken, bytesOf(in.samples), block.data());
    next(Block(block).first(frames * in.frameBytes()));
    progress(inFrames += frames);
  }
  // Silence pushes out the frames that the stages still hold.
  allFrames = rescaledFrameCount(inFrames, in.rate, out.rate);
  std::ranges::fill(block, 0);
  for (std::uint64_t silence = 0; report.outFrames < allFrames; silence += blockFrames) {
    if (silence / kMaxDelaySeconds > static_cast<std::uint64_t>(in.rate))
      fail("the library keeps back {} of {} frames; leave out --rate or --limit", allFrames - report.outFrames,
           allFrames);
    next(block);
  }
  report.clippedSamples += source.clippedSamples;
  return report;
}

}  // namespace kesconvert
