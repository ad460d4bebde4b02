/* SPDX-License-Identifier: Apache-2.0 */
/** @file
 * The channel kernels: each converts one block of interleaved PCM from srcChannels to dstChannels channels.
 *
 * Common to all of them:
 *
 *     dst          output block. Exactly the output frames are written: no byte before, between or after them.
 *     dstChannels  channels per output frame.
 *     src          input block. At most the whole input frames are read.
 *     srcChannels  channels per input frame, usually 1 to 8. More follow the same formulas as long as a frame's sum
 *                  fits in 32 bits, beyond which it wraps: 24-bit folds up to 180 channels, 24-bit averages up to
 *                  256, 16-bit folds up to 46335, 16-bit averages up to 65536. 32-bit sums always fit.
 *     byteCount    input bytes. frames = byteCount / sample bytes / srcChannels, each division rounded down; a
 *                  partial frame at the end is ignored.
 *     format       sample format of both blocks: KES_PCM_S16, KES_PCM_S32, KES_PCM_Q8_24 or KES_PCM_S24_PACKED.
 *
 * Nothing at all is written for any other format, for less than one frame, for a byteCount or srcChannels of 0 or
 * less, and (but for the mono average and the stereo mixes, as they say) for a dstChannels of 0 or less. Nothing is
 * reported. Pointers are not checked when there is something to convert. Any address will do.
 *
 * Kernels allocate nothing, keep nothing between calls, never log, and may run on any threads at once on separate
 * blocks.
 *
 * In place: a downmix may have dst == src when an output frame is no longer than an input frame; an upmix may have
 * dst == src, or dst any number of bytes after src in one buffer, when the buffer is large enough for the output. The
 * result is that of separate blocks. Other overlaps are not supported unless the function says so. Upmixes are faster
 * between separate blocks.
 *
 * Arithmetic: a product with a gain is shifted right arithmetically, so it rounds towards minus infinity, each term
 * before it is added. Averages divide rounding towards zero. Results are clamped to the sample range, not wrapped
 * (the 32-bit fold needs no clamp: it cannot leave the range, but is 6.02 * (1 + ceil(log2 n)) dB quieter than the
 * 16-bit one of n channels: 24.1 dB for 6).
 *
 * 5.1 to stereo can gain 15.3 dB (1 + 1.414 + 2 + 1.414 = 5.83 per side) and is then clamped at full scale. To keep
 * such peaks, convert to 8.24 first, mix there (8.24 has 42 dB of headroom), and bring the result to 16 bits by the
 * bit converter's limiter.
 *
 * All mixes have one gain, 46346 / 2^15 = 1.41437 (+3.01 dB), below written g(x) = (x * 46346) >> 15. It is not
 * 46341, the nearest to the square root of two: 46346 is part of the contract.
 */
#ifndef KESAUDIO_CHANNEL_KERNELS_H
#define KESAUDIO_CHANNEL_KERNELS_H

#include <kesaudio/types.h>

/** Keeps the first dstChannels samples of each frame, bit for bit, and drops the rest.
 * Writes frames * dstChannels * sample bytes. Needs dstChannels <= srcChannels; writes nothing otherwise, since the
 * last frame would be read past its end. In place, dst may also lie any number of bytes before src. */
KESAUDIO_API void channel_DownMix_Strip(void* dst, int32_t dstChannels, const void* src, int32_t srcChannels,
                                        int32_t byteCount, PcmFormat format);

/** Folds all channels of a frame into one value and writes it to every output channel.
 * Writes frames * dstChannels * sample bytes; dstChannels may exceed srcChannels in separate blocks. Per frame:
 *
 *     16-bit, 24-bit   clamp(g(s0) + g(s1) + ...)
 *     32-bit, 8.24     k(s0) + k(s1) + ..., k(x) = (x * 46346) >> (16 + ceil(log2(srcChannels)))
 *
 * Despite the name each 16-bit and 24-bit channel is raised by 3.01 dB. A 32-bit sum is not clamped, so its terms
 * leave room: srcChannels <= 2^ceil(log2(srcChannels)) keeps the sum within 0.7072 of full scale. */
