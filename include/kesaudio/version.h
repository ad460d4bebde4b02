/* SPDX-License-Identifier: Apache-2.0 */
/* The one home of the version: the build and the packages read it from here. */
#ifndef KESAUDIO_VERSION_H
#define KESAUDIO_VERSION_H

#define KESAUDIO_VERSION_MAJOR 0
#define KESAUDIO_VERSION_MINOR 1
#define KESAUDIO_VERSION_PATCH 0

/* The same as one number that grows with every release, e.g. 10203 for 1.2.3. */
enum { KESAUDIO_VERSION = KESAUDIO_VERSION_MAJOR * 10000 + KESAUDIO_VERSION_MINOR * 100 + KESAUDIO_VERSION_PATCH };

#endif
