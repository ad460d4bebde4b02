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

Stage componentStage(unsigned inChannels, unsigned outChannels, PcmFormat format) {
  using Converter = KesAudioChannelConverterInC;
  const std::shared_ptr<Converter> converter(new Converter, [](Converter* old) {
    old->Close(old);
    delete old;
  });
  InitKesAudioChannelConverterInC(converter.get());
  converter->Open(converter.get(), inChannels, outChannels, format);
  return [converter](const void* src, std::uint32_t* inBytes, void* dst, std::uint32_t* outBytes) {
    converter->Process(converter.get(), src, inBytes, dst, outBytes);
  };
}

void copyStage(const void* src, std::uint32_t* inBytes, void* dst, std::uint32_t* outBytes) {
  *outBytes = std::min(*inBytes, *outBytes);
  std::memcpy(dst, src, *outBytes);
  *inBytes -= *outBytes;
}

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

}  // namespace

Mix chooseMix(const StreamFormat& format, ChannelMask layout, unsigned outChannels, bool addSilentChannels) {
  constexpr PcmFormat kFormats[] = {KES_PCM_S16, KES_PCM_S24_PACKED, KES_PCM_S32};
  const PcmFormat pcm = kFormats[format.sampleBytes - 2];
  const unsigned inChannels = format.channels;
  if (inChannels == outChannels) return {copyStage, "none, the channels are copied as they are", layout};

  Mix mix{nullptr, "", standardLayout(outChannels)};
  const ChannelMask named = stereoMixOf(layout);
  if (inChannels < outChannels && addSilentChannels) {
    mix.description = "silent channels are added, by channel_UpMix_WithZero";
    mix.stage = [=](const void* src, std::uint32_t* inBytes, void* dst, std::uint32_t* outBytes) {
      Audio_Channel_Upmix(inChannels, outChannels, pcm, src, inBytes, dst, outBytes, 1);
    };
  } else if (outChannels == 2 && inChannels > 2 && named != KES_LAYOUT_NONE) {
    mix.canClip = true;
    mix.description = describe(named) + " to stereo, by channel_DownMix_To_Stereo";
    if (named != layout) mix.description += "; the side channels are mixed as back channels";
    if (positions(named) < inChannels)
      mix.description += fmt::format("; channels from {} on are left out", positions(named) + 1);
    mix.stage = [=](const void* src, std::uint32_t* inBytes, void* dst, std::uint32_t* outBytes) {
      Audio_Channel_Downmix(inChannels, outChannels, pcm, src, inBytes, dst, outBytes, named);
    };
  } else {
    mix.stage = componentStage(inChannels, outChannels, pcm);
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

Report convert(AudioSource& source, const Mix& mix, unsigned outChannels, AudioSink& sink, std::size_t blockFrames,
               const std::function<void(std::uint64_t)>& progress) {
  const auto [rate, inChannels, sampleBytes] = source.format;
  std::vector<std::int32_t> words(blockFrames * std::max(inChannels, outChannels));
  std::vector<unsigned char> in(blockFrames * inChannels * sampleBytes);
  std::vector<unsigned char> out(blockFrames * outChannels * sampleBytes);
  const auto firstWords = [&](std::size_t count) { return std::span(words.data(), count); };
  Report report;
  std::size_t kept = 0;  // bytes at the start of in that the stage has yet to consume
  for (;;) {
    const std::size_t room = (in.size() - kept) / source.format.frameBytes();
    const std::span taken = firstWords(source.read(words.data(), room) * inChannels);
    if (kept + taken.size() == 0) return report;
    report.in.add(taken, sampleBytes);
    pack(taken, sampleBytes, in.data() + kept);

    const std::size_t offered = kept + taken.size() * sampleBytes;
    auto left = static_cast<std::uint32_t>(offered);
    auto made = static_cast<std::uint32_t>(out.size());
    mix.stage(in.data(), &left, out.data(), &made);
    std::memmove(in.data(), in.data() + offered - left, left);
    kept = left;

    const std::span given = firstWords(made / sampleBytes);
    unpack(out.data(), sampleBytes, given);
    report.out.add(given, sampleBytes);
    sink.write(given.data(), given.size() / outChannels);
    report.frames += given.size() / outChannels;
    progress(report.frames);
  }
}

}  // namespace kesconvert
