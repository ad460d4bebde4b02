// SPDX-License-Identifier: Apache-2.0
// For the tests of a component over a platform library: a table of calls to the component, each with a trace of all
// that follows: the calls to the log, the heap and the library, the members that change, and the result. The log and
// the heap are faked here, so one source of a program includes this file; a test fakes its library.
#pragma once

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <map>
#include <set>
#include <sstream>
#include <thread>
#include <utility>
#include <vector>

#include "platform/log.h"
#include "random.h"

constexpr uint32_t kRoom = 1024;  // bytes of the largest block that the heap has
constexpr uint8_t kUntouched = 0xA5;

struct FakePlatform {
  // Answers to the calls of one operation, by name; and the result of calls that a component must not look at.
  std::map<std::string, uint32_t> answers{};
  int32_t unexamined = 0;
  const char* tag = "";
  std::string seen{};
  std::map<const void*, std::string> names{};
  std::set<void*> held{};    // blocks not yet freed
  uint32_t allocations = 0;  // in this operation
};
inline thread_local FakePlatform platform;
inline thread_local constinit bool watched = false;  // the component runs: its use of the heap is traced

struct Unwatched {
  bool before = std::exchange(watched, false);
  ~Unwatched() { watched = before; }
};

inline uint32_t answer(const char* name, uint32_t otherwise) {
  const Unwatched unwatched;
  const auto given = platform.answers.find(name);
  return given == platform.answers.end() ? otherwise : given->second;
}

std::string text(const auto&... parts) { return (std::ostringstream() << ... << parts).str(); }

// Part of a trace; pointers are shown by name.
auto shown(const auto& part) {
  if constexpr (!std::is_convertible_v<decltype(part), const void*>)
    return part;
  else
    return part == nullptr ? "null" : platform.names.contains(part) ? platform.names[part] : "?";
}

int32_t trace(const char* name, const auto&... parts) {
  const Unwatched unwatched;
  platform.seen += text(name, text(' ', shown(parts))..., "; ");
  return platform.unexamined;
}

// ---- size query, open and process call of a fake library; the pointers of the last one may be null

int32_t traceSizeQuery(const char* name, uint32_t* internalBytes, uint32_t* scratchBytes, const auto& stream) {
  *internalBytes = answer("internal", 96), *scratchBytes = answer("scratch", 32);
  return trace(name, stream), static_cast<int32_t>(answer("sizes", 0));
}

int32_t traceOpen(const char* name, void** instance, const void* internal, const auto& stream) {
  trace(name, *instance, internal, stream);
  if (answer("instance", 1)) *instance = &platform.unexamined;
  return platform.unexamined;
}

inline uint8_t sample(size_t n) { return static_cast<uint8_t>(n % 100 + 1); }  // n-th output byte

int32_t traceProcess(const char* name, const void* src, uint32_t* inBytes, void* dst, uint32_t* outBytes,
                     const auto&... others) {
  trace(name, others..., src, inBytes ? *inBytes : 0, dst, outBytes ? *outBytes : 0);
  const uint32_t made = answer("made", 0), written = std::min(made, outBytes ? *outBytes : 0);
  for (uint32_t n = 0; dst && n < written; ++n) static_cast<uint8_t*>(dst)[n] = sample(n);
  if (inBytes) *inBytes = answer("left", *inBytes);
  if (outBytes) *outBytes = made;
  return platform.unexamined;
}

// ---- a component's record, and a block for it

class Component {
 public:
  using Numbers = std::array<uint32_t, 5>;

  Component(const char* tag, std::vector<const char*> operations) : operations_(std::move(operations)) {
    platform = {};
    platform.tag = tag;
    platform.names = {{&platform.unexamined, "library"}, {src_, "src"}, {dst_.data(), "dst"}};
  }
  virtual ~Component() {
    for (void* const block : platform.held) std::free(block);
  }
  Component(const Component&) = delete;

  // Does an operation with these arguments. Returns its trace.
  std::string run(const std::string& operation, const Numbers& numbers) {
    in_ = numbers[0], out_ = numbers[1];
    dst_.assign(dst_.size(), kUntouched);
    const std::vector<std::string> before = state();
    platform.seen.clear(), platform.allocations = 0;
    watched = true;
    const uint32_t code = perform(operation, numbers);
    watched = false;
    const std::vector<std::string> after = state();
    std::string changes;
    for (size_t i = 0; i < after.size(); ++i) changes += after[i] == before[i] ? "" : after[i] + ", ";
    return text(platform.seen, changes, "returns ", code);
  }

