// SPDX-License-Identifier: Apache-2.0
// The host limiter by what it promises: nothing over 16 bits, nothing below changed, no click, and output that
// depends on the stream alone.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

#include "builds.h"
#include "guarded.h"
#include "platform/limiter_lib.h"
#include "random.h"

namespace {

struct Library {
  decltype(&Limiter_GetBufferSize) GetBufferSize;
  decltype(&Limiter_Open) Open;
  decltype(&Limiter_Reset) Reset;
  decltype(&Limiter_Process) Process;

  Library() {
    const Build build(HOST_LIBRARIES "/libkeslimiter_vendor.so");
    build.find(GetBufferSize, "Limiter_GetBufferSize");
    build.find(Open, "Limiter_Open");
    build.find(Reset, "Limiter_Reset");
    build.find(Process, "Limiter_Process");
  }
};
const Library& library() {
  static const Library loaded;
  return loaded;
}

class Stream {
 public:
  Stream(uint32_t channels, uint32_t rate, size_t gap = 0)
      : channels_(channels), internal_(1 << 14), in_(1 << 12), out_(1 << 12) {
    uint32_t internalBytes = 0, scratchBytes = 0;
    LimiterParam param{channels, rate, 0, 0};
    EXPECT_EQ(library().GetBufferSize(&internalBytes, &scratchBytes, 256), 0);
    EXPECT_EQ(library().Open(&instance_, internal_.place(internalBytes, false, gap), &param), 0);
  }

  // All of the input, in blocks of up to 1000 bytes, cut at random if wanted.
  std::vector<int16_t> run(const std::vector<int32_t>& input, Random* random = nullptr) {
    std::vector<int16_t> output;
    const size_t bytes = input.size() * 4;
    for (size_t at = 0; at < bytes;) {
      auto offered = static_cast<uint32_t>(std::min<size_t>(bytes - at, 1000)), room = uint32_t{1000};
      if (random) offered = random->below(offered + 1), room = random->below(1000);
      uint8_t* const src = in_.place(offered, false);
      std::memcpy(src, reinterpret_cast<const uint8_t*>(input.data()) + at, offered);
      const uint8_t* const dst = out_.place(room, random && random->oneIn(2));
      uint32_t left = offered, made = room;
      EXPECT_EQ(library().Process(instance_, nullptr, src, &left, const_cast<uint8_t*>(dst), &made), 0);
      EXPECT_EQ((offered - left) / 4, made / 2);
      EXPECT_EQ(made / 2, std::min(offered / 4, room / 2) / channels_ * channels_);
      EXPECT_TRUE(out_.surroundingsIntact() && internal_.surroundingsIntact());
      at += offered - left;
      output.resize(output.size() + made / 2);
      std::copy_n(dst, made, reinterpret_cast<uint8_t*>(output.data() + output.size()) - made);
    }
    return output;
  }
  void reset() { library().Reset(instance_); }

