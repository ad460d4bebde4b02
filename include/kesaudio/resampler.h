/* SPDX-License-Identifier: Apache-2.0 */
/* The resampler: converts a stream from one sampling rate to another, by the platform's resampler library.
 *
 *   KesAudioSrcInC resampler;
 *   InitKesAudioSrcInC(&resampler);
 *   resampler.Open(&resampler, 44100, 2, 48000, 2, KES_RESAMPLER_S16);
 *   resampler.Process(&resampler, src, &inBytes, dst, &outBytes);    block after block
 *   resampler.Close(&resampler);
 *
 * Two variants share the record: the plain one (Open, Reset, Process) and the multichannel one (MultiChannel_Open,
 * MultiChannel_ResetBuffer, MultiChannel_Process), which wants equal channel counts. The record does not remember
 * which one opened it: use the operations of one variant between an open and its Close. Close, SetParameter and
 * GetParameter serve both.
 *
 * The caller owns the record and the sample blocks. The component owns two work buffers from open to Close (malloc and
 * free), of the sizes that the library asks for. Process allocates once at most, for the first block (see Process).
 * One record is driven by one thread at a time; separate records are independent.
 *
 * It logs under the tag "KesAudioSrcInC": debug lines on the way in and out of most operations, and errors.
 */
#ifndef KESAUDIO_RESAMPLER_H
#define KESAUDIO_RESAMPLER_H

#include <kesaudio/types.h>

/* Sample formats of the resampler, its own codes. The component looks at them for sizes only and hands them to the
 * library.
 *
 *   value  input         output
 *   0      16-bit        16-bit
 *   1      16-bit        32-bit
 *   2      32-bit        32-bit
 *   3      8.24          8.24 (32-bit words)
 *   4      accepted by SetParameter, but of no known size: Process logs an error and counts in bytes
 */
typedef uint32_t ResamplerFormat;

/* The values of ResamplerFormat that have a name. */
enum {
  KES_RESAMPLER_S16 = 0,        /* 2 bytes a sample */
  KES_RESAMPLER_S16_TO_S32 = 1, /* 2 bytes in, 4 out */
  KES_RESAMPLER_S32 = 2,        /* 4 bytes */
  KES_RESAMPLER_Q8_24 = 3,      /* 4 bytes */
  KES_RESAMPLER_MAX_FORMAT = 4  /* the last one that SetParameter takes */
};

/* What the library is told of the stream: five words, 20 bytes, no padding. */
typedef struct SrcParam {
  uint32_t inSampleRate;  /* Hz */
  uint32_t inChannels;    /* per input frame */
  uint32_t outSampleRate; /* Hz */
  uint32_t outChannels;   /* per output frame */
  ResamplerFormat format; /* of both blocks */
} SrcParam;

/* Parameter IDs of SetParameter, and the field of mParam that each writes. GetParameter takes the odd ID that
 * follows. */
enum {
  KES_RESAMPLER_PARAM_FORMAT = 0,      /* format: 0 to 4 */
  KES_RESAMPLER_PARAM_IN_RATE = 2,     /* inSampleRate: any */
  KES_RESAMPLER_PARAM_OUT_RATE = 4,    /* outSampleRate: any, while open too */
  KES_RESAMPLER_PARAM_IN_CHANNELS = 6, /* inChannels: any */
  KES_RESAMPLER_PARAM_OUT_CHANNELS = 8 /* outChannels: any */
};

typedef struct KesAudioSrcInC KesAudioSrcInC;

/* The record: the operations, then what they keep. */
struct KesAudioSrcInC {
  /* State 1: stores value into the field of the ID; KES_BAD_PARAMETER, and nothing is stored, for a format above 4 or
   * an ID that is not in the list. State 2: only the output rate can change; it is stored and handed to the library,
   * which applies it from the next block on; any other ID gives KES_REFUSED. Whether the library takes the rate is not
   * looked at: mParam holds the new one in any case. Either open replaces all five. */
  uint32_t (*SetParameter)(KesAudioSrcInC* handle, int32_t paramID, uint32_t value);

