/* SPDX-License-Identifier: Apache-2.0 */
/* The platform's shifter library, libkesshifter_vendor, as far as the bit converter uses it: changes the sample
 * format.
 *
 * On a device the platform provides it, and defines its types. Elsewhere ours does (host/shifter.cpp), with a type
 * for each pair of sample formats:
 *
 *   from \ to  16   32   8.24  24      full scale  bytes
 *   16         -    0    1     2       2^15        2
 *   32         3    -    4     5       2^31        4
 *   8.24       6    7    -     8       2^24        4     with headroom to 2^31
 *   24         9    10   11    -       2^23        3     packed, least significant byte first
 *
 * Full scale stays full scale. Towards more bits every value is exact; towards fewer it is rounded to the nearest,
 * ties to even, and clamped to the target's range.
 */
#ifndef KESAUDIO_PLATFORM_SHIFTER_LIB_H
#define KESAUDIO_PLATFORM_SHIFTER_LIB_H

#include <stdint.h>

enum { SHIFTER_OK = 0, SHIFTER_BAD_TYPE = -1 };

#ifdef __cplusplus
extern "C" {
#endif

/* Converts as many whole samples as src holds and dst has room for. inBytes: available -> not consumed; outBytes:
 * capacity -> written. dst may be src where a sample gets no wider; else the blocks must not overlap. A type above 11
 * gives SHIFTER_BAD_TYPE, and 0 in outBytes. Keeps nothing between calls: any thread may call it. */
int32_t Shifter_Process(const void* src, uint32_t* inBytes, void* dst, uint32_t* outBytes, uint32_t convertType);

#ifdef __cplusplus
}
#endif

#endif
