// SPDX-License-Identifier: Apache-2.0
// Streams through the host's libraries. Their memory and the blocks lie between guard pages and hold other values
// before.
#pragma once

#include <gtest/gtest.h>

#include <vector>

#include "guarded.h"
#include "platform/limiter_lib.h"
#include "platform/resampler_lib.h"
#include "random.h"

using Bytes = std::vector<uint8_t>;

class Stream {
 public:
  using Process = int32_t(void*, void*, const void*, uint32_t*, void*, uint32_t*);

  // Offers the whole input at once, with `room` bytes for the output. No input may be left.
  Bytes run(const Bytes& input, uint32_t room = 1 << 16) {
    Bytes output(room);
    auto left = static_cast<uint32_t>(input.size()), made = room;
    EXPECT_EQ(process_(instance_, scratchAt_, input.data(), &left, output.data(), &made), 0);
    EXPECT_EQ(left, 0u);
    output.resize(made);
    return output;
  }

  // Offers the whole input in random blocks of up to blockBytes, with random room of up to as many.
  Bytes runInBlocks(const Bytes& input, uint32_t blockBytes, Random& random) {
    Bytes output;
    size_t at = 0;
    for (bool drained = false; !drained && !testing::Test::HasFailure();) {
      const auto most = static_cast<uint32_t>(std::min<size_t>(input.size() - at, blockBytes));
      const uint32_t offered = random.below(most + 1), room = random.below(blockBytes + 1);
      uint8_t* const src = in_.place(offered, offered % 2 != 0);
      std::copy_n(input.begin() + static_cast<ptrdiff_t>(at), offered, src);
      uint8_t* const dst = out_.place(room, random.oneIn(2));
      uint32_t left = offered, made = room;
      EXPECT_EQ(process_(instance_, scratchAt_, src, &left, dst, &made), 0);
      EXPECT_TRUE(out_.surroundingsIntact() && made <= room && left <= offered);
      const bool full = made + outFrameBytes_ > room;
      EXPECT_TRUE(full || left < inFrameBytes_) << "left " << left << " bytes though there was room";
      output.insert(output.end(), dst, dst + made);
      at += offered - left;
      drained = !full && input.size() - at < inFrameBytes_;
    }
    EXPECT_TRUE(internal_.surroundingsIntact() && scratch_.surroundingsIntact());
    return output;
  }

 protected:
  Stream(Process* process, uint32_t inFrameBytes, uint32_t outFrameBytes)
      : process_(process), inFrameBytes_(inFrameBytes), outFrameBytes_(outFrameBytes) {}

  // Places the buffers that the library asked for, `gap` bytes before the guard page. Returns the internal one.
  void* place(uint32_t internalBytes, uint32_t scratchBytes, size_t gap) {
    internal_ = Guarded(internalBytes + gap), scratch_ = Guarded(scratchBytes + gap);
    scratchAt_ = scratch_.place(scratchBytes, false, gap);
    return internal_.place(internalBytes, false, gap);
  }

  void* instance_ = nullptr;

 private:
  Process* process_;
  uint32_t inFrameBytes_, outFrameBytes_;
  Guarded internal_{0}, scratch_{0}, in_{1 << 16}, out_{1 << 16};
  uint8_t* scratchAt_ = nullptr;
};

inline uint32_t inFrameBytes(const SrcParam& param) {
  return param.inChannels * (param.format < KES_RESAMPLER_S32 ? 2 : 4);
}
inline uint32_t outFrameBytes(const SrcParam& param) {
  return param.inChannels * (param.format == KES_RESAMPLER_S16 ? 2 : 4);
}

class Resampler : public Stream {
 public:
  explicit Resampler(SrcParam param, size_t gap = 0)
      : Stream(Palix_Process, inFrameBytes(param), outFrameBytes(param)), param_(param) {
    uint32_t internalBytes = 0, scratchBytes = 0;
    EXPECT_EQ(Palix_GetBufferSize(&internalBytes, &scratchBytes, &param_), 0);
    Palix_Open(&instance_, place(internalBytes, scratchBytes, gap), &param_);
  }
  void setRate(uint32_t rate) { Palix_SetSamplingRate(instance_, rate); }
  void reset() { Palix_Reset(instance_); }

 private:
  SrcParam param_;
};

class Limiter : public Stream {
 public:
  Limiter(uint32_t channels, uint32_t rate, size_t gap = 0) : Stream(Limiter_Process, 4 * channels, 2 * channels) {
    uint32_t internalBytes = 0, scratchBytes = 0;
    LimiterParam param{channels, rate, 0, 0};
    EXPECT_EQ(Limiter_GetBufferSize(&internalBytes, &scratchBytes, KES_CONVERT_LIMITER), 0);
    EXPECT_EQ(Limiter_Open(&instance_, place(internalBytes, scratchBytes, gap), &param), 0);
  }
  void reset() { Limiter_Reset(instance_); }
};
