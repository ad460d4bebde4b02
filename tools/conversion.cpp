// SPDX-License-Identifier: Apache-2.0
#include "conversion.h"

#include <algorithm>
#include <cmath>

#include "failure.h"

namespace kesconvert {
namespace {

// Between words and packed little-endian samples of their high bytes.
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

using Block = std::span<const unsigned char>;  // of whole frames
using Next = std::function<void(Block)>;

// A step at work: takes blocks of its input, and hands those of its output on.
class Worker {
 public:
  // Adds to clippedSamples those at a limit of their range, if the step can clip.
  Worker(const Step& step, std::size_t blockFrames, Next next, std::uint64_t& clippedSamples)
      : step_(step), next_(std::move(next)), clippedSamples_(clippedSamples) {
    const std::uint64_t fitting = framesAt(blockFrames, step.out.rate, step.in.rate);
    const std::uint64_t frames = std::min<std::uint64_t>(blockFrames, fitting);
    offeredBytes_ = frames * step.in.frameBytes();
    out_.resize(framesAt(frames, step.in.rate, step.out.rate) * step.out.frameBytes());
  }

  void push(Block in) {
    while (!in.empty()) {
      const std::size_t offered = std::min(in.size(), offeredBytes_);
      auto left = static_cast<std::uint32_t>(offered), made = static_cast<std::uint32_t>(out_.size());
      step_.process(in.data(), &left, out_.data(), &made);
      in = in.subspan(offered - left);
      const Block done = Block(out_).first(made);
      if (step_.canClip) countLimits(done);
      next_(done);
    }
  }

 private:
  void countLimits(Block block) {
    const unsigned bytes = bytesOf(step_.out.samples);
    const auto highest = static_cast<std::int32_t>(INT32_MAX & ~0u << (32 - 8 * bytes));
    words_.resize(block.size() / bytes);
    unpack(block.data(), bytes, words_);
    clippedSamples_ +=
        static_cast<std::uint64_t>(std::ranges::count(words_, highest) + std::ranges::count(words_, INT32_MIN));
  }

  Step step_;
  std::size_t offeredBytes_;  // at most at a time, so that the output has room
  std::vector<unsigned char> out_;
  std::vector<std::int32_t> words_;
  Next next_;
  std::uint64_t& clippedSamples_;
};

}  // namespace

Plan makePlan(const Form& in, ChannelMask layout, const Form& out, const Wishes& wishes) {
  Plan plan;
  Form now = in;
  const auto add = [&](const char* what, const Step& step) {
    plan.descriptions.push_back(what + step.description);
    if (!step.process) return;
    plan.steps.push_back(step);
    now = step.out;
  };
  const auto addShift = [&](PcmFormat samples) {
    if (now.samples != samples) add("format: ", shiftTo(samples, now));
  };
  const auto addMix = [&] {
    const Mix mix = mixTo(out.channels, now, layout, wishes.addSilentChannels);
    plan.layout = mix.layout;
    add("mix:    ", mix.step);
  };

  // Towards more bits first, towards fewer last.
  const bool isUpmix = out.channels > in.channels;
  if (wishes.limit) addShift(KES_PCM_Q8_24);
  if (bytesOf(out.samples) > bytesOf(in.samples)) addShift(out.samples);
  if (!isUpmix) addMix();
  if (now.rate != out.rate) {
    if (now.samples == KES_PCM_S24_PACKED) addShift(KES_PCM_S32);
    add("rate:   ", resampleTo(out.rate, now, wishes.multichannel));
  }
  if (wishes.limit) {
    if (now.channels > 2) fail("--limit is for 1 or 2 channels, not for {}; add --channels 2", now.channels);
    plan.limited = std::make_shared<std::uint32_t>(0);
    add("limit:  ", limit(now, plan.limited));
  }
  addShift(out.samples);
  if (isUpmix) addMix();
  return plan;
}

void Level::add(std::span<const std::int32_t> samples) {
  for (const std::int32_t sample : samples) {
    const auto bits = static_cast<std::uint32_t>(sample);
    peak = std::max(peak, sample < 0 ? 0 - bits : bits);
  }
}

double Level::decibels() const { return 20 * std::log10(peak / 0x1p31); }

Report convert(AudioSource& source, const std::vector<Step>& steps, const Form& out, AudioSink& sink,
               std::size_t blockFrames, const std::function<void(std::uint64_t)>& progress) {
  const StreamFormat& in = source.format;
  Report report;
  std::uint64_t late = 0;                // frames to come before the first one
  std::uint64_t allFrames = UINT64_MAX;  // that the output will have, once the input's end is there
  std::vector<std::int32_t> outWords;
  Next next = [&](Block block) {
    const std::uint64_t made = block.size() / out.frameBytes(), early = std::min(late, made);
    late -= early;
    const std::uint64_t frames = std::min(made - early, allFrames - report.outFrames);
    outWords.resize(frames * out.channels);
    unpack(block.data() + early * out.frameBytes(), bytesOf(out.samples), outWords);
    report.out.add(outWords);
    sink.write(outWords.data(), frames);
    report.outFrames += frames;
  };
  for (auto step = steps.rbegin(); step != steps.rend(); ++step) {
    late += step->delayFrames;
    next = [worker = std::make_shared<Worker>(*step, blockFrames, next, report.clippedSamples)](Block block) {
      worker->push(block);
    };
  }

  std::vector<std::int32_t> words(blockFrames * in.channels);
  std::vector<unsigned char> block(blockFrames * in.frameBytes());
  std::uint64_t inFrames = 0;
  while (const std::size_t frames = source.read(words.data(), blockFrames)) {
    const std::span taken(words.data(), frames * in.channels);
    report.in.add(taken);
    pack(taken, in.sampleBytes, block.data());
    next(Block(block).first(frames * in.frameBytes()));
    progress(inFrames += frames);
  }
  // What a step has not made yet, for want of the input after it.
  allFrames = framesAt(inFrames, in.rate, out.rate);
  std::ranges::fill(block, 0);
  while (report.outFrames < allFrames) next(block);
  return report;
}

}  // namespace kesconvert
