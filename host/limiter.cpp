// SPDX-License-Identifier: Apache-2.0
// The limiter library for machines without the platform's. x[n] is the largest magnitude of frame n's samples, where
// negative samples count one 16-bit step less (16 bits reach from -32768 to 32767); W is the delay in frames plus
// one; gains are in units of 2^-30.
//
//   required[n] = min(1, threshold / x[n])                             gain that keeps frame n within the threshold
//   held[n]     = min(required[n - W + 1], ..., required[n])           falls at once when a peak comes into view
//   released[n] = min(held[n], released[n - 1] towards 1)              falls with held[n], rises slowly
//   gain[n]     = mean(released[n - W + 1], ..., released[n])          turns each fall into a line of W steps
//   out[n]      = in[n - W + 1] * gain[n]
//
// From frame n - W + 1 to n, held, and so released, is at most required[n - W + 1], and so is their mean: no output
// exceeds the threshold. Every gain is an integer rounded down, and exactly 1 where nothing is limited.
//
// The internal buffer holds a Stream, at its first multiple of 8 bytes. There is no scratch buffer.
#include "host/limiter.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "platform/limiter_lib.h"

namespace {

constexpr int32_t kUnity = 1 << 30;
constexpr uint32_t kStep = 1 << 9;  // one step of 16 bits, in 8.24
constexpr uint32_t kMaxDelay = limiterDelayFrames(192000);

struct Stream {
  uint32_t channels;
  uint32_t window;       // W
  uint32_t releaseStep;  // fraction of the distance to unity that each frame recovers, in units of 2^-30
  uint32_t at;           // position of the next frame in the rings
  uint64_t frame;        // its number

  // Rings of the last W frames.
  int32_t in[kMaxDelay + 1][2];
  int32_t released[kMaxDelay + 1];
  int64_t sum;  // of released

  // Monotonic queue for the sliding-window minimum, in a ring: frames and gains ascend, so the first gain is the
  // minimum.
  struct QueuedGain {
    uint64_t frame;
    int32_t gain;
  } minQueue[kMaxDelay + 1];
  uint32_t first, count;
};

Stream* alignUp(void* internal) {
  constexpr uintptr_t kAlignment = alignof(Stream);
  return reinterpret_cast<Stream*>((reinterpret_cast<uintptr_t>(internal) + kAlignment - 1) / kAlignment *
                                   kAlignment);
}

void reset(Stream& s) {
  std::memset(s.in, 0, sizeof s.in);
  std::fill_n(s.released, s.window, kUnity);
  s.sum = int64_t{kUnity} * s.window;
  s.at = s.first = s.count = 0;
  s.frame = 0;
}

uint32_t magnitude(int32_t sample) {
  const auto bits = static_cast<uint32_t>(sample);
  return sample >= 0 ? bits : std::max(0 - bits, kStep) - kStep;
}

// Adds a frame's gain to the window and returns the window's minimum.
int32_t pushAndMin(Stream& s, int32_t required) {
  const auto at = [&](uint32_t i) -> Stream::QueuedGain& { return s.minQueue[(s.first + i) % s.window]; };
  if (s.count > 0 && at(0).frame + s.window <= s.frame) {
    s.first = (s.first + 1) % s.window;
    --s.count;
  }
  while (s.count > 0 && at(s.count - 1).gain >= required) --s.count;
  at(s.count++) = {s.frame++, required};
  return at(0).gain;
}

// Takes in a frame of magnitude x. Returns the gain of the frame that leaves the window.
int32_t nextGain(Stream& s, uint32_t x) {
  const int32_t required =
      x <= kLimiterThreshold ? kUnity : static_cast<int32_t>((uint64_t{kLimiterThreshold} << 30) / x);
  const int32_t held = pushAndMin(s, required);
  const int32_t before = s.released[s.at == 0 ? s.window - 1 : s.at - 1];
  const int64_t missing = kUnity - before;
  const auto risen = static_cast<int32_t>(before + ((missing * s.releaseStep + kUnity - 1) >> 30));
  const int32_t released = std::min(held, risen);
  s.sum += released - s.released[s.at];
  s.released[s.at] = released;
  return static_cast<int32_t>(s.sum / s.window);
}

// Rounds to 16 bits, ties to even.
int16_t outputOf(int32_t sample, int32_t gain) {
  constexpr int kShift = 30 + 9;
  const int64_t product = int64_t{sample} * gain;
  const int64_t half = (int64_t{1} << (kShift - 1)) - 1 + ((product >> kShift) & 1);
  return static_cast<int16_t>((product + half) >> kShift);
}

}  // namespace

int32_t Limiter_GetBufferSize(uint32_t* internalBytes, uint32_t* scratchBytes, uint32_t convertType) {
  *scratchBytes = 0;
  *internalBytes = convertType == KES_CONVERT_LIMITER ? sizeof(Stream) + alignof(Stream) - 1 : 0;
  return convertType == KES_CONVERT_LIMITER ? LIMITER_OK : LIMITER_BAD_TYPE;
}

int32_t Limiter_Open(void** instance, void* internal, LimiterParam* param) {
  *instance = nullptr;
  if (param->channels < 1 || param->channels > 2 || param->sampleRate == 0) return LIMITER_BAD_STREAM;
  auto* const s = new (alignUp(internal)) Stream;
  s->channels = param->channels;
  s->window = limiterDelayFrames(param->sampleRate) + 1;
  s->releaseStep = static_cast<uint32_t>(kUnity / (uint64_t{param->sampleRate} * 80 / 1000 + 1));
  reset(*s);
  *instance = s;
  return LIMITER_OK;
}

int32_t Limiter_Reset(void* instance) {
  reset(*static_cast<Stream*>(instance));
  return LIMITER_OK;
}

int32_t Limiter_Process(void* instance, void* /*scratch*/, const void* src, uint32_t* inBytes, void* dst,
                        uint32_t* outBytes) {
  Stream& s = *static_cast<Stream*>(instance);
  const uint32_t inFrameBytes = s.channels * 4, outFrameBytes = s.channels * 2;
  const uint32_t frames = std::min(*inBytes / inFrameBytes, *outBytes / outFrameBytes);
  const auto* from = static_cast<const unsigned char*>(src);
  auto* to = static_cast<unsigned char*>(dst);
  for (uint32_t f = 0; f < frames; ++f, from += inFrameBytes, to += outFrameBytes) {
    int32_t frame[2] = {};
    std::memcpy(frame, from, inFrameBytes);
    const int32_t gain = nextGain(s, std::max(magnitude(frame[0]), magnitude(frame[1])));
    std::memcpy(s.in[s.at], frame, sizeof frame);
    s.at = s.at + 1 == s.window ? 0 : s.at + 1;
    const int16_t out[2] = {outputOf(s.in[s.at][0], gain), outputOf(s.in[s.at][1], gain)};
    std::memcpy(to, out, outFrameBytes);
  }
  *inBytes -= frames * inFrameBytes;
  *outBytes = frames * outFrameBytes;
  return LIMITER_OK;
}
