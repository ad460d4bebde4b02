// SPDX-License-Identifier: Apache-2.0
// Processes a block and aligns the first one: the library's latency makes its output too short, so zeros in front of
// it make it as long as the input at the output rate.
//
//   expected = bytes * outSampleRate * outChannels / (inChannels * inSampleRate)    in whole output frames
//
// where bytes is the size of the input's samples at the output's width. 32-bit unsigned arithmetic, which wraps; x /
// 0 is 0. The library alone decides how much input it consumes: bytes that it leaves are the caller's to offer again.
#include <cstdlib>
#include <cstring>

#include "resampler/variant.h"

namespace kesaudio::resampler {
namespace {

uint32_t divideOrZero(uint32_t dividend, uint32_t divisor) { return divisor == 0 ? 0 : dividend / divisor; }

uint32_t outputFrameBytes(const SrcParam& param) {
  switch (param.format) {
    case KES_RESAMPLER_S16: return 2 * param.outChannels;
    case KES_RESAMPLER_S16_TO_S32:
    case KES_RESAMPLER_S32:
    case KES_RESAMPLER_Q8_24: return 4 * param.outChannels;
  }
  __android_log_print(KES_LOG_ERROR, kTag, "unknown format %u!!", param.format);
  return 1;
}

uint32_t expectedBytes(const SrcParam& param, uint32_t inBytes) {
  const uint32_t bytes = param.format == KES_RESAMPLER_S16_TO_S32 ? 2 * inBytes : inBytes;
  const uint32_t expected =
      divideOrZero(bytes * param.outSampleRate * param.outChannels, param.inChannels * param.inSampleRate);
  const uint32_t frameBytes = outputFrameBytes(param);
  const uint32_t whole = divideOrZero(expected, frameBytes) * frameBytes;
  return whole == expected ? expected : whole + frameBytes;
}

// Moves the first madeBytes of dst to the end of its first expectedBytes, behind zeros. False when out of memory.
bool moveBehindZeros(void* dst, uint32_t madeBytes, uint32_t expectedBytes) {
  auto* aligned = static_cast<unsigned char*>(std::malloc(expectedBytes));
  if (!aligned) return false;
  std::memset(aligned, 0, expectedBytes - madeBytes);
  std::memcpy(aligned + (expectedBytes - madeBytes), dst, madeBytes);
  std::memcpy(dst, aligned, expectedBytes);
  std::free(aligned);
  return true;
}

}  // namespace

uint32_t process(KesAudioSrcInC* handle, const Variant& variant, const void* src, uint32_t* inBytes, void* dst,
                 uint32_t* outBytes) {
  if (handle->mState != KES_STATE_OPEN) return KES_REFUSED;
  uint32_t expected = expectedBytes(handle->mParam, *inBytes);
  if (expected > *outBytes) {
    __android_log_print(KES_LOG_ERROR, kTag, "OutputSampleCount %u < %u!!", *outBytes, expected);
    expected = *outBytes;
  }
  variant.process(handle->mpResampler, handle->mpTempBuf, src, inBytes, dst, outBytes);

  if (handle->mFirstBlockDone != 1 && *outBytes != expected) {
    __android_log_print(KES_LOG_DEBUG, kTag, "OutputSampleCount %u => %u", *outBytes, expected);
    if (expected > *outBytes) {
      if (!moveBehindZeros(dst, *outBytes, expected)) {
        __android_log_print(KES_LOG_DEBUG, kTag, "%s() tmp malloc failed\n", variant.processName);
        return KES_REFUSED;
      }
      *outBytes = expected;
    }
  }
  handle->mFirstBlockDone = 1;
  return KES_OK;
}

}  // namespace kesaudio::resampler
