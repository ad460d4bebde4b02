// SPDX-License-Identifier: Apache-2.0
#include <kesaudio/resampler.h>

uint32_t kes_resampler_max_output(const SrcParam* param, uint32_t inBytes) {
  if (param->format > KES_RESAMPLER_Q8_24) return 0;
  const uint64_t inFrame = (param->format <= KES_RESAMPLER_S16_TO_S32 ? 2ULL : 4ULL) * param->inChannels;
  const uint64_t outFrame = (param->format == KES_RESAMPLER_S16 ? 2ULL : 4ULL) * param->outChannels;
  if (inFrame == 0 || outFrame == 0 || param->inSampleRate == 0) return 0;
  // Both divisions round up, and one frame is added. No overflow: there are fewer than 2^32 input frames.
  const uint64_t inFrames = (inBytes + inFrame - 1) / inFrame;
  const uint64_t outFrames = (inFrames * param->outSampleRate + param->inSampleRate - 1) / param->inSampleRate + 1;
  return outFrames > UINT32_MAX / outFrame ? 0 : static_cast<uint32_t>(outFrames * outFrame);
}
