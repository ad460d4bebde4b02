// SPDX-License-Identifier: Apache-2.0
// The host resampler by what it promises: level, noise, time, and bits that depend on nothing but the stream.
#include <cmath>
#include <numbers>

#include "stream.h"

namespace {

Bytes noise(size_t bytes, Random& random) {
  Bytes made(bytes);
  for (uint8_t& byte : made) byte = random.byte();
  return made;
}

double sine(double cycles) { return std::sin(2 * std::numbers::pi * std::fmod(cycles, 1.0)); }

// A stream in 32 bits, as numbers of full scale 1, for a sine of so many cycles a frame.
std::vector<double> runTone(Resampler& stream, double amplitude, double cycles, size_t first, size_t frames) {
  std::vector<int32_t> input;
  for (size_t n = first; n < first + frames; ++n)
    input.push_back(static_cast<int32_t>(std::lrint(amplitude * 0x1p31 * sine(cycles * static_cast<double>(n)))));
  std::vector<double> output;
  for (const int32_t sample : samplesOf<int32_t>(stream.run(bytesOf(input)))) output.push_back(sample / 0x1p31);
  return output;
}

double decibels(double ratio) { return 20 * std::log10(ratio + 1e-12); }

TEST(Palix, SizeQueryNamesWhatItRefuses) {
  constexpr struct {
    SrcParam param;
    int32_t result;
  } kCases[] = {{{4000, 1, 768000, 1, 0}, 0},    {{768000, 8, 4000, 8, 3}, 0},  {{44100, 2, 48000, 2, 4}, -1},
                {{44100, 2, 48000, 2, ~0u}, -1}, {{3999, 2, 48000, 2, 0}, -2},  {{44100, 2, 768001, 2, 0}, -2},
                {{0, 0, 0, 0, 0}, -2},           {{44100, 0, 48000, 0, 0}, -3}, {{44100, 9, 48000, 9, 0}, -3},
                {{44100, 2, 48000, 1, 0}, -3}};
  for (auto [param, result] : kCases) {
    uint32_t internalBytes = 1, scratchBytes = 1;
    EXPECT_EQ(Palix_GetBufferSize(&internalBytes, &scratchBytes, &param), result) << param.inSampleRate;
    EXPECT_TRUE(result == 0 ? internalBytes > 1 && scratchBytes > 1 : internalBytes == 0 && scratchBytes == 0);
  }
}

// A sine of -1 dB full scale comes out where it belongs in time, at its level, and beside it nothing above -120 dB;
// one from 1.1 of the lower Nyquist frequency on, not at all.
TEST(Palix, LevelNoiseAndTimeOfSines) {
  struct Case {
    uint32_t inRate, outRate;
    double frequency, loss;  // relative to the lower Nyquist frequency, and in dB
  };
  constexpr Case kCases[] = {{44100, 48000, 0.0452, 0.001}, {44100, 48000, 0.9, 0.05}, {48000, 44100, 0.9, 0.05},
                             {48000, 44100, 0.1, 0.001},    {48000, 16000, 0.9, 0.05}, {48000, 16000, 1.1, 120},
                             {44100, 48001, 0.9, 0.05},     {96000, 44100, 1.12, 120}, {44100, 44100, 0.3, 0.001},
                             {4000, 768000, 0.9, 0.05},     {768000, 4000, 0.9, 0.05}, {768000, 4000, 1.1, 120},
                             {767999, 4001, 0.5, 0.001},    {8000, 11025, 0.9, 0.05}};
  for (const auto& [inRate, outRate, frequency, loss] : kCases) {
    SCOPED_TRACE(testing::Message() << inRate << " to " << outRate << " Hz, " << frequency << " of Nyquist");
    Resampler stream({inRate, 1, outRate, 1, KES_RESAMPLER_S32});
    const double lower = std::min(inRate, outRate), hertz = frequency * lower / 2,
                 amplitude = std::pow(10, -1 / 20.0);
    const auto frames = static_cast<size_t>(1000 * inRate / lower);
    const std::vector<double> output = runTone(stream, amplitude, hertz / inRate, 0, frames);
    const double expectedFrames = static_cast<double>(frames) * outRate / inRate;
    EXPECT_NEAR(static_cast<double>(output.size()), expectedFrames - 38 * outRate / lower, outRate / lower + 1);

    double inPhase = 0, power = 0, worst = 0;
    const auto skip = static_cast<size_t>(100 * outRate / lower);
    const auto wave = [cycles = hertz / outRate](size_t n) { return sine(cycles * static_cast<double>(n)); };
    for (size_t n = skip; n < output.size(); ++n) inPhase += wave(n) * output[n], power += wave(n) * wave(n);
    const double gain = frequency < 1 ? inPhase / power : 0;
    for (size_t n = skip; n < output.size(); ++n) worst = std::max(worst, std::abs(output[n] - gain * wave(n)));
    EXPECT_NEAR(frequency < 1 ? decibels(gain / amplitude) : 0, 0, loss);
    EXPECT_LT(decibels(worst / amplitude), -120);
  }
}

uint32_t someRate(Random& random) {
  const uint32_t any = 4000 + random.below(764001);
  return random.from({8000u, 11025u, 44100u, 48000u, 96000u, random.from({4000u, 44101u, 192000u, 767999u}), any});
}

// However a stream is cut, in memory with whatever in it before: the same bits, behind changes of rate and resets
// too, and all at once with room for the output and no more.
void play(Random& random) {
  const uint32_t channels = 1 + random.below(8);
  SrcParam param{someRate(random), channels, someRate(random), channels, random.below(4)};
  SCOPED_TRACE(testing::Message() << param.inSampleRate << " to " << param.outSampleRate << " Hz, " << channels
                                  << " channels, format " << param.format);
  if (random.oneIn(9)) *random.from({&param.inSampleRate, &param.outChannels, &param.format}) = random.word();
  uint32_t sizes[2] = {1, 1};
  if (Palix_GetBufferSize(&sizes[0], &sizes[1], &param) != 0) {
    EXPECT_TRUE(sizes[0] == 0 && sizes[1] == 0);
    return;
  }

  Resampler whole(param), cut(param, random.below(65));
  do {
    const auto [lower, higher] = std::minmax(param.inSampleRate, param.outSampleRate);
    const uint32_t most = 60 * (param.inSampleRate / lower) + 1500 * lower / higher;  // input frames, to be quick
    Random samples(random.word());
    const Bytes input = noise(random.below(most) * inFrameBytes(param), samples);
    const Bytes expected = cut.run(input, 64 + random.below(1 << 14), &random);
    EXPECT_EQ(whole.runAtOnce(input, static_cast<uint32_t>(expected.size())), expected);
    const uint32_t rate = random.oneIn(4) ? random.word() : someRate(random), next = random.below(4);
    for (Resampler* const stream : {&whole, &cut}) {
      if (next == 1) stream->setRate(rate);
      if (next == 2) stream->reset();
    }
  } while (!random.oneIn(3) && !testing::Test::HasFailure());
}

TEST(Palix, OutputDependsOnTheStreamAlone) {
  Random random(3);
  for (int round = 0; round < 40; ++round) play(random);
}

// The formats hold the same numbers; 16 bits are the nearest to them, within their range. The input is noise and
// steps of full scale, which overshoot.
TEST(Palix, FormatsRoundAndClamp) {
  Random random(4);
  std::vector<int16_t> narrow;
  for (int n = 0; n < 2000; ++n)
    narrow.push_back(static_cast<int16_t>(n < 1000          ? random.between(INT16_MIN, INT16_MAX)
                                          : n / 50 % 2 != 0 ? INT16_MAX
                                                            : INT16_MIN));
  std::vector<int32_t> wide(narrow.begin(), narrow.end());
  for (int32_t& sample : wide) sample *= 65536;
  const auto run = [](uint32_t format, const auto& input) {
    return Resampler({44100, 1, 48000, 1, format}).run(bytesOf(input));
  };
  const Bytes exact = run(KES_RESAMPLER_S32, wide);
  EXPECT_EQ(run(KES_RESAMPLER_Q8_24, wide), exact);
  EXPECT_EQ(run(KES_RESAMPLER_S16_TO_S32, narrow), exact);
  const auto words = samplesOf<int32_t>(exact);
  const auto rounded = samplesOf<int16_t>(run(KES_RESAMPLER_S16, narrow));
  ASSERT_EQ(rounded.size(), words.size());
  for (size_t n = 0; n < words.size(); ++n)
    EXPECT_LE(std::abs(rounded[n] - std::min(words[n] / 65536.0, 32767.0)), 0.50001) << n;
  EXPECT_TRUE(std::ranges::count(words, INT32_MAX) > 50 && std::ranges::count(words, INT32_MIN) > 50);
}

// The sine goes on where it was, as if the new rate had begun at the first output after the change.
TEST(Palix, RateChangesWithoutAClick) {
  constexpr uint32_t kChanges[][4] = {{44100, 48000, 48000, 47990}, {48000, 44100, 24000, 48000},
                                      {48000, 24000, 44100, 12000}, {16000, 48000, 768000, 16000},
                                      {8000, 44100, 96000, 11025},  {44100, 48001, 48000, 32000},
                                      {192000, 4000, 8000, 88200},  {768000, 8000, 16000, 4000}};
  for (const auto& [inRate, outRate, skippedRate, newRate] : kChanges) {
    SCOPED_TRACE(testing::Message() << inRate << " to " << outRate << ", then " << newRate << " Hz");
    Resampler stream({inRate, 1, outRate, 1, KES_RESAMPLER_S32});
    const double cycles = 1000.0 / inRate;
    const size_t fed = 1001 + 230 * inRate / outRate;  // for the last one: just dropped old frames
    const std::vector<double> before = runTone(stream, 0.5, cycles, 0, fed);
    EXPECT_EQ(stream.setRate(skippedRate), 0);
    EXPECT_EQ(stream.setRate(newRate), 0);
    const std::vector<double> after = runTone(stream, 0.5, cycles, fed, 3000 + 1000 * inRate / newRate);
    ASSERT_GT(after.size(), 700u);
    const double start = static_cast<double>(before.size()) / outRate;
    double worst = 0;
    for (size_t n = 0; n < after.size(); ++n)
      worst = std::max(worst, std::abs(after[n] - 0.5 * sine(1000 * (start + static_cast<double>(n) / newRate))));
    EXPECT_LT(decibels(worst), -120);

    Random random(5);
    const Bytes input = noise(4000, random);
    stream.reset();
    EXPECT_EQ(stream.run(input), Resampler({inRate, 1, newRate, 1, KES_RESAMPLER_S32}).run(input)) << "after a reset";
  }
  Resampler stream({48000, 1, 48000, 1, KES_RESAMPLER_S16});
  EXPECT_EQ(stream.setRate(768001), -2);
  EXPECT_EQ(stream.setRate(23000), -4);
  EXPECT_EQ(stream.setRate(24000), 0);
}

}  // namespace
