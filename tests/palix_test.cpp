// SPDX-License-Identifier: Apache-2.0
// The host resampler by what it promises: level, noise, time, and bits that depend on nothing but the stream.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <numbers>
#include <optional>

#include "builds.h"
#include "guarded.h"
#include "platform/resampler_lib.h"
#include "random.h"

namespace {

struct Engine {
  decltype(&Palix_GetBufferSize) GetBufferSize;
  decltype(&Palix_Open) Open;
  decltype(&Palix_SetSamplingRate) SetSamplingRate;
  decltype(&Palix_Reset) Reset;
  decltype(&Palix_Process) Process;

  explicit Engine(const Build& build) {
    build.find(GetBufferSize, "Palix_GetBufferSize");
    build.find(Open, "Palix_Open");
    build.find(SetSamplingRate, "Palix_SetSamplingRate");
    build.find(Reset, "Palix_Reset");
    build.find(Process, "Palix_Process");
  }
};

const std::vector<Engine>& engines() {
  static const std::vector<Engine> all = [] {
    const std::vector<Build> builds = buildsOf("palix32_vendor");
    return std::vector<Engine>(builds.begin(), builds.end());
  }();
  return all;
}

using Bytes = std::vector<uint8_t>;

uint32_t inSampleBytes(const SrcParam& param) { return param.format < KES_RESAMPLER_S32 ? 2 : 4; }
uint32_t outSampleBytes(const SrcParam& param) { return param.format == KES_RESAMPLER_S16 ? 2 : 4; }

// A stream whose every buffer is between guard pages and dirty before its use.
class Stream {
 public:
  explicit Stream(SrcParam param, const Engine& engine = engines()[0], size_t gap = 0)
      : param_(param), engine_(engine), internal_(0), scratch_(0), in_(1 << 16), out_(1 << 16) {
    uint32_t internalBytes = 0, scratchBytes = 0;
    EXPECT_EQ(engine.GetBufferSize(&internalBytes, &scratchBytes, &param_), 0);
    internal_ = Guarded(internalBytes + gap);
    scratch_ = Guarded(scratchBytes + gap);
    scratchAt_ = scratch_.place(scratchBytes, false, gap);
    engine.Open(&instance_, internal_.place(internalBytes, false, gap), &param_);
  }

  // Offers all of the input, in blocks of up to so many bytes with room for as many: all at once, or at random.
  Bytes run(const Bytes& input, uint32_t blockBytes = 1 << 16, Random* random = nullptr) {
    Bytes output;
    const uint32_t inFrameBytes = inSampleBytes(param_) * param_.inChannels,
                   outFrameBytes = outSampleBytes(param_) * param_.inChannels;
    size_t at = 0;
    for (bool drained = false; !drained && !testing::Test::HasFailure();) {
      auto offered = static_cast<uint32_t>(std::min<size_t>(input.size() - at, blockBytes));
      uint32_t room = blockBytes;
      if (random) offered = random->below(offered + 1), room = random->below(room + 1);
      uint8_t* const src = in_.place(offered, false);
      std::copy_n(input.begin() + static_cast<ptrdiff_t>(at), offered, src);
      uint8_t* const dst = out_.place(room, random && random->oneIn(2));
      uint32_t left = offered, made = room;
      engine_.Process(instance_, scratchAt_, src, &left, dst, &made);
      EXPECT_TRUE(out_.surroundingsIntact() && made <= room && left <= offered);
      const bool full = made + outFrameBytes > room;
      EXPECT_TRUE(full || left < inFrameBytes) << "left " << left << " bytes though there was room";
      output.insert(output.end(), dst, dst + made);
      at += offered - left;
      drained = !full && input.size() - at < inFrameBytes;
    }
    EXPECT_TRUE(internal_.surroundingsIntact() && scratch_.surroundingsIntact());
    return output;
  }

  // Whether one block of room for what is expected makes it, and leaves none of the input.
  bool takesAll(const Bytes& input, const Bytes& expected) {
    Bytes output(expected.size());
    auto left = static_cast<uint32_t>(input.size()), made = static_cast<uint32_t>(output.size());
    engine_.Process(instance_, scratchAt_, input.data(), &left, output.data(), &made);
    return left == 0 && made == expected.size() && output == expected;
  }

