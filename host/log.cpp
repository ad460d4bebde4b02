// SPDX-License-Identifier: Apache-2.0
// The Android log for machines without one: lines "D/Tag: text" on standard error. See platform/log.h.
#include "platform/log.h"

#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

namespace {

constexpr int kMaxLineBytes = 1024;  // longer lines are cut, as the platform's are

int lowestShownPriority() {
  const char* asked = std::getenv("KESAUDIO_LOG");
  return asked ? std::atoi(asked) : KES_LOG_ERROR;
}

char letterOf(int priority) {
  constexpr char kLetters[] = "??VDIWEFS";  // by priority: 2 verbose, 3 debug, ... 7 fatal, 8 silent
  return priority >= 0 && priority <= 8 ? kLetters[priority] : '?';
}

}  // namespace

int __android_log_print(int priority, const char* tag, const char* format, ...) {
  if (priority < lowestShownPriority()) return 1;

  char line[kMaxLineBytes];
  int bytes = std::snprintf(line, kMaxLineBytes, "%c/%s: ", letterOf(priority), tag);
  if (bytes < 0) return -1;
  if (bytes < kMaxLineBytes) {
    std::va_list args;
    va_start(args, format);
    const int text = std::vsnprintf(line + bytes, static_cast<std::size_t>(kMaxLineBytes - bytes), format, args);
    va_end(args);
    if (text < 0) return -1;
    bytes += text;
  }
  if (bytes >= kMaxLineBytes) bytes = kMaxLineBytes - 1;
  if (line[bytes - 1] != '\n') line[bytes++] = '\n';
  return write(STDERR_FILENO, line, static_cast<std::size_t>(bytes)) == bytes ? 1 : -1;
}
