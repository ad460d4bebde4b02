// SPDX-License-Identifier: Apache-2.0
// What the kernels and the host's engines make of a fixed corpus stands in golden.txt: the same on every machine, by
// every compiler, at every optimisation level. A line a call: its name, the CRC-32 of all its output, and for each
// frame the low half of the CRC so far, which tell where a difference begins.
#include <gtest/gtest.h>
#include <zlib.h>

#include <fstream>

#include "oracle.h"
#include "platform/limiter_lib.h"
#include "platform/resampler_lib.h"
#include "platform/shifter_lib.h"
#include "random.h"

namespace {

Random random_(2024);

Bytes noise(size_t bytes) {
  Bytes made(bytes);
  for (uint8_t& byte : made) byte = random_.byte();
  return made;
}

struct Line {
  std::string name, crc, marks;
  size_t frames;

  Line(const std::string& call, const Bytes& output, size_t frameBytes)
      : name(call), frames(output.size() / frameBytes) {
    char digits[9] = "00000000";
    uLong sum = crc32(0, nullptr, 0);
    for (size_t at = 0; at < output.size(); at += frameBytes) {
      sum = crc32(sum, &output[at], static_cast<uInt>(frameBytes));
      std::snprintf(digits, sizeof digits, "%08lx", sum);
      marks += digits + 4;
    }
    crc = digits;
  }
  std::string text() const { return name + ": " + crc + " " + marks; }

