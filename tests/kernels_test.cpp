// SPDX-License-Identifier: Apache-2.0
// Every kernel against its definition, between guard pages, over shapes around the vector widths.
#include <gtest/gtest.h>

#include <thread>

#include "guarded.h"
#include "oracle.h"
#include "random.h"

namespace {

constexpr uint32_t kMasks[] = {0, 0xFFFF, 0x3, 0x7, 0xB, 0x103, 0x33, 0x3F, 0x60F};
constexpr uint32_t kFormats[] = {1, 3, 4, 6, 5};

bool takesMask(Kernel kernel) { return kKernelTable[kernel].withMask != nullptr; }
bool isUpmix(Kernel kernel) { return kernel == kZeroFill || kernel == kDuplicate; }

// Noise, extremes, or small numbers (where rounding shows), a kind a sample.
void fill(uint8_t* at, size_t bytes, uint32_t format, Random& random) {
  const auto width = static_cast<size_t>(std::max(sampleBytes(format), 1));
  for (size_t i = 0; i < bytes; ++i) at[i] = random.byte();
  for (size_t i = 0; i + width <= bytes; i += width) {
    const uint32_t kind = random.below(4);
    const bool negative = random.oneIn(2);
    if (kind == 0) continue;
    for (size_t b = 0; b < width; ++b) at[i + b] = negative ? 0xFF : 0;  // 0 or -1
    if (kind == 1) at[i + width - 1] = negative ? 0x80 : 0x7F;           // near or at the limits
    if (kind == 2 && negative) std::memset(at + i, 0, width - 1), at[i + width - 1] = 0x80;
    if (kind == 2 && !negative) at[i] = static_cast<uint8_t>(random.below(8));
  }
}

class Checker {
 public:
  // Runs the call with src and dst apart, each at a guard page, or (shift given) with dst that many bytes after src.
  void check(const Call& call, bool low, size_t gap = 0, const int* shift = nullptr) {
    current = &call;
    const auto frameBytes =
        static_cast<size_t>(std::max(call.srcChannels, 0)) * static_cast<size_t>(sampleBytes(call.format));
    const size_t srcBytes = static_cast<size_t>(inputFrames(call)) * frameBytes;  // not one byte of a partial frame
    Bytes input(srcBytes);
    fill(input.data(), srcBytes, call.format, random_);
    const Bytes expected = outputBlock(call, input.data());

    if (shift) {
      const auto before = static_cast<size_t>(std::max(-*shift, 0)), after = static_cast<size_t>(std::max(*shift, 0));
      uint8_t* block = dst_.place(std::max(before + srcBytes, after + expected.size()), low, gap);
      std::copy(input.begin(), input.end(), block + before);
      call.run(block + after, block + before);
      compare(call, expected, block + after);
      EXPECT_TRUE(dst_.surroundingsIntact()) << call << " wrote outside, in place";
      return;
    }
    uint8_t* src = src_.place(srcBytes, low, gap);
    uint8_t* dst = dst_.place(expected.size(), low, gap);
    std::copy(input.begin(), input.end(), src);
    call.run(dst, src);
    compare(call, expected, dst);
    EXPECT_TRUE(dst_.surroundingsIntact()) << call << " wrote outside";
    EXPECT_TRUE(std::equal(input.begin(), input.end(), src)) << call << " changed its input";
  }

  static thread_local const Call* current;

 private:
  static void compare(const Call& call, const Bytes& expected, const uint8_t* dst) {
    const auto differs = std::mismatch(expected.begin(), expected.end(), dst).first;
    if (differs == expected.end()) return;
    const auto byte = differs - expected.begin();
    ADD_FAILURE() << call << ": byte " << byte << " is " << int{dst[byte]} << ", should be " << int{*differs};
  }

