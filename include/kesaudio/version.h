/* SPDX-License-Identifier: Apache-2.0 */
/** @file
 * The version. The build and the packages read it from this file. */
#ifndef KESAUDIO_VERSION_H
#define KESAUDIO_VERSION_H

#include <kesaudio/types.h>

/** Raised when callers may have to change their code. */
#define KESAUDIO_VERSION_MAJOR 0
/** Raised when functions or constants are added. */
#define KESAUDIO_VERSION_MINOR 1
/** Raised when only faults are corrected. */
#define KESAUDIO_VERSION_PATCH 0

/** The same as one number that grows with every release, e.g. 10203 for 1.2.3. */
enum { KESAUDIO_VERSION = KESAUDIO_VERSION_MAJOR * 10000 + KESAUDIO_VERSION_MINOR * 100 + KESAUDIO_VERSION_PATCH };

/** KESAUDIO_VERSION of the library that is loaded, which may differ from the headers that a program was built with.
 * Any thread. */
KESAUDIO_API uint32_t kes_version(void);

#endif
