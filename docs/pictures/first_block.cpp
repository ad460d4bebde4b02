// SPDX-License-Identifier: Apache-2.0
// The resampler's first block, in time: 100 ms of a tone from 44.1 to 48 kHz, through the component. A second open
// does not pad its first block: the same input once more shows what the library itself makes.
#include <kesaudio/resampler.h>

#include <algorithm>
#include <vector>

#include "pictures.h"
#include "svg.h"

namespace pictures {
namespace {

constexpr uint32_t kInRate = 44100, kOutRate = 48000, kChannels = 2, kInFrames = 4410;

using Frames = std::vector<int16_t>;  // stereo
int countOf(const Frames& frames) { return static_cast<int>(frames.size() / kChannels); }
int bytesOf(const Frames& frames) { return static_cast<int>(frames.size() * sizeof frames[0]); }

// About 1 kHz, out of parabolas of 22 frames: no library for sines, no question of their last bit.
Frames tone() {
  Frames frames;
  for (int i = 0; i < static_cast<int>(kInFrames); ++i) {
    const int phase = i % 22, height = phase * (22 - phase) * 200;
    frames.insert(frames.end(), kChannels, static_cast<int16_t>(i / 22 % 2 ? -height : height));
  }
  return frames;
}

Frames opened(KesAudioSrcInC& resampler, const Frames& input) {
  Frames output(2 * input.size());
  auto inBytes = static_cast<uint32_t>(bytesOf(input)), outBytes = static_cast<uint32_t>(bytesOf(output));
  require(resampler.Open(&resampler, kInRate, kChannels, kOutRate, kChannels, KES_RESAMPLER_S16) == KES_OK &&
              resampler.Process(&resampler, input.data(), &inBytes, output.data(), &outBytes) == KES_OK &&
              inBytes == 0,
          "the resampler does not take the block");
  resampler.Close(&resampler);
  output.resize(outBytes / sizeof output[0]);
  return output;
}

std::string milliseconds(int frames, uint32_t rate) {
  const auto micros = static_cast<int>((frames * 2000000LL / rate + 1) / 2);
  return fmt::format("{}.{:03} ms", micros / 1000, micros % 1000);
}

// The first milliseconds of a stream's left channel, 160 pixels each, around y.
constexpr int kMilliseconds = 4, kPixels = 160, kLane = 120;
void wave(Svg& svg, int y, std::string_view look, const Frames& frames, uint32_t rate) {
  std::string points;
  for (int i = 0; i * 1000 <= kMilliseconds * static_cast<int>(rate); ++i)
    points += fmt::format("{} {} ", kLane * 10 + i * 100 * kPixels / static_cast<int>(rate / 100),
                          y * 10 - frames[static_cast<size_t>(i) * kChannels] / 80);
  svg.wave(points, look);
}

}  // namespace

std::string firstBlock() {
  KesAudioSrcInC resampler;
  InitKesAudioSrcInC(&resampler);
  const Frames input = tone(), output = opened(resampler, input), made = opened(resampler, input);
  const int silence = countOf(output) - countOf(made);
  Frames silenceAndMade(static_cast<size_t>(std::max(silence, 0)) * kChannels);
  silenceAndMade.insert(silenceAndMade.end(), made.begin(), made.end());
  require(output == silenceAndMade, "the first block is not the library's output behind silence");

  Svg svg(
      "The resampler's first block",
      "44.1 to 48 kHz, 16-bit stereo, 100 ms: as long as its input, by silence before what the library could make.");

  // Whole, to scale.
  constexpr int kRight = kLane + kMilliseconds * kPixels, kBlock = kRight - kLane;
  const int blockFrames = countOf(output), silent = kBlock * silence / blockFrames;
  const auto lane = [&](int y, std::string_view name, int x, int width, std::string_view look,
                        std::string_view words) {
    svg.text(kMargin, y + 19, "small bold", name);
    svg.rect(x, y, width, 28, look);
    svg.text(kLane + kBlock / 2, y + 19, "small middle", words);
  };
  lane(92, "input", kLane, kBlock, "blue", fmt::format("{} frames, {} bytes", countOf(input), bytesOf(input)));
  lane(132, "library", kLane, kBlock - silent, "green",
       fmt::format("makes {} frames, {} bytes: it holds the last {} back", countOf(made), bytesOf(made),
                   milliseconds(silence, kOutRate)));
  lane(172, "Process", kLane + silent, kBlock - silent, "green",
       fmt::format("{} frames of silence, then those {}: {} frames, {} bytes", silence, countOf(made), blockFrames,
                   bytesOf(output)));
  svg.rect(kLane, 172, silent, 28, "amber");
  svg.line(kLane, 84, kLane, 208, "line");
  svg.line(kRight, 84, kRight, 208, "line");
  svg.text(kLane, 224, "tiny muted middle", "0");
  svg.text(kRight, 224, "tiny muted middle", "100 ms");

  // The beginning.
  constexpr int kIn = 300, kOut = 400, kAxis = 460;
  const int until = silence * 1000 * kPixels / static_cast<int>(kOutRate);
  svg.text(kMargin, kIn - 44, "bold", "Its beginning");
  svg.rect(kLane, kOut - 36, until, 72, "amber");
  for (int ms = 0; ms <= kMilliseconds; ++ms) {
    svg.line(kLane + ms * kPixels, kIn - 32, kLane + ms * kPixels, kAxis - 14, "hair");
    svg.text(kLane + ms * kPixels, kAxis, "tiny muted middle", ms ? fmt::format("{} ms", ms) : "0");
  }
  svg.line(kLane, kIn, kRight, kIn, "hair");
  svg.line(kLane, kOut, kRight, kOut, "hair");
  wave(svg, kIn, "", input, kInRate);
  wave(svg, kOut, "made", output, kOutRate);
  svg.text(kMargin, kIn + 5, "small bold", "input");
  svg.text(kMargin, kOut + 5, "small bold", "Process");
  svg.text(kLane + until / 2, kOut - 14, "small middle", fmt::format("{} frames", silence));
  svg.text(kLane + until / 2, kOut + 24, "small middle", milliseconds(silence, kOutRate));
  svg.text(kMargin, kAxis + 30, "small",
           fmt::format("Every sound comes {} later than in the input, from here to the end: the library's latency.",
                       milliseconds(silence, kOutRate)));
  return svg.finished(kAxis + 52);
}

}  // namespace pictures
