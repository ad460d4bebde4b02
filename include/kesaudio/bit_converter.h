/* SPDX-License-Identifier: Apache-2.0 */
/** @file
 * The bit converter: changes the sample format of a stream, by the platform's shifter library, or brings 8.24 samples
 * with headroom to 16 bits, by its limiter library.
 *
 * @code
 * // Limits stereo 8.24 to 16 bits. Returns the bytes written, 0 when the limiter can't be set up.
 * uint32_t limit(const unsigned char* src, uint32_t srcBytes, unsigned char* dst, uint32_t capacity) {
 *   KesAudioBitConverterC converter;
 *   uint32_t left = srcBytes, written = 0;
 *   InitKesAudioBitConverterC(&converter);
 *   if (converter.Open(&converter, 48000, 2, KES_CONVERT_LIMITER) != KES_OK) return 0;
 *   while (left > 0) {
 *     uint32_t rest = left, made = capacity - written;
 *     if (converter.Process(&converter, src, &rest, dst + written, &made) != KES_OK) break;
 *     written += made;
 *     if (rest == left) break; // no room, or less than a frame
 *     src += left - rest;      // rest: bytes not consumed, offered again
 *     left = rest;
 *   }
 *   converter.Close(&converter);
 *   return written;
 * }
 * @endcode
 *
 * WARNING: types that do nothing leave both counts: end a loop when nothing was consumed, as this one does, and do
 * not take outBytes for bytes made.
 *
 * Unlike the other records, this one begins with Open.
 *
 * The caller owns the record and the sample blocks. The component owns the limiter's two work buffers from Open to
 * Close (malloc and free), of the sizes that the library asks for; other types need none. Process allocates nothing.
 * One record is driven by one thread at a time; separate records are independent.
 *
 * It logs under the tag "KesAudioBitConverterc": one debug line at each SetParameter and GetParameter, and one when
 * Open is out of memory.
 */
#ifndef KESAUDIO_BIT_CONVERTER_H
#define KESAUDIO_BIT_CONVERTER_H

#include <kesaudio/types.h>

/** The conversion that Process does.
 *
 *     value          Process                                          SetParameter
 *     0 .. 11        the shifter library's conversion of that number  takes it
 *     12, 257        nothing                                          takes it
 *     256            the limiter                                      takes it
 *     0xFFFF, other  nothing                                          refuses it (Open stores it)
 *
 * On a device the platform's library defines 0 to 11. Ours, elsewhere, takes them as the pairs of sample formats
 * below.
 */
typedef uint32_t ConvertType;

/** Named values of ConvertType, and how our shifter converts a sample. Full scale stays full scale. */
enum {
  KES_CONVERT_S16_TO_S32 = 0,    /**< exact */
  KES_CONVERT_S16_TO_Q8_24 = 1,  /**< exact */
  KES_CONVERT_S16_TO_S24 = 2,    /**< exact */
  KES_CONVERT_S32_TO_S16 = 3,    /**< rounded, clamped */
  KES_CONVERT_S32_TO_Q8_24 = 4,  /**< rounded */
  KES_CONVERT_S32_TO_S24 = 5,    /**< rounded, clamped */
  KES_CONVERT_Q8_24_TO_S16 = 6,  /**< rounded, clamped */
  KES_CONVERT_Q8_24_TO_S32 = 7,  /**< exact up to full scale, clamped beyond */
  KES_CONVERT_Q8_24_TO_S24 = 8,  /**< rounded, clamped */
  KES_CONVERT_S24_TO_S16 = 9,    /**< rounded, clamped */
  KES_CONVERT_S24_TO_S32 = 10,   /**< exact */
  KES_CONVERT_S24_TO_Q8_24 = 11, /**< exact */
  KES_CONVERT_NOTHING = 12,      /**< no conversion, as for every higher value but the limiter's */
  KES_CONVERT_LIMITER = 256,     /**< the limiter library; ours takes 8.24 with headroom, gives 16 bits */
  KES_CONVERT_RESERVED = 257,    /**< nothing */
  KES_CONVERT_UNSET = 0xFFFF     /**< after the initialisation */
};

