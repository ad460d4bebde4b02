// SPDX-License-Identifier: Apache-2.0
// The host shifter against its arithmetic in floating point: every 16-bit value, and of the wider formats the values
// around the ties and limits of each target.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

#include "builds.h"
#include "guarded.h"
#include "platform/shifter_lib.h"
#include "random.h"

namespace {

using Values = std::vector<int64_t>;
using Bytes = std::vector<uint8_t>;

struct Format {
  int fullScaleBits, rangeBits;
  size_t bytes;

  int64_t highest() const { return (int64_t{1} << rangeBits) - 1; }
};
constexpr Format k16{15, 15, 2}, k32{31, 31, 4}, k824{24, 31, 4}, k24{23, 23, 3};
constexpr std::pair<Format, Format> kTypes[] = {{k16, k32},  {k16, k824}, {k16, k24},  {k32, k16},
                                                {k32, k824}, {k32, k24},  {k824, k16}, {k824, k32},
                                                {k824, k24}, {k24, k16},  {k24, k32},  {k24, k824}};

const auto& shifters() {
  static const auto all = [] {
    std::vector<decltype(&Shifter_Process)> found;
    for (const Build& build : buildsOf("kesshifter_vendor")) build.find(found.emplace_back(), "Shifter_Process");
    return found;
  }();
  return all;
}

Bytes packed(const Values& values, const Format& format) {
  Bytes bytes;
  for (const int64_t value : values)
    for (size_t i = 0; i < format.bytes; ++i) bytes.push_back(static_cast<uint8_t>(value >> 8 * i));
  return bytes;
}

Values exactly(const Values& values, const Format& from, const Format& to) {
  Values moved;
  for (const int64_t value : values) {
    const double nearest =
        std::nearbyint(std::ldexp(static_cast<double>(value), to.fullScaleBits - from.fullScaleBits));
    moved.push_back(std::clamp(static_cast<int64_t>(nearest), -to.highest() - 1, to.highest()));
  }
  return moved;
}

// A multiple of half of a power of two, or a limit of any format, or a neighbour of these.
int64_t someValue(const Format& format, Random& random) {
  const int shift = random.between(0, format.rangeBits);
  const int64_t some = int64_t{static_cast<int32_t>(random.word())} >> (31 - format.rangeBits) >> shift << shift;
  const int64_t limit = int64_t{random.oneIn(2) ? 1 : -1} << random.from({15, 23, 24, 31});
  return std::clamp((random.oneIn(4) ? limit : some) + random.between(-2, 2), -format.highest() - 1,
                    format.highest());
}

Values interesting(const Format& format) {
  Values values;
  if (format.bytes == 2)
    for (int64_t value = -32768; value < 32768; ++value) values.push_back(value);
  Random random(1);
  for (int i = 0; format.bytes > 2 && i < 20000; ++i) values.push_back(someValue(format, random));
  return values;
}

TEST(Shifter, MovesEveryPairOfFormatsExactly) {
  for (const auto shifter : shifters()) {
    for (uint32_t type = 0; type < 12; ++type) {
      const auto& [from, to] = kTypes[type];
      const Values values = interesting(from);
      const Bytes in = packed(values, from), expected = packed(exactly(values, from, to), to);
      Bytes out(expected.size());
      auto inBytes = static_cast<uint32_t>(in.size()), outBytes = static_cast<uint32_t>(out.size());
      EXPECT_EQ(shifter(in.data(), &inBytes, out.data(), &outBytes, type), 0);
      EXPECT_TRUE(inBytes == 0 && outBytes == out.size()) << type;
      const auto wrong = std::mismatch(out.begin(), out.end(), expected.begin()).first - out.begin();
      EXPECT_TRUE(out == expected) << "type " << type << ", value " << values[static_cast<size_t>(wrong) / to.bytes];
    }
  }
}

TEST(Shifter, RoundTripsOf16BitsAreExact) {
  const Bytes all = packed(interesting(k16), k16);
  Bytes stages[5] = {all};
  for (const auto& [stage, type, bytes] : {std::tuple{1, 2u, 3}, {2, 10u, 4}, {3, 4u, 4}, {4, 6u, 2}}) {
    stages[stage].resize(static_cast<size_t>(65536 * bytes));
    auto inBytes = static_cast<uint32_t>(stages[stage - 1].size()), outBytes = static_cast<uint32_t>(65536 * bytes);
    shifters()[0](stages[stage - 1].data(), &inBytes, stages[stage].data(), &outBytes, type);
  }
  EXPECT_TRUE(stages[4] == all);
}

// Not a byte outside, whole samples, and what fits; in place where a sample gets no wider.
void play(Random& random) {
  static Guarded src(512), dst(512);
  const uint32_t type = random.below(12);
  const auto& [from, to] = kTypes[type];
  const uint32_t offered = random.below(220), room = random.below(220);
  const size_t count = std::min(offered / from.bytes, room / to.bytes);
  const bool inPlace = to.bytes <= from.bytes && random.oneIn(3);
  const size_t gap = random.below(5);
  Values values(count);
  for (int64_t& value : values) value = someValue(from, random);
  const Bytes in = packed(values, from), expected = packed(exactly(values, from, to), to);
  for (const auto shifter : shifters()) {
    uint8_t* const block = src.place(inPlace ? std::max(offered, room) : offered, random.oneIn(2), gap);
    uint8_t* const out = inPlace ? block : dst.place(room, random.oneIn(2), gap);
    std::copy(in.begin(), in.end(), block);
    uint32_t inBytes = offered, outBytes = room;
    EXPECT_EQ(shifter(block, &inBytes, out, &outBytes, type), 0);
    EXPECT_TRUE(inBytes == offered - in.size() && outBytes == expected.size()) << type;
    EXPECT_TRUE(std::equal(expected.begin(), expected.end(), out)) << type << ", " << count << " samples";
    EXPECT_TRUE(src.surroundingsIntact() && (inPlace || dst.surroundingsIntact())) << type;
    EXPECT_TRUE(inPlace || std::all_of(out + outBytes, out + room, [](uint8_t b) { return b == Guarded::kMarker; }));
  }
}

TEST(Shifter, KeepsToItsBlocks) {
  Random random(2);
  for (int round = 0; round < 4000; ++round) play(random);
  for (const auto shifter : shifters()) {
    uint32_t inBytes = 8, outBytes = 8;
    EXPECT_EQ(shifter(nullptr, &inBytes, nullptr, &outBytes, 12), -1);
    EXPECT_TRUE(inBytes == 8 && outBytes == 0);
  }
}

}  // namespace