  int32_t setRate(uint32_t rate) { return engine_.SetSamplingRate(instance_, rate); }
  void reset() { engine_.Reset(instance_); }

 private:
  SrcParam param_;
  const Engine& engine_;
  Guarded internal_, scratch_, in_, out_;
  uint8_t* scratchAt_;
  void* instance_ = nullptr;
};

Bytes noise(const SrcParam& param, size_t frames, Random& random) {
  Bytes bytes(frames * param.inChannels * inSampleBytes(param));
  for (uint8_t& byte : bytes) byte = random.byte();
  return bytes;
}

// A mono stream of 32-bit samples, as numbers of full scale 1.
std::vector<double> runTone(Stream& stream, double amplitude, double cycles, size_t first, size_t frames) {
  Bytes input(frames * 4);
  for (size_t n = 0; n < frames; ++n) {
    const double sine = std::sin(2 * std::numbers::pi * std::fmod(cycles * static_cast<double>(first + n), 1.0));
    const auto sample = static_cast<int32_t>(std::lrint(amplitude * 0x1p31 * sine));
    std::memcpy(&input[n * 4], &sample, 4);
  }
  const Bytes output = stream.run(input);
  std::vector<double> samples(output.size() / 4);
  for (size_t n = 0; n < samples.size(); ++n) {
    int32_t sample;
    std::memcpy(&sample, &output[n * 4], 4);
    samples[n] = sample / 0x1p31;
  }
  return samples;
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
    EXPECT_EQ(engines()[0].GetBufferSize(&internalBytes, &scratchBytes, &param), result) << param.inSampleRate;
    EXPECT_TRUE(result == 0 ? internalBytes > 1 && scratchBytes > 1 : internalBytes == 0 && scratchBytes == 0);
  }
}

// A sine of -1 dB full scale comes out where it belongs in time, at its level, and beside it nothing above -120 dB;
// one from 1.1 of the lower Nyquist frequency on, not at all.
TEST(Palix, LevelNoiseAndTimeOfSines) {
  constexpr struct {
    uint32_t inRate, outRate;
    double frequency, loss;  // relative to the lower Nyquist frequency, and in dB
  } kCases[] = {{44100, 48000, 997 / 22050.0, 0.001},
                {44100, 48000, 0.9, 0.05},
                {48000, 44100, 0.9, 0.05},
                {48000, 44100, 0.1, 0.001},
                {48000, 16000, 0.9, 0.05},
                {48000, 16000, 1.1, 120},
                {48000, 16000, 1.9, 120},
                {44100, 48001, 0.1, 0.001},
                {44100, 48001, 0.9, 0.05},
                {96000, 44100, 0.5, 0.001},
                {96000, 44100, 1.12, 120},
                {44100, 44100, 0.3, 0.001},
                {4000, 768000, 0.9, 0.05},
                {768000, 4000, 0.9, 0.05},
                {768000, 4000, 1.1, 120},
                {767999, 4001, 0.5, 0.001},
                {8000, 11025, 0.9, 0.05}};
  for (const auto& [inRate, outRate, frequency, loss] : kCases) {
    SCOPED_TRACE(testing::Message() << inRate << " to " << outRate << " Hz, " << frequency << " of Nyquist");
    Stream stream({inRate, 1, outRate, 1, KES_RESAMPLER_S32});
    const double lower = std::min(inRate, outRate), hertz = frequency * lower / 2,
                 amplitude = std::pow(10, -1 / 20.0);
    const auto frames = static_cast<size_t>(1000 * inRate / lower);
    const std::vector<double> output = runTone(stream, amplitude, hertz / inRate, 0, frames);
    const double expectedFrames = static_cast<double>(frames) * outRate / inRate;
    EXPECT_NEAR(static_cast<double>(output.size()), expectedFrames - 38 * outRate / lower, outRate / lower + 1);

    double inPhase = 0, power = 0;
    const auto skip = static_cast<size_t>(100 * outRate / lower);
    std::vector<double> sines;
    for (size_t n = skip; n < output.size(); ++n)
      sines.push_back(std::sin(2 * std::numbers::pi * std::fmod(hertz / outRate * static_cast<double>(n), 1.0)));
    for (size_t i = 0; i < sines.size(); ++i) {
      inPhase += sines[i] * output[skip + i];
      power += sines[i] * sines[i];
    }
    const double gain = frequency < 1 ? inPhase / power : 0;
    double worst = 0;
    for (size_t i = 0; i < sines.size(); ++i) worst = std::max(worst, std::abs(output[skip + i] - gain * sines[i]));
    EXPECT_NEAR(frequency < 1 ? decibels(gain / amplitude) : 0, 0, loss);
    EXPECT_LT(decibels(worst / amplitude), -120);
  }
}

