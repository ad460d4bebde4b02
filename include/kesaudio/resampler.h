/* SPDX-License-Identifier: Apache-2.0 */
/** @file
 * The resampler: converts a stream from one sampling rate to another, by the platform's resampler library.
 *
 * @code
 * // Resamples stereo of 16 bits from 44.1 to 48 kHz in blocks of 1024 frames. Returns the bytes written.
 * uint32_t resample(const unsigned char* src, uint32_t srcBytes, unsigned char* dst, uint32_t capacity) {
 *   KesAudioSrcInC resampler;
 *   uint32_t written = 0;
 *   InitKesAudioSrcInC(&resampler);
 *   if (resampler.Open(&resampler, 44100, 2, 48000, 2, KES_RESAMPLER_S16) != KES_OK) return 0;
 *   while (srcBytes > 0) {
 *     uint32_t offered = srcBytes < 4096 ? srcBytes : 4096, rest = offered, made = capacity - written;
 *     if (resampler.Process(&resampler, src, &rest, dst + written, &made) != KES_OK) break;
 *     written += made;
 *     if (rest == offered) break; // no room, or less than a frame
 *     src += offered - rest;      // rest: bytes not consumed, offered again
 *     srcBytes -= offered - rest;
 *   }
 *   resampler.Close(&resampler);
 *   return written;
 * }
 * @endcode
 *
 * Two variants share the record: the plain one (Open, Reset, Process) and the multichannel one (MultiChannel_Open,
 * MultiChannel_ResetBuffer, MultiChannel_Process), which requires equal channel counts. The record does not remember
 * which variant opened it: use the operations of one variant between an open and its Close. Close, SetParameter and
 * GetParameter serve both.
 *
 * The caller owns the record and the sample blocks. The component owns two work buffers from open to Close (malloc
 * and free), of the sizes that the library asks for. Process allocates once at most, for the first block (see
 * Process). One record is driven by one thread at a time; separate records are independent.
 *
 * It logs under the tag "KesAudioSrcInC": debug lines on entry to and return from most operations, and errors.
 */
#ifndef KESAUDIO_RESAMPLER_H
#define KESAUDIO_RESAMPLER_H

#include <kesaudio/types.h>

/** Sample formats, in the resampler's own codes. The component takes only the sample sizes from them; the library
 * converts.
 *
 *     value  input         output
 *     0      16-bit        16-bit
 *     1      16-bit        32-bit
 *     2      32-bit        32-bit
 *     3      32-bit words  32-bit words, of the library's choice; ours takes them as 8.24
 *     4      accepted by SetParameter, but of no known size: Process logs an error and counts in bytes
 */
typedef uint32_t ResamplerFormat;

/** Named values of ResamplerFormat. */
enum {
  KES_RESAMPLER_S16 = 0,        /**< 2 bytes a sample */
  KES_RESAMPLER_S16_TO_S32 = 1, /**< 2 bytes in, 4 out */
  KES_RESAMPLER_S32 = 2,        /**< 4 bytes */
  KES_RESAMPLER_Q8_24 = 3,      /**< 4 bytes */
  KES_RESAMPLER_MAX_FORMAT = 4  /**< the highest that SetParameter takes */
};

/** Description of the stream for the library: five words, 20 bytes, no padding. */
typedef struct SrcParam {
  uint32_t inSampleRate;  /**< Hz */
  uint32_t inChannels;    /**< per input frame */
  uint32_t outSampleRate; /**< Hz */
  uint32_t outChannels;   /**< per output frame */
  ResamplerFormat format; /**< of both blocks */
} SrcParam;

/** Parameter IDs of SetParameter, and the field of mParam that each writes. GetParameter takes the odd ID that
 * follows. */
enum {
  KES_RESAMPLER_PARAM_FORMAT = 0,      /**< format: 0 to 4 */
  KES_RESAMPLER_PARAM_IN_RATE = 2,     /**< inSampleRate: any */
  KES_RESAMPLER_PARAM_OUT_RATE = 4,    /**< outSampleRate: any, while open too */
  KES_RESAMPLER_PARAM_IN_CHANNELS = 6, /**< inChannels: any */
  KES_RESAMPLER_PARAM_OUT_CHANNELS = 8 /**< outChannels: any */
};

typedef struct KesAudioSrcInC KesAudioSrcInC;

/** The record: the operations, then their data. */
struct KesAudioSrcInC {
  /** KES_STATE_CLOSED: stores value into the field of the ID; KES_BAD_PARAMETER, and nothing is stored, for a format
   * above 4 or an ID that is not in the list. KES_STATE_OPEN: only the output rate can change; it is stored and
   * handed to the library, which applies it from the next block on; any other ID gives KES_REFUSED. The library's
   * answer is ignored: mParam holds the new rate even if the library refuses it. Either open replaces all five. */
  uint32_t (*SetParameter)(KesAudioSrcInC* handle, int32_t paramID, uint32_t value);

  /** Any state: logs the field's value, and returns it nowhere. KES_BAD_PARAMETER for an ID that is not in the
   * list. */
  uint32_t (*GetParameter)(KesAudioSrcInC* handle, int32_t paramID);

