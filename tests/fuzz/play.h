// SPDX-License-Identifier: Apache-2.0
// A fuzz program out of a test's source: it plays with what the bytes choose, and the first expectation that fails
// ends it. To be included behind the function play.
#pragma once

#include <csignal>

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  testing::InitGoogleTest();
  GTEST_FLAG_SET(throw_on_failure, true);
  std::signal(SIGSEGV, SIG_DFL);  // a test's own handler would keep the input from being written down
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t count) {
  Random random(bytes, count);
  do play(random);
  while (!random.usedUp());
  return 0;
}
