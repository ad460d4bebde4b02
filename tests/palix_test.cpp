// SPDX-License-Identifier: Apache-2.0
// The host resampler between guard pages: its output depends on the stream alone. And the component over it: first
// block, largest output.
#include <array>

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

// The output is the same however the stream is cut into blocks and whatever its memory held before, after changes of
// rate and resets, too; also in one block with room for exactly the output.
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

// ---- the component over the host library

class Component {
 public:
  explicit Component(const SrcParam& param) : param_(param) {
    InitKesAudioSrcInC(&record_);
    const auto& [inRate, inChannels, outRate, outChannels, format] = param;
    EXPECT_EQ(record_.Open(&record_, inRate, inChannels, outRate, outChannels, format), KES_OK);
  }
  ~Component() { record_.Close(&record_); }
  Component(const Component&) = delete;

  // Resamples a block of silence, with room for more than it makes. Returns the frames made.
  uint32_t process(uint32_t frames) {
    const Bytes src(frames * inFrameBytes(param_));
    Bytes dst((maxOutput(frames) + 2000) * outFrameBytes(param_));
    auto left = static_cast<uint32_t>(src.size()), made = static_cast<uint32_t>(dst.size());
    EXPECT_EQ(record_.Process(&record_, src.data(), &left, dst.data(), &made), KES_OK);
    EXPECT_EQ(left, 0u);
    return made / outFrameBytes(param_);
  }
  void setOutputRate(uint32_t rate) {
    EXPECT_EQ(record_.SetParameter(&record_, KES_RESAMPLER_PARAM_OUT_RATE, rate), KES_OK);
    param_.outSampleRate = rate;
  }
  uint32_t maxOutput(uint32_t frames) const {
    return kes_resampler_max_output(&param_, frames * inFrameBytes(param_)) / outFrameBytes(param_);
  }

 private:
  SrcParam param_;
  KesAudioSrcInC record_;
};

TEST(FirstBlock, IsAlignedUpToTheDocumentedSize) {
  const struct {
    SrcParam param;
    uint32_t lastFrames;  // within 2^32 / (outSampleRate * outChannels) bytes, half of that for format 1
  } kRows[] = {{{44100, 2, 48000, 2, 0}, 11184}, {{44100, 6, 48000, 6, 0}, 1242},  {{44100, 1, 48000, 1, 1}, 22369},
               {{48000, 2, 96000, 2, 2}, 2796},  {{48000, 2, 44100, 2, 0}, 12173}, {{44100, 8, 192000, 8, 3}, 87}};
  for (const auto& [param, lastFrames] : kRows) {
    const uint64_t frameBytes = outFrameBytes(param);
    const auto aligned = [&p = param, frameBytes](uint64_t frames) {  // bytes rounded down, then up to frames
      return (frames * frameBytes * p.outSampleRate / p.inSampleRate + frameBytes - 1) / frameBytes;
    };
    EXPECT_EQ(Component(param).process(lastFrames), aligned(lastFrames)) << lastFrames;
    EXPECT_LT(Component(param).process(lastFrames + 1), aligned(lastFrames + 1)) << lastFrames;
  }
  EXPECT_EQ(Component({48000, 2, 44100, 2, 0}).process(48000), 44070u);
}

TEST(MaxOutput, HoldsEveryBlockWithTwoFramesToSpareAtMost) {
  Random random(4);
  constexpr uint32_t kRates[] = {4000, 8000, 44100, 48000, 96000, 767999};
  for (const uint32_t in : kRates) {
    for (const uint32_t out : kRates) {
      const uint32_t channels = 1 + random.below(8);
      Component component({in, channels, out, channels, random.below(4)});
      for (const uint32_t frames : {1000 * in / std::max(in, out) + 1, 7u, 1u}) {
        uint32_t most = 0;
        for (int block = 0; block < 12; ++block) most = std::max(most, component.process(frames));
        const uint32_t bound = component.maxOutput(frames);
        EXPECT_TRUE(most <= bound && most + 2 >= bound)
            << in << " to " << out << " Hz, " << frames << " frames: " << most << " of " << bound;
      }
    }
  }
}

// The shorter filter of a higher rate makes output that the longer one held back.
TEST(MaxOutput, IsExceededOnceAfterARiseOfTheRate) {
  for (const auto [in, before, after] :
       {std::array{8000u, 4000u, 8000u}, {48000u, 4000u, 192000u}, {44100u, 24000u, 44100u}}) {
    Component component({in, 2, before, 2, 2});
    component.process(2000);
    component.setOutputRate(after);
    const uint32_t made = component.process(100), bound = component.maxOutput(100);
    EXPECT_TRUE(made > bound && made <= bound + 30 * after / before)
        << made << " after " << in << " to " << before << " Hz";
    EXPECT_LE(component.process(100), bound);
  }
}

TEST(MaxOutput, IsZeroForUnknownSizesAndBeyond32Bits) {
  const struct {
    SrcParam param;
    uint32_t inBytes, expected;
  } kRows[] = {{{1, 1, 1, 1, 4}, 4, 0},          {{1, 0, 1, 1, 0}, 4, 0},
               {{1, 1, 1, 0, 0}, 4, 0},          {{0, 1, 1, 1, 0}, 4, 0},
               {{2, 1, 3, 1, 1}, 5, 24},         {{1, 1, 1, 1, 0}, 0xFFFFFFFC, 0xFFFFFFFE},
               {{1, 1, 1, 1, 0}, 0xFFFFFFFD, 0}, {{1, 1, ~0u, ~0u, 2}, ~0u, 0}};
  for (const auto& [param, inBytes, expected] : kRows)
    EXPECT_EQ(kes_resampler_max_output(&param, inBytes), expected) << inBytes;
}

}  // namespace
