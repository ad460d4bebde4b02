// SPDX-License-Identifier: Apache-2.0
// For the tests of a component over a platform library: the component's record beside a model of it, and fakes of the
// log and the heap, which the linker finds before the real ones. These and a test's fake library answer as the test
// asks, and record every call. One source of a program includes this file, since it defines the fakes.
#pragma once

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <thread>
#include <utility>
#include <vector>

#include "platform/log.h"
#include "random.h"

using Bytes = std::vector<std::byte>;

constexpr uint32_t kRoom = 1024;  // bytes of the largest block that the heap has

struct FakePlatform {
  // Answers. The size query returns `result`, every other function of the library `unexamined`.
  int32_t result = 0, unexamined = 0;
  uint32_t internalBytes = 0, scratchBytes = 0, left = 0, made = 0;
  void* instance = nullptr;
  size_t failing = ~size_t{0};  // index of the allocation that fails
  // Calls to the fakes, and the results of malloc among them.
  std::vector<std::string> calls{};
  std::vector<void*> blocks{};
};
inline thread_local FakePlatform platform;
inline thread_local constinit bool watched = false;  // the component runs: its use of the heap is recorded

struct Unwatched {
  bool before = std::exchange(watched, false);
  ~Unwatched() { watched = before; }
};

std::string text(const auto&... parts) { return (std::ostringstream() << ... << parts).str(); }

int32_t recordCall(const char* name, const auto&... parts) {
  const Unwatched unwatched;
  platform.calls.push_back(text(name, text(' ', parts)...));
  return platform.unexamined;
}

// An output buffer that holds zeros, then the fake library's samples.
inline Bytes output(size_t capacity, uint32_t zeros = 0, uint32_t samples = 0) {
  Bytes bytes(capacity, std::byte{0xA5});
  for (uint32_t i = 0; i < zeros + samples; ++i) bytes[i] = std::byte(i < zeros ? 0 : (i - zeros) % 251 + 1);
  return bytes;
}

// The size query of a fake library.
int32_t recordSizeQuery(const char* name, uint32_t* internalBytes, uint32_t* scratchBytes, const auto&... others) {
  recordCall(name, internalBytes, scratchBytes, others...);
  *internalBytes = platform.internalBytes, *scratchBytes = platform.scratchBytes;
  return platform.unexamined;
}

// The process call of a fake library. Any pointer may be null.
int32_t recordProcess(const char* name, const void* src, uint32_t* inBytes, void* dst, uint32_t* outBytes,
                      const auto&... others) {
  recordCall(name, others..., src, inBytes, inBytes ? *inBytes : 0, dst, outBytes, outBytes ? *outBytes : 0);
  const Unwatched unwatched;
  const uint32_t written = std::min(platform.made, outBytes ? *outBytes : kRoom);
  if (dst) std::ranges::copy(output(written, 0, written), static_cast<std::byte*>(dst));
  if (inBytes) *inBytes = platform.left;
  if (outBytes) *outBytes = platform.made;
  return platform.unexamined;
}

// A component's record beside a model of it, of the same type. A test adds the model's operations.
template <class Record>
class RecordAndModel {
 protected:
  RecordAndModel(const char* tag, Random& random) : random_(random), tag_(tag) {}
  ~RecordAndModel() { freeBuffers(); }

  // ---- the record: each operation has answers and a block of its own

  void drawAnswers() {
    platform = {random_.from({0, 0, 1, INT32_MAX, -1, INT32_MIN}), random_.between(-1, 1), size(), size(), extreme()};
    platform.instance = random_.oneIn(6) ? nullptr : &instances_[random_.below(8)];
    platform.failing = random_.below(5);
    expected_.clear(), asked_ = 0;
  }

  // A block for Process. The library makes `made` bytes, or all that there is room for; now and then it claims to
  // have made any number.
  void offerBlock(uint32_t in, uint32_t out, uint32_t made) {
    given_ = wanted_ = {in, out, output(kRoom)};
    src_ = this, in_ = &given_.in, dst_ = given_.bytes.data(), out_ = &given_.out;
    platform.made = random_.oneIn(8) && out <= kRoom ? extreme() : std::min({made, out, kRoom});
  }

  uint32_t run(auto operation, auto... arguments) {
    watched = true;
    const uint32_t code = operation(&record_, arguments...);
    watched = false;
    return code;
  }

  // Initialises garbage or a used record.
  void initialise(void (*init)(Record*)) {
    if (random_.oneIn(2)) std::memset(&record_, 0xEE, sizeof record_);
    run([init](Record* record) { return init(record), 0u; });
    model_ = {}, model_.mState = 1;
  }

  void compare(uint32_t code, uint32_t wanted) {
    recordCall("returned", code, given_.in, given_.out, record_);
    expectCall("returned", wanted, wanted_.in, wanted_.out, model_);
    EXPECT_EQ(platform.calls, expected_);
    EXPECT_TRUE(given_.bytes == wanted_.bytes);
  }

