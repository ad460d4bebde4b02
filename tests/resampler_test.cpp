// SPDX-License-Identifier: Apache-2.0
// The resampler component against a model of it over random sequences of operations, with a fake of the platform's
// resampler library.
#include "platform/resampler_lib.h"

#include "fakes.h"

using Record = KesAudioSrcInC;

std::ostream& operator<<(std::ostream& out, const SrcParam& param) {
  const auto& [inRate, in, outRate, outChannels, format] = param;
  return out << inRate << ' ' << in << ' ' << outRate << ' ' << outChannels << ' ' << format << ' ';
}
std::ostream& operator<<(std::ostream& out, const Record& r) {
  return out << r.mTempBufSize << ' ' << r.mInternalBufSize << ' ' << r.mpTempBuf << ' ' << r.mpInternalBuf << ' '
             << r.mParam << r.mpResampler << ' ' << r.mState << ' ' << r.mFirstBlockDone;
}

namespace {

// Aligned length of the first block: whole frames, and every product modulo 2^32.
uint32_t firstBlockBytes(const SrcParam& p, uint32_t inBytes) {
  const auto times = [](uint64_t a, uint64_t b) { return a * b % (uint64_t{1} << 32); };
  const uint64_t product = times(times(times(inBytes, p.format == 1 ? 2 : 1), p.outSampleRate), p.outChannels);
  const uint64_t divisor = times(p.inChannels, p.inSampleRate), bytes = divisor == 0 ? 0 : product / divisor;
  const uint64_t frame = p.format > 3 ? 1 : times(p.format == 0 ? 2 : 4, p.outChannels);
  return static_cast<uint32_t>(frame == 0 ? 0 : times((bytes + frame - 1) / frame, frame));
}

TEST(Model, HasTheFirstBlockThatWasWorkedByHand) {
  EXPECT_EQ(firstBlockBytes({44100, 2, 48000, 2, 0}, 17640), 19200u);
  EXPECT_EQ(firstBlockBytes({44100, 2, 48000, 2, 1}, 8820), 19200u);
  EXPECT_EQ(firstBlockBytes({44100, 1, 48000, 1, 0}, 102), 112u);
  EXPECT_EQ(firstBlockBytes({44100, 1, 48000, 1, 4}, 102), 111u);
  EXPECT_EQ(firstBlockBytes({44100, 0, 48000, 2, 0}, 400), 0u);
  // Beyond 32 bits: the product, the whole frames, the frame.
  EXPECT_EQ(firstBlockBytes({44100, 2, 48000, 2, 0}, 44744), 8u);
  EXPECT_EQ(firstBlockBytes({1, 1, 1, 1, 2}, 0xFFFFFFFF), 0u);
  EXPECT_EQ(firstBlockBytes({1, 1, 1, 0x40000000, 2}, 3), 0u);
}

class RandomOperations : RecordAndModel<Record> {
 public:
  explicit RandomOperations(Random& random) : RecordAndModel("KesAudioSrcInC", random) { init(); }

  // Does a random operation to the record and to the model, and compares the calls and the results.
  void checkNext() {
    drawAnswers();
    const bool multi = random_.oneIn(2);
    const int32_t id = random_.oneIn(6) ? random_.from({INT32_MIN, INT32_MAX, -1, -2}) : random_.between(0, 11);
    const uint32_t value = random_.oneIn(2) ? random_.below(7) : extreme();
    SrcParam p = {rate(), channels(), rate(), channels(), random_.oneIn(3) ? value : random_.below(4)};
    if (random_.oneIn(2)) p.outChannels = p.inChannels;
    const uint32_t in = random_.oneIn(6) ? extreme() : random_.below(300), bytes = firstBlockBytes(model_.mParam, in);
    offerBlock(in, random_.from({bytes, bytes, bytes - 1, bytes + 1, ~0u, random_.below(kRoom)}),
               random_.from({bytes, bytes - 1, bytes / 2, bytes + 1, 0u}));

    uint32_t code = 0, wanted = 0;
    switch (random_.below(10)) {
      case 0: freeBuffers(), init(); break;
      case 1:  // values that only a caller can write
        record_.mFirstBlockDone = model_.mFirstBlockDone = random_.below(3);
        if (model_.mState != 2) record_.mState = model_.mState = random_.from({0u, 1u, 3u});
        break;
      case 2: code = run(record_.Close), wanted = close(); break;
      case 3: code = run(multi ? record_.MultiChannel_ResetBuffer : record_.Reset), wanted = reset(multi); break;
      case 4: code = run(record_.GetParameter, id), wanted = getParameter(id); break;
      case 5:
        if (model_.mState == 0 || model_.mState == 3) break;
        code = run(record_.SetParameter, id, value), wanted = setParameter(id, value);
        break;
      case 6:
        code = run(multi ? record_.MultiChannel_Open : record_.Open, p.inSampleRate, p.inChannels, p.outSampleRate,
                   p.outChannels, p.format);
        wanted = open(multi, p);
        break;
      default:
        code = run(multi ? record_.MultiChannel_Process : record_.Process, src_, in_, dst_, out_);
        wanted = process(multi);
    }
    compare(code, wanted);
  }

 private:
  uint32_t rate() { return random_.oneIn(6) ? extreme() : random_.from({8000u, 44100u, 48000u, 96000u}); }
  uint32_t channels() { return random_.oneIn(6) ? extreme() : random_.below(8); }

  // ---- the model

