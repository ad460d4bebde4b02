// SPDX-License-Identifier: Apache-2.0
// The byte counts of the entry points, worked by hand, and the component against a model of its record over random
// sequences of operations.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <thread>

#include "guarded.h"
#include "oracle.h"
#include "platform/log.h"
#include "random.h"

namespace {

thread_local int lines;  // logged since the last check

struct Model {  // the record's members behind its operations
  uint32_t state, in, out, format, upmixMode, mask, maskValid;
  bool open() const { return state == 2; }
};

class RandomOperations {
 public:
  explicit RandomOperations(Random& random) : random_(random) {
    std::memset(&record_, 0xEE, sizeof record_);
    std::memset(&model_, 0xEE, sizeof model_);
    init();
  }

  // Does a random operation to the record and to the model, and compares.
  void checkNext() {
    const uint32_t onlyOpen = model_.open() ? 0 : 2;
    const uint32_t in = count(), out = count(), format = random_.below(8);
    const int32_t id = random_.between(-1, 12);
    switch (random_.below(20)) {
      case 0: init(); break;
      case 1:
        EXPECT_EQ(record_.Close(&record_), onlyOpen);
        if (model_.open()) model_.state = 1;
        break;
      case 3:
        EXPECT_EQ(record_.Reset(&record_), onlyOpen);
        if (model_.open()) model_.mask = model_.maskValid = 0;
        break;
      case 2:  // states and values that only a caller can write
        model_.state = random_.below(4), model_.upmixMode = random_.below(3), model_.maskValid = random_.below(3);
        std::memcpy(&record_.mState, &model_, sizeof model_);
        break;
      case 4: EXPECT_EQ(record_.GetParameter(&record_, id, nullptr), 0u); break;
      case 5: {
        uint32_t* const members[] = {&model_.format,    &model_.in,   &model_.out,
                                     &model_.upmixMode, &model_.mask, &model_.maskValid};
        EXPECT_EQ(record_.SetParameter(&record_, id, format), model_.open() ? 2u : 0u);
        if (!model_.open() && id >= 0 && id <= 10 && id % 2 == 0) *members[id / 2] = format;
        break;
      }
      case 6: {
        const bool accepted = model_.state == 1 && in <= 8 && out <= 8;
        EXPECT_EQ(record_.Open(&record_, in, out, format), accepted ? 0u : 2u);
        if (accepted) model_ = {2, in, out, format, 0, 0, 1};
        break;
      }
      default: process();
    }
    EXPECT_EQ(std::memcmp(&record_.mState, &model_, sizeof model_), 0);
    EXPECT_EQ(lines, 0);
  }

 private:
  uint32_t count() { return random_.oneIn(20) ? random_.word() : random_.below(10); }

  void init() {
    InitKesAudioChannelConverterInC(&record_);
    EXPECT_EQ(lines, 1);
    lines = 0;
    model_.state = 1;
  }

  // Offers a random block to the component.
  void process() {
    const uint32_t in = model_.in, out = model_.out, format = model_.format;
    const bool upmix = in < out, noSrc = random_.oneIn(20), noDst = random_.oneIn(20);
    const uint32_t held = random_.oneIn(9) ? 0 : random_.below(601);
    uint32_t inBytes = held, outBytes = random_.oneIn(9) ? 0 : random_.below(2000);
    const bool accepted = model_.open() && !noSrc && !noDst && inBytes && outBytes;
    const uint32_t mask = upmix ? model_.upmixMode : model_.maskValid == 1 ? model_.mask : 0xFFFF;
    if (accepted && in > out) model_.mask = mask;

    Random noise(random_.word());
    uint8_t* const src = src_.place(held, random_.oneIn(2));
    std::generate_n(src, held, [&] { return noise.byte(); });
    EntryResult expected{inBytes, outBytes, {}};
    if (accepted && in != out) expected = entryResult(upmix, in, out, format, src, inBytes, outBytes, mask);
    uint8_t* const dst = dst_.place(expected.written.size(), random_.oneIn(2));  // not the capacity
    EXPECT_EQ(record_.Process(&record_, noSrc ? nullptr : src, &inBytes, noDst ? nullptr : dst, &outBytes),
              accepted ? 0u : 2u);
    EXPECT_EQ(std::pair(inBytes, outBytes), std::pair(expected.inBytes, expected.outBytes));
    EXPECT_TRUE(std::equal(expected.written.begin(), expected.written.end(), dst) && dst_.surroundingsIntact())
        << in << " -> " << out << ", format " << format << ", mask " << mask;
  }

  Random& random_;
  Guarded src_{1024}, dst_{8192};
  KesAudioChannelConverterInC record_;
  Model model_;
};

TEST(Threads, DriveSeparateConvertersThatEqualTheirModel) {
  std::vector<std::jthread> threads;
  for (uint32_t seed = 0; seed < 4; ++seed)
    threads.emplace_back([seed] {
      Random random(seed);
      RandomOperations operations(random);
      for (int step = 0; step < 30000 && !testing::Test::HasFailure(); ++step) operations.checkNext();
    });
}

TEST(EntryPoints, AccountBytes) {
  const struct {
    bool upmix;
    uint32_t in, out, inBytes, capacity, inBytesAfter, outBytesAfter;
  } rows[] = {
      {false, 6, 2, 1200, 400, 0, 400},
      {false, 6, 2, 1200, 300, 300, 300},
      {false, 6, 2, 1200, 302, 294, 302},
      {false, 6, 2, 1201, 999, 0, 400},
      {true, 2, 6, 400, 1200, 0, 1200},
      {true, 2, 6, 400, 600, 200, 600},
      {false, 2, 6, 400, 600, 400, 600},
      {true, 0, 2, 400, 600, 0, 0},
      {false, 2, 0, 400, 600, 0, 0},
      // Need wraps to 0, and to 2^29: the kernels write nothing for a block, or an output, of 2^31 bytes.
      {true, 1, 2, 0x80000000, 600, 0, 0},
      {true, 1, 3, 0x60000000, 0x40000000, 0, 0x20000000},
      {false, 1, 1, 0x80000002, 0xFFFFFFFF, 0, 0x80000002},
  };
  const Bytes src(1300);
  for (auto [upmix, in, out, inBytes, outBytes, inBytesAfter, outBytesAfter] : rows) {
    Bytes dst(1300, 0xA5);
    const bool huge = inBytes > src.size();
    if (upmix)
      Audio_Channel_Upmix(in, out, KES_PCM_S16, src.data(), &inBytes, dst.data(), &outBytes, 0);
    else
      Audio_Channel_Downmix(in, out, KES_PCM_S16, src.data(), &inBytes, dst.data(), &outBytes, 0);
    EXPECT_EQ(std::pair(inBytes, outBytes), std::pair(inBytesAfter, outBytesAfter)) << in << " -> " << out;
    EXPECT_TRUE(!huge || dst == Bytes(dst.size(), 0xA5)) << in << " -> " << out;
  }
}

}  // namespace

// Takes the place of the platform's, by its name.
int __android_log_print(int priority, const char* tag, const char* format, ...) {
  EXPECT_EQ(std::to_string(priority) + tag + format, "3KesAudioChannelConvertInC%s");
  return ++lines;
}
