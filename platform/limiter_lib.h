/* SPDX-License-Identifier: Apache-2.0 */
/* The platform's limiter library, libkeslimiter_vendor, as far as the bit converter uses it: brings 8.24 samples with
 * headroom to 16 bits, turning peaks down instead of cutting them off.
 *
 * On a device the platform provides it. Elsewhere ours does (host/limiter.cpp); what follows is about ours.
 *
 *   channels   1 or 2; both are turned down together, so that the image stays
 *   rates      any but 0
 *   threshold  -32768 to 32767 of 16 bits: what lies within passes as it is, rounded to the nearest, ties to even
 *   delay      1.5 ms (LIMITER_DELAY_FRAMES), by which it sees peaks coming; silence comes out first
 *   attack     the delay: the gain goes down to what a peak needs along a straight line
 *   release    80 ms to go up by 63 % of what is missing
 *
 * The instance lives in the internal buffer, so separate instances are independent, and there is nothing to close.
 */
#ifndef KESAUDIO_PLATFORM_LIMITER_LIB_H
#define KESAUDIO_PLATFORM_LIMITER_LIB_H

#include <kesaudio/bit_converter.h>

/* The highest sample of 16 bits, in 8.24. */
#define LIMITER_THRESHOLD (32767 << 9)

/* The delay in frames: 1.5 ms, rounded down, and above 192 kHz no more than there. */
#define LIMITER_DELAY_FRAMES(sampleRate) ((sampleRate) < 192000 ? (sampleRate) * 3 / 2000 : 288)

enum { LIMITER_OK = 0, LIMITER_BAD_TYPE = -1, LIMITER_BAD_STREAM = -2 };

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* Sizes in bytes of the buffers that any stream needs; the scratch's is 0, for none. LIMITER_BAD_TYPE, with both sizes
 * 0, for any convertType but 256. */
int32_t Limiter_GetBufferSize(uint32_t* internalBytes, uint32_t* scratchBytes, uint32_t convertType);

/* Sets up a stream in the internal buffer, and the instance to give to the other operations. LIMITER_BAD_STREAM, and
 * a null instance, for channels or a rate that is not in the list. */
int32_t Limiter_Open(void** instance, void* internal, LimiterParam* param);

/* Back to the state after Limiter_Open. */
int32_t Limiter_Reset(void* instance);

/* Limits a block: as many whole frames as src holds and dst has room for. inBytes: available -> not consumed;
 * outBytes: capacity -> written. dst may be src. */
int32_t Limiter_Process(void* instance, void* scratch, const void* src, uint32_t* inBytes, void* dst,
                        uint32_t* outBytes);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
