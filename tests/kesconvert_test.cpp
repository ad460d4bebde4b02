// SPDX-License-Identifier: Apache-2.0
// kesconvert as its users meet it: a program that is run on files, good and bad, in a folder of its own.
#include <gtest/gtest.h>
#include <kesaudio/channel_entry.h>
#include <sndfile.h>
#include <sys/wait.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

namespace fs = std::filesystem;

namespace {

constexpr int kFrames = 5000;  // more than a block, and not a multiple of it

std::string contentOf(const fs::path& file) {
  std::ostringstream content;
  content << std::ifstream(file, std::ios::binary).rdbuf();
  return content.str();
}

// Samples as libsndfile gives them, in the high bits of 32, packed into bytes of each.
std::string packed(const std::vector<int>& samples, std::size_t sampleBytes) {
  std::string bytes;
  for (const int sample : samples)
    bytes.append(reinterpret_cast<const char*>(&sample) + 4 - sampleBytes, sampleBytes);
  return bytes;
}

class Kesconvert : public testing::Test {
 protected:
  void SetUp() override {
    folder_ = mkdtemp((fs::temp_directory_path() / "kesconvert-XXXXXX").string().data());
    setenv("K", KESCONVERT, 1);
  }
  void TearDown() override { fs::remove_all(folder_); }

  // Runs a shell command in the folder, $K is the program, and returns its exit code.
  int run(const std::string& command) {
    const int status = std::system(("cd " + folder_.string() + " && { " + command + "; } >.out 2>.err").c_str());
    out_ = std::regex_replace(contentOf(folder_ / ".out"), std::regex("\n"), "|");
    err_ = contentOf(folder_ / ".err");
    return WEXITSTATUS(status);
  }

  // Writes noise that reaches both limits, and returns it.
  std::vector<int> write(const std::string& name, int format, unsigned channels, std::vector<int> map = {}) {
    SF_INFO info{0, 48000, static_cast<int>(channels), format, 0, 0};
    SNDFILE* file = sf_open((folder_ / name).c_str(), SFM_WRITE, &info);
    sf_command(file, SFC_SET_CHANNEL_MAP_INFO, map.data(), static_cast<int>(map.size() * sizeof(int)));
    std::vector<int> samples(kFrames * channels);
    std::uint32_t noise = 1;
    for (int& sample : samples) sample = static_cast<int>(noise = noise * 1664525 + 1013904223);
    samples.front() = INT32_MAX;
    samples.back() = INT32_MIN;
    sf_writef_int(file, samples.data(), kFrames);
    sf_close(file);
    return samples;
  }

  std::vector<int> read(const std::string& name, SF_INFO& info) {
    SNDFILE* file = sf_open((folder_ / name).c_str(), SFM_READ, &info);
    std::vector<int> samples(static_cast<std::size_t>(info.frames * info.channels));
    sf_readf_int(file, samples.data(), info.frames);
    sf_close(file);
    return samples;
  }