/** Description of the stream for the limiter library: four words, 16 bytes, no padding. */
typedef struct LimiterParam {
  uint32_t channels;   /**< per frame, on both sides */
  uint32_t sampleRate; /**< Hz */
  uint32_t reserved0;  /**< 0 */
  uint32_t reserved1;  /**< 0 */
} LimiterParam;

/** Parameter IDs of SetParameter, and the member that each writes. */
enum {
  KES_BIT_PARAM_CONVERT_TYPE = 0, /**< mConvertType: 0 to 12, 256, 257 */
  KES_BIT_PARAM_SAMPLE_RATE = 2,  /**< mSampleRate: any */
  KES_BIT_PARAM_CHANNELS = 4      /**< mChannels: 1 or 2 */
};

typedef struct KesAudioBitConverterC KesAudioBitConverterC;

/** The record: the operations, then their data. */
struct KesAudioBitConverterC {
  /** KES_STATE_CLOSED to KES_STATE_OPEN: stores the arguments, unchecked, and forgets any earlier limiter. For
   * KES_CONVERT_LIMITER with sampleRate and channels other than 0, sets up the limiter: asks its library for its
   * buffer sizes, allocates both (none for a size of 0) and opens it. KES_REFUSED in KES_STATE_OPEN (nothing changes)
   * or out of memory: then nothing stays allocated, and the members hold the arguments. */
  uint32_t (*Open)(KesAudioBitConverterC* handle, uint32_t sampleRate, uint32_t channels, ConvertType convertType);

  /** Any state: frees both buffers and enters KES_STATE_CLOSED. Always KES_OK. */
  uint32_t (*Close)(KesAudioBitConverterC* handle);

  /** KES_STATE_CLOSED: stores value into the member of the ID; KES_BAD_PARAMETER, and nothing is stored, for a value
   * that is not in the list above or an unknown ID. KES_REFUSED in KES_STATE_OPEN. Open replaces all three, so values
   * stored here never reach Process: there is no need to call it. */
  uint32_t (*SetParameter)(KesAudioBitConverterC* handle, int32_t paramID, uint32_t value);

  /** Any state: writes nothing. KES_OK for the IDs 1, 2 and 4, KES_BAD_PARAMETER for any other. There is no need to
   * call it. */
  uint32_t (*GetParameter)(KesAudioBitConverterC* handle, int32_t paramID, void* value);

  /** Has the limiter forget the stream so far, if Open set one up. Always KES_OK. */
  uint32_t (*Reset)(KesAudioBitConverterC* handle);

  /** Converts a block.
   *
   *     src, inBytes    in: bytes available. Out: bytes that the library did not consume; offer them again. Our
   *                     shifter never consumes part of a sample, our limiter never part of a frame.
   *     dst, outBytes   in: capacity of dst. Out: bytes that the library made.
   *
   * Types that do nothing leave the buffers and both counts as they were. Returns KES_OK; or KES_REFUSED, and touches
   * nothing, in KES_STATE_CLOSED, or for KES_CONVERT_LIMITER if Open set up no limiter or got no instance from the
   * library (ours takes 1 or 2 channels). Pointers and counts are not checked, and the libraries' return values are
   * ignored. */
  uint32_t (*Process)(KesAudioBitConverterC* handle, const void* src, uint32_t* inBytes, void* dst,
                      uint32_t* outBytes);

  ConvertType mConvertType;   /**< the conversion that Process does */
  uint32_t mChannels;         /**< per frame; only the limiter asks */
  uint32_t mSampleRate;       /**< Hz; only the limiter asks */
  void* mpTempBuf;            /**< the limiter's scratch for every block; null when there is none */
  void* mpInternalBuf;        /**< the limiter's memory of the stream; null when there is none */
  uint32_t mTempBufSize;      /**< bytes, as the limiter asked for when it was last set up */
  uint32_t mInternalBufSize;  /**< bytes, likewise */
  LimiterParam mLimiterParam; /**< the stream, as Open described it to the limiter */
  void* mpLimiter;            /**< the limiter's instance; null if there is none */
  ComponentState mState;      /**< changed by Open and Close alone */
};

/** Fills the operations, sets mConvertType to KES_CONVERT_UNSET, mState to KES_STATE_CLOSED and every other member to
 * 0, whatever the record held before: it frees nothing. Logs nothing. */
KESAUDIO_API void InitKesAudioBitConverterC(KesAudioBitConverterC* handle);

#endif
