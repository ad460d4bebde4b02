// SPDX-License-Identifier: Apache-2.0
// The host shifter against floating-point arithmetic, mostly near the ties and limits of each target format.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <span>

#include "guarded.h"
#include "oracle.h"
#include "platform/shifter_lib.h"
#include "random.h"

namespace {

using Values = std::vector<int64_t>;

struct Format {
  int fullScaleBits, rangeBits;
  size_t bytes;

  int64_t highest() const { return (int64_t{1} << rangeBits) - 1; }
};
constexpr Format k16{15, 15, 2}, k32{31, 31, 4}, k824{24, 31, 4}, k24{23, 23, 3};
constexpr std::pair<Format, Format> kTypes[] = {{k16, k32},  {k16, k824}, {k16, k24},  {k32, k16},
                                                {k32, k824}, {k32, k24},  {k824, k16}, {k824, k32},
                                                {k824, k24}, {k24, k16},  {k24, k32},  {k24, k824}};

Bytes packed(const Values& values, const Format& format) {
  Bytes bytes;
  for (const int64_t value : values) appendSample(bytes, value, static_cast<int32_t>(format.bytes));
  return bytes;
}

Values converted(const Values& values, const Format& from, const Format& to) {
  Values results;
  for (const int64_t value : values) {
    const double nearest =
        std::nearbyint(std::ldexp(static_cast<double>(value), to.fullScaleBits - from.fullScaleBits));
    results.push_back(std::clamp(static_cast<int64_t>(nearest), -to.highest() - 1, to.highest()));
  }
  return results;
}

// A multiple of a power of two, or a limit of any format, or a neighbour of these.
int64_t someValue(const Format& format, Random& random) {
  const int shift = random.between(0, format.rangeBits);
  const int64_t some = int64_t{static_cast<int32_t>(random.word())} >> (31 - format.rangeBits) >> shift << shift;
  const int64_t limit = int64_t{random.oneIn(2) ? 1 : -1} << random.from({15, 23, 24, 31});
  return std::clamp((random.oneIn(4) ? limit : some) + random.between(-2, 2), -format.highest() - 1,
                    format.highest());
}

// Converts a block at a guard page, sometimes in place if samples get no wider, with more input or room than whole
// samples need: the samples and counts are right, and no byte outside is touched.
void play(Random& random) {
  static Guarded src(1 << 12), dst(1 << 12);
  const uint32_t type = random.below(12);
  const auto& [from, to] = kTypes[type];
  const uint32_t offered = random.below(220), room = random.below(220);
  const bool inPlace = to.bytes <= from.bytes && random.oneIn(3);
  const size_t gap = random.below(5);
  Values values(std::min(offered / from.bytes, room / to.bytes));
  for (int64_t& value : values) value = someValue(from, random);
  const bool low = random.oneIn(2);

  const Bytes in = packed(values, from), expected = packed(converted(values, from, to), to);
  uint8_t* const block = src.place(inPlace ? std::max(offered, room) : offered, low, gap);
  uint8_t* const out = inPlace ? block : dst.place(room, low, gap);
  std::ranges::copy(in, block);
  uint32_t inBytes = offered, outBytes = room;
  EXPECT_EQ(Shifter_Process(block, &inBytes, out, &outBytes, type), 0);
  EXPECT_TRUE(inBytes == offered - in.size() && outBytes == expected.size()) << type;
  const auto wrong =
      static_cast<size_t>(std::ranges::mismatch(expected, std::span(out, room)).in1 - expected.begin());
  EXPECT_EQ(wrong, expected.size()) << "type " << type << ", value " << values[wrong / to.bytes];
  EXPECT_TRUE(src.surroundingsIntact() && (inPlace || dst.surroundingsIntact())) << type;
  EXPECT_TRUE(inPlace || std::all_of(out + outBytes, out + room, [](uint8_t b) { return b == Guarded::kMarker; }));
}

TEST(Shifter, MovesEveryPairOfFormatsExactlyAndKeepsToItsBlocks) {
  Random random(2);
  for (int round = 0; round < 40000; ++round) play(random);
  uint32_t inBytes = 8, outBytes = 8;
  EXPECT_EQ(Shifter_Process(nullptr, &inBytes, nullptr, &outBytes, 12), -1);
  EXPECT_TRUE(inBytes == 8 && outBytes == 0);
}

}  // namespace
