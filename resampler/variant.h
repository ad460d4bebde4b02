// SPDX-License-Identifier: Apache-2.0
// Function table of the plain and of the multichannel library calls. The component's code takes either.
#ifndef KESAUDIO_RESAMPLER_VARIANT_H
#define KESAUDIO_RESAMPLER_VARIANT_H

#include "platform/log.h"
#include "platform/resampler_lib.h"

namespace kesaudio::resampler {

struct Variant {
  // Names of the operations in the log.
  const char *openName, *resetName, *processName;
  decltype(&Palix_GetBufferSize) getBufferSize;
  decltype(&Palix_Open) open;
  decltype(&Palix_Reset) reset;
  decltype(&Palix_Process) process;
};

inline constexpr Variant kPlain = {"SrcOpen",  "SrcReset",  "SrcProcess", Palix_GetBufferSize,
                                   Palix_Open, Palix_Reset, Palix_Process};
inline constexpr Variant kMultiChannel = {
    "MultiChannel_Open",     "MultiChannel_ResetBuffer", "MultiChannel_Process",    Palix_MultiChannel_GetBufferSize,
    Palix_MultiChannel_Open, Palix_MultiChannel_Reset,   Palix_MultiChannel_Process};

inline constexpr char kTag[] = "KesAudioSrcInC";  // of every log line

// Converts a block, and aligns the first one (process.cpp).
uint32_t process(KesAudioSrcInC* handle, const Variant& variant, const void* src, uint32_t* inBytes, void* dst,
                 uint32_t* outBytes);

}  // namespace kesaudio::resampler

#endif
