// SPDX-License-Identifier: Apache-2.0
// Makes a fuzz program of a test's source: the fuzzer's bytes are its random numbers, and the first failed
// expectation ends it. Include this after the definition of play.
#pragma once

#include <csignal>

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  testing::InitGoogleTest();
  GTEST_FLAG_SET(throw_on_failure, true);
  std::signal(SIGSEGV, SIG_DFL);  // with a handler, libFuzzer would not save the input
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t count) {
  Random random(bytes, count);
  do play(random);
  while (!random.usedUp());
  return 0;
}
