/* SPDX-License-Identifier: Apache-2.0 */
/** @file
 * Shared by every component: sample formats, channel layouts, component states, return codes.
 *
 * They are 32-bit integers with named values, not enumeration types, because values without a name are legal
 * everywhere: each function documents how it treats them.
 *
 * A block of audio is interleaved PCM: frames of one sample per channel, channel 0 first, frames without gaps, any
 * address (no alignment is needed). Sizes are byte counts. No call converts float samples: bring them to 8.24 first.
 */
#ifndef KESAUDIO_TYPES_H
#define KESAUDIO_TYPES_H

#include <stdint.h>

/** Marks the exported functions: C linkage and default visibility. All else stays inside the library. */
#ifdef __cplusplus
#define KESAUDIO_API extern "C" __attribute__((visibility("default")))
#else
#define KESAUDIO_API extern __attribute__((visibility("default")))
#endif

/** Sample format of a block, with the values of Android's audio formats. Samples are little-endian.
 *
 *     value  sample                            bytes  range
 *     1      signed 16-bit                     2      -32768 .. 32767
 *     3      signed 32-bit                     4      -2147483648 .. 2147483647
 *     4      8.24 fixed point in 32 bits       4      as 3: the channel kernels treat 4 exactly like 3
 *     6      signed 24-bit, packed             3      -8388608 .. 8388607, least significant byte first
 *     5      32-bit float                      4      not converted: the destination stays as it was
 *     other                                           not converted either
 */
typedef uint32_t PcmFormat;

/** Named values of PcmFormat. */
enum {
  KES_PCM_S16 = 1,       /**< signed 16-bit */
  KES_PCM_S32 = 3,       /**< signed 32-bit */
  KES_PCM_Q8_24 = 4,     /**< 8.24 fixed point: full scale is 2^24, the rest is headroom */
  KES_PCM_FLOAT = 5,     /**< 32-bit float, not converted by any kernel */
  KES_PCM_S24_PACKED = 6 /**< signed 24-bit in 3 bytes */
};

/** Channel positions of an input frame, one bit each, as Android numbers them. The channels of a frame come in the
 * order of their bits. Only a downmix to two channels looks at the positions (channel_DownMix_To_Stereo); elsewhere
 * a mask only chooses between kernels (Audio_Channel_Downmix).
 */
typedef uint32_t ChannelMask;

/** Channel positions, then layouts: two values for no layout, mono, stereo, and the layouts with a stereo mix of
 * their own. */
enum {
  KES_CHANNEL_FRONT_LEFT = 0x1,    /**< FL */
  KES_CHANNEL_FRONT_RIGHT = 0x2,   /**< FR */
  KES_CHANNEL_FRONT_CENTER = 0x4,  /**< FC */
  KES_CHANNEL_LOW_FREQUENCY = 0x8, /**< LFE */
  KES_CHANNEL_BACK_LEFT = 0x10,    /**< BL */
  KES_CHANNEL_BACK_RIGHT = 0x20,   /**< BR */
  KES_CHANNEL_BACK_CENTER = 0x100, /**< BC */

  KES_LAYOUT_NONE = 0,         /**< no layout; a downmix to one channel averages */
  KES_LAYOUT_UNKNOWN = 0xFFFF, /**< no layout; a downmix to one channel folds */

  KES_LAYOUT_MONO = 0x1,          /**< FL */
  KES_LAYOUT_STEREO = 0x3,        /**< FL FR */
  KES_LAYOUT_FRONT = 0x7,         /**< FL FR FC */
  KES_LAYOUT_2POINT1 = 0xB,       /**< FL FR LFE */
  KES_LAYOUT_STEREO_BACK = 0x103, /**< FL FR BC */
  KES_LAYOUT_QUAD = 0x33,         /**< FL FR BL BR */
  KES_LAYOUT_5POINT1 = 0x3F       /**< FL FR FC LFE BL BR */
};

/** State of a component, in the mState member of its record. */
typedef uint32_t ComponentState;

/** The two states. */
enum {
  KES_STATE_CLOSED = 1, /**< initialised or closed: parameters can be set */
  KES_STATE_OPEN = 2    /**< blocks can be processed */
};

/** Return codes of component operations. */
enum {
  KES_OK = 0,            /**< done */
  KES_BAD_PARAMETER = 1, /**< unknown parameter ID or value out of range; the channel converter never returns it */
  KES_REFUSED = 2 /**< not allowed in this state, or failed; the record is unchanged unless its operation says so */
};

#endif
