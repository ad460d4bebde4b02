// SPDX-License-Identifier: Apache-2.0
// The host limiter by what it promises: nothing over 16 bits, nothing below changed, no click, and output that
// depends on the stream alone.
#include <cmath>

#include "stream.h"

namespace {

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
  Limiter stream(channels, rate, random.below(9));
  const std::vector<int16_t> output = stream.limited(input);
  stream.reset();
  EXPECT_EQ(stream.limited(input, &random), output);
  if (testing::Test::HasFailure()) return;

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
    const std::vector<int16_t> output = Limiter(1, rate).limited(input);
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
  const std::vector<int16_t> output = Limiter(2, kRate).limited(input);
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
  const std::vector<int16_t> output = Limiter(1, 700).limited(input);
  EXPECT_EQ(output[101], 32767);
  EXPECT_GT(output[102], 8200);
  EXPECT_LT(output[102], 8300);
}

TEST(Limiter, NamesWhatItRefuses) {
  uint32_t internalBytes = 1, scratchBytes = 1;
  EXPECT_EQ(Limiter_GetBufferSize(&internalBytes, &scratchBytes, 257), -1);
  EXPECT_TRUE(internalBytes == 0 && scratchBytes == 0);
  for (LimiterParam param : {LimiterParam{0, 48000, 0, 0}, {3, 48000, 0, 0}, {2, 0, 0, 0}}) {
    void* instance = &param;
    EXPECT_EQ(Limiter_Open(&instance, nullptr, &param), -2);
    EXPECT_EQ(instance, nullptr);
  }
}

}  // namespace
