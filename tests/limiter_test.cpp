// SPDX-License-Identifier: Apache-2.0
// The host limiter between guard pages: its output depends on the stream alone, and stays within the limits.
#include <cmath>

#include "host/limiter.h"
#include "stream.h"

namespace {

constexpr int32_t kFullScale = 1 << 24;

// The output is the same however the stream is cut into blocks, and after a reset. Each sample is at most its input,
// and at least its input times the gain that the greatest peak so far needs.
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
  const auto* const first = reinterpret_cast<const uint8_t*>(input.data());
  const Bytes bytes(first, first + 4 * input.size());
  std::vector<int16_t> output(input.size());
  const Bytes limited = stream.run(bytes, static_cast<uint32_t>(2 * output.size()));
  ASSERT_EQ(limited.size(), 2 * output.size());
  std::ranges::copy(limited, reinterpret_cast<uint8_t*>(output.data()));
  stream.reset();
  EXPECT_EQ(stream.runInBlocks(bytes, 1000, random), limited);
  if (testing::Test::HasFailure()) return;

  const size_t delay = channels * size_t{limiterDelayFrames(rate)};
  double least = 1;
  for (size_t n = 0; n < output.size(); ++n) {
    for (size_t c = n; n % channels == 0 && c < n + channels; ++c)
      least = std::min(least, kLimiterThreshold / (std::abs(static_cast<double>(input[c])) + 1));
    const double exact = n < delay ? 0 : input[n - delay] / 512.0, level = output[n] * (exact < 0 ? -1 : 1);
    EXPECT_TRUE(level <= std::abs(exact) + 0.5 && level >= std::abs(exact) * least - 0.51) << n << ": " << level;
  }
}

TEST(Limiter, HoldsEveryPeakAndDependsOnTheStreamAlone) {
  Random random(1);
  for (int round = 0; round < 60; ++round) play(random);
}

}  // namespace
