// SPDX-License-Identifier: Apache-2.0
#include "steps.h"

#include <kesaudio/kesaudio.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <span>
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

// Which channels of a layout make a 5.1 frame: the front four (-1: silent), and for the left and the right
// surround one channel, or two of which it is the average.
struct To5Point1 {
  ChannelMask layout;
  int front[4];
  int surround[4];
};
constexpr To5Point1 kTo5Point1[] = {{0x37, {0, 1, 2, -1}, {3, -1, 4, -1}},   // 5.0
                                    {0x607, {0, 1, 2, -1}, {3, -1, 4, -1}},  // 5.0-side
                                    {0x13F, {0, 1, 2, 3}, {4, 6, 5, 6}},     // 6.1
                                    {0x70F, {0, 1, 2, 3}, {5, 4, 6, 4}},     // 6.1-side
                                    {0x63F, {0, 1, 2, 3}, {4, 6, 5, 7}}};    // 7.1

void gather(const unsigned char* frames, std::size_t count, unsigned channels, unsigned bytes,
            std::span<const int> sources, std::size_t outChannels, unsigned char* out) {
  for (std::size_t frame = 0; frame < count; ++frame, frames += channels * bytes, out += outChannels * bytes)
    for (std::size_t i = 0; i < sources.size(); ++i)
      if (sources[i] >= 0) std::memcpy(out + i * bytes, frames + static_cast<unsigned>(sources[i]) * bytes, bytes);
}

// To stereo by way of 5.1.
ProcessCall mixBy5Point1(const To5Point1& map, unsigned channels, PcmFormat pcm) {
  return [=](const void* src, std::uint32_t* inBytes, void* dst, std::uint32_t* outBytes) {
    const unsigned bytes = bytesOf(pcm);
    const auto* const in = static_cast<const unsigned char*>(src);
    const std::size_t frames = *inBytes / (channels * bytes);
    std::vector<unsigned char> whole(frames * 6 * bytes);
    gather(in, frames, channels, bytes, map.front, 6, whole.data());
    if (map.surround[1] < 0) {
      gather(in, frames, channels, bytes, std::array{map.surround[0], map.surround[2]}, 6,
             whole.data() + std::size_t{4} * bytes);
    } else {
      std::vector<unsigned char> four(frames * 4 * bytes), two(frames * 2 * bytes);
      gather(in, frames, channels, bytes, map.surround, 4, four.data());
      auto left = static_cast<std::uint32_t>(four.size()), made = static_cast<std::uint32_t>(two.size());
      Audio_Channel_Downmix(2, 1, pcm, four.data(), &left, two.data(), &made, KES_LAYOUT_NONE);
      constexpr int kBoth[] = {0, 1};
      gather(two.data(), frames, 2, bytes, kBoth, 6, whole.data() + std::size_t{4} * bytes);
    }
    auto left = static_cast<std::uint32_t>(whole.size());
    Audio_Channel_Downmix(6, 2, pcm, whole.data(), &left, dst, outBytes, KES_LAYOUT_5POINT1);
    *inBytes -= static_cast<std::uint32_t>(frames) * channels * bytes;
  };
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

template <class Record, class Process>
ProcessCall callOf(const std::shared_ptr<Record>& record, Process process) {
  return [=](const void* src, std::uint32_t* inBytes, void* dst, std::uint32_t* outBytes) {
    process(record.get(), src, inBytes, dst, outBytes);
  };
}

ProcessCall channelConverter(unsigned inChannels, unsigned outChannels, PcmFormat format) {
  const auto record = makeRecord(InitKesAudioChannelConverterInC);
  record->Open(record.get(), inChannels, outChannels, format);
  return callOf(record, record->Process);
}

ProcessCall bitConverter(const Form& in, ConvertType type) {
  const auto record = makeRecord(InitKesAudioBitConverterC);
  if (record->Open(record.get(), static_cast<std::uint32_t>(in.rate), in.channels, type) != KES_OK)
    throw std::bad_alloc();
  return callOf(record, record->Process);
}

// The frames by which an impulse leaves the limiter later than it went in.
unsigned limiterDelay(const Form& in) {
  const ProcessCall process = bitConverter(in, KES_CONVERT_LIMITER);
  std::vector<std::int32_t> block(in.channels * 1024u);
  std::vector<std::int16_t> out(block.size());
  std::ranges::fill_n(block.begin(), in.channels, 1 << 22);  // a quarter of full scale
  for (unsigned delay = 0; delay < static_cast<unsigned>(in.rate);) {
    auto left = static_cast<std::uint32_t>(block.size() * 4), made = static_cast<std::uint32_t>(out.size() * 2);
    process(block.data(), &left, out.data(), &made);
    if (made == 0) break;
    const std::span samples(out.data(), made / 2);
    const auto first = std::ranges::find_if(samples, [](std::int16_t sample) { return sample != 0; });
    delay += static_cast<unsigned>(first - samples.begin()) / in.channels;
    if (first != samples.end()) return delay;
    std::ranges::fill(block, 0);
  }
  fail("the limiter gives no output; leave --limit out");
}

const char* nameOf(PcmFormat samples) {
  switch (samples) {
    case KES_PCM_S16: return "16-bit";
    case KES_PCM_S24_PACKED: return "24-bit";
    case KES_PCM_Q8_24: return "8.24";
    default: return "32-bit";
  }
}

}  // namespace

