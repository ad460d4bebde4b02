/* SPDX-License-Identifier: Apache-2.0 */
/** @file
 * Includes every public header. */
#ifndef KESAUDIO_KESAUDIO_H
#define KESAUDIO_KESAUDIO_H

#include <kesaudio/bit_converter.h>
#include <kesaudio/channel_converter.h>
#include <kesaudio/channel_entry.h>
#include <kesaudio/channel_kernels.h>
#include <kesaudio/resampler.h>
#include <kesaudio/types.h>
#include <kesaudio/version.h>

#endif
