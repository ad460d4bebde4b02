// SPDX-License-Identifier: Apache-2.0
// Every mix as a matrix of gains, measured: a frame with an impulse in one channel goes through the kernel, in every
// format, and through the tests' plain words for it.
#include <algorithm>
#include <bit>

#include "pictures.h"
#include "svg.h"
#include "tests/oracle.h"

namespace pictures {
namespace {

constexpr int kCell = 46, kRow = 26, kLabels = 34;

// Divisible by every usual channel count, and doubled by no more than 16 bits hold.
constexpr int64_t kImpulse = 10080;

// For an impulse in each input channel, the output samples.
using Matrix = std::vector<Frame>;

Matrix measured(Call call, PcmFormat format) {
  call.format = format;
  const int32_t bytes = call.sampleBytes();
  call.byteCount = call.srcChannels * bytes;
  Matrix columns;
  for (int32_t c = 0; c < call.srcChannels; ++c) {
    Bytes src;
    for (int32_t i = 0; i < call.srcChannels; ++i) appendSample(src, i == c ? kImpulse : 0, bytes);
    const Bytes expected = outputBlock(call, src.data());
    Bytes dst(expected.size());
    call.run(dst.data(), src.data());
    require(dst == expected, "a kernel does not do what the tests expect of it");
    Frame& column = columns.emplace_back();
    for (auto at = dst.begin(); at < dst.end(); at += bytes) column.push_back(readSample(&*at, bytes));
  }
  return columns;
}

std::string gain(int64_t sample) {
  if (sample == 0) return "·";
  if (sample == kImpulse) return "1";
  if (sample < kImpulse && kImpulse % sample == 0) return fmt::format("1/{}", kImpulse / sample);
  const int64_t thousandths = (sample * 1000 + kImpulse / 2) / kImpulse;
  return fmt::format("{}.{:03}", thousandths / 1000, thousandths % 1000);
}

std::string_view tint(int64_t sample) {
  return sample == 0          ? "edge grey"
         : sample < kImpulse  ? "edge green"
         : sample == kImpulse ? "edge blue"
                              : "edge amber";
}

// A matrix for each group of formats that have the same: as many as there are places, from left to right. Returns the
// height.
int draw(Svg& svg, const std::vector<int>& places, int y, std::string_view name, const Call& call,
         const std::vector<std::string>& outputs) {
  constexpr std::pair<PcmFormat, const char*> kFormats[] = {
      {KES_PCM_S16, "16-bit"}, {KES_PCM_S24_PACKED, "24-bit"}, {KES_PCM_S32, "32-bit"}, {KES_PCM_Q8_24, "8.24"}};
  std::vector<std::pair<Matrix, std::string>> groups;
  for (const auto& [format, formatName] : kFormats) {
    const Matrix matrix = measured(call, format);
    const auto same = std::ranges::find(groups, matrix, [](const auto& group) { return group.first; });
    if (same == groups.end())
      groups.emplace_back(matrix, formatName);
    else
      same->second += fmt::format(", {}", formatName);
  }
  require(groups.size() == places.size(), fmt::format("{}: {} groups of formats", name, groups.size()));

  const std::vector<std::string> positions = frameOf(call.mask);
  for (size_t group = 0; group < groups.size(); ++group) {
    const auto& [matrix, formatNames] = groups[group];
    int x = places[group], top = y + 28;
    svg.text(x, y, "bold small", groups.size() == 1 ? std::string(name) : fmt::format("{}: {}", name, formatNames));
    for (size_t row = 0; row < outputs.size(); ++row, top += kRow) {
      x = places[group] + kLabels;
      svg.text(x - 8, top + 18, "tiny muted end", outputs[row]);
      for (size_t c = 0; c < matrix.size(); ++c, x += kCell) {
        const int64_t sample = matrix[c][row];
        const std::string input = positions.empty() ? fmt::format("s{}", c) : positions[c];
        if (row == 0) svg.text(x + kCell / 2, y + 21, "tiny muted middle", input);
        svg.rect(x, top, kCell, kRow, tint(sample));
        svg.text(x + kCell / 2, top + 18, "small middle", gain(sample));
      }
    }
  }
  return 28 + kRow * static_cast<int>(outputs.size());
}

Call mix(Kernel kernel, int32_t from, int32_t to, ChannelMask mask = KES_LAYOUT_NONE) {
  return {.kernel = kernel, .dstChannels = to, .srcChannels = from, .byteCount = 0, .format = 0, .mask = mask};
}

}  // namespace

std::string mixes() {
  constexpr int kThird[] = {kMargin, 290, 548}, kSecond = 420;
  Svg svg("The mixes as matrices",
          "Gain of each input channel (across) in each output channel (down), measured by an impulse through the "
          "kernels.");
  int y = 100;
  const auto heading = [&](std::string_view words) {
    svg.text(kMargin, y, "bold", words);
    svg.line(kMargin, y + 9, kWidth - kMargin, y + 9, "hair");
    y += 34;
  };

  const std::vector<std::string> sides = {"left", "right"}, numbers = {"0", "1", "2", "3"};

  heading("To stereo");
  int height = 0;
  for (size_t i = 0; i < std::size(kLayouts); ++i) {
    const ChannelMask mask = kLayouts[i].mask;
    if (i == 3) y += height + 30;
    height = draw(svg, {i == 4 ? kSecond : kThird[i % 3]}, y, fmt::format("mask 0x{:X}", mask),
                  mix(kToStereo, std::popcount(mask), 2, mask), sides);
  }
  y += height + 30;
  y += draw(svg, {kMargin}, y, "any other mask: pairwise average, here of 6", mix(kToStereo, 6, 2), sides);

  y += 44;
  heading("To mono, and to any number of equal channels");
  y += draw(svg, {kMargin, kSecond}, y, "fold of 6", mix(kFold, 6, 1), {"all"}) + 30;
  y += draw(svg, {kMargin}, y, "mono average, here of 6", mix(kAverage, 6, 1), {"mono"});

  y += 44;
  heading("Channels as they are");
  draw(svg, {kMargin}, y, "strip, here 6 to 4", mix(kStrip, 6, 4), numbers);
  draw(svg, {kSecond}, y, "duplicate, 2 to 4", mix(kDuplicate, 2, 4), numbers);
  y += draw(svg, {kSecond + 190}, y, "add silence, 2 to 4", mix(kZeroFill, 2, 4), numbers);

  y += 40;
  int x = svg.key(kMargin, y, "amber", "raised: 1.414 is +3.01 dB, 2.000 +6.02 dB");
  x = svg.key(x, y, "blue", "as it is");
  x = svg.key(x, y, "green", "lowered");
  svg.key(x, y, "grey", "does not reach it");
  return svg.finished(y + 28);
}

}  // namespace pictures