KESAUDIO_API void channel_DownMix_Fold_Minus3dB(void* dst, int32_t dstChannels, const void* src, int32_t srcChannels,
                                                int32_t byteCount, PcmFormat format);

/** Averages all channels of a frame: (s0 + s1 + ...) / srcChannels, rounded towards zero.
 * Writes frames * sample bytes: one sample a frame, whatever dstChannels says (it is ignored, 0 and less too). */
KESAUDIO_API void channel_DownMix_Fold_Mono_Average(void* dst, int32_t dstChannels, const void* src,
                                                    int32_t srcChannels, int32_t byteCount, PcmFormat format);

/** Calls channel_DownMix_Fold_Mono_Average for mask 0 and channel_DownMix_Fold_Minus3dB for any other mask, with its
 * own first six arguments: the fold then writes dstChannels samples a frame, not one. */
KESAUDIO_API void channel_DownMix_To_Mono(void* dst, int32_t dstChannels, const void* src, int32_t srcChannels,
                                          int32_t byteCount, PcmFormat format, ChannelMask mask);

/** Mixes to stereo, left then right. The mask names the layout of the input frame:
 *
 *     mask               frame starts with       left                         right
 *     0x7, 0xB, 0x103    FL FR and FC|LFE|BC     s0 + g(s2)                   s1 + g(s2)
 *     0x33               FL FR BL BR             s0 + g(s2)                   s1 + g(s3)
 *     0x3F               FL FR FC LFE BL BR      s0 + g(t) + g(s4)            s1 + g(t) + g(s5)
 *                                                with t = s2 + g(s3)
 *     any other          n channels              (s0 + s2 + s4 + ...) / n     (s1 + s3 + s5 + ...) / n
 *
 * Each output is clamped to the sample range. t is clamped before it is scaled: to 16 bits for 16-bit samples, to 32
 * bits for the others. A 32-bit g saturates at 32 bits. The pairwise average divides by all n channels, so a stereo
 * frame comes out at half its level, and a mono one as (s0, 0).
 *
 * Channels beyond the layout's are skipped. With fewer channels than the layout names, the pairwise average is
 * taken, in every format, rather than reading outside the frame.
 *
 * Writes frames * 2 * sample bytes and ignores dstChannels, with one exception: a packed 24-bit block with a named
 * layout gets frames of dstChannels samples: left, right, then zeros; just left for 1; nothing for 0 or less. */
KESAUDIO_API void channel_DownMix_To_Stereo(void* dst, int32_t dstChannels, const void* src, int32_t srcChannels,
                                            int32_t byteCount, PcmFormat format, ChannelMask mask);

/** Calls one kernel, chosen by dstChannels and mask, with its own arguments:
 *
 *     dstChannels   mask        kernel
 *     2             any         channel_DownMix_To_Stereo
 *     1             0           channel_DownMix_Fold_Mono_Average
 *     1             other       channel_DownMix_Fold_Minus3dB
 *     any other     any         channel_DownMix_Fold_Minus3dB
 */
KESAUDIO_API void channel_DownMix_FOLD(void* dst, int32_t dstChannels, const void* src, int32_t srcChannels,
                                       int32_t byteCount, PcmFormat format, ChannelMask mask);

/** Keeps the input channels where they are and adds silent ones (all bytes zero) behind them, bit for bit.
 * Writes frames * dstChannels * sample bytes. Writes nothing for dstChannels < srcChannels, and nothing when the
 * output would be 2^31 bytes or more. */
KESAUDIO_API void channel_UpMix_WithZero(void* dst, int32_t dstChannels, const void* src, int32_t srcChannels,
                                         int32_t byteCount, PcmFormat format);

/** Repeats the input channels in turn: output channel j is input channel j mod srcChannels, bit for bit.
 * Writes frames * dstChannels * sample bytes; nothing when that would be 2^31 bytes or more. With dstChannels below
 * srcChannels it keeps the first dstChannels channels, in separate blocks only. */
KESAUDIO_API void channel_UpMix_Duplicate(void* dst, int32_t dstChannels, const void* src, int32_t srcChannels,
                                          int32_t byteCount, PcmFormat format);

#endif
