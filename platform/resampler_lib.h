/* SPDX-License-Identifier: Apache-2.0 */
/* The platform's resampler library, libpalix32_vendor, as far as the resampler component uses it.
 *
 * On a device the platform provides it. Elsewhere ours does (host/resampler/engine.cpp): the errors, formats and
 * limits below are those of ours.
 *
 *   format   0: 16-bit in and out   1: 16-bit in, 32-bit out   2: 32-bit in and out   3: 8.24 in and out
 *   rates    4000 to 768000 Hz, any pair
 *   channels 1 to 8, as many out as in
 *
 * The instance lives in the internal buffer, so separate instances are independent, and there is nothing to close.
 */
#ifndef KESAUDIO_PLATFORM_RESAMPLER_LIB_H
#define KESAUDIO_PLATFORM_RESAMPLER_LIB_H

#include <kesaudio/resampler.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Reasons for which a size query refuses a stream, or Palix_SetSamplingRate a rate. */
enum {
  PALIX_OK = 0,
  PALIX_BAD_FORMAT = -1,
  PALIX_BAD_RATE = -2,
  PALIX_BAD_CHANNELS = -3,
  PALIX_NO_ROOM = -4 /* the new rate needs a longer filter than the buffer was sized for */
};

/* Sizes in bytes of the buffers that a stream needs, 0 for none. Negative, with both sizes 0, for one of the reasons
 * above. */
int32_t Palix_GetBufferSize(uint32_t* internalBytes, uint32_t* scratchBytes, SrcParam* param);

/* Sets up a stream in the internal buffer, and sets the instance that the other operations take. */
int32_t Palix_Open(void** instance, void* internal, SrcParam* param);

/* Changes the output rate from the next block on, without a gap. Refuses a rate whose filter is more than twice as
 * long as the one at open. Most changes rebuild the filter's table, in a fraction of a millisecond; between ratios of
 * large numbers, as for following a drifting clock, changes below 0.1 % keep it. */
int32_t Palix_SetSamplingRate(void* instance, uint32_t outSampleRate);

/* Back to the state after an open, at the output rate in force. */
int32_t Palix_Reset(void* instance);

/* Converts a block. inBytes: available -> not consumed; outBytes: capacity -> written. Consumes all whole frames of
 * the input while their output fits. The output lags by half of the filter, 30 frames of the lower rate. src and dst
 * may have any address, and must not overlap each other or the work buffers. */
int32_t Palix_Process(void* instance, void* scratch, const void* src, uint32_t* inBytes, void* dst,
                      uint32_t* outBytes);

/* The multichannel variant. Ours is the same as the plain one. */
int32_t Palix_MultiChannel_GetBufferSize(uint32_t* internalBytes, uint32_t* scratchBytes, SrcParam* param);
int32_t Palix_MultiChannel_Open(void** instance, void* internal, SrcParam* param);
int32_t Palix_MultiChannel_Reset(void* instance);
int32_t Palix_MultiChannel_Process(void* instance, void* scratch, const void* src, uint32_t* inBytes, void* dst,
                                   uint32_t* outBytes);

#ifdef __cplusplus
}
#endif

#endif
