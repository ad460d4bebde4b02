// SPDX-License-Identifier: Apache-2.0
// Frames worked by hand, and blocks too large for tests/prove, which compares the kernels with their definitions.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "oracle.h"

namespace {

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