  void put(const std::string& name, const std::string& content) {
    std::ofstream(folder_ / name, std::ios::binary) << content;
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

constexpr int kFl = SF_CHANNEL_MAP_LEFT, kFr = SF_CHANNEL_MAP_RIGHT, kFc = SF_CHANNEL_MAP_CENTER,
              kLfe = SF_CHANNEL_MAP_LFE;
const std::vector<int> k5Point1 = {kFl, kFr, kFc, kLfe, SF_CHANNEL_MAP_REAR_LEFT, SF_CHANNEL_MAP_REAR_RIGHT};
const std::vector<int> k5Point1Side = {kFl, kFr, kFc, kLfe, SF_CHANNEL_MAP_SIDE_LEFT, SF_CHANNEL_MAP_SIDE_RIGHT};

TEST_F(Kesconvert, ConvertsAsTheLibraryDoesAndSaysHow) {
  constexpr int kWav = SF_FORMAT_WAV, kWavex = SF_FORMAT_WAVEX;
  const struct {
    int container;
    unsigned bytes, inChannels;
    std::vector<int> map;
    std::string out;
    unsigned outChannels;
    std::string options;
    ChannelMask mask;  // for the library
    const char* says;
    ChannelMask wavMask;  // of an extensible WAV
  } kCases[] = {
      {kWavex, 2, 6, k5Point1, "o.wav", 2, "", 0x3F, "5.1 .*from the file's channel map.*5.1 .*To_Stereo", 0},
      {kWavex, 3, 6, k5Point1Side, "o.wav", 2, "", 0x3F, "5.1-side .*side channels are mixed as back", 0x3},
      {kWavex, 2, 3, {kFl, kFr, kLfe}, "o.aiff", 2, "", 0xB, "2.1 .*from the file", 0},
      {kWav, 4, 4, {}, "o.wav", 2, "--layout quad --block 1", 0x33, "quad .*from --layout", 0x3},
      {kWav, 2, 8, {}, "o.flac", 2, "--layout 0x3F", 0x3F, "from 7 on have no position.*from 7 on are left out", 0},
      {SF_FORMAT_FLAC, 3, 6, {}, "o.caf", 2, "", 0x3F, "5.1 .*FLAC's fixed order", 0},
      {kWav, 2, 6, {}, "o.wav", 2, "", 0, "unknown.*pairwise average", 0},
      {kWav, 3, 4, {}, "o.flac", 2, "--layout quad-side", 0, "quad-side.*pairwise average", 0},
      {kWavex, 2, 6, k5Point1, "o.wav", 1, "--block 7", 0, "Fold_Mono_Average", 0},
      {kWavex, 2, 6, k5Point1, "o.wav", 4, "", 0, "Strip.*FL FR FC LFE,", 0xF},
      {SF_FORMAT_AIFF, 3, 2, {}, "o.wav", 6, "--upmix zero", 0, "WithZero.*5.1 ", 0x3F},
      {SF_FORMAT_CAF, 4, 1, {}, "o.wav", 3, "", 0, "mono.*Duplicate.*3.0", 0x7},
      {SF_FORMAT_CAF, 2, 3, {kFc, kFl, kFr}, "o.wav", 2, "", 0, "no usual order.*pairwise average", 0},
      {kWav, 2, 2, {}, "o.wav", 2, "", 0, "stereo.*copied as they are", 0},
      {kWav, 2, 6, {}, "o.wav", 6, "", 0, "output: .*unknown", 0},
      {kWavex, 2, 6, k5Point1Side, "o.flac", 6, "", 0, "readers will take it for 5.1 ", 0},
      {SF_FORMAT_RF64, 2, 6, k5Point1, "o.w64", 8, "", 0, "readers will take it for unknown", 0},
  };
  for (const auto& [container, bytes, inChannels, map, out, outChannels, options, mask, says, wavMask] : kCases) {
    SCOPED_TRACE(testing::Message() << inChannels << " channels to " << outChannels << " in " << out << ": " << says);
    const int subtype = SF_FORMAT_PCM_16 + static_cast<int>(bytes) - 2;
    const std::string in = packed(write("in", container | subtype, inChannels, map), bytes);
    std::string want(std::size_t{kFrames} * outChannels * bytes, '\0');
    const PcmFormat format = bytes == 2 ? KES_PCM_S16 : bytes == 3 ? KES_PCM_S24_PACKED : KES_PCM_S32;
    auto inBytes = static_cast<std::uint32_t>(in.size()), outBytes = static_cast<std::uint32_t>(want.size());
    if (inChannels == outChannels) want = in;
    if (inChannels > outChannels)
      Audio_Channel_Downmix(inChannels, outChannels, format, in.data(), &inBytes, want.data(), &outBytes, mask);
    if (inChannels < outChannels)
      Audio_Channel_Upmix(inChannels, outChannels, format, in.data(), &inBytes, want.data(), &outBytes,
                          options == "--upmix zero");

    ASSERT_EQ(run("$K in " + out + " --channels " + std::to_string(outChannels) + " " + options), 0) << err_;
    SF_INFO info{};
    EXPECT_EQ(packed(read(out, info), bytes), want);
    EXPECT_EQ(info.format & SF_FORMAT_SUBMASK, subtype);
    EXPECT_TRUE(std::regex_search(out_, std::regex(says))) << out_;
    const std::string header = contentOf(folder_ / out).substr(0, 44);
    const bool isExtensible = header.starts_with("RIFF") && header.substr(20, 2) == "\xFE\xFF";
    EXPECT_EQ(isExtensible, out == "o.wav" && (outChannels > 2 || bytes > 2));
    EXPECT_EQ(isExtensible ? static_cast<unsigned char>(header[40]) : 0, wavMask);
  }
}

// Length and place in time are exact, for each kind of samples and each flavour of the resampler.
TEST_F(Kesconvert, ResamplesInTime) {
  constexpr struct {
    int inRate, outRate, subtype, channels, frames, impulse;
    const char* options;
  } kCases[] = {
      {44100, 48000, SF_FORMAT_PCM_16, 2, 44100, 14700, ""},
      {48000, 44100, SF_FORMAT_PCM_24, 2, 48001, 48000, "--multichannel"},
      {48000, 16000, SF_FORMAT_PCM_32, 6, 5000, 0, "--block 7"},
      {44100, 48001, SF_FORMAT_PCM_16, 1, 3, 1, "--block 1"},
      {8000, 768000, SF_FORMAT_PCM_24, 3, 100, 50, "--block 10"},
      {96000, 4000, SF_FORMAT_PCM_16, 8, 1, 0, ""},
      {48000, 44100, SF_FORMAT_PCM_16, 2, 0, 0, ""},
  };
  for (const auto& [inRate, outRate, subtype, channels, frames, impulse, options] : kCases) {
    SCOPED_TRACE(testing::Message() << frames << " frames from " << inRate << " to " << outRate << " Hz");
    SF_INFO info{0, inRate, channels, SF_FORMAT_WAV | subtype, 0, 0};
    std::vector<int> in(static_cast<std::size_t>(frames * channels));
    for (int c = 0; c < channels && frames > 0; ++c) in[static_cast<std::size_t>(impulse * channels + c)] = 1 << 30;
    SNDFILE* file = sf_open((folder_ / "in.wav").c_str(), SFM_WRITE, &info);
    sf_writef_int(file, in.data(), frames);
    sf_close(file);

    ASSERT_EQ(run("$K in.wav out.wav --rate " + std::to_string(outRate) + " " + options), 0) << err_;
    const std::string flavour = channels == 2 && !std::string(options).starts_with("--m") ? "plain" : "multichannel";
    EXPECT_NE(out_.find("by the " + flavour + " resampler"), std::string::npos) << out_;
    const std::vector<int> out = read("out.wav", info);
    ASSERT_EQ(info.frames, (std::int64_t{frames} * outRate + inRate - 1) / inRate);
    EXPECT_EQ(info.samplerate, outRate);
    EXPECT_EQ(info.format & SF_FORMAT_SUBMASK, subtype);
    for (int c = 0; c < channels && frames > 0; ++c) {
      int peak = 0;
      for (int n = 0; n < info.frames; ++n)
        if (out[static_cast<std::size_t>(n * channels + c)] > out[static_cast<std::size_t>(peak * channels + c)])
          peak = n;
      EXPECT_NEAR(peak, static_cast<double>(impulse) * outRate / inRate, 0.5) << "channel " << c;
    }
  }
}

// What is in a recording of a voice at 48 kHz, 44.1 kHz hold too.
TEST_F(Kesconvert, BringsARealRecordingThereAndBack) {
  const fs::path recording = "/usr/share/sounds/alsa/Front_Center.wav";
  if (!fs::exists(recording)) GTEST_SKIP() << "no recording: install alsa-utils";
  fs::copy(recording, folder_ / "voice.wav");
  ASSERT_EQ(run("$K voice.wav there.wav --rate 44100 --format s24 && $K there.wav back.wav --rate 48000"), 0) << err_;
  SF_INFO voiceInfo{}, backInfo{};
  const std::vector<int> voice = read("voice.wav", voiceInfo), back = read("back.wav", backInfo);
  ASSERT_TRUE(back.size() == voice.size() || back.size() == voice.size() + 1);  // rounded up twice
  double power = 0, error = 0;
  for (std::size_t i = 0; i < voice.size(); ++i) {
    power += std::pow(voice[i] / 0x1p31, 2);
    error += std::pow((voice[i] - back[i]) / 0x1p31, 2);
  }
  EXPECT_LT(10 * std::log10(error / power), -60);
}

TEST_F(Kesconvert, ChangesTheSampleFormatAndLimits) {
  const std::vector<int> in = write("loud.wav", SF_FORMAT_WAVEX | SF_FORMAT_PCM_24, 6, k5Point1);
  ASSERT_EQ(run("$K loud.wav o.wav --format s16"), 0) << err_;
  SF_INFO info{};
  const std::vector<int> rounded = read("o.wav", info);
  EXPECT_EQ(info.format & SF_FORMAT_SUBMASK, SF_FORMAT_PCM_16);
  ASSERT_EQ(rounded.size(), in.size());
  for (std::size_t i = 0; i < in.size(); ++i)
    ASSERT_EQ(rounded[i] >> 16, std::min(std::nearbyint((in[i] & ~255) / 65536.0), 32767.0)) << i;

  // The same mix with the limiter and, 24 dB down, without: a peak of the one is at full scale in the other.
  ASSERT_EQ(run("$K loud.wav limited.wav --channels 2 --limit"), 0) << err_;
  std::smatch said;
  ASSERT_TRUE(std::regex_search(out_, said, std::regex("limited by up to ([0-9.]+) dB"))) << out_;
  const double limitedBy = std::stod(said[1]);
  const std::vector<int> limited = read("limited.wav", info);
  std::vector<int> quiet = in;
  for (int& sample : quiet) sample /= 16;
  SF_INFO quietInfo{0, 48000, 6, SF_FORMAT_WAVEX | SF_FORMAT_PCM_32, 0, 0};
  SNDFILE* file = sf_open((folder_ / "quiet.wav").c_str(), SFM_WRITE, &quietInfo);
  sf_command(file, SFC_SET_CHANNEL_MAP_INFO, std::vector(k5Point1).data(), 6 * sizeof(int));
  sf_writef_int(file, quiet.data(), kFrames);
  sf_close(file);
  ASSERT_EQ(run("$K quiet.wav mixed.wav --channels 2"), 0) << err_;
  const std::vector<int> mixed = read("mixed.wav", quietInfo);
  ASSERT_EQ(info.frames, kFrames);
  // The limiter's delay is taken off at every rate.
  ASSERT_EQ(run("$K quiet.wav a.wav --channels 2 --rate 44100 --limit && "
                "$K quiet.wav b.wav --channels 2 --rate 44100 --format s16"),
            0)
      << err_;
  const std::vector<int> late = read("a.wav", info), inTime = read("b.wav", info);
  ASSERT_EQ(late.size(), inTime.size());
  for (std::size_t i = 0; i < late.size(); ++i) ASSERT_NEAR(late[i] / 65536.0, inTime[i] / 65536.0, 1) << i;
  double worst = 0;
  for (std::size_t i = 0; i < mixed.size(); ++i) {
    EXPECT_LE(std::abs(limited[i] / 65536.0), std::min(std::abs(mixed[i] / 4096.0) + 1, 32768.0)) << i;
    worst = std::max(worst, std::abs(mixed[i] / 0x1p27));
  }
  EXPECT_NEAR(limitedBy, 20 * std::log10(worst), 0.01);
}

TEST_F(Kesconvert, WorksInPipesAndOverLinks) {
  put("six.bin", packed(write("six.wav", SF_FORMAT_WAVEX | SF_FORMAT_PCM_24, 6, k5Point1), 3));
  write("two.flac", SF_FORMAT_FLAC | SF_FORMAT_PCM_16, 2);
  write("old.wav", SF_FORMAT_WAV | SF_FORMAT_PCM_16, 1);
  const std::string old = contentOf(folder_ / "old.wav"), unknownSize(4, '\0');
  put("open.wav", old.substr(0, 4) + unknownSize + old.substr(8, 32) + unknownSize + old.substr(44));
  put("none.wav", old.substr(0, 4) + std::string("\x24\0\0\0", 4) + old.substr(8, 32) + unknownSize);
  const char* const kCommands[] = {
      "$K six.wav - --raw 48000:6:s24 | cmp - six.bin",
      "cat six.bin | $K - six2.wav --raw 48000:6:s24 --layout 5.1 && $K six2.wav out.bin --raw 48000:6:s24 && "
      "cmp out.bin six.bin",
      "cat two.flac | $K - - | cat > out.wav && $K two.flac out2.wav && cmp out.wav out2.wav",
      R"({ printf 'ID3\3\0\0\0\0\0\12'; head -c 10 /dev/zero; cat two.flac; } > tagged && $K tagged a.wav && )"
      "$K two.flac b.wav && cmp a.wav b.wav",
      "$K open.wav out2.bin --raw 48000:1:s16 && tail -c +45 old.wav | cmp - out2.bin",
      "$K none.wav out.wav && cmp out.wav none.wav",
      "ln -s target.wav link.wav && $K two.flac link.wav && test -h link.wav && cmp target.wav out2.wav",
      "mkfifo p && { cat p > out4.wav & $K two.flac p; } && wait && cmp out4.wav out2.wav && test -p p",
      "chmod 640 out.wav && $K two.flac out.wav && test $(stat -c %a out.wav) = 640",
      "head -c 9999999 /dev/zero | $K - - --raw 8000:1:s16 2>quiet | head -c 1 && ! grep kesconvert: quiet",
      "for s in TERM INT HUP KILL; do rm -f q; mkfifo q; exec 3<>q; cp old.wav o.wav; head -c 60000 /dev/zero >&3; "
      "env --default-signal $K q o.wav --raw 8000:1:s16 & while [ ! -s .kesconvert-* ] && kill -0 $!; do :; done; "
      "kill -$s $! && ! wait $! && cmp old.wav o.wav || exit 1; "
      "[ $s = KILL ] || ! ls .kesconvert-* || exit 1; done; rm .kesconvert-*",
      R"(printf '\000\100\000\200\377\177\0\200\0\0\0\200' | $K - - --raw 8000:3:s16 --layout 3.0 --channels 2 2>says | cat >mix && )"
      "grep 'peak 0.00 dBFS in, 0.00 dBFS out, 3 samples clipped' says",
      "$K old.wav a.wav --rate 96000 | grep '[1-9] samples clipped'",
      "$K two.flac a.wav --rate 44100 && $K two.flac b.wav --rate 44100 --multichannel --block 7 && cmp a.wav b.wav",
      "$K six.wav a.wav --rate 44100 --channels 2 && $K six.wav b.wav --channels 2 && $K b.wav c.wav --rate 44100 && "
      "cmp a.wav c.wav",
      "$K six.wav a.wav --rate 44100 && $K six.wav b.wav --format s32 && $K b.wav c.wav --rate 44100 && "
      "$K c.wav b.wav --format s24 && cmp a.wav b.wav",
      "$K six.bin a.bin --raw 48000:6:s24 --rate 44100 && { cat six.bin; head -c 180000 /dev/zero; } | "
      "$K - - --raw 48000:6:s24 --rate 44100 | head -c $(stat -c %s a.bin) | cmp - a.bin",
      "$K two.flac a.wav --rate 44100 --format s24 && $K two.flac b.wav --format s24 && $K b.wav c.wav --rate 44100 "
      "&& "
      "cmp a.wav c.wav",
      R"(printf '\\000\\100\\000\\200\\377\\177' | $K - - --raw 8000:3:s16 --layout 3.0 --channels 2 --rate 96000 2>says >mix && )"
      "grep '[1-9][0-9]* samples clipped' says && $K two.flac a.wav | grep 'nothing clipped' && $K six.wav a.wav "
      "--limit "
      "--channels 1 | grep 'nothing to limit'",
      "$K two.flac a.wav --rate 44100 --channels 6 && $K two.flac b.wav --rate 44100 && $K b.wav c.wav --channels 6 "
      "&& "
      "cmp a.wav c.wav",
      "cat two.flac | $K - - --rate 96000 | cat > a.wav && $K two.flac b.wav --rate 96000 && cmp a.wav b.wav",
      "$K old.wav b.wav --rate 48000 && cmp old.wav b.wav",
      "$K two.flac a.wav --format s32 && $K a.wav b.wav --format s24 && $K b.wav c.flac --format s16 && "
      "$K two.flac d.flac && cmp c.flac d.flac",
      "$K six.wav a.wav --channels 1 --format s16 --limit --block 7 && $K six.wav b.wav --channels 1 --limit && "
      "cmp a.wav b.wav",
      "$K --version | grep -Eq '^kesconvert [0-9.]+$' && $K --help | grep -q Examples",
  };
  for (const char* command : kCommands) EXPECT_EQ(run(command), 0) << command << "\n" << out_ << err_;
}

TEST_F(Kesconvert, SaysInOneLineWhatIsWrongAndLeavesNothingBehind) {
  struct Case {
    int exitCode;
    std::string command, says;
  };
  std::vector<Case> cases = {
      {2, "$K f.wav", "OUT is required"},
      {2, "$K f.wav o.wav --channels 9", "Value 9 not in range 1 to 8"},
      {2, "$K f.wav o.wav --layout 9.9", "9.9 is unknown; use"},
      {2, "$K f.wav o.wav --layout 0xC0000", "0xC0000 is unknown; use"},
      {2, "$K f.wav o.wav --rate 3999", "Value 3999 not in range 4000 to 768000"},
      {2, "$K f.wav o.wav --format s8", "s8 not in"},
      {2, "$K f.wav o.wav --format s24 --limit", "--limit makes samples of 16 bits; leave"},
      {1, "$K - o.wav --raw 8000:4:s16 --limit < f.wav", "--limit is for 1 or 2 channels, not for 4; add"},
      {2, "$K f.wav o.wav --multichannel", "--multichannel requires --rate"},
      {1, "$K - old.wav --raw 800000:2:s16 --rate 48000 <f.wav", "cannot resample an input of 800000 Hz; leave"},
      {1, "$K f.wav o.bin --raw 48000:2:s16 --rate 44100", "give --raw 44100:2:s16"},
      {2, "$K f.wav - --raw 8000:2", "8000:2 is not RATE:CHANNELS:FORMAT; give"},
      {2, "$K f.wav o.raw", "o.raw is raw PCM by its name; say"},
      {2, "$K f.wav o.wav --raw 48000:2:s16", "neither f.wav nor o.wav is raw PCM; leave"},
      {1, "$K f.wav o.bin --raw 48000:2:s24", "give --raw 48000:2:s16"},
      {1, "$K f.wav o.wav --layout 5.1", "places 6 channels, but f.wav has 2; use"},
      {1, "$K none.wav o.wav", "none.wav: No such file or directory; check"},
      {1, "$K 'two\nlines' o.wav", "two.lines: No such file or directory; check"},
      {1, "$K folder o.wav", "folder: Is a directory; check"},
      {1, "$K text.wav o.wav", "text.wav: it does not begin as WAV, .*; give"},
      {1, "$K /proc/self/mem old.wav --raw 8000:1:s16", "/proc/self/mem: Input/output error; check"},
      {1, "$K /proc/self/mem old.wav", "/proc/self/mem: Input/output error; check"},
      {1, "$K float.wav o.wav", "float.wav holds 32 bit float samples; .*sox float.wav"},
      {1, "$K ten.wav o.wav", "ten.wav has 10 channels; kesconvert takes 1 to 8"},
      {1, "head -c 7 f.wav | $K - old.wav --raw 8000:2:s16", "- ends inside a frame of 4 bytes; check"},
      {1, "$K f.wav nowhere/o.wav", "nowhere/o.wav: No such file or directory; check"},
      {1, "$K f.wav folder", "folder: Is a directory; check"},
      {1, "$K f.wav /sys/o.wav", "/sys/o.wav: (Permission denied|Read-only file system); check"},
      {1, "$K f.wav o.ogg", "o.ogg: .*; use"},
      {1, "$K wide.wav old.flac", "old.flac: FLAC .* does not take 2 channels of 32 bits; use"},
      {1, "$K f.wav ./f.wav", "f.wav is the input itself; give"},
      {1, "(ulimit -f 99; $K - - --raw 8000:2:s16 <f.wav >>f.wav)", "- is the input itself; give"},
      {1, "$K f.wav /dev/full", "/dev/full: No space left on device; make room"},
      {1, "$K f.wav /dev/full --raw 48000:2:s16", "/dev/full: No space left on device; make room"},
      {1, "(ulimit -f 1; $K f.wav old.wav --channels 8)", "old.wav: File too large; make room"},
      {1, "(ulimit -f 36; $K f.wav old.flac)", "old.flac: File too large; make room"},  // at its last block
      {1, "cat f.wav | (ulimit -f 1; $K - old.wav)", "temporary copy, .*TMPDIR says: File too large; make room"},
      {1, "cat f.wav | TMPDIR=/none $K - old.wav", "temporary copy, .*TMPDIR says: No such file or directory; check"},
  };
  if (run("unshare -rm true") == 0)
    cases.push_back({1, "unshare -rm sh -c 'mount -t tmpfs -o size=8k none folder && $K f.wav folder/o.wav'",
                     "folder/o.wav: No space left on device; make room"});
  if (run("(ulimit -v 30000; $K --version)") == 0)  // under a sanitizer or an emulator it does not even start
    cases.push_back({1, "(ulimit -v 30000; $K f.wav old.wav --block 1048576 --channels 8)", "out of memory; close"});
  for (const auto& [name, format] : std::map<std::string, int>{{"f.wav", SF_FORMAT_WAV},
                                                               {"f.aiff", SF_FORMAT_AIFF},
                                                               {"f.rf64", SF_FORMAT_RF64},
                                                               {"f.flac", SF_FORMAT_FLAC},
                                                               {"f.caf", SF_FORMAT_CAF},
                                                               {"f.au", SF_FORMAT_AU},
                                                               {"f.rifx", SF_FORMAT_WAV | SF_ENDIAN_BIG},
                                                               {"f.w64", SF_FORMAT_W64}}) {
    write(name, format | SF_FORMAT_PCM_16, 2);
    const std::string whole = contentOf(folder_ / name);
    for (const std::size_t bytes : {whole.size() - 1, whole.size() / 2, std::size_t{43}, std::size_t{0}}) {
      put(std::to_string(bytes) + name, whole.substr(0, bytes));
      cases.push_back({1, "$K " + std::to_string(bytes) + name + " old.wav", name});
    }
  }
  // Cut at every byte.
  for (const std::string name : {"small.wav", "small.flac"}) {
    ASSERT_EQ(run("head -c 8 f.wav >eight && $K eight " + name + " --raw 48000:2:s16"), 0) << err_;
    for (std::size_t bytes = fs::file_size(folder_ / name); bytes-- > 0;)
      cases.push_back({1, "head -c " + std::to_string(bytes) + " " + name + " | $K - old.wav", ""});
  }
  write("float.wav", SF_FORMAT_WAV | SF_FORMAT_FLOAT, 2);
  write("wide.wav", SF_FORMAT_WAV | SF_FORMAT_PCM_32, 2);
  write("ten.wav", SF_FORMAT_WAV | SF_FORMAT_PCM_16, 10);
  for (const char* name : {"text.wav", "old.wav", "old.flac"}) put(name, "This was here before.\n");
  fs::create_directory(folder_ / "folder");

  const auto before = files();
  for (const auto& [exitCode, command, says] : cases) {
    EXPECT_EQ(run(command), exitCode) << command;
    EXPECT_TRUE(std::regex_match(err_, std::regex("kesconvert: .*" + says + ".*\n"))) << command << "\n" << err_;
    EXPECT_EQ(files(), before) << command;
  }
}

// What is there is read, or the file refused, and an existing output stays.
TEST_F(Kesconvert, MistrustsHeaders) {
  const struct {
    const char* name;
    std::size_t at;
    std::uint64_t value;  // as it stands in the file, its lowest byte first
    unsigned bytes;
    const char* says;
  } kLies[] = {
      {"f.wav", 40, 0, 4, "10 frames"},
      {"f.wav", 40, 39, 4, "9 frames"},
      {"f.wav", 40, 41, 4, "10 frames"},
      {"f.wav", 40, 0x12345678, 4, "cut short or damaged: 10 of 76354974"},
      {"f.wav", 40, 0xFFFFFFFF, 4, "10 frames"},
      {"f.wav", 4, 0, 4, "10 frames"},
      {"f.wav", 16, 2, 4, "Short 'fmt ' chunk; give"},
      {"f.wav", 16, 0xFFFFFFFF, 4, "Short 'fmt ' chunk; give"},
      {"f.wav", 22, 0, 2, "Channel count is zero; give"},
      {"f.wav", 22, 0xFFFF, 2, "Too many channels specified; give"},
      {"f.wav", 24, 0, 4, "its header makes no sense; give"},
      {"f.wav", 24, 0xFFFFFFFF, 4, "its header makes no sense; give"},
      {"f.wav", 32, 8, 2, "2 channels of 16 bits, but 8 bytes a frame; get"},
      {"f.wav", 34, 0, 2, "unimplemented format; give"},
      {"f.wav", 34, 64, 2, "unimplemented format; give"},
      {"f.rf64", 28, uint64_t{1} << 63, 8, "10 frames"},
      {"f.rf64", 28, 0, 8, "10 frames"},
      {"f.flac", 22, 0, 4, "10 frames"},  // FLAC's and AU's highest byte comes first
      {"f.flac", 22, 0x0B000000, 4, "damaged: 10 of 11 frames"},
      {"f.au", 4, 0xFFFFFF7F, 4, "cut short; get"},
      {"f.au", 8, 0, 4, "10 frames"},
      {"f.au", 8, 0xFFFFFF7F, 4, "cut short; get"},
  };
  put("ten", std::string(40, 'a'));  // which could be a chunk's name
  for (const auto& [name, at, value, bytes, says] : kLies) {
    SCOPED_TRACE(testing::Message() << name << " " << value << " at " << at);
    ASSERT_EQ(run(std::string("$K - ") + name + " --raw 48000:2:s16 <ten"), 0) << err_;
    std::string file = contentOf(folder_ / name);
    put(name, file.replace(at, bytes, reinterpret_cast<const char*>(&value), bytes));
    put("old.wav", "This was here before.\n");
    const bool fails = run(std::string("$K ") + name + " old.wav") != 0;
    EXPECT_TRUE(std::regex_search(fails ? err_ : out_,
                                  std::regex((fails ? "^kesconvert: .*" : "done:   ") + std::string(says))))
        << out_ << err_;
    EXPECT_EQ(std::ranges::count(err_, '\n'), fails);
    EXPECT_EQ(contentOf(folder_ / "old.wav").starts_with("This"), fails);
  }
}

}  // namespace
