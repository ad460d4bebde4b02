// SPDX-License-Identifier: Apache-2.0
#include "stages.h"

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

// The layout whose stereo mix a layout gets; 0 for none.
ChannelMask stereoMixOf(ChannelMask layout) {
  constexpr ChannelMask kMixes[] = {KES_LAYOUT_FRONT, KES_LAYOUT_2POINT1, KES_LAYOUT_STEREO_BACK, KES_LAYOUT_QUAD,
                                    KES_LAYOUT_5POINT1};
  if (layout == kLayout5Point1Side) return KES_LAYOUT_5POINT1;
  return std::ranges::find(kMixes, layout) != std::end(kMixes) ? layout : ChannelMask{KES_LAYOUT_NONE};
}

// Layouts that are mixed as 5.1: each 5.1 channel is the average of two channels of the layout; -1 is silence.
struct To5Point1 {
  ChannelMask layout;
  int sources[12];
};
constexpr To5Point1 kTo5Point1[] = {{0x37, {0, 0, 1, 1, 2, 2, -1, -1, 3, 3, 4, 4}},   // 5.0
                                    {0x607, {0, 0, 1, 1, 2, 2, -1, -1, 3, 3, 4, 4}},  // 5.0-side
                                    {0x13F, {0, 0, 1, 1, 2, 2, 3, 3, 4, 6, 5, 6}},    // 6.1
                                    {0x70F, {0, 0, 1, 1, 2, 2, 3, 3, 5, 4, 6, 4}},    // 6.1-side
                                    {0x63F, {0, 0, 1, 1, 2, 2, 3, 3, 4, 6, 5, 7}}};   // 7.1

ProcessCall mixBy5Point1(const To5Point1& map, const StreamFormat& in) {
  return [=](const void* src, std::uint32_t* inBytes, void* dst, std::uint32_t* outBytes) {
    const unsigned bytes = bytesOf(in.samples);
    const std::size_t frames = *inBytes / in.frameBytes();
    *inBytes -= static_cast<std::uint32_t>(frames * in.frameBytes());
    std::vector<unsigned char> pairs(frames * 12 * bytes), surround(pairs.size() / 2);
    const auto* frame = static_cast<const unsigned char*>(src);
    for (auto pair = pairs.begin(); pair != pairs.end(); frame += in.frameBytes())
      for (const int source : map.sources) {
        if (source >= 0) std::copy_n(frame + static_cast<unsigned>(source) * bytes, bytes, pair);
        pair += bytes;
      }
    auto left = static_cast<std::uint32_t>(pairs.size()), made = static_cast<std::uint32_t>(surround.size());
    Audio_Channel_Downmix(2, 1, in.samples, pairs.data(), &left, surround.data(), &made, KES_LAYOUT_NONE);
    Audio_Channel_Downmix(6, 2, in.samples, surround.data(), &made, dst, outBytes, KES_LAYOUT_5POINT1);
  };
}

// A component's record, closed with its last user.
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
    const std::uint32_t offered = *inBytes;
    if (process(record.get(), src, inBytes, dst, outBytes) != KES_OK)
      fail("the library refused a block of {} bytes; give a smaller --block", offered);
  };
}

ProcessCall channelConverter(const StreamFormat& in, unsigned outChannels) {
  const auto record = makeRecord(InitKesAudioChannelConverterInC);
  record->Open(record.get(), in.channels, outChannels, in.samples);
  return callOf(record, record->Process);
}

ProcessCall bitConverter(const StreamFormat& in, ConvertType type) {
  const auto record = makeRecord(InitKesAudioBitConverterC);
  if (record->Open(record.get(), static_cast<std::uint32_t>(in.rate), in.channels, type) != KES_OK)
    throw std::bad_alloc();
  return callOf(record, record->Process);
}

// The limiter's delay in frames, measured on an impulse: the library does not state it.
unsigned limiterDelay(const StreamFormat& in) {
  if (in.rate > kMaxRate) fail("--limit takes up to {} Hz, not {}; add --rate 48000", kMaxRate, in.rate);
  std::vector<std::int32_t> second(in.channels * static_cast<unsigned>(in.rate));
  std::vector<std::int16_t> out(second.size());
  std::ranges::fill_n(second.begin(), in.channels, 1 << 22);  // a quarter of full scale
  auto left = static_cast<std::uint32_t>(second.size() * 4), made = static_cast<std::uint32_t>(out.size() * 2);
  bitConverter(in, KES_CONVERT_LIMITER)(second.data(), &left, out.data(), &made);
  const auto first = std::ranges::find_if(out, [](std::int16_t sample) { return sample != 0; });
  if (first == out.end()) fail("the limiter gives no output; leave --limit out");
  return static_cast<unsigned>(first - out.begin()) / in.channels;
}

}  // namespace

