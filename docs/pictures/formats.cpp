// SPDX-License-Identifier: Apache-2.0
// The four sample formats, bit by bit as they lie in memory. Each bit's weight is what a sample of this bit alone is
// worth; full scale is where the bit converter brings that of 16 bits.
#include <bit>

#include "pictures.h"
#include "svg.h"
#include "tests/oracle.h"

namespace pictures {
namespace {

constexpr struct {
  const char *name, *constant;
  PcmFormat format;
  ConvertType from16;
} kFormats[] = {
    {"16-bit", "KES_PCM_S16", KES_PCM_S16, KES_CONVERT_NOTHING},
    {"packed 24-bit", "KES_PCM_S24_PACKED", KES_PCM_S24_PACKED, KES_CONVERT_S16_TO_S24},
    {"32-bit", "KES_PCM_S32", KES_PCM_S32, KES_CONVERT_S16_TO_S32},
    {"8.24", "KES_PCM_Q8_24", KES_PCM_Q8_24, KES_CONVERT_S16_TO_Q8_24},
};

int64_t fullScale(ConvertType from16, int32_t bytes) {
  const int16_t lowest = -32768;
  if (from16 == KES_CONVERT_NOTHING) return -int64_t{lowest};
  KesAudioBitConverterC converter;
  InitKesAudioBitConverterC(&converter);
  converter.Open(&converter, 48000, 1, from16);
  uint8_t sample[4] = {};
  uint32_t inBytes = sizeof lowest, outBytes = sizeof sample;
  converter.Process(&converter, &lowest, &inBytes, sample, &outBytes);
  converter.Close(&converter);
  require(static_cast<int32_t>(outBytes) == bytes, "the bit converter makes samples of another size");
  return -readSample(sample, bytes);
}

std::string powerOfTwo(int64_t value) {
  const char* const digits[] = {"⁰", "¹", "²", "³", "⁴", "⁵", "⁶", "⁷", "⁸", "⁹"};
  const int exponent = std::countr_zero(static_cast<uint64_t>(value));
  return fmt::format("2{}{}", exponent < 10 ? "" : digits[exponent / 10], digits[exponent % 10]);
}

}  // namespace

std::string formats() {
  constexpr int kLeft = 208, kBit = 17, kByte = 8 * kBit + 5;
  Svg svg("Four sample formats, as they lie in memory",
          "Bytes in the order of their addresses, highest bit first, with each bit's place in the sample.");
  int y = 96;
  for (const auto& [name, constant, format, from16] : kFormats) {
    const int32_t bytes =
        Call{.kernel = kStrip, .dstChannels = 1, .srcChannels = 1, .byteCount = 0, .format = format}.sampleBytes();
    const int64_t scale = fullScale(from16, bytes);
    svg.text(kMargin, y + 14, "bold", name);
    svg.text(kMargin, y + 33, "small mono muted", fmt::format("{} = {}", constant, format));
    svg.text(kMargin, y + 58, "small", fmt::format("half of full scale, {}", powerOfTwo(scale / 2)));
    svg.text(kMargin, y + 76, "small", fmt::format("full scale, −{}", powerOfTwo(scale)));
    Bytes half, lowest;
    appendSample(half, scale / 2, bytes);
    appendSample(lowest, -scale, bytes);
    for (int b = 0; b < bytes; ++b) {
      const int x = kLeft + b * kByte, middle = x + 4 * kBit;
      svg.text(middle, y + 8, "tiny muted middle", fmt::format("byte {}", b));
      for (int bit = 7; bit >= 0; --bit) {
        Bytes sample(static_cast<size_t>(bytes));
        sample[static_cast<size_t>(b)] = static_cast<uint8_t>(1 << bit);
        const int64_t worth = readSample(sample.data(), bytes);
        const int at = x + (7 - bit) * kBit, place = std::countr_zero(static_cast<uint64_t>(worth));
        svg.rect(at, y + 15, kBit, 24, fmt::format("edge {}", worth < 0 ? "red" : worth < scale ? "blue" : "amber"));
        svg.text(at + kBit / 2, y + 31, "tiny mono middle", fmt::format("{}", place));
      }
      svg.text(middle, y + 58, "small mono middle", fmt::format("{:02X}", half[static_cast<size_t>(b)]));
      svg.text(middle, y + 76, "small mono middle", fmt::format("{:02X}", lowest[static_cast<size_t>(b)]));
    }
    y += 106;
  }
  int x = svg.key(kLeft, y + 4, "red", "sign");
  x = svg.key(x, y + 4, "amber", "whole part: headroom");
  svg.key(x, y + 4, "blue", "fraction of full scale");
  return svg.finished(y + 28);
}

}  // namespace pictures
