// SPDX-License-Identifier: Apache-2.0
// The bit converter component over fakes of the platform's limiter and shifter libraries.
#include "platform/limiter_lib.h"
#include "platform/shifter_lib.h"

#include "fakes.h"

std::ostream& operator<<(std::ostream& out, const LimiterParam& param) {
  const auto& [channels, rate, reserved0, reserved1] = param;
  return out << channels << ' ' << rate << ' ' << reserved0 << ' ' << reserved1;
}

namespace {

class BitConverter : public Component {
 public:
  BitConverter()
      : Component("KesAudioBitConverterc",
                  {"Open", "Open", "Close", "Reset", "SetParameter", "GetParameter", "Process", "type"}) {
    std::memset(&record_, 0xEE, sizeof record_);
  }

 private:
  uint32_t perform(const std::string& operation, const Numbers& n) override {
    KesAudioBitConverterC& r = record_;
    if (operation == "Init") return InitKesAudioBitConverterC(&r), 0;
    if (operation == "Open") return r.Open(&r, n[0], n[1], n[2]);
    if (operation == "Close") return r.Close(&r);
    if (operation == "SetParameter") return r.SetParameter(&r, static_cast<int32_t>(n[0]), n[1]);
    if (operation == "GetParameter") return r.GetParameter(&r, static_cast<int32_t>(n[0]), nullptr);
    if (operation == "Reset") return r.Reset(&r);
    if (operation == "Process") return r.Process(&r, src_, &in_, dst_.data(), &out_);
    if (operation == "ProcessNulls") return r.Process(&r, nullptr, nullptr, nullptr, nullptr);
    // Members that a caller writes.
    if (operation == "state") r.mState = n[0];
    if (operation == "type") r.mConvertType = n[0];
    if (operation == "reserved") r.mLimiterParam.reserved0 = n[0], r.mLimiterParam.reserved1 = n[1];
    return 0;
  }
  std::vector<std::string> members() const override {
    const KesAudioBitConverterC& r = record_;
    return {text("type ", r.mConvertType),
            text("channels ", r.mChannels),
            text("rate ", r.mSampleRate),
            text("scratch ", shown(r.mpTempBuf), ' ', r.mTempBufSize),
            text("internal ", shown(r.mpInternalBuf), ' ', r.mInternalBufSize),
            text("stream ", r.mLimiterParam),
            text("limiter ", shown(r.mpLimiter)),
            text("state ", r.mState)};
  }

  KesAudioBitConverterC record_;
};

using RandomOperations [[maybe_unused]] = Randomly<BitConverter>;

TEST(BitConverter, DoesWhatTheTableSays) {
  checkOnThreads<BitConverter>(
#include "bit_converter_calls.txt"
  );
}

TEST(BitConverter, NeitherLeaksNorWritesBeyondTheCapacity) { checkRandomly<BitConverter>(); }

}  // namespace

// ---- the fake libraries

int32_t Limiter_GetBufferSize(uint32_t* internalBytes, uint32_t* scratchBytes, uint32_t convertType) {
  return traceSizeQuery(__func__, internalBytes, scratchBytes, convertType);
}
int32_t Limiter_Open(void** instance, void* internal, LimiterParam* param) {
  return traceOpen(__func__, instance, internal, *param);
}
int32_t Limiter_Reset(void* instance) { return trace(__func__, instance); }
int32_t Limiter_Process(void* instance, void* scratch, const void* src, uint32_t* inBytes, void* dst,
                        uint32_t* outBytes) {
  return traceProcess(__func__, src, inBytes, dst, outBytes, instance, scratch);
}
int32_t Shifter_Process(const void* src, uint32_t* inBytes, void* dst, uint32_t* outBytes, uint32_t convertType) {
  return traceProcess(__func__, src, inBytes, dst, outBytes, convertType);
}
