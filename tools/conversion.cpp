// SPDX-License-Identifier: Apache-2.0
#include "conversion.h"

#include <kesaudio/kesaudio.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <vector>

#include "failure.h"

namespace kesconvert {
namespace {

// The layout whose mix to stereo a layout gets; 0 for none.
ChannelMask stereoMixOf(ChannelMask layout) {
  constexpr ChannelMask kMixes[] = {KES_LAYOUT_FRONT, KES_LAYOUT_2POINT1, KES_LAYOUT_STEREO_BACK, KES_LAYOUT_QUAD,
                                    KES_LAYOUT_5POINT1};
  if (layout == kLayout5Point1Side) return KES_LAYOUT_5POINT1;
  return std::ranges::find(kMixes, layout) != std::end(kMixes) ? layout : ChannelMask{KES_LAYOUT_NONE};
}

// A component's record, closed when the last user of it is gone.
template <class Record>
std::shared_ptr<Record> makeRecord(void (*init)(Record*)) {
  const std::shared_ptr<Record> record(new Record, [](Record* old) {
    old->Close(old);
    delete old;
  });
  init(record.get());
  return record;
}

ProcessCall channelConverter(unsigned inChannels, unsigned outChannels, PcmFormat format) {
  const auto record = makeRecord(InitKesAudioChannelConverterInC);
  record->Open(record.get(), inChannels, outChannels, format);
  return [record](const void* src, std::uint32_t* inBytes, void* dst, std::uint32_t* outBytes) {
    record->Process(record.get(), src, inBytes, dst, outBytes);
  };
}

// To nearest, within the range of so many bytes: a word whose further bytes are 0.
std::int32_t rounded(std::int32_t word, unsigned sampleBytes) {
  const std::int64_t unit = std::int64_t{1} << (32 - 8 * sampleBytes);
  const std::int64_t sum = word + unit / 2;
  return static_cast<std::int32_t>(std::min<std::int64_t>(sum - (sum & (unit - 1)), INT32_MAX & -unit));
}

// Between words and packed little-endian samples of their high bytes.
void pack(std::span<const std::int32_t> words, unsigned sampleBytes, unsigned char* packed) {
  for (const std::int32_t word : words) {
    const std::int32_t sample = rounded(word, sampleBytes);
    for (unsigned byte = 4 - sampleBytes; byte < 4; ++byte)
      *packed++ = static_cast<unsigned char>(sample >> 8 * byte);
  }
}

void unpack(const unsigned char* packed, unsigned sampleBytes, std::span<std::int32_t> words) {
  for (std::int32_t& word : words) {
    std::uint32_t bits = 0;
    for (unsigned byte = 4 - sampleBytes; byte < 4; ++byte) bits |= std::uint32_t{*packed++} << 8 * byte;
    word = static_cast<std::int32_t>(bits);
  }
}

// A step at work: takes words of its input, and hands those of its output on.
class Worker {
 public:
  using Next = std::function<void(std::span<const std::int32_t>)>;

  Worker(const Step& step, std::size_t blockFrames, Next next) : step_(step), next_(std::move(next)) {
    const std::uint64_t fitting = framesAt(blockFrames, step.outRate, step.inRate);
    const std::uint64_t frames = std::min<std::uint64_t>(blockFrames, fitting);
    inBlockBytes_ = frames * step.inChannels * step.sampleBytes;
    out_.resize(framesAt(frames, step.inRate, step.outRate) * step.outChannels * step.sampleBytes);
  }

  void push(std::span<const std::int32_t> words) {
    in_.resize(words.size() * step_.sampleBytes);
    pack(words, step_.sampleBytes, in_.data());
    for (std::size_t at = 0; at < in_.size();) {
      const std::size_t offered = std::min(in_.size() - at, inBlockBytes_);
      auto left = static_cast<std::uint32_t>(offered), made = static_cast<std::uint32_t>(out_.size());
      step_.process(in_.data() + at, &left, out_.data(), &made);
      at += offered - left;
      words_.resize(made / step_.sampleBytes);
      unpack(out_.data(), step_.sampleBytes, words_);
      next_(words_);
    }
  }

