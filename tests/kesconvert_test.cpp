// SPDX-License-Identifier: Apache-2.0
// kesconvert as its users meet it: a program that is run on files, good and bad, in a folder of its own. What needs
// no more than a shell stands in kesconvert/works.txt and fails.txt.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "random.h"

namespace fs = std::filesystem;

namespace {

std::string contentOf(const fs::path& file) {
  std::ostringstream content;
  content << std::ifstream(file, std::ios::binary).rdbuf();
  return content.str();
}

// What stands in a file of cases between matches of the expression, without its comments.
std::vector<std::string> casesOf(const char* file, const char* between) {
  const std::string all = std::regex_replace(contentOf(fs::path(CASES) / file), std::regex("(^|\n)#[^\n]*"), "$1");
  const std::regex separator(between);
  std::vector<std::string> cases(std::sregex_token_iterator(all.begin(), all.end(), separator, -1), {});
  std::erase_if(cases, [](const std::string& text) { return text.empty(); });
  EXPECT_FALSE(cases.empty()) << file;
  return cases;
}

class Kesconvert : public testing::Test {
 protected:
  void SetUp() override {
    folder_ = mkdtemp((fs::temp_directory_path() / "kesconvert-XXXXXX").string().data());
    setenv("K", KESCONVERT, 1);
    setenv("SEEDS", CASES "/../fuzz/corpus/kesconvert", 1);
    std::ofstream noise(folder_ / "noise", std::ios::binary);
    for (Random random(1); noise.tellp() < 90000;) noise.put(static_cast<char>(random.byte()));
    noise.close();
    succeed("inputs.txt");
  }
  void TearDown() override { fs::remove_all(folder_); }

  // Runs a shell command in the folder and returns its exit code; $K is the program.
  int run(const std::string& command) {
    const std::string start = ". " CASES "/functions.sh && cd " + folder_.string();
    const int status = std::system((start + " && { " + command + "\n} >.out 2>.err").c_str());
    out_ = std::regex_replace(contentOf(folder_ / ".out"), std::regex("\n"), "|");
    err_ = contentOf(folder_ / ".err");
    return WEXITSTATUS(status);
  }

  // Runs each paragraph of a file.
  void succeed(const char* file) {
    for (const std::string& command : casesOf(file, "\n\n+"))
      EXPECT_EQ(run(command), 0) << command << "\n" << out_ << err_;
  }

  // Every file in the folder and what is in it, but for the program's messages.
  std::map<std::string, std::string> files() const {
    std::map<std::string, std::string> found;
    for (const auto& entry : fs::directory_iterator(folder_))
      found[entry.path().filename()] = contentOf(entry.path());
    found.erase(".out");
    found.erase(".err");
    return found;
  }

  fs::path folder_;
  std::string out_;  // with | for the ends of lines
  std::string err_;
};

TEST_F(Kesconvert, DoesAsAShellExpects) { succeed("works.txt"); }

// Length, place in time and level are exact, for each kind of samples and each flavour of the resampler.
TEST_F(Kesconvert, ResamplesInTime) {
  constexpr struct {
    int inRate, outRate, sampleBytes, channels, frames, impulse;
    const char *options, *flavour;
  } kCases[] = {
      {44100, 48000, 2, 2, 44100, 14700, "", "plain"},
      {48000, 44100, 3, 2, 48001, 48000, "--multichannel", "multichannel"},
      {48000, 16000, 4, 6, 5000, 0, "--block 7", "multichannel"},
      {44100, 48001, 2, 1, 3, 1, "--block 1", "multichannel"},
      {8000, 768000, 3, 3, 100, 50, "--block 10", "multichannel"},
      {96000, 4000, 2, 8, 1, 0, "", "multichannel"},
      {48000, 44100, 2, 2, 0, 0, "", "plain"},
  };
  for (const auto& [inRate, outRate, sampleBytes, channels, frames, impulse, options, flavour] : kCases) {
    std::ostringstream command;
    command << "$K - - --raw " << inRate << ':' << channels << ":s" << 8 * sampleBytes << " --rate " << outRate << ' '
            << options << " <in >out";
    SCOPED_TRACE(command.str());
    std::string in(static_cast<std::size_t>(frames * channels * sampleBytes), '\0');
    for (int c = 1; c <= channels && frames > 0; ++c)  // half of full scale
      in[static_cast<std::size_t>((impulse * channels + c) * sampleBytes - 1)] = 0x40;
    std::ofstream(folder_ / "in", std::ios::binary) << in;
    ASSERT_EQ(run(command.str()), 0) << err_;
    EXPECT_NE(err_.find(std::string("by the ") + flavour + " resampler"), std::string::npos) << err_;

    const std::string out = contentOf(folder_ / "out");
    const auto outFrames = (std::int64_t{frames} * outRate + inRate - 1) / inRate;
    ASSERT_EQ(std::ssize(out), outFrames * channels * sampleBytes);
    for (int c = 0; c < channels && frames > 0; ++c) {
      int peak = INT32_MIN;
      std::int64_t place = 0;
      for (std::int64_t n = 0; n < outFrames; ++n) {
        int sample = 0;  // in the high bits
        out.copy(reinterpret_cast<char*>(&sample) + 4 - sampleBytes, static_cast<std::size_t>(sampleBytes),
                 static_cast<std::size_t>((n * channels + c) * sampleBytes));
        if (sample > peak) peak = sample, place = n;
      }
      const double ratio = static_cast<double>(outRate) / inRate;
      EXPECT_NEAR(static_cast<double>(place), impulse * ratio, 0.5) << "channel " << c;
      EXPECT_NEAR(peak / std::min(ratio, 1.0), 1 << 30, 1 << 27) << "channel " << c;
    }
  }
}

TEST_F(Kesconvert, SaysInOneLineWhatIsWrongAndLeavesNothingBehind) {
  std::vector<std::string> cases = casesOf("fails.txt", "\n");
  for (const auto& entry : fs::directory_iterator(folder_ / "cut")) {
    const std::string name = entry.path().filename();
    cases.push_back("1 $K cut/" + name + " old.wav => " + name);
  }
  for (const std::string name : {"two.wav", "two.flac"})  // cut at every byte
    for (std::uintmax_t bytes = fs::file_size(folder_ / name); bytes-- > 0;)
      cases.push_back("1 head -c " + std::to_string(bytes) + " " + name + " | $K - old.wav => ");

  const auto before = files();
  for (const std::string& row : cases) {
    std::smatch parts;
    ASSERT_TRUE(std::regex_match(row, parts, std::regex(R"(([012]) (?:\[(.*)\] )?(.*) => (.*))"))) << row;
    if (parts[2].matched && run(parts[2]) != 0) continue;
    const int exitCode = std::stoi(parts[1]);
    EXPECT_EQ(run(parts[3]), exitCode) << row;
    const std::string says =
        exitCode == 0 ? "[^]*" + parts[4].str() + "[^]*" : "kesconvert: .*" + parts[4].str() + ".*\n";
    EXPECT_TRUE(std::regex_match(err_, std::regex(says))) << row << "\n" << err_;
    EXPECT_TRUE(files() == before) << row;
  }
}

}  // namespace