  uint32_t extreme() { return random_.from({0u, 1u, 3u, 0x40000000u, 0x80000000u, ~0u, random_.word()}); }
  uint32_t size() { return random_.oneIn(4) ? extreme() : random_.below(kRoom); }
  void freeBuffers() { std::free(model_.mpTempBuf), std::free(model_.mpInternalBuf); }

  // ---- the model: the calls that each operation must make, in their order

  void expectCall(const auto& name, const auto&... parts) { expected_.push_back(text(name, text(' ', parts)...)); }
  void expectLog(int priority, const auto&... parts) { expectCall(tag_, priority, text(parts...)); }

  void* allocate(uint32_t bytes) {
    if (bytes != 0) expectCall("malloc", bytes);
    return bytes != 0 && asked_ < platform.blocks.size() ? platform.blocks[asked_++] : nullptr;
  }

  void expectSizeQuery(const auto& name, const auto&... others) {
    expectCall(name, &record_.mInternalBufSize, &record_.mTempBufSize, others...);
    model_.mInternalBufSize = platform.internalBytes, model_.mTempBufSize = platform.scratchBytes;
  }

  // Allocates the work buffers that the library asked for. False when out of memory: then neither stays.
  bool obtainBuffers(const char* operation) {
    void* const internal = allocate(platform.internalBytes);
    if (!internal && platform.internalBytes)
      return expectLog(3, operation, "() mpInternalBuf malloc failed\n"), false;
    void* const temp = allocate(platform.scratchBytes);
    if (!temp && platform.scratchBytes) {
      expectLog(3, operation, "() mpTempBuf malloc failed\n");
      if (internal) expectCall("free", internal);
      return false;
    }
    model_.mpInternalBuf = internal, model_.mpTempBuf = temp;
    return true;
  }

  void releaseBuffers() {
    for (void** buffer : {&model_.mpTempBuf, &model_.mpInternalBuf})
      if (*buffer) expectCall("free", std::exchange(*buffer, nullptr));
  }

  // The library's process call gets the block unchanged.
  void expectProcess(const auto& name, const auto&... others) {
    expectCall(name, others..., src_, in_, in_ ? wanted_.in : 0, dst_, out_, out_ ? wanted_.out : 0);
    if (dst_) wanted_.bytes = output(kRoom, 0, std::min(platform.made, out_ ? wanted_.out : kRoom));
    if (in_) wanted_.in = platform.left;
    if (out_) wanted_.out = platform.made;
  }

  Random& random_;
  Record record_ = {}, model_ = {};
  struct {
    uint32_t in, out;
    Bytes bytes;
  } given_{}, wanted_{};
  // Arguments of Process.
  const void* src_ = nullptr;
  uint32_t *in_ = nullptr, *out_ = nullptr;
  void* dst_ = nullptr;

 private:
  const char* tag_;
  char instances_[8] = {};
  std::vector<std::string> expected_;
  size_t asked_ = 0;  // allocations by the model in this operation
};

template <class RandomOperations>
void checkOnThreads() {
  std::vector<std::jthread> threads;
  for (uint32_t seed = 0; seed < 4; ++seed)
    threads.emplace_back([seed] {
      Random random(seed);
      RandomOperations one(random), other(random);
      for (int step = 0; step < 10000 && !testing::Test::HasFailure(); ++step) one.checkNext(), other.checkNext();
    });
}

int __android_log_print(int priority, const char* tag, const char* format, ...) {
  char line[200];
  va_list arguments;
  va_start(arguments, format);
  vsnprintf(line, sizeof line, format, arguments);
  va_end(arguments);
  return recordCall(tag, priority, line);
}

// Sanitizers call these while they start, before instrumented code and guarded statics work, and from within dlsym.
#define EARLY extern "C" __attribute__((no_sanitize("address", "thread", "undefined")))

static void (*nextFree)(void*);

EARLY void* malloc(size_t bytes) noexcept {
  static void* (*next)(size_t);
  if (!next) nextFree = reinterpret_cast<void (*)(void*)>(dlsym(RTLD_NEXT, "free"));
  if (!next) next = reinterpret_cast<void* (*)(size_t)>(dlsym(RTLD_NEXT, "malloc"));
  if (!watched) return next(bytes);
  const Unwatched unwatched;
  recordCall("malloc", bytes);
  const bool fails = platform.blocks.size() == platform.failing || bytes > kRoom;
  platform.blocks.push_back(fails ? nullptr : next(bytes));
  return fails ? nullptr : std::memset(platform.blocks.back(), 0xDD, bytes);  // memory is not zeroed
}

EARLY void free(void* block) noexcept {
  if (watched && block) recordCall("free", block);
  if (nextFree) nextFree(block);
}
