// SPDX-License-Identifier: Apache-2.0
// golden.txt holds the CRC-32 of the output of fixed calls, one a line: the same on every machine, by every compiler,
// at every optimisation level. It is there for the host's engines, whose floating point no test calculates otherwise.
// Every call begins the same noise anew.
#include <gtest/gtest.h>
#include <zlib.h>

#include <fstream>
#include <iomanip>
#include <sstream>

#include "kesaudio/kesaudio.h"
#include "oracle.h"
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

  // What a call of golden.txt makes of the next noise.
  Bytes outputOf(const std::string& line) {
    const auto read = [&line](const char* form, auto&... numbers) {
      return std::sscanf(line.c_str(), form, &numbers...) == sizeof...(numbers);
    };
    uint32_t rate, outRate, newRate, format, channels, type;
    if (read("Resampler %u to %u, then %u Hz, format %u, %u channels", rate, outRate, newRate, format, channels))
      return resampler({rate, channels, outRate, channels, format}, newRate);
    if (read("Limiter %u Hz, %u channels", rate, channels)) return limiter(rate, channels);
    if (read("Components %u to %u Hz, type %u", rate, outRate, type)) return components(rate, outRate, type);
    ADD_FAILURE() << "no call: " << line;
    return {};
  }

  Bytes resampler(const SrcParam& param, uint32_t newRate) {
    Resampler stream(param);
    Bytes output;
    for (int block = 0; block < 2; ++block) {
      const Bytes made = stream.run(noise(param.inSampleRate / 400 * inFrameBytes(param)));
      output.insert(output.end(), made.begin(), made.end());
      stream.setRate(newRate);
    }
    return output;
  }

  Bytes limiter(uint32_t rate, uint32_t channels) {
    Bytes input;
    for (uint32_t sample = 0; sample < 400 * channels; ++sample)  // ever more over full scale, then not
      appendSample(input, random_.between(-(1 << 24), 1 << 24) * int64_t{1 + sample / 80 % 5}, 4);
    return Limiter(channels, rate).run(input);
  }

  // The library on its own engines, wherever they are: 5.1 in 8.24 through all components, and their log.
  Bytes components(uint32_t rate, uint32_t outRate, ConvertType type) {
    setenv("KESAUDIO_LOG", "3", 1);
    testing::internal::CaptureStderr();
    KesAudioChannelConverterInC mixer;
    InitKesAudioChannelConverterInC(&mixer);
    EXPECT_EQ(mixer.Open(&mixer, 6, 2, KES_PCM_Q8_24), KES_OK);
    KesAudioSrcInC resampler;
    InitKesAudioSrcInC(&resampler);
    EXPECT_EQ(resampler.MultiChannel_Open(&resampler, rate, 2, outRate, 2, KES_RESAMPLER_Q8_24), KES_OK);
    KesAudioBitConverterC converter;
    InitKesAudioBitConverterC(&converter);
    EXPECT_EQ(converter.Open(&converter, outRate, 2, type), KES_OK);
    const auto pass = [](auto& component, const Bytes& block, uint32_t room) {
      Bytes made(room);
      auto left = static_cast<uint32_t>(block.size());
      EXPECT_EQ(component.Process(&component, block.data(), &left, made.data(), &room), KES_OK);
      made.resize(room);
      return made;
    };
    Bytes output;
    for (int block = 0; block < 2; ++block) {
      Bytes made = pass(mixer, noise(rate / 100 * 24), rate / 100 * 8);
      made = pass(converter, pass(resampler, made, outRate / 100 * 8), outRate / 100 * 8);
      output.insert(output.end(), made.begin(), made.end());
    }
    resampler.Close(&resampler), converter.Close(&converter);
    const std::string log = testing::internal::GetCapturedStderr();
    unsetenv("KESAUDIO_LOG");
    EXPECT_FALSE(log.empty());
    output.insert(output.end(), log.begin(), log.end());
    return output;
  }

  Random random_{2024};
};

TEST_F(Golden, EveryCallMakesTheBitsThatItAlwaysMade) {
  std::ifstream golden(GOLDEN_FILE);
  std::ostringstream actual;
  int calls = 0;
  for (std::string line; std::getline(golden, line); ++calls) {
    random_ = Random(2024);
    const Bytes output = outputOf(line);
    actual << line.substr(0, line.rfind(':')) << ": " << std::hex << std::setw(8) << std::setfill('0')
           << crc32_z(crc32(0, nullptr, 0), output.data(), output.size()) << '\n';
    EXPECT_TRUE(actual.str().ends_with(line + '\n')) << line;
  }
  EXPECT_EQ(calls, 18);
  if (!HasFailure()) return;
  std::ofstream("golden.actual.txt") << actual.str();
  std::cerr << "If the change is meant, replace " GOLDEN_FILE " by golden.actual.txt from the test's folder.\n";
}

}  // namespace