std::uint64_t rescaledFrameCount(std::uint64_t frames, int inRate, int outRate) {
  const auto in = static_cast<std::uint64_t>(inRate), out = static_cast<std::uint64_t>(outRate);
  return frames / in * out + (frames % in * out + in - 1) / in;
}

Stage mixTo(unsigned outChannels, const StreamFormat& in, ChannelMask& layout, bool addSilentChannels) {
  Stage mix{nullptr, in, {in.rate, outChannels, in.samples}, ""};
  std::string& description = mix.description;
  const ChannelMask inLayout = layout, named = stereoMixOf(layout);
  const auto by5Point1 = std::ranges::find(kTo5Point1, layout, &To5Point1::layout);
  if (in.channels == outChannels) {
    description = "none, the channels are copied as they are";
    return mix;
  }
  layout = standardLayout(outChannels);
  if (in.channels < outChannels && addSilentChannels) {
    description = "silent channels are added, by channel_UpMix_WithZero";
    mix.process = [=](const void* src, std::uint32_t* inBytes, void* dst, std::uint32_t* outBytes) {
      Audio_Channel_Upmix(in.channels, outChannels, in.samples, src, inBytes, dst, outBytes, 1);
    };
  } else if (in.channels < outChannels) {
    description = "the channels are repeated in turn, by channel_UpMix_Duplicate";
  } else if (outChannels == 1) {
    description = "average of all channels, by channel_DownMix_Fold_Mono_Average";
  } else if (outChannels > 2) {
    description = fmt::format("the first {} channels are kept, by channel_DownMix_Strip", outChannels);
    layout = firstPositions(inLayout, outChannels);
  } else if (named == KES_LAYOUT_NONE && by5Point1 == std::end(kTo5Point1)) {
    description = "pairwise average, since the layout has no mix of its own, by channel_DownMix_To_Stereo";
  } else {
    mix.canClip = true;
    description = describe(inLayout);
    if (named != KES_LAYOUT_NONE) {
      if (named != inLayout) description += " as " + describe(named) + ", its side channels as back channels,";
      mix.process = [=](const void* src, std::uint32_t* inBytes, void* dst, std::uint32_t* outBytes) {
        Audio_Channel_Downmix(in.channels, 2, in.samples, src, inBytes, dst, outBytes, named);
      };
    } else {
      const bool hasLfe = by5Point1->sources[6] >= 0;
      description += hasLfe ? " to 5.1, its other channels averaged into the surrounds, then"
                            : " to 5.1, with a silent LFE, then";
      mix.process = mixBy5Point1(*by5Point1, in);
    }
    description += " to stereo, by channel_DownMix_To_Stereo";
    const unsigned placed = positions(inLayout);
    if (placed < in.channels) description += fmt::format("; channels from {} on are left out", placed + 1);
  }
  if (!mix.process) mix.process = channelConverter(in, outChannels);
  return mix;
}

Stage resampleTo(int rate, const StreamFormat& in) {
  const auto record = makeRecord(InitKesAudioSrcInC);
  const bool plain = in.channels == 2;
  const ResamplerFormat format = in.samples == KES_PCM_S16     ? KES_RESAMPLER_S16
                                 : in.samples == KES_PCM_Q8_24 ? KES_RESAMPLER_Q8_24
                                                               : KES_RESAMPLER_S32;
  const auto open = plain ? record->Open : record->MultiChannel_Open;
  const ProcessCall process = callOf(record, plain ? record->Process : record->MultiChannel_Process);
  if (open(record.get(), static_cast<std::uint32_t>(in.rate), in.channels, static_cast<std::uint32_t>(rate),
           in.channels, format) != KES_OK) {
    if (in.rate < kMinRate || in.rate > kMaxRate)
      fail("cannot resample an input of {} Hz; leave --rate out, or give one of {} to {} Hz", in.rate, kMinRate,
           kMaxRate);
    throw std::bad_alloc();
  }
  // The component puts silence before the first block, except before an empty one: no delay then.
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

Stage convertSampleFormat(PcmFormat samples, const StreamFormat& in) {
  // Conversion types are numbered in this order of formats: each with the three others.
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
          in.samples == KES_PCM_Q8_24 || bytesOf(samples) < bytesOf(in.samples)};
}

Stage limit(const StreamFormat& in, const std::shared_ptr<std::uint32_t>& highest) {
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