 private:
  uint32_t channels_;
  Guarded internal_, in_, out_;
  void* instance_ = nullptr;
};

constexpr int32_t kFullScale = 1 << 24;

// However a stream is cut: the same bits, after a reset too. Each sample is at most what came in, and at least that
// by the gain of the greatest peak so far.
void play(Random& random) {
  const uint32_t channels = 1 + random.below(2), any = 1 + random.below(UINT32_MAX),
                 rate = random.from({1u, 700u, 4000u, 44100u, 48000u, 192000u, UINT32_MAX, any});
  SCOPED_TRACE(testing::Message() << rate << " Hz, " << channels << " channels");
  const uint32_t chances = 1 + random.below(300), frames = random.below(4000);
  Random samples(random.word());
  std::vector<int32_t> input;
  for (uint32_t n = 0; n < frames * channels; ++n) {
    const int32_t quiet = samples.between(-kFullScale / 2, kFullScale / 2);
    input.push_back(samples.oneIn(chances) ? samples.from({INT32_MIN, INT32_MAX, 4 * quiet}) : quiet);
  }
  Stream stream(channels, rate, random.below(9));
  const std::vector<int16_t> output = stream.run(input);
  stream.reset();
  EXPECT_EQ(stream.run(input, &random), output);

  const size_t delay = channels * size_t{LIMITER_DELAY_FRAMES(rate)};
  double least = 1;
  for (size_t n = 0; n < output.size(); ++n) {
    for (size_t c = n; n % channels == 0 && c < n + channels; ++c)
      least = std::min(least, LIMITER_THRESHOLD / (std::abs(static_cast<double>(input[c])) + 1));
    const double exact = n < delay ? 0 : input[n - delay] / 512.0, level = output[n] * (exact < 0 ? -1 : 1);
    EXPECT_TRUE(level <= std::abs(exact) + 0.5 && level >= std::abs(exact) * least - 0.51) << n << ": " << level;
  }
}

TEST(Limiter, HoldsEveryPeakAndDependsOnTheStreamAlone) {
  Random random(1);
  for (int round = 0; round < 60; ++round) play(random);
}

// To the nearest, of two the even one, and late by the delay; again so long after a peak.
TEST(Limiter, LeavesAloneWhat16BitsHold) {
  for (const uint32_t rate : {8000u, 44100u, 96000u}) {
    Random random(2);
    std::vector<int32_t> input;
    for (uint32_t n = 0; n < 3 * rate; ++n) input.push_back(random.between(-32768 * 512, 32767 * 512));
    input[rate] = 3 * kFullScale;
    const std::vector<int16_t> output = Stream(1, rate).run(input);
    const uint32_t delay = LIMITER_DELAY_FRAMES(rate);
    EXPECT_EQ(delay, rate * 3 / 2000);
    EXPECT_EQ(output[rate + delay], 32767);
    for (uint32_t n = 0; n < output.size(); ++n) {
      if (n == rate) n += rate * 5 / 4;  // the peak comes into view, and its release is over
      const double exact = n < delay ? 0 : std::nearbyint(input[n - delay] / 512.0);
      ASSERT_EQ(output[n], exact) << n << " of " << rate << " Hz";
    }
  }
}

// The gain, seen on a constant in one channel while the other one peaks: down along a straight line, there with the
// peak, and up by 63 % within 80 ms; the same for both channels.
TEST(Limiter, TurnsDownWithoutAClick) {
  constexpr int kRate = 48000, kPeak = 10000, kDelay = LIMITER_DELAY_FRAMES(kRate);
  std::vector<int32_t> input;
  for (int n = 0; n < kRate; ++n) input.insert(input.end(), {kFullScale / 2, n == kPeak ? 2 * kFullScale : 0});
  const std::vector<int16_t> output = Stream(2, kRate).run(input);
  const auto gain = [&](int n) { return output[static_cast<size_t>(2 * (n + kDelay))] / 16384.0; };
  EXPECT_EQ(output[2 * (kPeak + kDelay) + 1], 32767);
  EXPECT_NEAR(gain(kPeak - kDelay - 1), 1, 1e-9);
  EXPECT_NEAR(gain(kPeak), 0.5, 1e-3);
  EXPECT_NEAR(gain(kPeak + kDelay + kRate * 8 / 100), 1 - 0.5 * std::exp(-1), 0.01);
  for (int n = kPeak - kDelay - 1; n < kRate - kDelay - 1; ++n) {
    const double step = gain(n + 1) - gain(n);
    EXPECT_NEAR(step, n < kPeak ? -0.5 / (kDelay + 1) : 0, n < kPeak ? 1e-4 : 0.5 / 3840 + 1e-4) << n;
  }
}

// Not a frame longer than it must: at 700 Hz, where the window is two frames, a frame can be seen.
TEST(Limiter, LetsGoBehindThePeak) {
  std::vector<int32_t> input(200, kFullScale / 2);
  input[100] = 2 * kFullScale;
  const std::vector<int16_t> output = Stream(1, 700).run(input);
  EXPECT_EQ(output[101], 32767);
  EXPECT_GT(output[102], 8200);
  EXPECT_LT(output[102], 8300);
}

TEST(Limiter, NamesWhatItRefuses) {
  uint32_t internalBytes = 1, scratchBytes = 1;
  EXPECT_EQ(library().GetBufferSize(&internalBytes, &scratchBytes, 257), -1);
  EXPECT_TRUE(internalBytes == 0 && scratchBytes == 0);
  for (LimiterParam param : {LimiterParam{0, 48000, 0, 0}, {3, 48000, 0, 0}, {2, 0, 0, 0}}) {
    void* instance = &param;
    EXPECT_EQ(library().Open(&instance, nullptr, &param), -2);
    EXPECT_EQ(instance, nullptr);
  }
}

}  // namespace