  /** KES_STATE_OPEN: has the library forget the stream so far. KES_REFUSED in KES_STATE_CLOSED. */
  uint32_t (*Reset)(KesAudioSrcInC* handle);

  /** KES_STATE_CLOSED to KES_STATE_OPEN: stores the arguments, unchecked, asks the library for its buffer sizes,
   * allocates both buffers (none for a size of 0) and opens the library. KES_REFUSED in KES_STATE_OPEN (nothing
   * changes), when the library refuses the stream, or out of memory: then nothing stays allocated, and mParam holds
   * the arguments. */
  uint32_t (*Open)(KesAudioSrcInC* handle, uint32_t inSampleRate, uint32_t inChannels, uint32_t outSampleRate,
                   uint32_t outChannels, ResamplerFormat format);

  /** KES_STATE_OPEN to KES_STATE_CLOSED: frees both buffers. KES_REFUSED in KES_STATE_CLOSED. */
  uint32_t (*Close)(KesAudioSrcInC* handle);

  /** Resamples a block.
   *
   *     src, inBytes    in: bytes available. Out: bytes that the library did not consume; offer them again. Ours
   *                     never consumes part of a frame.
   *     dst, outBytes   in: capacity of dst. Out: bytes in dst.
   *
   * A dst of kes_resampler_max_output bytes takes all of the output; with less, our library leaves input, which the
   * caller offers again. The blocks may have any address and must not overlap. To get the last output of a stream,
   * feed silence after it, as long as the library's latency.
   *
   * The first block since the initialisation (not since an open or a Reset) is made as long as the input is at the
   * output rate: the library's output, shorter by its latency, is moved to the end of
   *
   *     inBytes [* 2 for 16 to 32 bits] * outSampleRate * outChannels / (inChannels * inSampleRate)
   *
   * bytes, rounded down, then up to whole output frames, and to dst's capacity at most; zero bytes come before it.
   * That calculation is done in 32-bit unsigned arithmetic that wraps, and x / 0 is 0.
   *
   * WARNING: the alignment holds for a first block of less than 2^32 / (outSampleRate * outChannels) bytes, half of
   * that for format 1: 44739 bytes at 48 kHz stereo. Beyond it the product wraps and the padding is too short or
   * none. Offer a small first block. Offer an empty one (inBytes 0) for no alignment at all: it is never padded, and
   * counts as the first. Part of a frame alone counts as the first, too, and makes silence alone. Close and Open
   * do not have the next block aligned again; initialise the closed record anew for that.
   *
   * Every block whose size by this formula is above the capacity logs an error, even if the capacity is only a few
   * frames short and nothing is lost: give as much room as kes_resampler_max_output says.
   *
   * Returns KES_OK; or KES_REFUSED in KES_STATE_CLOSED (nothing changes) or without memory for moving the first block
   * (its output stays unpadded and the next block counts as the first). Pointers and counts are not checked. */
  uint32_t (*Process)(KesAudioSrcInC* handle, const void* src, uint32_t* inBytes, void* dst, uint32_t* outBytes);

  /** As Open, for as many output as input channels: KES_REFUSED, and nothing is stored, for any others. */
  uint32_t (*MultiChannel_Open)(KesAudioSrcInC* handle, uint32_t inSampleRate, uint32_t inChannels,
                                uint32_t outSampleRate, uint32_t outChannels, ResamplerFormat format);

  /** As Reset. */
  uint32_t (*MultiChannel_ResetBuffer)(KesAudioSrcInC* handle);

  /** As Process. */
  uint32_t (*MultiChannel_Process)(KesAudioSrcInC* handle, const void* src, uint32_t* inBytes, void* dst,
                                   uint32_t* outBytes);

  uint32_t mTempBufSize;     /**< bytes, as the library asked for at the last open */
  uint32_t mInternalBufSize; /**< bytes, likewise */
  void* mpTempBuf;           /**< scratch for every block; null when there is none */
  void* mpInternalBuf;       /**< the library's memory of the stream; null when there is none */
  SrcParam mParam;           /**< the stream, as last set by an open or SetParameter */
  void* mpResampler;         /**< the library's instance, null until its open stores one */
  ComponentState mState;     /**< changed by the opens and Close alone */
  uint32_t mFirstBlockDone;  /**< 0 until a first block was processed, then 1; only the initialisation clears it */
};

/** Fills the operations, sets mState to KES_STATE_CLOSED and every other member to 0, whatever the record held
 * before: it frees nothing. Logs one debug line. */
KESAUDIO_API void InitKesAudioSrcInC(KesAudioSrcInC* handle);

/** A capacity in bytes that takes all output of a block of inBytes: the input's frames at the output rate, rounded
 * up, and one frame more. That holds for our library, except for the first block after SetParameter raised the output
 * rate, which can have 30 * new / old rate frames more; a device's may hold back more and give it later. 0 for a
 * format above 3, a count or input rate of 0, or 2^32 bytes or more. param may be a record's mParam. Any thread. */
KESAUDIO_API uint32_t kes_resampler_max_output(const SrcParam* param, uint32_t inBytes);

#endif