uint32_t someRate(Random& random) {
  const uint32_t any = 4000 + random.below(764001);
  return random.from({8000u, 11025u, 44100u, 48000u, 96000u, random.from({4000u, 44101u, 192000u, 767999u}), any});
}

// However a stream is cut, on whichever build, in memory with whatever in it before: the same bits, behind changes of
// rate and resets too.
void play(Random& random) {
  const uint32_t channels = 1 + random.below(8);
  SrcParam param{someRate(random), channels, someRate(random), channels, random.below(4)};
  SCOPED_TRACE(testing::Message() << param.inSampleRate << " to " << param.outSampleRate << " Hz, " << channels
                                  << " channels, format " << param.format);
  if (random.oneIn(9)) *random.from({&param.inSampleRate, &param.outChannels, &param.format}) = random.word();
  uint32_t sizes[2] = {1, 1};
  if (engines()[0].GetBufferSize(&sizes[0], &sizes[1], &param) != 0) {
    EXPECT_TRUE(sizes[0] == 0 && sizes[1] == 0);
    return;
  }

  std::vector<Stream> streams;
  streams.emplace_back(param);
  for (const Engine& engine : engines()) streams.emplace_back(param, engine, random.below(65));
  do {
    const auto [lower, higher] = std::minmax(param.inSampleRate, param.outSampleRate);
    const uint32_t most = 60 * (param.inSampleRate / lower) + 1500 * lower / higher;  // input frames, to be quick
    Random samples(random.word());
    const Bytes input = noise(param, random.below(most), samples);
    const Bytes expected = streams[1].run(input, 64 + random.below(1 << 14), &random);
    EXPECT_TRUE(streams[0].takesAll(input, expected)) << "with room for the output and no more";
    for (size_t i = 2; i < streams.size(); ++i)
      EXPECT_EQ(streams[i].run(input, 64 + random.below(1 << 14), &random), expected);
    const uint32_t rate = random.oneIn(4) ? random.word() : someRate(random), next = random.below(4);
    for (Stream& stream : streams) {
      if (next == 1) stream.setRate(rate);
      if (next == 2) stream.reset();
    }
  } while (!random.oneIn(3) && !testing::Test::HasFailure());
}

TEST(Palix, OutputDependsOnTheStreamAlone) {
  Random random(3);
  for (int round = 0; round < 40; ++round) play(random);
}

TEST(Palix, ChannelsAreFilteredApart) {
  Random random(4);
  for (uint32_t channels = 2; channels <= 8; ++channels) {
    const SrcParam param{44100, channels, 48000, channels, KES_RESAMPLER_S16};
    const Bytes input = noise(param, 500, random), output = Stream(param).run(input);
    for (uint32_t c = 0; c < channels; ++c) {
      const auto pick = [&](const Bytes& frames) {
        Bytes picked;
        for (size_t at = c * 2; at < frames.size(); at += channels * 2)
          picked.insert(picked.end(), {frames[at], frames[at + 1]});
        return picked;
      };
      EXPECT_EQ(Stream({44100, 1, 48000, 1, KES_RESAMPLER_S16}).run(pick(input)), pick(output))
          << channels << ", " << c;
    }
  }
}

