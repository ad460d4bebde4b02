// SPDX-License-Identifier: Apache-2.0
#include <kesaudio/version.h>

uint32_t kes_version(void) { return KESAUDIO_VERSION; }