 private:
  Step step_;
  std::size_t inBlockBytes_;  // offered at a time, so that the output has room
  std::vector<unsigned char> in_;
  std::vector<unsigned char> out_;
  std::vector<std::int32_t> words_;
  Next next_;
};

}  // namespace

Mix chooseMix(const StreamFormat& format, ChannelMask layout, unsigned outChannels, bool addSilentChannels) {
  constexpr PcmFormat kFormats[] = {KES_PCM_S16, KES_PCM_S24_PACKED, KES_PCM_S32};
  const PcmFormat pcm = kFormats[format.sampleBytes - 2];
  const unsigned inChannels = format.channels;
  if (inChannels == outChannels) return {{}, "none, the channels are copied as they are", layout, false};

  Mix mix;
  mix.step = {nullptr, inChannels, outChannels, format.sampleBytes, format.rate, format.rate};
  mix.layout = standardLayout(outChannels);
  const ChannelMask named = stereoMixOf(layout);
  if (inChannels < outChannels && addSilentChannels) {
    mix.description = "silent channels are added, by channel_UpMix_WithZero";
    mix.step.process = [=](const void* src, std::uint32_t* inBytes, void* dst, std::uint32_t* outBytes) {
      Audio_Channel_Upmix(inChannels, outChannels, pcm, src, inBytes, dst, outBytes, 1);
    };
  } else if (outChannels == 2 && inChannels > 2 && named != KES_LAYOUT_NONE) {
    mix.canClip = true;
    mix.description = describe(named) + " to stereo, by channel_DownMix_To_Stereo";
    if (named != layout) mix.description += "; the side channels are mixed as back channels";
    if (positions(named) < inChannels)
      mix.description += fmt::format("; channels from {} on are left out", positions(named) + 1);
    mix.step.process = [=](const void* src, std::uint32_t* inBytes, void* dst, std::uint32_t* outBytes) {
      Audio_Channel_Downmix(inChannels, outChannels, pcm, src, inBytes, dst, outBytes, named);
    };
  } else {
    mix.step.process = channelConverter(inChannels, outChannels, pcm);
    if (inChannels < outChannels) {
      mix.description = "the channels are repeated in turn, by channel_UpMix_Duplicate";
    } else if (outChannels == 1) {
      mix.description = "average of all channels, by channel_DownMix_Fold_Mono_Average";
    } else if (outChannels == 2) {
      mix.description = "pairwise average, since the layout has no mix of its own, by channel_DownMix_To_Stereo";
    } else {
      mix.description = fmt::format("the first {} channels are kept, by channel_DownMix_Strip", outChannels);
      mix.layout = firstPositions(layout, outChannels);
    }
  }
  return mix;
}

void Level::add(std::span<const std::int32_t> samples, unsigned sampleBytes) {
  const auto highest = static_cast<std::int32_t>(INT32_MAX & ~0u << (32 - 8 * sampleBytes));
  for (const std::int32_t sample : samples) {
    const auto bits = static_cast<std::uint32_t>(sample);
    peak = std::max(peak, sample < 0 ? 0 - bits : bits);
    clippedSamples += sample == highest || sample == INT32_MIN;
  }
}

double Level::decibels() const { return 20 * std::log10(peak / 0x1p31); }

Resampling chooseResampling(const StreamFormat& format, unsigned channels, int outRate, bool multichannel) {
  if (format.rate == outRate) return {};
  const auto record = makeRecord(InitKesAudioSrcInC);
  const bool plain = channels == 2 && !multichannel;
  const ResamplerFormat samples = format.sampleBytes == 2 ? KES_RESAMPLER_S16 : KES_RESAMPLER_S32;
  const auto open = plain ? record->Open : record->MultiChannel_Open;
  const auto call = plain ? record->Process : record->MultiChannel_Process;
  if (open(record.get(), static_cast<std::uint32_t>(format.rate), channels, static_cast<std::uint32_t>(outRate),
           channels, samples) != KES_OK)
    fail("cannot resample {} Hz to {} Hz; rates from 4000 to 768000 Hz can be", format.rate, outRate);
  // An empty first block, since the first one is made as long as its input by silence before it: a delay here.
  std::uint32_t noInput = 0, noOutput = 0;
  call(record.get(), nullptr, &noInput, nullptr, &noOutput);

  Resampling resampling;
  resampling.step = {nullptr, channels, channels, samples == KES_RESAMPLER_S16 ? 2u : 4u, format.rate, outRate};
  resampling.description = fmt::format("{} to {} Hz, {} ch, by the {} resampler", format.rate, outRate, channels,
                                       plain ? "plain" : "multichannel");
  resampling.step.process = [=](const void* src, std::uint32_t* inBytes, void* dst, std::uint32_t* outBytes) {
    call(record.get(), src, inBytes, dst, outBytes);
  };
  return resampling;
}

std::uint64_t framesAt(std::uint64_t frames, int inRate, int outRate) {
  const auto in = static_cast<std::uint64_t>(inRate), out = static_cast<std::uint64_t>(outRate);
  return frames / in * out + (frames % in * out + in - 1) / in;
}

Report convert(AudioSource& source, const std::vector<Step>& steps, const StreamFormat& out, AudioSink& sink,
               std::size_t blockFrames, const std::function<void(std::uint64_t)>& progress) {
  const StreamFormat& in = source.format;
  Report report;
  std::uint64_t allFrames = UINT64_MAX;  // that the output will have, once the input's end is there
  std::vector<std::int32_t> last;
  Worker::Next next = [&](std::span<const std::int32_t> words) {
    const auto frames = std::min<std::uint64_t>(words.size() / out.channels, allFrames - report.outFrames);
    last.assign(words.begin(), words.begin() + static_cast<std::ptrdiff_t>(frames * out.channels));
    for (std::int32_t& word : last) word = rounded(word, out.sampleBytes);
    report.out.add(last, out.sampleBytes);
    sink.write(last.data(), frames);
    report.outFrames += frames;
  };
  for (auto step = steps.rbegin(); step != steps.rend(); ++step)
    next = [worker = std::make_shared<Worker>(*step, blockFrames, next)](auto words) { worker->push(words); };

  std::vector<std::int32_t> words(blockFrames * in.channels);
  while (const std::size_t frames = source.read(words.data(), blockFrames)) {
    const std::span taken(words.data(), frames * in.channels);
    report.in.add(taken, in.sampleBytes);
    next(taken);
    report.inFrames += frames;
    progress(report.inFrames);
  }
  // What the resampler has not made yet, for want of the input after it.
  allFrames = framesAt(report.inFrames, in.rate, out.rate);
  std::ranges::fill(words, 0);
  while (report.outFrames < allFrames) next(words);
  return report;
}

}  // namespace kesconvert