  // Where this begins to differ from the text that is in golden.txt.
  std::string difference(const std::string& golden) const {
    if (!golden.starts_with(name + ": ")) return name + " is not the call that comes here";
    const std::string expected = golden.substr(std::min(golden.size(), golden.rfind(' ') + 1));
    if (marks == expected) return name + ": the CRC-32 is " + crc + ", and every frame is as it was";
    const auto first = std::ranges::mismatch(marks, expected).in1 - marks.begin();
    return name + ": frame " + std::to_string(first / 4) + " of " + std::to_string(frames) +
           " is the first to differ";
  }
};
using Lines = std::vector<Line>;

void addKernels(Lines& lines) {
  constexpr Call kShapes[] = {
      {kStrip, 4, 6, 0, 0},          {kStrip, 2, 8, 0, 0},          {kStrip, 1, 3, 0, 0},
      {kFold, 1, 2, 0, 0},           {kFold, 1, 6, 0, 0},           {kFold, 4, 3, 0, 0},
      {kFold, 1, 33, 0, 0},          {kAverage, 1, 2, 0, 0},        {kAverage, 1, 3, 0, 0},
      {kAverage, 1, 6, 0, 0},        {kAverage, 1, 7, 0, 0},        {kToMono, 1, 4, 0, 0, 0},
      {kToMono, 1, 8, 0, 0, 0xFFFF}, {kToStereo, 2, 3, 0, 0, 7},    {kToStereo, 2, 3, 0, 0, 0x103},
      {kToStereo, 2, 4, 0, 0, 0x33}, {kToStereo, 2, 6, 0, 0, 0x3F}, {kToStereo, 2, 8, 0, 0, 0},
      {kToStereo, 2, 5, 0, 0, 0},    {kToStereo, 3, 6, 0, 0, 0x3F}, {kFoldDispatch, 2, 6, 0, 0, 0x3F},
      {kFoldDispatch, 1, 6, 0, 0},   {kFoldDispatch, 3, 2, 0, 0},   {kZeroFill, 2, 1, 0, 0},
      {kZeroFill, 6, 2, 0, 0},       {kZeroFill, 8, 6, 0, 0},       {kDuplicate, 2, 1, 0, 0},
      {kDuplicate, 6, 2, 0, 0},      {kDuplicate, 8, 3, 0, 0},      {kDuplicate, 8, 1, 0, 0}};
  constexpr int32_t kFrames = 75;  // more than a step of the widest vectors, and not whole steps of any
  for (Call call : kShapes)
    for (const uint32_t format : {1u, 3u, 4u, 6u}) {
      call.format = format;
      call.byteCount = kFrames * call.srcChannels * call.sampleBytes();
      const Bytes input = noise(static_cast<size_t>(call.byteCount));
      Bytes output(outputBlock(call, input.data()).size());
      call.run(output.data(), input.data());
      lines.emplace_back(testing::PrintToString(call), output, output.size() / kFrames);
    }
}

void addResampler(Lines& lines) {
  constexpr struct {
    uint32_t inRate, outRate, newRate, format, channels;
  } kStreams[] = {{44100, 48000, 0, 0, 2}, {44100, 48000, 0, 1, 6},     {44100, 48000, 0, 2, 1},
                  {44100, 48000, 0, 3, 8}, {48000, 44100, 0, 0, 1},     {48000, 44100, 0, 2, 3},
                  {48000, 16000, 0, 0, 2}, {16000, 48000, 0, 2, 2},     {44100, 44100, 0, 3, 2},
                  {44100, 48001, 0, 0, 4}, {48000, 44100, 46000, 0, 2}, {8000, 11025, 0, 1, 5}};
  for (const auto& [inRate, outRate, newRate, format, channels] : kStreams) {
    SrcParam param{inRate, channels, outRate, channels, format};
    uint32_t internalBytes = 0, scratchBytes = 0;
    ASSERT_EQ(Palix_GetBufferSize(&internalBytes, &scratchBytes, &param), 0);
    Bytes internal(internalBytes), scratch(scratchBytes), output;
    void* instance = nullptr;
    Palix_Open(&instance, internal.data(), &param);
    const uint32_t blockBytes = inRate / 400 * channels * (format < 2 ? 2 : 4);
    for (int block = 0; block < 2; ++block) {
      const Bytes input = noise(blockBytes);
      Bytes made(1 << 15);
      auto in = static_cast<uint32_t>(input.size()), out = static_cast<uint32_t>(made.size());
      Palix_Process(instance, scratch.data(), input.data(), &in, made.data(), &out);
      EXPECT_EQ(in, 0u);
      output.insert(output.end(), made.begin(), made.begin() + out);
      if (newRate) Palix_SetSamplingRate(instance, newRate);
    }
    lines.emplace_back("Resampler " + std::to_string(inRate) + " to " + std::to_string(outRate) +
                           (newRate ? ", then " + std::to_string(newRate) : "") + " Hz, format " +
                           std::to_string(format) + ", " + std::to_string(channels) + " channels",
                       output, channels * (format == 0 ? 2 : 4));
  }
}

void addShifter(Lines& lines) {
  constexpr size_t kBytesFrom[] = {2, 4, 4, 3};
  for (uint32_t type = 0; type < 12; ++type) {
    const uint32_t from = type / 3, to = type % 3 + (type % 3 >= from);
    const Bytes input = noise(100 * kBytesFrom[from]);
    Bytes output(100 * kBytesFrom[to]);
    auto in = static_cast<uint32_t>(input.size()), out = static_cast<uint32_t>(output.size());
    Shifter_Process(input.data(), &in, output.data(), &out, type);
    lines.emplace_back("Shifter " + std::to_string(type), output, kBytesFrom[to]);
  }
}

void addLimiter(Lines& lines) {
  for (const auto& [rate, channels] : {std::pair(8000u, 1u), {44100u, 2u}, {192000u, 1u}, {48000u, 2u}}) {
    uint32_t internalBytes = 0, scratchBytes = 0;
    Limiter_GetBufferSize(&internalBytes, &scratchBytes, KES_CONVERT_LIMITER);
    Bytes internal(internalBytes), input;
    void* instance = nullptr;
    LimiterParam param{channels, rate, 0, 0};
    ASSERT_EQ(Limiter_Open(&instance, internal.data(), &param), 0);
    for (uint32_t sample = 0; sample < 400 * channels; ++sample)  // ever more over full scale, then not
      appendSample(input, random_.between(-(1 << 24), 1 << 24) * int64_t{1 + sample / 80 % 5}, 4);
    Bytes output(input.size() / 2);
    auto in = static_cast<uint32_t>(input.size()), out = static_cast<uint32_t>(output.size());
    Limiter_Process(instance, nullptr, input.data(), &in, output.data(), &out);
    lines.emplace_back("Limiter " + std::to_string(rate) + " Hz, " + std::to_string(channels) + " channels", output,
                       2 * channels);
  }
}

TEST(Golden, EveryCallMakesTheBitsThatItAlwaysMade) {
  Lines lines;
  addKernels(lines), addResampler(lines), addShifter(lines), addLimiter(lines);
  std::ifstream golden(GOLDEN_FILE);
  std::string expected;
  for (const Line& line : lines) {
    if (!std::getline(golden, expected)) expected.clear();
    if (line.text() != expected) ADD_FAILURE() << line.difference(expected);
  }
  EXPECT_FALSE(std::getline(golden, expected)) << "left in golden.txt: " << expected.substr(0, 50);
  if (!HasFailure()) return;
  std::ofstream actual("golden.actual.txt");
  for (const Line& line : lines) actual << line.text() << '\n';
  std::cerr << "If the change is meant, replace " GOLDEN_FILE " by golden.actual.txt from the test's folder.\n";
}

}  // namespace