std::uint64_t Form::frameBytes() const { return std::uint64_t{channels} * bytesOf(samples); }

unsigned bytesOf(PcmFormat samples) { return samples == KES_PCM_S16 ? 2 : samples == KES_PCM_S24_PACKED ? 3 : 4; }

PcmFormat integersOf(unsigned sampleBytes) {
  return sampleBytes == 2 ? KES_PCM_S16 : sampleBytes == 3 ? KES_PCM_S24_PACKED : KES_PCM_S32;
}

std::uint64_t framesAt(std::uint64_t frames, int inRate, int outRate) {
  const auto in = static_cast<std::uint64_t>(inRate), out = static_cast<std::uint64_t>(outRate);
  return frames / in * out + (frames % in * out + in - 1) / in;
}

Mix mixTo(unsigned outChannels, const Form& in, ChannelMask layout, bool addSilentChannels) {
  const unsigned inChannels = in.channels;
  const PcmFormat pcm = in.samples;
  Mix mix{{nullptr, in, {in.rate, outChannels, pcm}, ""}, standardLayout(outChannels)};
  std::string& description = mix.step.description;
  const ChannelMask named = stereoMixOf(layout);
  const auto by5Point1 = std::ranges::find(kTo5Point1, layout, &To5Point1::layout);
  if (inChannels == outChannels) {
    description = "none, the channels are copied as they are";
    mix.layout = layout;
  } else if (inChannels < outChannels && addSilentChannels) {
    description = "silent channels are added, by channel_UpMix_WithZero";
    mix.step.process = [=](const void* src, std::uint32_t* inBytes, void* dst, std::uint32_t* outBytes) {
      Audio_Channel_Upmix(inChannels, outChannels, pcm, src, inBytes, dst, outBytes, 1);
    };
  } else if (outChannels == 2 && inChannels > 2 && named != KES_LAYOUT_NONE) {
    mix.step.canClip = true;
    description = describe(named) + " to stereo, by channel_DownMix_To_Stereo";
    if (named != layout) description += "; the side channels are mixed as back channels";
    if (positions(named) < inChannels)
      description += fmt::format("; channels from {} on are left out", positions(named) + 1);
    mix.step.process = [=](const void* src, std::uint32_t* inBytes, void* dst, std::uint32_t* outBytes) {
      Audio_Channel_Downmix(inChannels, outChannels, pcm, src, inBytes, dst, outBytes, named);
    };
  } else if (outChannels == 2 && by5Point1 != std::end(kTo5Point1)) {
    mix.step.canClip = true;
    description =
        fmt::format("{} to 5.1, {}, then to stereo, by channel_DownMix_To_Stereo", describe(layout),
                    by5Point1->front[3] < 0 ? "its LFE silent" : "other channels averaged into the surrounds");
    if (positions(layout) < inChannels)
      description += fmt::format("; channels from {} on are left out", positions(layout) + 1);
    mix.step.process = mixBy5Point1(*by5Point1, inChannels, pcm);
  } else {
    mix.step.process = channelConverter(inChannels, outChannels, pcm);
    if (inChannels < outChannels) {
      description = "the channels are repeated in turn, by channel_UpMix_Duplicate";
    } else if (outChannels == 1) {
      description = "average of all channels, by channel_DownMix_Fold_Mono_Average";
    } else if (outChannels == 2) {
      description = "pairwise average, since the layout has no mix of its own, by channel_DownMix_To_Stereo";
    } else {
      description = fmt::format("the first {} channels are kept, by channel_DownMix_Strip", outChannels);
      mix.layout = firstPositions(layout, outChannels);
    }
  }
  return mix;
}

