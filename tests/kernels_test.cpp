// SPDX-License-Identifier: Apache-2.0
// Every kernel against its definition, between guard pages, over shapes around the vector widths.
#include <gtest/gtest.h>

#include <cfenv>
#include <csignal>
#include <fstream>
#include <sstream>

#include "guarded.h"
#include "oracle.h"
#include "random.h"

namespace {

#ifdef KESAUDIO_SLOW
constexpr int kRounds = 40000;
#else
constexpr int kRounds = 250000;
#endif
constexpr int kApart = INT32_MIN;
constexpr int kRoundings[] = {FE_TONEAREST, FE_UPWARD, FE_DOWNWARD, FE_TOWARDZERO};

class Checker {
 public:
  // Runs the call at a guard page, gap bytes away from it: src and dst apart, or dst `shift` bytes after src.
  void check(const Call& call, bool low = false, size_t gap = 0, int shift = kApart) {
    current = &call;
    const auto count = static_cast<size_t>(call.frames()) * static_cast<size_t>(std::max(call.srcChannels, 0));
    Bytes input;  // not one byte of a partial frame
    for (size_t i = 0; i < count; ++i) appendSample(input, someSample(call.sampleBytes()), call.sampleBytes());
    const Bytes expected = outputBlock(call, input.data());

    const bool apart = shift == kApart;
    const auto before = static_cast<size_t>(apart ? 0 : std::max(-shift, 0));
    const auto after = static_cast<size_t>(apart ? 0 : std::max(shift, 0));
    const size_t blockBytes = std::max(apart ? 0 : before + input.size(), after + expected.size());
    uint8_t* block = dst_.place(blockBytes, low, gap);
    uint8_t* src = apart ? src_.place(input.size(), low, gap) : block + before;
    std::copy(input.begin(), input.end(), src);
    Bytes result(block, block + blockBytes);  // in place, what the output does not cover must stay
    std::copy(expected.begin(), expected.end(), result.begin() + static_cast<ptrdiff_t>(after));
    std::fesetround(random.from(kRoundings));  // which is the caller's, and changes nothing
    call.run(block + after, src);
    std::fesetround(FE_TONEAREST);

    const auto wrong = std::mismatch(result.begin(), result.end(), block);
    if (wrong.first != result.end())
      ADD_FAILURE() << call << ", shift " << shift << ": byte " << wrong.second - block << " is "
                    << int{*wrong.second};
    EXPECT_TRUE(dst_.surroundingsIntact()) << call << " wrote outside";
    EXPECT_TRUE(!apart || (std::equal(input.begin(), input.end(), src) && src_.surroundingsIntact()))
        << call << " changed its input";
  }

  // In place: a downmix on its own input, an upmix also up to 70 bytes later, a strip also earlier.
  void checkInPlace(const Call& call) {
    if (call.frames() == 0) return;
    Call frame = call;
    frame.byteCount = call.srcChannels * call.sampleBytes();
    const auto output = std::ssize(outputBlock(frame, Bytes(static_cast<size_t>(frame.byteCount)).data()));
    const bool upmix = call.kernel == kZeroFill || call.kernel == kDuplicate;
    if (upmix ? output < frame.byteCount : output > frame.byteCount) return;
    const int shift = random.between(0, 70);
    check(call, random.oneIn(2), 0, upmix ? shift : call.kernel == kStrip ? -shift : 0);
  }

  Random random{1234};
  static const Call* current;

 private:
  // Noise, an extreme or a small number, where rounding shows.
  int64_t someSample(int32_t bytes) {
    const int64_t limit = int64_t{1} << (8 * bytes - 1);
    switch (random.below(4)) {
      case 0: return random.between(-8, 8);
      case 1: return limit - 1 - random.below(2);
      case 2: return -limit + random.below(2);
      default: return random.word() % (2 * limit) - limit;
    }
  }

