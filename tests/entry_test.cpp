// SPDX-License-Identifier: Apache-2.0
// The entry points: byte accounting and choice of kernel.
#include <gtest/gtest.h>

#include "oracle.h"
#include "random.h"

namespace {

constexpr size_t kRoom = 1 << 14;

// Runs an entry point on a marked dst and cuts what it wrote down to the expected length, so that a byte written
// behind it shows as well.
EntryResult run(bool upmix, uint32_t in, uint32_t out, uint32_t format, const Bytes& src, uint32_t inBytes,
                uint32_t outBytes, uint32_t mask, size_t expectedBytes) {
  Bytes dst(kRoom, 0xA5);
  if (upmix) {
    const int32_t code = Audio_Channel_Upmix(in, out, format, src.data(), &inBytes, dst.data(), &outBytes, mask);
    EXPECT_EQ(code, in > out ? -1 : 0);
  } else {
    EXPECT_EQ(Audio_Channel_Downmix(in, out, format, src.data(), &inBytes, dst.data(), &outBytes, mask), 0u);
  }
  while (dst.size() > expectedBytes && dst.back() == 0xA5) dst.pop_back();
  return {inBytes, outBytes, dst};
}

TEST(EntryPoints, AccountBytes) {
  const struct {
    bool upmix;
    uint32_t in, out, inBytes, capacity, inBytesAfter, outBytesAfter;
  } rows[] = {
      {false, 6, 2, 1200, 1000, 0, 400},
      {false, 6, 2, 1200, 400, 0, 400},
      {false, 6, 2, 1200, 300, 300, 300},
      {false, 6, 2, 1200, 301, 300, 301},
      {false, 6, 2, 1201, 999, 0, 400},
      {true, 2, 6, 400, 1200, 0, 1200},
      {true, 2, 6, 400, 600, 200, 600},
      {false, 2, 6, 400, 600, 400, 600},
      {true, 6, 2, 400, 600, 400, 600},
      {false, 2, 2, 400, 100, 300, 100},
      {true, 2, 2, 400, 500, 0, 400},
      {false, 6, 2, 0, 100, 0, 0},
      {true, 0, 2, 400, 600, 0, 0},
      {false, 2, 0, 400, 600, 0, 0},
      {false, 0, 0, 400, 600, 0, 0},
      {true, 1, 2, 0x80000000, 600, 0, 0},                  // need wraps to 0; the kernel sees a negative count
      {true, 1, 3, 0x60000000, 0x40000000, 0, 0x20000000},  // need wraps to 2^29; the true output passes 2^31
      {false, 0xFFFFFFFF, 2, 400, 600, 0, 0},
  };
  const Bytes src(2048, 1);
  for (const auto& row : rows)
    for (uint32_t format : {1u, 3u, 6u, 5u}) {
      const EntryResult result = run(row.upmix, row.in, row.out, format, src, row.inBytes, row.capacity, 0, 0);
      EXPECT_EQ(std::pair(result.inBytes, result.outBytes), std::pair(row.inBytesAfter, row.outBytesAfter))
          << row.in << " -> " << row.out << ", " << row.inBytes << " bytes, capacity " << row.capacity;
      if (format == 5) {
        EXPECT_EQ(result.written, Bytes());
      }
    }
}

TEST(EntryPoints, ReachTheirKernels) {
  constexpr uint32_t kFormats[] = {1, 3, 4, 6, 5}, kMasks[] = {0, 0xFFFF, 7, 0x33, 0x3F, 1};
  Random random(7);
  Bytes src(600);
  for (int round = 0; round < 30000 && !testing::Test::HasFailure(); ++round) {
    for (uint8_t& byte : src)
      if (random.oneIn(16)) byte = random.byte();
    const bool upmix = random.oneIn(2);
    const uint32_t in = random.below(10), out = random.below(10), format = random.from(kFormats);
    const uint32_t mask = random.from(kMasks), inBytes = random.below(600), capacity = random.below(3000);
    const EntryResult expected = entryResult(upmix, in, out, format, src.data(), inBytes, capacity, mask);
    EXPECT_EQ(run(upmix, in, out, format, src, inBytes, capacity, mask, expected.written.size()), expected)
        << (upmix ? "upmix " : "downmix ") << in << " -> " << out << ", format " << format << ", mask " << mask
        << ", " << inBytes << " bytes, capacity " << capacity;
  }
}

}  // namespace