Step resampleTo(int rate, const Form& in, bool multichannel) {
  const auto record = makeRecord(InitKesAudioSrcInC);
  const bool plain = in.channels == 2 && !multichannel;
  const ResamplerFormat format = in.samples == KES_PCM_S16     ? KES_RESAMPLER_S16
                                 : in.samples == KES_PCM_Q8_24 ? KES_RESAMPLER_Q8_24
                                                               : KES_RESAMPLER_S32;
  const auto open = plain ? record->Open : record->MultiChannel_Open;
  const ProcessCall process = callOf(record, plain ? record->Process : record->MultiChannel_Process);
  if (open(record.get(), static_cast<std::uint32_t>(in.rate), in.channels, static_cast<std::uint32_t>(rate),
           in.channels, format) != KES_OK) {
    if (in.rate < kLeastRate || in.rate > kMostRate)
      fail("cannot resample an input of {} Hz; leave --rate out, or give one of {} to {} Hz", in.rate, kLeastRate,
           kMostRate);
    throw std::bad_alloc();
  }
  // An empty first block, since the first one is made as long as its input by silence before it: a delay here.
  std::uint32_t noInput = 0, noOutput = 0;
  process(nullptr, &noInput, nullptr, &noOutput);
  return {process,
          in,
          {rate, in.channels, in.samples},
          fmt::format("{} to {} Hz, {} ch, by the {} resampler", in.rate, rate, in.channels,
                      plain ? "plain" : "multichannel"),
          0,
          true};
}

Step shiftTo(PcmFormat samples, const Form& in) {
  // Types go through the formats in this order: for each, the three others.
  constexpr PcmFormat kOrder[] = {KES_PCM_S16, KES_PCM_S32, KES_PCM_Q8_24, KES_PCM_S24_PACKED};
  const auto place = [&](PcmFormat format) {
    return static_cast<ConvertType>(std::ranges::find(kOrder, format) - kOrder);
  };
  const ConvertType from = place(in.samples), to = place(samples);
  return {bitConverter(in, 3 * from + to - (to > from)),
          in,
          {in.rate, in.channels, samples},
          fmt::format("{} to {}, by the bit converter", nameOf(in.samples), nameOf(samples)),
          0,
          bytesOf(samples) < bytesOf(in.samples)};
}

Step limit(const Form& in, const std::shared_ptr<std::uint32_t>& highest) {
  const ProcessCall process = bitConverter(in, KES_CONVERT_LIMITER);
  return {[=](const void* src, std::uint32_t* inBytes, void* dst, std::uint32_t* outBytes) {
            const std::uint32_t offered = *inBytes;
            process(src, inBytes, dst, outBytes);
            std::vector<std::int32_t> samples((offered - *inBytes) / 4);
            std::memcpy(samples.data(), src, samples.size() * 4);
            for (const std::int64_t sample : samples)  // 16 bits reach one step further down
              *highest = std::max(
                  *highest, static_cast<std::uint32_t>(std::max<std::int64_t>({sample, -sample - (1 << 9), 0})));
          },
          in,
          {in.rate, in.channels, KES_PCM_S16},
          "8.24 to 16-bit, by the bit converter's limiter",
          limiterDelay(in)};
}

double decibelsOver16Bits(std::uint32_t highest) {
  constexpr double kHighest = 0x7FFF << 9;
  return std::max(0.0, 20 * std::log10(highest / kHighest));
}

}  // namespace kesconvert
