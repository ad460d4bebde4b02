// SPDX-License-Identifier: Apache-2.0
// The bit converter component against a model of it over random sequences of operations, with fakes of the platform's
// limiter and shifter libraries.
#include "platform/limiter_lib.h"
#include "platform/shifter_lib.h"

#include "fakes.h"

using Record = KesAudioBitConverterC;

std::ostream& operator<<(std::ostream& out, const LimiterParam& param) {
  const auto& [channels, rate, reserved0, reserved1] = param;
  return out << channels << ' ' << rate << ' ' << reserved0 << ' ' << reserved1 << ' ';
}
std::ostream& operator<<(std::ostream& out, const Record& r) {
  return out << r.mConvertType << ' ' << r.mChannels << ' ' << r.mSampleRate << ' ' << r.mpTempBuf << ' '
             << r.mpInternalBuf << ' ' << r.mTempBufSize << ' ' << r.mInternalBufSize << ' ' << r.mLimiterParam
             << r.mpLimiter << ' ' << r.mState;
}

namespace {

class RandomOperations : RecordAndModel<Record> {
 public:
  explicit RandomOperations(Random& random) : RecordAndModel("KesAudioBitConverterc", random) { init(); }

  // Does a random operation to the record and to the model, and compares the calls and the results.
  void checkNext() {
    drawAnswers();
    offerBlock(extreme(), random_.oneIn(2) ? extreme() : random_.below(kRoom), random_.below(kRoom));
    if (random_.oneIn(8)) src_ = nullptr;
    if (random_.oneIn(8)) in_ = nullptr;
    if (random_.oneIn(8)) dst_ = nullptr;
    if (random_.oneIn(8)) out_ = nullptr;
    const uint32_t rate = random_.oneIn(6) ? extreme() : 48000;
    const uint32_t channels = random_.oneIn(6) ? extreme() : random_.below(5);
    const int32_t id = random_.oneIn(6) ? random_.from({INT32_MIN, INT32_MAX, -1, 256}) : random_.between(0, 8);

    uint32_t code = 0, wanted = 0;
    switch (random_.below(10)) {
      case 0: freeBuffers(), init(); break;
      case 1: interfere(); break;
      case 2:
        for (void* Record::*const buffer : {&Record::mpTempBuf, &Record::mpInternalBuf})
          if (!(model_.*buffer) && random_.oneIn(2)) record_.*buffer = model_.*buffer = std::malloc(1);
        code = run(record_.Close), wanted = close();
        break;
      case 3: code = run(record_.Reset), wanted = reset(); break;
      case 4: code = run(record_.GetParameter, id, dst_), wanted = getParameter(id, dst_); break;
      case 5: {
        const uint32_t value = random_.oneIn(2) ? type() : channels;
        code = run(record_.SetParameter, id, value), wanted = setParameter(id, value);
        break;
      }
      case 6: {
        const uint32_t convertType = type();
        code = run(record_.Open, rate, channels, convertType), wanted = open(rate, channels, convertType);
        break;
      }
      default: code = run(record_.Process, src_, in_, dst_, out_), wanted = process();
    }
    compare(code, wanted);
  }

 private:
  uint32_t type() {
    return random_.from(
        {256u, 256u, 256u, random_.below(14), random_.below(14), 255u, 257u, 258u, 0xFFFFu, extreme()});
  }

  // Values that only a caller can write.
  void interfere() {
    model_.mLimiterParam.reserved0 = extreme(), model_.mLimiterParam.reserved1 = extreme();
    if (random_.oneIn(2)) model_.mConvertType = type();
    if (model_.mState != 2) model_.mState = random_.from({0u, 1u, 3u});
    record_.mLimiterParam = model_.mLimiterParam, record_.mConvertType = model_.mConvertType;
    record_.mState = model_.mState;
  }

  // ---- the model

  void init() {
    initialise(InitKesAudioBitConverterC);
    model_.mConvertType = 0xFFFF;
  }

  uint32_t open(uint32_t rate, uint32_t channels, uint32_t convertType) {
    if (model_.mState != 1) return 2;
    model_.mSampleRate = rate, model_.mChannels = channels, model_.mConvertType = convertType;
    model_.mpLimiter = nullptr;
    if (rate != 0 && channels != 0 && convertType == 256) {
      expectSizeQuery("Limiter_GetBufferSize", 256);
      if (!obtainBuffers("BitConvertionOpen")) return 2;
      LimiterParam& p = model_.mLimiterParam;
      p = {channels, rate, 0, p.reserved1};
      expectCall("Limiter_Open", &record_.mpLimiter, model_.mpLimiter, model_.mpInternalBuf, &record_.mLimiterParam,
                 p);
      model_.mpLimiter = platform.instance;
    }
    return model_.mState = 2, 0;
  }

  uint32_t close() { return releaseBuffers(), model_.mState = 1, 0; }

  uint32_t setParameter(int32_t id, uint32_t value) {
    expectLog(3, "+BitConvertionSetParameter(), paramID ", id, ", param 0x", std::hex, value, "\n");
    if (model_.mState == 2) return 2;
    uint32_t* member = nullptr;
    if (id == 0 && (value <= 12 || value == 256 || value == 257)) member = &model_.mConvertType;
    if (id == 2) member = &model_.mSampleRate;
    if (id == 4 && (value == 1 || value == 2)) member = &model_.mChannels;
    return member ? *member = value, 0 : 1;
  }

  uint32_t getParameter(int32_t id, const void* value) {
    expectLog(3, "+BitConvertionGetParameter(), paramID ", id, ", param ", value ? text(value) : "(nil)", "\n");
    return id == 1 || id == 2 || id == 4 ? 0 : 1;
  }

  // Without an instance the library must not be called.
  uint32_t reset() {
    if (model_.mState == 2 && model_.mConvertType >= 256 && model_.mpLimiter)
      expectCall("Limiter_Reset", model_.mpLimiter);
    return 0;
  }

  uint32_t process() {
    if (model_.mState != 2 || (model_.mConvertType == 256 && !model_.mpLimiter)) return 2;
    if (model_.mConvertType == 256) expectProcess("Limiter_Process", model_.mpLimiter, model_.mpTempBuf);
    if (model_.mConvertType < 12) expectProcess("Shifter_Process", model_.mConvertType);
    return 0;
  }
};

TEST(Threads, DriveSeparateBitConvertersThatEqualTheirModel) { checkOnThreads<RandomOperations>(); }

}  // namespace

// ---- the fake libraries

int32_t Limiter_GetBufferSize(uint32_t* internalBytes, uint32_t* scratchBytes, uint32_t convertType) {
  return recordSizeQuery(__func__, internalBytes, scratchBytes, convertType);
}

int32_t Limiter_Open(void** instance, void* internal, LimiterParam* param) {
  return recordCall(__func__, instance, std::exchange(*instance, platform.instance), internal, param, *param);
}

int32_t Limiter_Reset(void* instance) { return recordCall(__func__, instance); }

int32_t Limiter_Process(void* instance, void* scratch, const void* src, uint32_t* inBytes, void* dst,
                        uint32_t* outBytes) {
  return recordProcess(__func__, src, inBytes, dst, outBytes, instance, scratch);
}

int32_t Shifter_Process(const void* src, uint32_t* inBytes, void* dst, uint32_t* outBytes, uint32_t convertType) {
  return recordProcess(__func__, src, inBytes, dst, outBytes, convertType);
}
