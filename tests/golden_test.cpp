// SPDX-License-Identifier: Apache-2.0
// What the kernels and the host's engines make of a fixed corpus stands in golden.txt: the same on every machine, by
// every compiler, at every optimisation level. A line a call: its name, and the CRC-32 of all its output.
#include <gtest/gtest.h>
#include <zlib.h>

#include <fstream>
#include <iomanip>
#include <sstream>

#include "oracle.h"
#include "platform/shifter_lib.h"
#include "random.h"
#include "stream.h"

namespace {

class Golden : public testing::Test {
 protected:
  Bytes noise(size_t bytes) {
    Bytes made(bytes);
    for (uint8_t& byte : made) byte = random_.byte();
    return made;
  }

  void add(const Bytes& output, const auto&... call) {
    const uLong crc = crc32_z(crc32(0, nullptr, 0), output.data(), output.size());
    (lines_ << ... << call) << ": " << std::hex << std::setw(8) << std::setfill('0') << crc << std::dec << '\n';
  }

  // The calls are those that golden.txt begins with, of 75 frames: more than a step of the widest vectors, and not
  // whole steps of any.
  void addKernels() {
    for (std::string line; std::getline(golden_, line);) {
      const std::optional<Call> call = parsedCall(line);
      if (!call) return;
      const Bytes input = noise(static_cast<size_t>(call->byteCount));
      Bytes output(outputBlock(*call, input.data()).size());
      call->run(output.data(), input.data());
      add(output, *call);
    }
  }

  void addResampler() {
    constexpr struct {
      uint32_t inRate, outRate, newRate, format, channels;
    } kStreams[] = {{44100, 48000, 0, 0, 2}, {44100, 48000, 0, 1, 6},     {44100, 48000, 0, 2, 1},
                    {44100, 48000, 0, 3, 8}, {48000, 44100, 0, 0, 1},     {48000, 44100, 0, 2, 3},
                    {48000, 16000, 0, 0, 2}, {16000, 48000, 0, 2, 2},     {44100, 44100, 0, 3, 2},
                    {44100, 48001, 0, 0, 4}, {48000, 44100, 46000, 0, 2}, {8000, 11025, 0, 1, 5}};
    for (const auto& [inRate, outRate, newRate, format, channels] : kStreams) {
      Resampler stream({inRate, channels, outRate, channels, format});
      Bytes output;
      for (int block = 0; block < 2; ++block) {
        const Bytes made = stream.run(noise(inRate / 400 * channels * (format < 2 ? 2 : 4)));
        output.insert(output.end(), made.begin(), made.end());
        if (newRate) stream.setRate(newRate);
      }
      std::ostringstream then;
      if (newRate) then << ", then " << newRate;
      add(output, "Resampler ", inRate, " to ", outRate, then.str(), " Hz, format ", format, ", ", channels,
          " channels");
    }
  }

  void addShifter() {
    constexpr size_t kBytesFrom[] = {2, 4, 4, 3};
    for (uint32_t type = 0; type < 12; ++type) {
      const uint32_t from = type / 3, to = type % 3 + (type % 3 >= from);
      const Bytes input = noise(100 * kBytesFrom[from]);
      Bytes output(100 * kBytesFrom[to]);
      auto in = static_cast<uint32_t>(input.size()), out = static_cast<uint32_t>(output.size());
      Shifter_Process(input.data(), &in, output.data(), &out, type);
      add(output, "Shifter ", type);
    }
  }

  void addLimiter() {
    for (const auto& [rate, channels] : {std::pair(8000u, 1u), {44100u, 2u}, {192000u, 1u}, {48000u, 2u}}) {
      Bytes input;
      for (uint32_t sample = 0; sample < 400 * channels; ++sample)  // ever more over full scale, then not
        appendSample(input, random_.between(-(1 << 24), 1 << 24) * int64_t{1 + sample / 80 % 5}, 4);
      add(Limiter(channels, rate).run(input), "Limiter ", rate, " Hz, ", channels, " channels");
    }
  }

  std::ifstream golden_{GOLDEN_FILE};
  Random random_{2024};
  std::ostringstream lines_;
};

TEST_F(Golden, EveryCallMakesTheBitsThatItAlwaysMade) {
  addKernels(), addResampler(), addShifter(), addLimiter();
  golden_.seekg(0);
  const std::string golden(std::istreambuf_iterator<char>(golden_), {});
  EXPECT_EQ(lines_.str(), golden);
  if (!HasFailure()) return;
  std::ofstream("golden.actual.txt") << lines_.str();
  std::cerr << "If the change is meant, replace " GOLDEN_FILE " by golden.actual.txt from the test's folder.\n";
}

}  // namespace
