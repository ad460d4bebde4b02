/* SPDX-License-Identifier: Apache-2.0 */
/* The platform's limiter library, libkeslimiter_vendor, as far as the bit converter uses it: brings samples with
 * headroom to fewer bits, turning peaks down instead of cutting them off.
 *
 * On a device the platform provides it, and defines its samples, threshold and delay. It must provide the four
 * functions below:
 *
 *   Limiter_GetBufferSize  sets both sizes; 0 means no buffer, and a null pointer is then passed on
 *   Limiter_Open           sets the instance, or leaves it null if it fails
 *   Limiter_Reset          forgets the stream so far; only called with an instance
 *   Limiter_Process        sets both counts; only called with an instance
 *
 * There is no close: the bit converter frees the two buffers (from malloc). Return values are ignored.
 *
 * Elsewhere ours takes its place (host/limiter.cpp):
 *
 *   samples    8.24 in, 16 bits out
 *   channels   1 or 2; both are turned down together, so that the image stays
 *   rates      any but 0
 *   threshold  -32768 to 32767 of 16 bits: samples within it are only rounded, to the nearest, ties to even
 *   delay      1.5 ms, by which it sees peaks coming; silence comes out first
 *   attack     the delay: the gain goes down in a straight line to the value that the peak needs
 *   release    80 ms to recover 63 % of the reduction
 *
 * Its instance lives in the internal buffer, so separate instances are independent.
 */
#ifndef KESAUDIO_PLATFORM_LIMITER_LIB_H
#define KESAUDIO_PLATFORM_LIMITER_LIB_H

#include <kesaudio/bit_converter.h>

/* Our return values. */
enum { LIMITER_OK = 0, LIMITER_BAD_TYPE = -1, LIMITER_BAD_STREAM = -2 };

#ifdef __cplusplus
extern "C" {
#endif

/* Sizes in bytes of the buffers that any stream needs, 0 for none: ours needs no scratch. LIMITER_BAD_TYPE, with both
 * sizes 0, for any convertType but 256. */
int32_t Limiter_GetBufferSize(uint32_t* internalBytes, uint32_t* scratchBytes, uint32_t convertType);

/* Sets up a stream in the internal buffer, and sets the instance that the other operations take. LIMITER_BAD_STREAM,
 * and a null instance, for channels or a rate that is not in the list. */
int32_t Limiter_Open(void** instance, void* internal, LimiterParam* param);

/* Back to the state after Limiter_Open. */
int32_t Limiter_Reset(void* instance);

/* Limits all whole frames that src holds and dst has room for. inBytes: available -> not consumed;
 * outBytes: capacity -> written. dst may be src. */
int32_t Limiter_Process(void* instance, void* scratch, const void* src, uint32_t* inBytes, void* dst,
                        uint32_t* outBytes);

#ifdef __cplusplus
}
#endif

#endif
