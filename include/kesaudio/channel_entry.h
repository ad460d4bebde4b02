/* SPDX-License-Identifier: Apache-2.0 */
/** @file
 * The two entry points of channel conversion: they work out how much of the input fits into the output, rewrite the
 * two byte counts and call one kernel (channel_kernels.h).
 *
 * Common to both:
 *
 *     inChannels   channels per input frame.
 *     outChannels  channels per output frame.
 *     format       passed to the kernel. The counts do not depend on it: with a format that no kernel converts they
 *                  are rewritten all the same, and dst stays as it was.
 *     src, dst     valid for the bytes that are converted; in place as the kernel allows.
 *     inBytes      in: bytes available in src. Out: bytes not converted; keep them for the next call.
 *     outBytes     in: capacity of dst in bytes. Out: the size of the input's output if all of it fits, else the
 *                  capacity as it was. With whole frames on both sides, these are the bytes written.
 *
 * The accounting, in 32-bit unsigned arithmetic that wraps, x / 0 taken as 0, divisions rounded down:
 *
 *     need = inBytes / inChannels * outChannels
 *     outBytes >= need   converts inBytes;                           outBytes := need,   inBytes := 0
 *     otherwise          converts n = outBytes / outChannels * inChannels;               inBytes := inBytes - n
 *
 * For example 6 to 2 channels of 16 bits, 1200 bytes (100 frames) offered:
 *
 *     capacity  1000  ->  1200 converted, inBytes   0, outBytes 400
 *     capacity   300  ->   900 converted, inBytes 300, outBytes 300
 *     capacity   301  ->   900 converted, inBytes 300, outBytes 301 (300 were written)
 *
 * WARNING: offer whole frames, and a capacity of whole frames. A partial frame is counted, but never converted:
 *
 *     at the end of the input       it counts as converted and is lost, and outBytes counts its share: half a frame
 *                                   (6 bytes) alone gives inBytes 0 and outBytes 2, with nothing written; so keep it
 *                                   and offer it with the rest of its frame
 *     at the end of the capacity,   it is not written. If it has outChannels bytes or more (a capacity of 302: 906
 *     if less than the input needs  bytes taken), its share of the input counts as converted and is lost: the rest of
 *                                   the input begins inside a frame, its channels displaced
 *
 * The kernels take signed 32-bit counts. With 2^31 channels or more on a side, with 2^31 bytes to convert, or with an
 * upmix to 2^31 bytes, the counts are rewritten as always and nothing is written: offer smaller blocks.
 *
 * No pointer is checked. Neither function logs, allocates or keeps anything; both may run on any threads at once on
 * separate blocks.
 */
#ifndef KESAUDIO_CHANNEL_ENTRY_H
#define KESAUDIO_CHANNEL_ENTRY_H

#include <kesaudio/types.h>

/** Converts to as many or fewer channels. Always returns KES_OK; with fewer input than output channels it does
 * nothing else. mask is the layout of the input. The kernel:
 *
 *     outChannels   mask            kernel
 *     1             0               channel_DownMix_Fold_Mono_Average
 *     1             other           channel_DownMix_Fold_Minus3dB
 *     2             any             channel_DownMix_To_Stereo, with the mask
 *     any other     0 or 0xFFFF     channel_DownMix_Strip
 *     any other     other           channel_DownMix_Fold_Minus3dB
 */
KESAUDIO_API uint32_t Audio_Channel_Downmix(uint32_t inChannels, uint32_t outChannels, PcmFormat format,
                                            const void* src, uint32_t* inBytes, void* dst, uint32_t* outBytes,
                                            ChannelMask mask);

/** Converts to as many or more channels: channel_UpMix_Duplicate for a zeroFill of 0, channel_UpMix_WithZero for any
 * other. Returns KES_OK, or -1 and changes nothing with more input than output channels. */
KESAUDIO_API int32_t Audio_Channel_Upmix(uint32_t inChannels, uint32_t outChannels, PcmFormat format, const void* src,
                                         uint32_t* inBytes, void* dst, uint32_t* outBytes, uint32_t zeroFill);

#endif