  static std::string palix(bool multi, const char* name) {
    return text("Palix_", multi ? "MultiChannel_" : "", name);
  }

  void init() {
    initialise(InitKesAudioSrcInC);
    expectLog(3, "InitKesAudioSrcInC");
  }

  uint32_t close() {
    if (model_.mState != 2) return 2;
    releaseBuffers();
    return model_.mState = 1, 0;
  }

  uint32_t reset(bool multi) {
    const char* const name = multi ? "MultiChannel_ResetBuffer" : "SrcReset";
    expectLog(3, "+", name, "()\n");
    if (model_.mState != 2) return 2;
    expectCall(palix(multi, "Reset"), model_.mpResampler);
    return expectLog(3, "-", name, "()\n"), 0;
  }

  uint32_t* field(int32_t setID) {
    SrcParam& p = model_.mParam;
    uint32_t* const fields[] = {&p.format, &p.inSampleRate, &p.outSampleRate, &p.inChannels, &p.outChannels};
    return setID >= 0 && setID <= 8 && setID % 2 == 0 ? fields[setID / 2] : nullptr;
  }

  uint32_t getParameter(int32_t id) {
    expectLog(3, "+SrcGetParameter(), paramID ", id, "\n");
    if (id < 0 || !field(id - 1)) return 1;
    return expectLog(3, "-SrcGetParameter(), paramID ", id, ", param 0x", std::hex, *field(id - 1), "\n"), 0;
  }

  uint32_t setParameter(int32_t id, uint32_t value) {
    expectLog(3, "+SrcSetParameter(), paramID ", id, ", param 0x", std::hex, value, "\n");
    if (model_.mState == 2 && id != 4) return 2;
    if (!field(id) || (id == 0 && value > 4)) return 1;
    *field(id) = value;
    if (model_.mState == 2) expectCall("Palix_SetSamplingRate", model_.mpResampler, value);
    return expectLog(3, "-SrcSetParameter()\n"), 0;
  }

  uint32_t open(bool multi, const SrcParam& p) {
    const char* const name = multi ? "MultiChannel_Open" : "SrcOpen";
    if (multi) expectLog(3, "+", name, "()\n");
    if (model_.mState != 1) return 2;
    if (multi && p.inChannels != p.outChannels)
      return expectLog(6, "in ch ", p.inChannels, " != out ch ", p.outChannels), 2;
    model_.mParam = p;
    expectSizeQuery(palix(multi, "GetBufferSize"), &record_.mParam, p);
    if (platform.result < 0) return expectLog(3, "Palix_GetBufferSize return err ", platform.result, "\n"), 2;
    if (!obtainBuffers(name)) return 2;
    model_.mpResampler = nullptr;
    expectCall(palix(multi, "Open"), &record_.mpResampler, model_.mpResampler, model_.mpInternalBuf, &record_.mParam,
               p);
    model_.mpResampler = platform.instance, model_.mState = 2;
    if (multi) expectLog(3, "-", name, "()\n");
    return 0;
  }

  uint32_t process(bool multi) {
    if (model_.mState != 2) return 2;
    auto& [in, out, dst] = wanted_;
    uint32_t bytes = firstBlockBytes(model_.mParam, in);
    if (model_.mParam.format > 3) expectLog(6, "unknown format ", model_.mParam.format, "!!");
    if (bytes > out) expectLog(6, "OutputSampleCount ", out, " < ", bytes, "!!"), bytes = out;
    expectProcess(palix(multi, "Process"), model_.mpResampler, model_.mpTempBuf);
    if (model_.mFirstBlockDone != 1 && out != bytes) {
      expectLog(3, "OutputSampleCount ", out, " => ", bytes);
      if (out < bytes) {
        const void* const block = allocate(bytes);
        if (!block) return expectLog(3, multi ? "MultiChannel_Process" : "SrcProcess", "() tmp malloc failed\n"), 2;
        expectCall("free", block);
        dst = output(kRoom, bytes - out, out), out = bytes;
      }
    }
    return model_.mFirstBlockDone = 1, 0;
  }
};

TEST(Threads, DriveSeparateResamplersThatEqualTheirModel) { checkOnThreads<RandomOperations>(); }

}  // namespace

// ---- the fake library

#define VARIANT(prefix)                                                                                 \
  int32_t prefix##GetBufferSize(uint32_t* internalBytes, uint32_t* scratchBytes, SrcParam* param) {     \
    recordSizeQuery(#prefix "GetBufferSize", internalBytes, scratchBytes, param, *param);               \
    return platform.result;                                                                             \
  }                                                                                                     \
  int32_t prefix##Open(void** instance, void* internal, SrcParam* param) {                              \
    void* const before = std::exchange(*instance, platform.instance);                                   \
    return recordCall(#prefix "Open", instance, before, internal, param, *param);                       \
  }                                                                                                     \
  int32_t prefix##Reset(void* instance) { return recordCall(#prefix "Reset", instance); }               \
  int32_t prefix##Process(void* instance, void* scratch, const void* src, uint32_t* inBytes, void* dst, \
                          uint32_t* outBytes) {                                                         \
    return recordProcess(#prefix "Process", src, inBytes, dst, outBytes, instance, scratch);            \
  }
VARIANT(Palix_)
VARIANT(Palix_MultiChannel_)
int32_t Palix_SetSamplingRate(void* instance, uint32_t rate) { return recordCall(__func__, instance, rate); }