  // A row of a table: "operation arguments answer=number ...: operation ... -> trace of the last operation".
  void check(const std::string& row) {
    const size_t arrow = row.find(" -> ");
    std::istringstream calls(row.substr(0, arrow));
    std::string seen, word;
    for (std::string call; std::getline(calls, call, ':');) {
      std::string operation;
      Numbers numbers{};
      platform.answers.clear();
      std::istringstream words(call);
      words >> operation;
      for (size_t at = 0; words >> word;) {
        const size_t sign = word.find('=');  // npos for an argument: it begins at npos + 1, 0
        const auto number = static_cast<uint32_t>(std::stoll(word.substr(sign + 1)));
        (sign == std::string::npos ? numbers.at(at++) : platform.answers[word.substr(0, sign)]) = number;
      }
      seen = run(operation, numbers);
    }
    EXPECT_EQ(seen, row.substr(arrow + 4)) << row;
  }

  // Does a random operation: no buffer leaks, and no byte beyond the capacity is written.
  void checkRandomOperation(Random& random) {
    const auto any = [&] {
      return random.oneIn(2) ? random.below(6) : random.from({256u, ~0u, random.below(kRoom), random.word()});
    };
    platform.answers.clear();
    for (const char* name : {"internal", "scratch", "sizes", "instance", "failing", "made", "left"})
      if (random.oneIn(2)) platform.answers[name] = any();
    const char* const operation = operations_[random.below(static_cast<uint32_t>(operations_.size()))];
    const Numbers numbers{any(), any() % kRoom, any(), any(), any()};
    run(operation, numbers);
    size_t kept = 0;
    for (const std::string& member : state()) kept += member.find(" block") != std::string::npos;
    EXPECT_EQ(platform.held.size(), kept) << operation;
    EXPECT_TRUE(std::all_of(dst_.begin() + numbers[1], dst_.end(), [](uint8_t b) { return b == kUntouched; }));
  }

 protected:
  virtual uint32_t perform(const std::string& operation, const Numbers& n) = 0;
  virtual std::vector<std::string> members() const = 0;

  const uint8_t src_[1] = {};
  std::vector<uint8_t> dst_ = std::vector<uint8_t>(2 * kRoom);
  uint32_t in_ = 0, out_ = 0;

 private:
  std::vector<const char*> operations_;

  // The members and the block, which begins with some zeros and some samples.
  std::vector<std::string> state() const {
    std::vector<std::string> all = members();
    size_t zeros = 0, samples = 0;
    while (dst_[zeros] == 0) ++zeros;
    while (dst_[zeros + samples] == sample(samples)) ++samples;
    all.insert(all.end(), {text("in ", in_), text("out ", out_), text("dst ", zeros, '+', samples)});
    return all;
  }
};

// Makes the table's calls to a record of its own on each of four threads. A row may go on in indented lines.
template <class Kind>
void checkOnThreads(const char* table) {
  std::vector<std::jthread> threads;
  for (const int32_t unexamined : {0, -1, INT32_MIN, INT32_MAX})
    threads.emplace_back([=] {
      for (int round = 0; round < 20 && !testing::Test::HasFailure(); ++round) {
        Kind component;
        platform.unexamined = unexamined;
        std::istringstream rows(table);
        for (std::string row, next; std::getline(rows, row);) {
          while (rows.peek() == ' ' && std::getline(rows, next)) row += next.substr(next.find_first_not_of(' ') - 1);
          if (!row.empty() && row[0] != '#') component.check(row);
        }
      }
    });
}

template <class Kind>
class Randomly : Kind {
 public:
  explicit Randomly(Random& random) : random_(random) { Kind::run("Init", {}); }
  void checkNext() { Kind::checkRandomOperation(random_); }

 private:
  Random& random_;
};

template <class Kind>
void checkRandomly() {
  Random random(1);
  for (int round = 0; round < 30; ++round)
    for (Randomly<Kind> operations(random); !testing::Test::HasFailure() && !random.oneIn(300);)
      operations.checkNext();
}

// ---- the log and the heap

int __android_log_print(int priority, const char* tag, const char* format, ...) {
  const Unwatched unwatched;
  char line[200];
  va_list arguments;
  va_start(arguments, format);
  std::string message(line, static_cast<size_t>(vsnprintf(line, sizeof line, format, arguments)));
  va_end(arguments);
  EXPECT_STREQ(tag, platform.tag);
  if (message.ends_with('\n')) message.replace(message.size() - 1, 1, "\\n");
  return trace(priority == KES_LOG_DEBUG ? "D" : priority == KES_LOG_ERROR ? "E" : "?", message);
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
  trace("malloc", bytes);
  const uint32_t number = platform.allocations++;
  if (number == answer("failing", ~0u) || bytes > kRoom) return nullptr;
  void* const block = next(bytes);
  platform.held.insert(block), platform.names[block] = text("block", number);
  return std::memset(block, 0xDD, bytes);  // as found, not zeros
}

EARLY void free(void* block) noexcept {
  if (watched && block) {
    const Unwatched unwatched;
    trace("free", block);
    platform.held.erase(block);
  }
  if (nextFree) nextFree(block);
}
