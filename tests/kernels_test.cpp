// SPDX-License-Identifier: Apache-2.0
// Every kernel against its definition, between guard pages, over shapes around the vector widths.
#include <gtest/gtest.h>

#include <cfenv>
#include <csignal>

#include "guarded.h"
#include "oracle.h"
#include "random.h"

namespace {

#ifdef KESAUDIO_EMULATED
constexpr int kNoiseRounds = 1;
#else
constexpr int kNoiseRounds = 4;
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
    EXPECT_TRUE(!apart || std::equal(input.begin(), input.end(), src)) << call << " changed its input";
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

class Kernels : public testing::TestWithParam<int> {};
INSTANTIATE_TEST_SUITE_P(, Kernels, testing::Range(0, int{kKernels}),
                         [](const auto& row) { return kKernelTable[row.param].name; });

// Every shape, with noise in it; under emulation less noise.
TEST_P(Kernels, EqualTheirDefinition) {
  constexpr uint32_t kFormats[] = {1, 3, 4, 6}, kBadFormats[] = {0, 2, 5, 7, 0x101, 0x106, 0xFFFFFFFF};
  constexpr uint32_t kMasks[] = {0, 0xFFFF, 0x3, 0x7, 0xB, 0x103, 0x33, 0x3F, 0x60F, 0x10000, 0x8000003F};
  constexpr int32_t kChannels[] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 33},
                    kFrames[] = {1, 2, 3, 7, 8, 15, 16, 17, 33, 67, 131};
  constexpr int32_t kNone[] = {INT32_MIN, -1200, -1, 0};
  const auto kernel = static_cast<Kernel>(GetParam());
  Checker checker;
  Random& random = checker.random;
  const auto checkShape = [&](Call call) {
    const int32_t frameBytes = call.srcChannels * call.sampleBytes(), partial = random.between(0, frameBytes - 1);
    call.byteCount = call.byteCount * frameBytes + (random.oneIn(2) ? partial : 0);
    checker.check(call, random.oneIn(2), random.oneIn(2) ? 0 : random.below(5));
    checker.checkInPlace(call);
    if (!random.oneIn(10)) return;
    switch (random.below(4)) {
      case 0: call.byteCount = random.oneIn(2) ? partial : random.from(kNone); break;
      case 1: call.dstChannels = random.from(kNone); break;
      case 2: call.srcChannels = random.from(kNone); break;
      default: call.format = random.from(kBadFormats);
    }
    checker.check(call, random.oneIn(2));
  };
  for (int round = 0; round < kNoiseRounds && !HasFailure(); ++round)
    for (const uint32_t format : kFormats)
      for (const int32_t dstChannels : kChannels)
        for (const int32_t srcChannels : kChannels)
          for (const int32_t frames : kFrames)
            if (kernel == kToStereo)
              for (const uint32_t mask : kMasks) checkShape({kernel, dstChannels, srcChannels, frames, format, mask});
            else
              checkShape({kernel, dstChannels, srcChannels, frames, format, random.from(kMasks)});
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

// Outputs of 2^31 bytes, or counts whose bytes would wrap in 32 bits.
TEST(HugeCounts, WriteNothing) {
  const Call calls[] = {
      {kZeroFill, 1 << 30, 1, 2, 1},        {kDuplicate, 1 << 30, 1, 2, 1},     {kZeroFill, INT32_MAX, 1, 6, 1},
      {kDuplicate, 1 << 20, 1, 1 << 11, 1}, {kDuplicate, 1073741825, 5, 20, 4}, {kZeroFill, 1073741825, 5, 20, 4},
      {kAverage, 1, 1073741825, 8, 3},      {kToStereo, 2, 1073741825, 8, 3},
  };
  for (const Call& call : calls) {
    uint8_t untouched = 7;
    call.run(&untouched, nullptr);
    EXPECT_EQ(untouched, 7) << call;
  }
  const Bytes in(1 << 22, 7);  // large, but not huge
  Bytes out(8 * in.size());
  for (Kernel kernel : {kZeroFill, kDuplicate}) {
    Call{kernel, 8, 1, 1 << 22, 1}.run(out.data(), in.data());
    EXPECT_EQ(std::count(out.begin(), out.end(), 7), kernel == kZeroFill ? 1 << 22 : 1 << 25);
  }
}

constexpr int64_t kMax16 = 32767, kMax24 = 8388607, kMax32 = 2147483647;

TEST(KnownFrames, ComeOutAsWorkedByHand) {
  const struct {
    Call call;  // byteCount 0: the whole input
    Frame in, out;
  } rows[] = {
      {{kStrip, 6, 8, 0, 1}, {0, 1, 2, 3, 4, 5, 6, 7}, {0, 1, 2, 3, 4, 5}},
      {{kStrip, 1, 2, 11, 6}, {1, 2, 3, 4}, {1}},
      {{kFold, 1, 2, 0, 1}, {1000, -3000, 1, -1, -1, -1}, {-2830, -1, -4}},
      {{kFold, 3, 2, 0, 1}, {30000, 30000, -30000, -30000}, {kMax16, kMax16, kMax16, -32768, -32768, -32768}},
      {{kFold, 2, 1, 0, 6}, {1000, kMax24}, {1414, 1414, kMax24, kMax24}},
      {{kFold, 1, 2, 0, 3}, {-kMax32 - 1, -kMax32 - 1}, {-1518665728}},  // two terms of -759332864: shift 17
      {{kFold, 1, 6, 0, 3}, {1 << 19, 0, 0, 0, 0, -1}, {46346 - 1}},     // shift 19
      {{kAverage, 1, 2, 0, 1}, {-3, 0, 3, 0, 7, 8, -32768, -32768, kMax16, kMax16}, {-1, 1, 7, -32768, kMax16}},
      {{kAverage, 5, 3, 0, 1}, {-5, 0, 0}, {-1}},
      {{kAverage, -1, 2, 0, 3}, {-3, 0, kMax32, kMax32, -kMax32 - 1, -kMax32}, {-1, kMax32, -kMax32}},
      {{kAverage, 0, 2, 0, 6}, {3, 0, kMax24, kMax24, -kMax24 - 1, -kMax24 - 1}, {1, kMax24, -kMax24 - 1}},
      {{kToMono, 2, 2, 0, 1, 3}, {1000, -3000}, {-2830, -2830}},
      {{kToStereo, 2, 3, 0, 1, 7},
       {1000, -1000, 1000, 0, 0, -1, kMax16, 0, kMax16},
       {2414, 414, -2, -2, kMax16, kMax16}},
      {{kToStereo, 2, 4, 0, 1, 0x33}, {100, 200, 1000, -1000}, {1514, -1215}},
      {{kToStereo, 2, 6, 0, 1, 0x3F}, {-32768, -kMax16, kMax16, kMax16, 0, 0}, {13576, 13577}},  // g(t) = 46344
      {{kToStereo, 2, 6, 0, 3, 0x3F}, {-kMax32, 0, kMax32, kMax32, 0, -kMax32}, {0, -1}},        // g saturates
      {{kToStereo, 2, 6, 0, 6, 0x3F}, {-kMax24, -kMax24, kMax24, 0, 0, 0}, {3475967, 3475967}},
      {{kToStereo, 2, 5, 0, 1, 0x3F}, {10, 20, 30, 40, 50}, {18, 12}},  // too few: pairwise
      {{kToStereo, 4, 3, 0, 6, 7}, {5, 6, 0, 7, 8, 0}, {5, 6, 0, 0, 7, 8, 0, 0}},
      {{kToStereo, 7, 2, 0, 6, 0}, {kMax24, -kMax24 - 1}, {4194303, -4194304}},
      {{kToStereo, 2, 3, 0, 1, 0}, {300, 600, 900}, {400, 200}},
      {{kToStereo, 2, 1, 0, 1, 0}, {-7}, {-7, 0}},
      {{kToStereo, 2, 4, 0, 3, 0}, {kMax32, 0, kMax32, 0}, {1073741823, 0}},
      {{kZeroFill, 2, 1, 5, 1}, {11, 22, 33}, {11, 0, 22, 0}},
      {{kDuplicate, 8, 3, 0, 6}, {1, 2, 3}, {1, 2, 3, 1, 2, 3, 1, 2}},
      {{kDuplicate, 2, 3, 0, 1}, {1, 2, 3}, {1, 2}},
  };
  for (auto [call, inSamples, outSamples] : rows) {
    Bytes in, expected;
    for (int64_t sample : inSamples) appendSample(in, sample, call.sampleBytes());
    for (int64_t sample : outSamples) appendSample(expected, sample, call.sampleBytes());
    if (call.byteCount == 0) call.byteCount = static_cast<int32_t>(in.size());
    Bytes out(expected.size());
    call.run(out.data(), in.data());
    EXPECT_EQ(out, expected) << call;
  }
}

}  // namespace
