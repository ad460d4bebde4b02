// SPDX-License-Identifier: Apache-2.0
// The resampler component over a fake of the platform's resampler library.
#include "platform/resampler_lib.h"

#include "fakes.h"

std::ostream& operator<<(std::ostream& out, const SrcParam& param) {
  const auto& [inRate, in, outRate, outChannels, format] = param;
  return out << inRate << ' ' << in << ' ' << outRate << ' ' << outChannels << ' ' << format;
}

namespace {

class Resampler : public Component {
 public:
  Resampler()
      : Component("KesAudioSrcInC", {"Open", "MultiChannel_Open", "Close", "Reset", "MultiChannel_ResetBuffer",
                                     "SetParameter", "GetParameter", "Process", "MultiChannel_Process", "first"}) {
    std::memset(&record_, 0xEE, sizeof record_);
  }

 private:
  uint32_t perform(const std::string& operation, const Numbers& n) override {
    KesAudioSrcInC& r = record_;
    if (operation == "Init") return InitKesAudioSrcInC(&r), 0;
    if (operation == "Close") return r.Close(&r);
    if (operation == "Reset") return r.Reset(&r);
    if (operation == "MultiChannel_ResetBuffer") return r.MultiChannel_ResetBuffer(&r);
    if (operation == "SetParameter") return r.SetParameter(&r, static_cast<int32_t>(n[0]), n[1]);
    if (operation == "GetParameter") return r.GetParameter(&r, static_cast<int32_t>(n[0]));
    if (operation == "Open") return r.Open(&r, n[0], n[1], n[2], n[3], n[4]);
    if (operation == "MultiChannel_Open") return r.MultiChannel_Open(&r, n[0], n[1], n[2], n[3], n[4]);
    if (operation == "Process") return r.Process(&r, src_, &in_, dst_.data(), &out_);
    if (operation == "MultiChannel_Process") return r.MultiChannel_Process(&r, src_, &in_, dst_.data(), &out_);
    // Members that a caller writes: an open stream before its first block, the state, the mark of a first block.
    if (operation == "stream") r.mParam = {n[0], n[1], n[2], n[3], n[4]}, r.mState = 2, r.mFirstBlockDone = 0;
    if (operation == "state") r.mState = n[0];
    if (operation == "first") r.mFirstBlockDone = n[0];
    return 0;
  }
  std::vector<std::string> members() const override {
    const KesAudioSrcInC& r = record_;
    return {text("scratch ", shown(r.mpTempBuf), ' ', r.mTempBufSize),
            text("internal ", shown(r.mpInternalBuf), ' ', r.mInternalBufSize),
            text("stream ", r.mParam),
            text("instance ", shown(r.mpResampler)),
            text("state ", r.mState),
            text("first ", r.mFirstBlockDone)};
  }

  KesAudioSrcInC record_;
};
using RandomOperations [[maybe_unused]] = Randomly<Resampler>;

TEST(Resampler, DoesWhatTheTableSays) {
  checkOnThreads<Resampler>(
#include "resampler_calls.txt"
  );
}

TEST(Resampler, NeitherLeaksNorWritesBeyondTheCapacity) { checkRandomly<Resampler>(); }

}  // namespace

// ---- the fake library

#define VARIANT(prefix)                                                                                 \
  int32_t prefix##GetBufferSize(uint32_t* internalBytes, uint32_t* scratchBytes, SrcParam* param) {     \
    return traceSizeQuery(#prefix "GetBufferSize", internalBytes, scratchBytes, *param);                \
  }                                                                                                     \
  int32_t prefix##Open(void** instance, void* internal, SrcParam* param) {                              \
    return traceOpen(#prefix "Open", instance, internal, *param);                                       \
  }                                                                                                     \
  int32_t prefix##Reset(void* instance) { return trace(#prefix "Reset", instance); }                    \
  int32_t prefix##Process(void* instance, void* scratch, const void* src, uint32_t* inBytes, void* dst, \
                          uint32_t* outBytes) {                                                         \
    return traceProcess(#prefix "Process", src, inBytes, dst, outBytes, instance, scratch);             \
  }
VARIANT(Palix_)
VARIANT(Palix_MultiChannel_)
int32_t Palix_SetSamplingRate(void* instance, uint32_t rate) { return trace(__func__, instance, rate); }