  Random random_{1234};
  Guarded src_{1 << 18}, dst_{1 << 19};
};
thread_local const Call* Checker::current = nullptr;

// Without this a stray access would end the program without saying which call it was.
[[maybe_unused]] const auto installed = signal(SIGSEGV, [](int) {
  if (Checker::current) std::cerr << "access outside the frames in " << *Checker::current << std::endl;
  _exit(1);
});

// In place: a downmix on its own input, an upmix also a few bytes later, a strip also a few bytes earlier.
void checkInPlace(Checker& checker, const Call& call, bool low, int shift) {
  const auto output = outputBlock({call.kernel, call.dstChannels, call.srcChannels,
                                   call.srcChannels * sampleBytes(call.format), call.format, call.mask},
                                  Bytes(1024).data());
  const bool shrinks = output.size() <= static_cast<size_t>(call.srcChannels * sampleBytes(call.format));
  const bool grows = call.dstChannels >= call.srcChannels;
  if (isUpmix(call.kernel) ? !grows : !shrinks) return;
  if (call.kernel == kStrip) shift = -shift;
  if (!isUpmix(call.kernel) && call.kernel != kStrip) shift = 0;
  checker.check(call, low, 0, &shift);
}

class Kernels : public testing::TestWithParam<int> {
 protected:
  Kernel kernel() const { return static_cast<Kernel>(GetParam()); }
};
INSTANTIATE_TEST_SUITE_P(, Kernels, testing::Range(0, int{kKernels}),
                         [](const auto& row) { return kKernelTable[row.param].name; });

TEST_P(Kernels, EqualTheirDefinitionInEveryShape) {
  Checker checker;
  for (uint32_t format : kFormats) {
    for (uint32_t mask : kMasks) {
      if (mask && !takesMask(kernel())) break;
      for (int32_t srcChannels : {1, 2, 3, 4, 5, 6, 7, 8, 9, 33}) {
        for (int32_t dstChannels : {1, 2, 3, 4, 5, 6, 7, 8, 10, 33}) {
          for (int32_t frames : {1, 2, 3, 5, 7, 8, 15, 16, 17, 33, 67, 131}) {
            const int32_t partial = frames % 2 ? srcChannels * std::max(sampleBytes(format), 1) - 1 : 0;
            const Call call{kernel(), dstChannels, srcChannels, frames * srcChannels * sampleBytes(format) + partial,
                            format,   mask};
            checker.check(call, frames % 3 == 0, static_cast<size_t>(frames % 5));
            checker.check(call, false);
            checkInPlace(checker, call, frames % 2 == 0, frames % 4);
            if (HasFailure()) return;
          }
        }
      }
    }
  }
}

TEST_P(Kernels, WriteNothingWithoutAWholeFrameToConvert) {
  Checker checker;
  for (uint32_t format : {0u, 1u, 2u, 3u, 4u, 5u, 6u, 7u, 0xFFFFFFFFu})
    for (uint32_t mask : {0u, 0x3Fu, 0xFFFFu})
      for (int32_t srcChannels : {INT32_MIN, -1, 0, 1, 6})
        for (int32_t dstChannels : {INT32_MIN, -1, 0, 1, 2, 6})
          for (int32_t byteCount : {INT32_MIN, -1200, -1, 0, 1, 7, 13})
            checker.check({kernel(), dstChannels, srcChannels, byteCount, format, mask}, true);
}

TEST_P(Kernels, EqualTheirDefinitionOnRandomCalls) {
  Checker checker;
  Random random(99);
  for (int round = 0; round < 20000 && !HasFailure(); ++round) {
    const Call call{kernel(),
                    random.between(-1, 8),
                    random.between(-1, 8),
                    random.between(-10, 1990),
                    random.from(kFormats),
                    random.from(kMasks)};
    checker.check(call, random.oneIn(2), random.below(4));
    if (call.srcChannels > 0 && call.dstChannels > 0)
      checkInPlace(checker, call, random.oneIn(2), random.between(0, 70));
  }
}

// A frame with thousands of channels stays exact and off the stack; an upmix of 2^31 bytes writes nothing.
TEST(WideFrames, AreExact) {
  Checker checker;
  for (auto [format, channels] : {std::pair{1u, 20000}, {3u, 20000}, {6u, 180}})
    for (Kernel kernel : {kFold, kAverage, kToStereo, kStrip})
      for (uint32_t mask : {0u, 0x3Fu})
        checker.check({kernel, 2, channels, channels * sampleBytes(format), format, mask}, false);
  for (Kernel kernel : {kZeroFill, kDuplicate}) {
    for (auto [dstChannels, byteCount] : {std::pair{1 << 30, 2}, {INT32_MAX, 6}, {1 << 20, 1 << 11}}) {
      uint8_t untouched = 7;
      Call{kernel, dstChannels, 1, byteCount, 1}.run(&untouched, nullptr);
      EXPECT_EQ(untouched, 7);
    }
  }
}

struct Row {
  Call call;  // byteCount 0: the whole input
  std::vector<int64_t> in, out;
};
constexpr int64_t kMax16 = 32767, kMax24 = 8388607, kMax32 = 2147483647;

TEST(KnownFrames, ComeOutAsWorkedByHand) {
  const Row rows[] = {
      {{kStrip, 6, 8, 0, 1}, {0, 1, 2, 3, 4, 5, 6, 7}, {0, 1, 2, 3, 4, 5}},
      {{kStrip, 1, 2, 7, 1}, {1, 2, 3, 4}, {1}},
      {{kStrip, 1, 2, 11, 6}, {1, 2, 3, 4}, {1}},
      {{kFold, 1, 2, 0, 1}, {1000, -3000, 1, -1, -1, -1}, {-2830, -1, -4}},
      {{kFold, 3, 2, 0, 1}, {30000, 30000, -30000, -30000}, {kMax16, kMax16, kMax16, -32768, -32768, -32768}},
      {{kFold, 2, 1, 0, 1}, {1000, -1}, {1414, 1414, -2, -2}},
      {{kFold, 2, 1, 0, 6}, {1000, kMax24}, {1414, 1414, kMax24, kMax24}},
      {{kFold, 1, 2, 0, 3}, {-kMax32 - 1, -kMax32 - 1}, {-1518665728}},  // shift 17, two terms of -759332864
      {{kFold, 1, 6, 0, 3}, {1 << 19, 0, 0, 0, 0, -1}, {46346 - 1}},     // shift 19
      {{kAverage, 1, 2, 0, 1}, {-3, 0, 3, 0, 7, 8, -32768, -32768, kMax16, kMax16}, {-1, 1, 7, -32768, kMax16}},
      {{kAverage, 5, 3, 0, 1}, {-5, 0, 0}, {-1}},
      {{kAverage, -1, 2, 0, 3}, {-3, 0, kMax32, kMax32, -kMax32 - 1, -kMax32}, {-1, kMax32, -kMax32}},
      {{kAverage, 0, 2, 0, 6}, {-3, 0, 3, 0, kMax24, kMax24, -kMax24 - 1, -kMax24 - 1}, {-1, 1, kMax24, -kMax24 - 1}},
      {{kToMono, 1, 2, 0, 1, 0}, {1000, -3000}, {-1000}},
      {{kToMono, 2, 2, 0, 1, 3}, {1000, -3000}, {-2830, -2830}},
      {{kToMono, 1, 2, 0, 1, 0xFFFF}, {1000, -3000}, {-2830}},
      {{kToStereo, 2, 3, 0, 1, 7},
       {1000, -1000, 1000, 0, 0, -1, kMax16, 0, kMax16},
       {2414, 414, -2, -2, kMax16, kMax16}},
      {{kToStereo, 2, 4, 0, 1, 0x33}, {100, 200, 1000, -1000}, {1514, -1215}},
      {{kToStereo, 2, 6, 0, 1, 0x3F}, {-32768, -kMax16, kMax16, kMax16, 0, 0}, {13576, 13577}},  // g(t) = 46344
      {{kToStereo, 2, 6, 0, 1, 0x3F}, {0, 0, 0, 0, 1000, -1000}, {1414, -1415}},
      {{kToStereo, 2, 6, 0, 3, 0x3F}, {-kMax32, 0, kMax32, kMax32, 0, -kMax32}, {0, -1}},  // g saturates
      {{kToStereo, 2, 6, 0, 6, 0x3F}, {-kMax24, -kMax24, kMax24, 0, 0, 0}, {3475967, 3475967}},
      {{kToStereo, 2, 5, 0, 1, 0x3F}, {10, 20, 30, 40, 50}, {18, 12}},  // too few: pairwise
      {{kToStereo, 4, 3, 0, 6, 7}, {5, 6, 0, 7, 8, 0}, {5, 6, 0, 0, 7, 8, 0, 0}},
      {{kToStereo, 1, 3, 0, 6, 7}, {5, 6, 0, 7, 8, 0}, {5, 7}},
      {{kToStereo, 7, 2, 0, 6, 0}, {kMax24, -kMax24 - 1}, {4194303, -4194304}},
      {{kToStereo, 2, 2, 0, 1, 3}, {1000, -3}, {500, -1}},
      {{kToStereo, 2, 3, 0, 1, 0}, {300, 600, 900}, {400, 200}},
      {{kToStereo, 2, 1, 0, 1, 0}, {-7}, {-7, 0}},
      {{kToStereo, 2, 4, 0, 3, 0}, {kMax32, 0, kMax32, 0}, {1073741823, 0}},
      {{kZeroFill, 2, 1, 5, 1}, {11, 22, 33}, {11, 0, 22, 0}},
      {{kZeroFill, 4, 2, 0, 6}, {11, -22}, {11, -22, 0, 0}},
      {{kDuplicate, 8, 3, 0, 6}, {1, 2, 3}, {1, 2, 3, 1, 2, 3, 1, 2}},
      {{kDuplicate, 4, 2, 11, 1}, {1, 2, 3, 4, 5, 6}, {1, 2, 1, 2, 3, 4, 3, 4}},
      {{kDuplicate, 2, 3, 0, 1}, {1, 2, 3}, {1, 2}},
  };
  for (Row row : rows) {
    const int32_t bytes = sampleBytes(row.call.format);
    Bytes in, expected, out;
    for (int64_t sample : row.in) appendSample(in, sample, bytes);
    for (int64_t sample : row.out) appendSample(expected, sample, bytes);
    if (row.call.byteCount == 0) row.call.byteCount = static_cast<int32_t>(in.size());
    out.resize(expected.size());
    row.call.run(out.data(), in.data());
    EXPECT_EQ(out, expected) << row.call;
  }
}

TEST(Threads, ConvertSeparateBlocksAtOnce) {
  std::vector<std::thread> threads;
  for (int kernel = 0; kernel < kKernels; ++kernel)
    threads.emplace_back([kernel] {
      Checker checker;
      for (int round = 0; round < 200; ++round)
        checker.check({static_cast<Kernel>(kernel), 2, 6, 2400, kFormats[round % 4], 0x3F}, false);
    });
  for (std::thread& thread : threads) thread.join();
}

}  // namespace