  Guarded src_{1 << 18}, dst_{1 << 19};
};
const Call* Checker::current = nullptr;

// Without this a stray access would end the program without saying which call it was.
[[maybe_unused]] const auto installed = std::signal(SIGSEGV, [](int) {
  if (Checker::current) std::cerr << "access outside the frames in " << *Checker::current << std::endl;
  _exit(1);
});

constexpr int64_t kMostBytes = 1 << 14;

int32_t someChannels(Random& random) {
  if (!random.oneIn(5)) return random.between(1, 9);
  const auto any = static_cast<int32_t>(random.word());
  return random.from({random.between(1, 300), any, 1 << 30 | (any & 7)});  // whose bytes may be a few in 32 bits
}

// A call with any arguments that memory allows.
void play(Random& random) {
  const uint32_t any = random.word();
  Call call{static_cast<Kernel>(random.below(kKernels)),
            someChannels(random),
            someChannels(random),
            0,
            random.from({1u, 3u, 4u, 6u, 6u, any}),
            random.from({0u, 0xFFFFu, 0x7u, 0xBu, 0x103u, 0x33u, 0x3Fu, any})};
  const int64_t frameBytes = int64_t{call.srcChannels} * call.sampleBytes();
  const uint32_t frames = random.below(random.oneIn(2) ? 20 : 200);
  const auto block = frameBytes * frames + (random.oneIn(2) ? random.below(1 << 8) : 0);
  call.byteCount = static_cast<int32_t>(block < 0 || block > kMostBytes || random.oneIn(9) ? any : block);

  const bool upmix = call.kernel == kZeroFill || call.kernel == kDuplicate;
  const bool ignoresWidth = call.kernel == kAverage || (call.kernel == kToMono && call.mask == 0) ||
                            (call.kernel == kToStereo && call.sampleBytes() != 3);
  const int64_t output = int64_t{call.frames()} * call.sampleBytes() * (ignoresWidth ? 2 : call.dstChannels);
  const bool writes =
      call.kernel == kStrip ? call.dstChannels <= call.srcChannels : !upmix || output < INT64_C(1) << 31;
  if (call.frames() * frameBytes > kMostBytes || (writes && output > 4 * kMostBytes)) return;

  static Checker checker;
  checker.random = Random(random.word());  // of the samples
  checker.check(call, random.oneIn(2), random.below(9));
  if (writes) checker.checkInPlace(call);
}

TEST(AnyCall, EqualsItsDefinition) {
  Random random(1);
  for (int round = 0; round < kRounds && !HasFailure(); ++round) play(random);
}

// Thousands of channels stay exact and off the stack, and so do long blocks.
TEST(WideFrames, AreExact) {
  Checker checker;
  for (auto [format, channels, bytes] :
       {std::tuple{1u, 20000, 40000}, {3u, 20000, 80000}, {6u, 180, 540}, {1u, 1, 140002}})
    for (Kernel kernel : {kFold, kAverage, kToStereo, kStrip})
      for (uint32_t mask : {0u, 0x3Fu})
        checker.check({kernel, kernel == kStrip ? 1 : 2, channels, bytes, format, mask});
}

// The sum of -46346 a channel, or 256 times that of a packed one, leaves 32 bits, and comes out at the other end.
TEST(LargeCounts, WrapAFoldsSumWhereTheHeaderSays) {
  for (auto [format, channels, expected] :
       {std::tuple{1u, 46335, -32768}, {1u, 46336, 32767}, {6u, 180, -8388608}, {6u, 181, 8388607}}) {
    const Call call{kFold, 1, channels, channels * (format == 1 ? 2 : 3), format};
    Bytes in, wanted;
    for (int c = 0; c < channels; ++c) appendSample(in, format == 1 ? -32768 : -8388608, call.sampleBytes());
    appendSample(wanted, expected, call.sampleBytes());
    Bytes out(wanted.size());
    call.run(out.data(), in.data());
    EXPECT_EQ(out, wanted) << channels;
  }
}

TEST(LargeCounts, AreWrittenToTheLast) {
  const Bytes in(1 << 22, 7);
  Bytes out(8 * in.size());
  for (Kernel kernel : {kZeroFill, kDuplicate}) {
    Call{kernel, 8, 1, 1 << 22, 1}.run(out.data(), in.data());
    EXPECT_EQ(std::ranges::count(out, 7), kernel == kZeroFill ? 1 << 22 : 1 << 25);
  }
}

TEST(KnownFrames, ComeOutAsWorkedByHand) {
  std::ifstream rows(KNOWN_FRAMES);
  int known = 0;
  for (std::string row; std::getline(rows, row);) {
    if (row.starts_with('#')) continue;
    const std::optional<Call> call = parsedCall(row);
    ASSERT_TRUE(call) << row;
    std::istringstream samples(row.substr(row.find(':') + 1));
    Bytes blocks[2], out;
    for (Bytes& block : blocks) {
      for (int64_t sample; samples >> sample;) appendSample(block, sample, call->sampleBytes());
      samples.clear();
      samples.ignore(2);
    }
    out.resize(blocks[1].size());
    call->run(out.data(), blocks[0].data());
    EXPECT_EQ(out, blocks[1]) << row;
    ++known;
  }
  EXPECT_GT(known, 20);
}

}  // namespace
