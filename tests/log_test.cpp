// SPDX-License-Identifier: Apache-2.0
// The lines of the host's log.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "platform/log.h"

TEST(Log, ShowsWhatIsAskedForInWholeLines) {
  const std::string endless(2000, 'x');
  const struct {
    const char* lowest;
    int priority;
    std::string message, line;
  } kCases[] = {{"3", 3, "text", "D/tag: text\n"},
                {"3", 8, "text\n", "S/tag: text\n"},
                {"3", 9, "", "?/tag: \n"},
                {"3", 3, endless, "D/tag: " + endless.substr(0, 1016) + "\n"},
                {"3", 2, "text", ""},
                {nullptr, 6, "text", "E/tag: text\n"},
                {nullptr, 5, "text", ""}};
  for (const auto& [lowest, priority, message, line] : kCases) {
    lowest ? setenv("KESAUDIO_LOG", lowest, 1) : unsetenv("KESAUDIO_LOG");
    testing::internal::CaptureStderr();
    EXPECT_GT(__android_log_print(priority, "tag", "%s", message.c_str()), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), line);
  }
}
