// SPDX-License-Identifier: Apache-2.0
// What the tests of a component over a platform library share: the component's record beside a model of it, and fakes
// of the log and the heap, found before the real ones. They, and a test's fake library, do as they are told, and
// write down every call. For one source of a program: the fakes are defined here.
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

struct World {
  // What happens next. The size query gives `result`, everything else in the library `unexamined`.
  int32_t result = 0, unexamined = 0;
  uint32_t internalBytes = 0, scratchBytes = 0, left = 0, made = 0;
  void* instance = nullptr;
  size_t failing = ~size_t{0};  // which allocation, from 0
  // What happened.
  std::vector<std::string> seen{};
  std::vector<void*> blocks{};  // that the heap was asked for, and gave
};
inline thread_local World world;
inline thread_local constinit bool watched = false;  // what uses the heap is the component

struct Unwatched {
  bool before = std::exchange(watched, false);
  ~Unwatched() { watched = before; }
};

std::string text(const auto&... parts) { return (std::ostringstream() << ... << parts).str(); }

int32_t saw(const char* name, const auto&... parts) {
  const Unwatched unwatched;
  world.seen.push_back(text(name, text(' ', parts)...));
  return world.unexamined;
}

// An output buffer that holds zeros, then the fake library's samples.
inline Bytes output(size_t capacity, uint32_t zeros = 0, uint32_t samples = 0) {
  Bytes bytes(capacity, std::byte{0xA5});
  for (uint32_t i = 0; i < zeros + samples; ++i) bytes[i] = std::byte(i < zeros ? 0 : (i - zeros) % 251 + 1);
  return bytes;
}

// The size query of a fake library.
int32_t sawSizes(const char* name, uint32_t* internalBytes, uint32_t* scratchBytes, const auto&... others) {
  saw(name, internalBytes, scratchBytes, others...);
  *internalBytes = world.internalBytes, *scratchBytes = world.scratchBytes;
  return world.unexamined;
}

// The process call of a fake library. Any pointer may be null.
int32_t sawBlock(const char* name, const void* src, uint32_t* inBytes, void* dst, uint32_t* outBytes,
                 const auto&... others) {
  saw(name, others..., src, inBytes, inBytes ? *inBytes : 0, dst, outBytes, outBytes ? *outBytes : 0);
  const Unwatched unwatched;
  const uint32_t written = std::min(world.made, outBytes ? *outBytes : kRoom);
  if (dst) std::ranges::copy(output(written, 0, written), static_cast<std::byte*>(dst));
  if (inBytes) *inBytes = world.left;
  if (outBytes) *outBytes = world.made;
  return world.unexamined;
}

// A component's record beside a model of it, of the same type. A test adds what each operation must do.
template <class Record>
class BesideModel {
 protected:
  BesideModel(const char* tag, Random& random) : random_(random), tag_(tag) {}
  ~BesideModel() { freeBuffers(); }

  // ---- the record: each operation meets a world and a block of its own

  void prepare() {
    world = {random_.from({0, 0, 1, INT32_MAX, -1, INT32_MIN}), random_.between(-1, 1), size(), size(), extreme()};
    world.instance = random_.oneIn(6) ? nullptr : &instances_[random_.below(8)];
    world.failing = random_.below(5);
    expected_.clear(), asked_ = 0;
  }

  // The library makes some of `made`, as far as there is room, or claims to have made anything.
  void give(uint32_t in, uint32_t out, uint32_t made) {
    given_ = wanted_ = {in, out, output(kRoom)};
    src_ = this, in_ = &given_.in, dst_ = given_.bytes.data(), out_ = &given_.out;
    world.made = random_.oneIn(8) && out <= kRoom ? extreme() : std::min({made, out, kRoom});
  }

  uint32_t run(auto operation, auto... arguments) {
    watched = true;
    const uint32_t code = operation(&record_, arguments...);
    watched = false;
    return code;
  }

  // On garbage, or on a used record.
  void initialise(void (*init)(Record*)) {
    if (random_.oneIn(2)) std::memset(&record_, 0xEE, sizeof record_);
    run([init](Record* record) { return init(record), 0u; });
    model_ = {}, model_.mState = 1;
  }

  void compare(uint32_t code, uint32_t wanted) {
    saw("returned", code, given_.in, given_.out, record_);
    want("returned", wanted, wanted_.in, wanted_.out, model_);
    EXPECT_EQ(world.seen, expected_);
    EXPECT_TRUE(given_.bytes == wanted_.bytes);
  }

