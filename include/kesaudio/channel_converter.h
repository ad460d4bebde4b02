/* SPDX-License-Identifier: Apache-2.0 */
/** @file
 * The channel converter: a small state machine over the entry points (channel_entry.h) for callers that drive every
 * component through a record of operations.
 *
 * @code
 * // Converts 5.1 to stereo, 16 bits, through a small output buffer. Returns the bytes written, 0 on failure.
 * uint32_t toStereo(const unsigned char* src, uint32_t srcBytes, unsigned char* dst) {
 *   KesAudioChannelConverterInC converter;
 *   uint32_t left = srcBytes - srcBytes % 12, written = 0; // whole frames of 6 * 2 bytes
 *   InitKesAudioChannelConverterInC(&converter);
 *   if (converter.Open(&converter, 6, 2, KES_PCM_S16) != KES_OK) return 0;
 *   while (left > 0) {
 *     uint32_t rest = left, made = 400; // the capacity: whole frames
 *     if (converter.Process(&converter, src, &rest, dst + written, &made) != KES_OK) break;
 *     src += left - rest; // rest: bytes not converted, offered again
 *     left = rest;
 *     written += made;
 *   }
 *   converter.Close(&converter);
 *   return written;
 * }
 * @endcode
 *
 * WARNING: with as many output as input channels Process converts nothing and leaves both counts, so this loop would
 * never end. Copy the block instead.
 *
 * WARNING: offer whole frames. Part of a frame at the end of a block counts as converted, is not written, and is not
 * remembered: half a frame alone returns KES_OK with inBytes 0. Keep it, and offer it with the rest of its frame.
 *
 * Through this record a stereo downmix is always the pairwise average, a mono one the average (after Reset, the fold)
 * and an upmix always repeats channels: Open sets this, and nothing can be set while open. For the mix of a
 * layout, or for silent new channels, call Audio_Channel_Downmix or Audio_Channel_Upmix. The average takes even
 * channels to the left and odd ones to the right: of 5.1, the centre goes to the left side alone, the LFE to the
 * right.
 *
 * The caller owns the record. The component allocates nothing and logs one line, in its initialisation. One record is
 * driven by one thread at a time; separate records are independent.
 */
#ifndef KESAUDIO_CHANNEL_CONVERTER_H
#define KESAUDIO_CHANNEL_CONVERTER_H

#include <kesaudio/types.h>

/** Parameter IDs of SetParameter, and the member that each writes. */
enum {
  KES_CHANNEL_PARAM_FORMAT = 0,       /**< mFormat */
  KES_CHANNEL_PARAM_IN_CHANNELS = 2,  /**< mInChannels */
  KES_CHANNEL_PARAM_OUT_CHANNELS = 4, /**< mOutChannels */
  KES_CHANNEL_PARAM_UPMIX_MODE = 6,   /**< mUpmixMode */
  KES_CHANNEL_PARAM_MASK = 8,         /**< mChannelMask */
  KES_CHANNEL_PARAM_MASK_VALID = 10   /**< mChannelMaskValid */
};

/** Open's limit on either channel count. */
enum { KES_CHANNEL_CONVERTER_MAX_CHANNELS = 8 };

typedef struct KesAudioChannelConverterInC KesAudioChannelConverterInC;

/** The record: the operations, then their data. */
struct KesAudioChannelConverterInC {
  /** Stores value, unchecked, into the member of the ID. KES_OK in KES_STATE_CLOSED, for unknown IDs too (nothing is
   * stored); KES_REFUSED in KES_STATE_OPEN. Open replaces all six, so values stored here never reach Process:
   * there is no need to call it. */
  uint32_t (*SetParameter)(KesAudioChannelConverterInC* handle, int32_t paramID, uint32_t value);

  /** Always returns KES_OK; reads and writes nothing. value may be null. There is no need to call it. */
  uint32_t (*GetParameter)(KesAudioChannelConverterInC* handle, int32_t paramID, void* value);

  /** Sets mChannelMask and mChannelMaskValid to 0, so that later downmixes use mask 0xFFFF (a mono output is then
   * folded instead of averaged). KES_REFUSED in KES_STATE_CLOSED. */
  uint32_t (*Reset)(KesAudioChannelConverterInC* handle);

  /** KES_STATE_CLOSED to KES_STATE_OPEN. Stores the arguments and sets mUpmixMode 0, mChannelMask 0,
   * mChannelMaskValid 1. KES_REFUSED, and nothing changes, in KES_STATE_OPEN or with more than 8 channels on either
   * side. Neither format nor 0 channels is refused. */
  uint32_t (*Open)(KesAudioChannelConverterInC* handle, uint32_t inChannels, uint32_t outChannels, PcmFormat format);

  /** KES_STATE_OPEN to KES_STATE_CLOSED; nothing else changes. KES_REFUSED in KES_STATE_CLOSED. */
  uint32_t (*Close)(KesAudioChannelConverterInC* handle);

  /** Converts as much of src as fits into dst. inBytes and outBytes as in channel_entry.h (partial frames too),
   * except for equal channel counts:
   *
   *     mInChannels > mOutChannels   Audio_Channel_Downmix with mChannelMask if mChannelMaskValid is 1, else with
   *                                  0xFFFF; the mask used is stored in mChannelMask
   *     mInChannels < mOutChannels   Audio_Channel_Upmix with mUpmixMode as zeroFill
   *     equal                        nothing is converted or written and both counts stay as they were: the input is
   *                                  the result. WARNING: a loop until inBytes is 0 never ends
   *
   * Returns KES_OK; or KES_REFUSED, and nothing changes, in KES_STATE_CLOSED, with a null src or dst, or with a count
   * of 0. The count pointers are not checked. In place as the kernels allow. */
  uint32_t (*Process)(KesAudioChannelConverterInC* handle, const void* src, uint32_t* inBytes, void* dst,
                      uint32_t* outBytes);

  ComponentState mState;      /**< changed by Open and Close alone */
  uint32_t mInChannels;       /**< per input frame */
  uint32_t mOutChannels;      /**< per output frame */
  PcmFormat mFormat;          /**< of both blocks */
  uint32_t mUpmixMode;        /**< 0: duplicate channels; any other value: add silent ones */
  ChannelMask mChannelMask;   /**< layout of the input; after a downmix, the mask that it used */
  uint32_t mChannelMaskValid; /**< 1: mChannelMask counts; any other value: 0xFFFF is used */
};

/** Logs "InitKesAudioChannelConverterInC" (debug, tag "KesAudioChannelConvertInC"), then fills the operations and
 * sets mState to KES_STATE_CLOSED, whatever the record held before; the members after mState stay as they are until
 * Open sets them. The pointer is not checked. */
KESAUDIO_API void InitKesAudioChannelConverterInC(KesAudioChannelConverterInC* handle);

#endif
