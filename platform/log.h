/* SPDX-License-Identifier: Apache-2.0 */
/* The Android log, as far as the library uses it.
 *
 * On a device the platform's liblog.so provides it. Elsewhere our own liblog.so (host/log.cpp) does: it writes one
 * line per message to standard error, "D/Tag: text", in one write, so that lines of several threads do not mix. A
 * text without a newline at its end gets one. Lines are cut at 1024 bytes.
 *
 * The host library is quiet below error (priority 6). The environment variable KESAUDIO_LOG asks for more: it holds
 * the lowest priority to show, as a number: KESAUDIO_LOG=3 shows debug lines too, KESAUDIO_LOG=8 not even errors.
 */
#ifndef KESAUDIO_PLATFORM_LOG_H
#define KESAUDIO_PLATFORM_LOG_H

enum { KES_LOG_DEBUG = 3, KES_LOG_ERROR = 6 };

#ifdef __cplusplus
extern "C" {
#endif

/* Logs a printf-style message. Returns a positive number, or a negative one when writing failed. */
__attribute__((format(printf, 3, 4))) int __android_log_print(int priority, const char* tag, const char* format, ...);

#ifdef __cplusplus
}
#endif

#endif
