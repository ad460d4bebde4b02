// SPDX-License-Identifier: Apache-2.0
// The host resampler in memory that is watched: its bits depend on nothing but the stream.
#include "stream.h"

namespace {

Bytes noise(size_t bytes, Random& random) {
  Bytes made(bytes);
  for (uint8_t& byte : made) byte = random.byte();
  return made;
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
    const Bytes expected = cut.runInBlocks(input, 64 + random.below(1 << 14), random);
    EXPECT_EQ(whole.run(input, static_cast<uint32_t>(expected.size())), expected);
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

}  // namespace