  /* Any state: logs the field's value, which goes nowhere else. KES_BAD_PARAMETER for an ID that is not in the list. */
  uint32_t (*GetParameter)(KesAudioSrcInC* handle, int32_t paramID);

  /* State 2: has the library forget the stream so far. KES_REFUSED in state 1. */
  uint32_t (*Reset)(KesAudioSrcInC* handle);

  /* State 1 to 2: stores the arguments, unchecked, asks the library for its buffer sizes, allocates both buffers (none
   * for a size of 0) and opens the library. KES_REFUSED in state 2 (nothing changes), when the library refuses the
   * stream, or out of memory: then nothing stays allocated, and mParam holds the arguments. */
  uint32_t (*Open)(KesAudioSrcInC* handle, uint32_t inSampleRate, uint32_t inChannels, uint32_t outSampleRate,
                   uint32_t outChannels, ResamplerFormat format);

  /* State 2 to 1: frees both buffers. KES_REFUSED in state 1. */
  uint32_t (*Close)(KesAudioSrcInC* handle);

  /* Resamples a block.
   *
   *   src, inBytes    in: bytes available. Out: what the library leaves there, the bytes that it did not consume.
   *   dst, outBytes   in: capacity of dst. Out: bytes in dst.
   *
   * A dst for inBytes * outSampleRate / inSampleRate (twice that for format 1) and one frame more takes all of the
   * output; with less, the library leaves input, which the caller offers again. The blocks may have any address and
   * must not overlap. The last output of a stream comes out when silence is fed behind it, as much as the library's
   * latency is.
   *
   * The first block since the initialisation (not since an open or a Reset) is made as long as the input is at the
   * output rate: the library's output, shorter by its latency, is moved to the end of
   *
   *   inBytes [* 2 for 16 to 32 bits] * outSampleRate * outChannels / (inChannels * inSampleRate)
   *
   * bytes, rounded down, then up to whole output frames, and to dst's capacity at most; zero bytes come before it.
   * That calculation is done in 32-bit unsigned arithmetic that wraps, and x / 0 is 0. A first block with an inBytes
   * of 0 is never padded, and settles the matter.
   *
   * Returns KES_OK; or KES_REFUSED in state 1 (nothing changes) or when the memory for moving the first block can't be
   * had (its output stays unpadded and the next block counts as the first). Pointers and counts are not checked. */
  uint32_t (*Process)(KesAudioSrcInC* handle, const void* src, uint32_t* inBytes, void* dst, uint32_t* outBytes);

  /* As Open, for as many output as input channels: KES_REFUSED, and nothing is stored, for any others. */
  uint32_t (*MultiChannel_Open)(KesAudioSrcInC* handle, uint32_t inSampleRate, uint32_t inChannels,
                                uint32_t outSampleRate, uint32_t outChannels, ResamplerFormat format);

  /* As Reset. */
  uint32_t (*MultiChannel_ResetBuffer)(KesAudioSrcInC* handle);

  /* As Process. */
  uint32_t (*MultiChannel_Process)(KesAudioSrcInC* handle, const void* src, uint32_t* inBytes, void* dst,
                                   uint32_t* outBytes);

  uint32_t mTempBufSize;     /* bytes, as the library asked for at the last open */
  uint32_t mInternalBufSize; /* bytes, likewise */
  void* mpTempBuf;           /* scratch for every block; null when there is none */
  void* mpInternalBuf;       /* the library's memory of the stream; null when there is none */
  SrcParam mParam;           /* the stream, as the last open or SetParameter stored it */
  void* mpResampler;         /* the library's instance, null until its open stores one */
  ComponentState mState;     /* changed by the opens and Close alone */
  uint32_t mFirstBlockDone;  /* 0 until a first block was processed, then 1; only the initialisation clears it */
};

/* Fills the operations, sets mState to 1 and every other member to 0, whatever the record held before: it frees
 * nothing. Logs one debug line. */
KESAUDIO_API void InitKesAudioSrcInC(KesAudioSrcInC* handle);

#endif