// The formats hold the same numbers; 16 bits are the nearest to them, and the range's ends where they are outside.
TEST(Palix, FormatsRoundAndClamp) {
  Bytes narrow, wide;
  for (int n = 0; n < 2000; ++n) {
    const int16_t sample = n < 1000 ? (n / 50 % 2 != 0 ? INT16_MAX : INT16_MIN) : static_cast<int16_t>(n * n);
    const int32_t word = sample * 65536;
    narrow.insert(narrow.end(), reinterpret_cast<const uint8_t*>(&sample),
                  reinterpret_cast<const uint8_t*>(&sample + 1));
    wide.insert(wide.end(), reinterpret_cast<const uint8_t*>(&word), reinterpret_cast<const uint8_t*>(&word + 1));
  }
  const Bytes rounded = Stream({44100, 1, 48000, 1, KES_RESAMPLER_S16}).run(narrow);
  const Bytes exact = Stream({44100, 1, 48000, 1, KES_RESAMPLER_S16_TO_S32}).run(narrow);
  EXPECT_EQ(Stream({44100, 1, 48000, 1, KES_RESAMPLER_S32}).run(wide), exact);
  EXPECT_EQ(Stream({44100, 1, 48000, 1, KES_RESAMPLER_Q8_24}).run(wide), exact);
  int clamped = 0;
  for (size_t n = 0; n < exact.size() / 4; ++n) {
    int16_t sample;
    int32_t word;
    std::memcpy(&sample, &rounded[n * 2], 2);
    std::memcpy(&word, &exact[n * 4], 4);
    if (word == INT32_MAX || word == INT32_MIN) {
      ++clamped;
      EXPECT_EQ(sample, word == INT32_MAX ? INT16_MAX : INT16_MIN);
    } else {
      EXPECT_LE(std::abs(sample - std::min(word / 65536.0, 32767.0)), 0.50001) << n;
    }
  }
  EXPECT_GT(clamped, 100);
}

// The sine goes on where it was, as if the new rate had begun at the first output after the change.
TEST(Palix, RateChangesWithoutAClick) {
  constexpr uint32_t kChanges[][4] = {{44100, 48000, 48000, 47990}, {48000, 44100, 24000, 48000},
                                      {48000, 24000, 44100, 12000}, {16000, 48000, 768000, 16000},
                                      {8000, 44100, 96000, 11025},  {44100, 48001, 48000, 32000},
                                      {192000, 4000, 8000, 88200},  {768000, 8000, 16000, 4000}};
  for (const auto& [inRate, outRate, skippedRate, newRate] : kChanges) {
    SCOPED_TRACE(testing::Message() << inRate << " to " << outRate << ", then " << newRate << " Hz");
    Stream stream({inRate, 1, outRate, 1, KES_RESAMPLER_S32});
    const double cycles = 1000.0 / inRate;
    const size_t fed = 1001 + 230 * inRate / outRate;  // for the last one: just dropped old frames
    const std::vector<double> before = runTone(stream, 0.5, cycles, 0, fed);
    EXPECT_EQ(stream.setRate(skippedRate), 0);
    EXPECT_EQ(stream.setRate(newRate), 0);
    const std::vector<double> after = runTone(stream, 0.5, cycles, fed, 3000 + 1000 * inRate / newRate);
    ASSERT_GT(after.size(), 700u);
    const double start = static_cast<double>(before.size()) / outRate;
    double worst = 0;
    for (size_t n = 0; n < after.size(); ++n) {
      const double time = start + static_cast<double>(n) / newRate;
      worst =
          std::max(worst, std::abs(after[n] - 0.5 * std::sin(2 * std::numbers::pi * std::fmod(1000 * time, 1.0))));
    }
    EXPECT_LT(decibels(worst), -120);

    Random random(5);
    const Bytes input = noise({inRate, 1, newRate, 1, 2}, 1000, random);
    stream.reset();
    EXPECT_EQ(stream.run(input), Stream({inRate, 1, newRate, 1, KES_RESAMPLER_S32}).run(input)) << "after a reset";
  }
  Stream stream({48000, 1, 48000, 1, KES_RESAMPLER_S16});
  EXPECT_EQ(stream.setRate(768001), -2);
  EXPECT_EQ(stream.setRate(23000), -4);
  EXPECT_EQ(stream.setRate(24000), 0);
}

}  // namespace
