// SPDX-License-Identifier: Apache-2.0
// The channel converter component against a model of its record, over random sequences of operations.
#include <gtest/gtest.h>

#include <array>
#include <cstdarg>
#include <cstring>
#include <string>
#include <thread>

#include "oracle.h"
#include "platform/log.h"
#include "random.h"

namespace {

thread_local std::vector<std::string> logged;

// The members behind the operations, in their order.
using Members = std::array<uint32_t, 7>;
enum { kState, kIn, kOut, kFormat, kUpmixMode, kMask, kMaskValid };

Members membersOf(const KesAudioChannelConverterInC& record) {
  return {record.mState,     record.mInChannels,  record.mOutChannels,     record.mFormat,
          record.mUpmixMode, record.mChannelMask, record.mChannelMaskValid};
}

// Plays one random operation on the record and on the model, and compares.
class Player {
 public:
  explicit Player(uint32_t seed) : random_(seed), src_(600), dst_(8192) {
    std::memset(&record_, 0xEE, sizeof record_);
    model_.fill(0xEEEEEEEE);
    init();
  }

  void play() {
    switch (random_.below(8)) {
      case 0:
        if (random_.oneIn(10)) init();
        break;
      case 1: {
        const uint32_t in = random_.below(10), out = random_.below(10), format = random_.below(8);
        const bool accepted = !open() && in <= 8 && out <= 8;
        expect(record_.Open(&record_, in, out, format), accepted ? 0 : 2, "Open");
        if (accepted) model_ = {2, in, out, format, 0, 0, 1};
        break;
      }
      case 2:
        if (!random_.oneIn(4)) break;
        expect(record_.Close(&record_), open() ? 0 : 2, "Close");
        model_[kState] = 1;
        break;
      case 3:
        if (!random_.oneIn(3)) break;
        expect(record_.Reset(&record_), open() ? 0 : 2, "Reset");
        if (open()) model_[kMask] = model_[kMaskValid] = 0;
        break;
      case 4: {
        const auto id = random_.between(-1, 12);
        const uint32_t value = random_.word();
        expect(record_.SetParameter(&record_, id, value), open() ? 2 : 0, "SetParameter");
        constexpr int kMemberOf[] = {kFormat, kIn, kOut, kUpmixMode, kMask, kMaskValid};
        if (!open() && id >= 0 && id <= 10 && id % 2 == 0) model_[static_cast<size_t>(kMemberOf[id / 2])] = value;
        break;
      }
      case 5:
        expect(record_.GetParameter(&record_, static_cast<int32_t>(random_.word()), nullptr), 0, "GetParameter");
        break;
      default:
        process();
    }
    EXPECT_EQ(membersOf(record_), model_);
    EXPECT_TRUE(logged.empty());
  }

 private:
  bool open() const { return model_[kState] == 2; }
  void expect(uint32_t code, uint32_t expected, const char* what) { EXPECT_EQ(code, expected) << what; }

  void init() {
    logged.clear();
    InitKesAudioChannelConverterInC(&record_);
    EXPECT_EQ(logged, std::vector<std::string>{"3 KesAudioChannelConvertInC %s InitKesAudioChannelConverterInC"});
    logged.clear();
    model_[kState] = 1;
  }

  void process() {
    for (uint8_t& byte : src_) byte = random_.byte();
    std::fill(dst_.begin(), dst_.end(), uint8_t{0xA5});
    uint32_t inBytes = random_.oneIn(9) ? 0 : random_.below(601),
             outBytes = random_.oneIn(9) ? 0 : random_.below(2000);
    const bool noSrc = random_.oneIn(20), noDst = random_.oneIn(20);
    const bool accepted = open() && !noSrc && !noDst && inBytes && outBytes;

    EntryResult expected{inBytes, outBytes, {}};
    if (accepted && model_[kIn] != model_[kOut]) {
      const bool upmix = model_[kIn] < model_[kOut];
      if (!upmix && model_[kMaskValid] != 1) model_[kMask] = 0xFFFF;
      expected = entryResult(upmix, model_[kIn], model_[kOut], model_[kFormat], src_.data(), inBytes, outBytes,
                             upmix ? model_[kUpmixMode] : model_[kMask]);
    }
    expect(
        record_.Process(&record_, noSrc ? nullptr : src_.data(), &inBytes, noDst ? nullptr : dst_.data(), &outBytes),
        accepted ? 0 : 2, "Process");
    EXPECT_EQ(std::pair(inBytes, outBytes), std::pair(expected.inBytes, expected.outBytes));
    expected.written.resize(dst_.size(), 0xA5);
    EXPECT_EQ(dst_, expected.written);
  }

  Random random_;
  KesAudioChannelConverterInC record_;
  Members model_;
  Bytes src_, dst_;
};

TEST(Converter, EqualsItsModelOverRandomOperations) {
  Player player(3);
  for (int step = 0; step < 100000 && !testing::Test::HasFailure(); ++step) player.play();
}

TEST(Converter, KeepsRecordsOfSeparateThreadsApart) {
  std::vector<std::thread> threads;
  for (uint32_t seed = 0; seed < 4; ++seed)
    threads.emplace_back([seed] {
      Player player(seed);
      for (int step = 0; step < 2000; ++step) player.play();
    });
  for (std::thread& thread : threads) thread.join();
}

// What a stream sees: the mono mix averages after Open and folds after Reset.
TEST(Converter, FoldsToMonoOnceReset) {
  KesAudioChannelConverterInC record;
  InitKesAudioChannelConverterInC(&record);
  ASSERT_EQ(record.Open(&record, 2, 1, KES_PCM_S16), 0u);
  const int16_t in[] = {1000, -3000};
  for (int expected : {-1000, -2830}) {
    int16_t out = 0;
    uint32_t inBytes = sizeof in, outBytes = sizeof out;
    ASSERT_EQ(record.Process(&record, in, &inBytes, &out, &outBytes), 0u);
    EXPECT_EQ(out, expected);
    record.Reset(&record);
  }
}

}  // namespace

// Takes the place of the platform's: the library looks it up by name.
int __android_log_print(int priority, const char* tag, const char* format, ...) {
  va_list args;
  va_start(args, format);
  char text[256];
  vsnprintf(text, sizeof text, format, args);
  va_end(args);
  logged.push_back(std::to_string(priority) + " " + tag + " " + format + " " + text);
  return 1;
}
