// SPDX-License-Identifier: Apache-2.0
// The entry points: byte accounting and choice of kernel.
#include "kesaudio/channel_entry.h"

#include "kesaudio/channel_kernels.h"

namespace {

uint32_t divideOrZero(uint32_t dividend, uint32_t divisor) { return divisor == 0 ? 0 : dividend / divisor; }

// Rewrites the two counts and returns the input bytes to convert. Both sides have the same bytes per channel, so the
// sample size cancels out. A partial frame at the end of the input counts as converted: kernels ignore it, and it is
// lost. The arithmetic wraps at 32 bits.
int32_t takeBytes(uint32_t inChannels, uint32_t outChannels, uint32_t* inBytes, uint32_t* outBytes) {
  const uint32_t available = *inBytes;
  const uint32_t needed = divideOrZero(available, inChannels) * outChannels;
  if (*outBytes >= needed) {
    *outBytes = needed;
    *inBytes = 0;
    return static_cast<int32_t>(available);
  }
  const uint32_t taken = divideOrZero(*outBytes, outChannels) * inChannels;
  *inBytes = available - taken;
  return static_cast<int32_t>(taken);
}

}  // namespace

uint32_t Audio_Channel_Downmix(uint32_t inChannels, uint32_t outChannels, PcmFormat format, const void* src,
                               uint32_t* inBytes, void* dst, uint32_t* outBytes, ChannelMask mask) {
  if (inChannels < outChannels) return KES_OK;
  const int32_t byteCount = takeBytes(inChannels, outChannels, inBytes, outBytes);
  const auto dstChannels = static_cast<int32_t>(outChannels);
  const auto srcChannels = static_cast<int32_t>(inChannels);

  const bool hasLayout = mask != KES_LAYOUT_NONE && mask != KES_LAYOUT_UNKNOWN;
  if (outChannels == 1 || outChannels == 2 || hasLayout)
    channel_DownMix_FOLD(dst, dstChannels, src, srcChannels, byteCount, format, mask);
  else
    channel_DownMix_Strip(dst, dstChannels, src, srcChannels, byteCount, format);
  return KES_OK;
}

int32_t Audio_Channel_Upmix(uint32_t inChannels, uint32_t outChannels, PcmFormat format, const void* src,
                            uint32_t* inBytes, void* dst, uint32_t* outBytes, uint32_t zeroFill) {
  if (inChannels > outChannels) return -1;
  const int32_t byteCount = takeBytes(inChannels, outChannels, inBytes, outBytes);
  const auto kernel = zeroFill != 0 ? channel_UpMix_WithZero : channel_UpMix_Duplicate;
  kernel(dst, static_cast<int32_t>(outChannels), src, static_cast<int32_t>(inChannels), byteCount, format);
  return KES_OK;
}