  uint32_t extreme() { return random_.from({0u, 1u, 3u, 0x40000000u, 0x80000000u, ~0u, random_.word()}); }
  uint32_t size() { return random_.oneIn(4) ? extreme() : random_.below(kRoom); }
  void freeBuffers() { std::free(model_.mpTempBuf), std::free(model_.mpInternalBuf); }

  // ---- the model: what each operation must do, in its order

  void want(const auto& name, const auto&... parts) { expected_.push_back(text(name, text(' ', parts)...)); }
  void log(int priority, const auto&... parts) { want(tag_, priority, text(parts...)); }

  void* allocate(uint32_t bytes) {
    if (bytes != 0) want("malloc", bytes);
    return bytes != 0 && asked_ < world.blocks.size() ? world.blocks[asked_++] : nullptr;
  }

  void wantSizes(const auto& name, const auto&... others) {
    want(name, &record_.mInternalBufSize, &record_.mTempBufSize, others...);
    model_.mInternalBufSize = world.internalBytes, model_.mTempBufSize = world.scratchBytes;
  }

  // The work buffers that the library asked for. False when out of memory: then neither stays.
  bool obtainBuffers(const char* operation) {
    void* const internal = allocate(world.internalBytes);
    if (!internal && world.internalBytes) return log(3, operation, "() mpInternalBuf malloc failed\n"), false;
    void* const temp = allocate(world.scratchBytes);
    if (!temp && world.scratchBytes) {
      log(3, operation, "() mpTempBuf malloc failed\n");
      if (internal) want("free", internal);
      return false;
    }
    model_.mpInternalBuf = internal, model_.mpTempBuf = temp;
    return true;
  }

  void releaseBuffers() {
    for (void** buffer : {&model_.mpTempBuf, &model_.mpInternalBuf})
      if (*buffer) want("free", std::exchange(*buffer, nullptr));
  }

  // The library's process call, which the block goes to as it came.
  void wantBlock(const auto& name, const auto&... others) {
    want(name, others..., src_, in_, in_ ? wanted_.in : 0, dst_, out_, out_ ? wanted_.out : 0);
    if (dst_) wanted_.bytes = output(kRoom, 0, std::min(world.made, out_ ? wanted_.out : kRoom));
    if (in_) wanted_.in = world.left;
    if (out_) wanted_.out = world.made;
  }

  Random& random_;
  Record record_ = {}, model_ = {};
  struct {
    uint32_t in, out;
    Bytes bytes;
  } given_{}, wanted_{};
  // What Process gets.
  const void* src_ = nullptr;
  uint32_t *in_ = nullptr, *out_ = nullptr;
  void* dst_ = nullptr;

 private:
  const char* tag_;
  char instances_[8] = {};
  std::vector<std::string> expected_;
  size_t asked_ = 0;  // allocations of the model in this operation
};

template <class Player>
void playOnThreads() {
  std::vector<std::jthread> threads;
  for (uint32_t seed = 0; seed < 4; ++seed)
    threads.emplace_back([seed] {
      Random random(seed);
      Player one(random), other(random);
      for (int step = 0; step < 10000 && !testing::Test::HasFailure(); ++step) one.play(), other.play();
    });
}

int __android_log_print(int priority, const char* tag, const char* format, ...) {
  char line[200];
  va_list arguments;
  va_start(arguments, format);
  vsnprintf(line, sizeof line, format, arguments);
  va_end(arguments);
  return saw(tag, priority, line);
}

// A sanitizer calls these while it starts, before instrumented code or a guarded static can run, and from dlsym too.
#define EARLY extern "C" __attribute__((no_sanitize("address", "thread", "undefined")))

static void (*nextFree)(void*);

EARLY void* malloc(size_t bytes) noexcept {
  static void* (*next)(size_t);
  if (!next) nextFree = reinterpret_cast<void (*)(void*)>(dlsym(RTLD_NEXT, "free"));
  if (!next) next = reinterpret_cast<void* (*)(size_t)>(dlsym(RTLD_NEXT, "malloc"));
  if (!watched) return next(bytes);
  const Unwatched unwatched;
  saw("malloc", bytes);
  const bool fails = world.blocks.size() == world.failing || bytes > kRoom;
  world.blocks.push_back(fails ? nullptr : next(bytes));
  return fails ? nullptr : std::memset(world.blocks.back(), 0xDD, bytes);  // as found, not zeros
}

EARLY void free(void* block) noexcept {
  if (watched && block) saw("free", block);
  if (nextFree) nextFree(block);
}
