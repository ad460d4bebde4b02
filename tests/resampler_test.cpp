// SPDX-License-Identifier: Apache-2.0
// The resampler component against a model of it over random sequences of operations. The platform's resampler
// library, its log and the heap are fakes here: they do as they are told, and write down every call.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstring>
#include <sstream>
#include <thread>

#include "platform/log.h"
#include "platform/resampler_lib.h"
#include "random.h"

using Record = KesAudioSrcInC;
using Bytes = std::vector<std::byte>;

constexpr auto list(auto... values) { return std::array{static_cast<int>(values)...}; }
#define AT(member) offsetof(Record, member)
static_assert(list(AT(SetParameter), AT(GetParameter), AT(Reset), AT(Open), AT(Close), AT(Process),
                   AT(MultiChannel_Open), AT(MultiChannel_ResetBuffer), AT(MultiChannel_Process), AT(mTempBufSize),
                   AT(mInternalBufSize), AT(mpTempBuf), AT(mpInternalBuf), AT(mParam.inSampleRate),
                   AT(mParam.inChannels), AT(mParam.outSampleRate), AT(mParam.outChannels), AT(mParam.format),
                   AT(mpResampler), AT(mState), AT(mFirstBlockDone), sizeof(SrcParam), sizeof(Record)) ==
              list(0, 8, 16, 24, 32, 40, 48, 56, 64, 72, 76, 80, 88, 96, 100, 104, 108, 112, 120, 128, 132, 20, 136));

std::ostream& operator<<(std::ostream& out, const SrcParam& param) {
  const auto& [inRate, in, outRate, outChannels, format] = param;
  return out << inRate << ' ' << in << ' ' << outRate << ' ' << outChannels << ' ' << format << ' ';
}
std::ostream& operator<<(std::ostream& out, const Record& r) {
  return out << r.mTempBufSize << ' ' << r.mInternalBufSize << ' ' << r.mpTempBuf << ' ' << r.mpInternalBuf << ' '
             << r.mParam << r.mpResampler << ' ' << r.mState << ' ' << r.mFirstBlockDone;
}

namespace {

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
thread_local World world;
thread_local constinit bool watched = false;  // what uses the heap is the component

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
Bytes output(size_t capacity, uint32_t zeros = 0, uint32_t samples = 0) {
  Bytes bytes(capacity, std::byte{0xA5});
  for (uint32_t i = 0; i < zeros + samples; ++i) bytes[i] = std::byte(i < zeros ? 0 : (i - zeros) % 251 + 1);
  return bytes;
}

class Player {
 public:
  explicit Player(uint32_t seed) : random_(seed) { init(); }
  ~Player() { freeBuffers(); }

  // Does one random operation to the record, then to the model, and compares all that was seen.
  void play() {
    world = {random_.from({0, 0, 1, INT32_MAX, -1, INT32_MIN}), random_.between(-1, 1), size(), size(), extreme()};
    world.instance = &instances_[random_.below(8)], world.failing = random_.below(5);
    const bool multi = random_.oneIn(2);
    const int32_t id = random_.oneIn(6) ? random_.from({INT32_MIN, INT32_MAX, -1, -2}) : random_.between(0, 11);
    const uint32_t value = random_.oneIn(2) ? random_.below(7) : extreme();
    SrcParam p = {rate(), channels(), rate(), channels(), random_.oneIn(3) ? value : random_.below(4)};
    if (random_.oneIn(2)) p.outChannels = p.inChannels;
    uint32_t in = random_.oneIn(6) ? extreme() : random_.below(300), bytes = blockBytes(in);
    uint32_t out = random_.from({bytes, bytes, bytes - 1, bytes + 1, ~0u, random_.below(kRoom)});
    world.made = std::min({random_.from({bytes, bytes - 1, bytes / 2, bytes + 1, 0u}), out, kRoom});
    Bytes dst = dst_ = output(kRoom);
    in_ = in, out_ = out, asked_ = 0, expected_.clear();

    uint32_t code = 0, wanted = 0;
    switch (random_.below(10)) {
      case 0: freeBuffers(), init(); break;
      case 1:  // a caller's own hand: values that no operation sets
        record_.mFirstBlockDone = model_.mFirstBlockDone = random_.below(3);
        if (model_.mState != 2) record_.mState = model_.mState = random_.from({0u, 1u, 3u});
        break;
      case 2: code = run(record_.Close), wanted = close(); break;
      case 3: code = run(multi ? record_.MultiChannel_ResetBuffer : record_.Reset), wanted = reset(multi); break;
      case 4: code = run(record_.GetParameter, id), wanted = getParameter(id); break;
      case 5:
        if (model_.mState == 0 || model_.mState == 3) break;
        code = run(record_.SetParameter, id, value), wanted = setParameter(id, value);
        break;
      case 6:
        code = run(multi ? record_.MultiChannel_Open : record_.Open, p.inSampleRate, p.inChannels, p.outSampleRate,
                   p.outChannels, p.format);
        wanted = open(multi, p);
        break;
      default:
        code = run(multi ? record_.MultiChannel_Process : record_.Process, &src_, &in_, dst_.data(), &out_);
        wanted = process(multi, in, out, dst);
    }
    saw("returned", code, in_, out_, record_), want("returned", wanted, in, out, model_);
    EXPECT_EQ(world.seen, expected_);
    EXPECT_TRUE(dst_ == dst);
  }

 private:
  uint32_t extreme() { return random_.from({0u, 1u, 3u, 0x40000000u, 0x80000000u, ~0u, random_.word()}); }
  uint32_t rate() { return random_.oneIn(6) ? extreme() : random_.from({8000u, 44100u, 48000u, 96000u}); }
  uint32_t channels() { return random_.oneIn(6) ? extreme() : random_.below(8); }
  uint32_t size() { return random_.oneIn(4) ? extreme() : random_.below(kRoom); }
  void freeBuffers() { std::free(model_.mpTempBuf), std::free(model_.mpInternalBuf); }

  uint32_t run(auto operation, auto... arguments) {
    watched = true;
    const uint32_t code = operation(&record_, arguments...);
    watched = false;
    return code;
  }

  // ---- the model: what each operation must do, in its order, and return

  void want(const auto& name, const auto&... parts) { expected_.push_back(text(name, text(' ', parts)...)); }
  void log(int priority, const auto&... parts) { want("log", priority, text(parts...)); }
  void library(bool multi, const char* name, const auto&... parts) {
    want(text("Palix_", multi ? "MultiChannel_" : "", name), parts...);
  }
  void* allocate(uint32_t bytes) {
    if (bytes != 0) want("malloc", bytes);
    return bytes != 0 && asked_ < world.blocks.size() ? world.blocks[asked_++] : nullptr;
  }

  void init() {
    std::memset(&record_, 0xEE, sizeof record_);
    run([](Record* record) { return InitKesAudioSrcInC(record), 0u; });
    model_ = {}, model_.mState = 1;
    log(3, "InitKesAudioSrcInC");
  }

  uint32_t close() {
    if (model_.mState != 2) return 2;
    for (void** buffer : {&model_.mpTempBuf, &model_.mpInternalBuf})
      if (*buffer) want("free", std::exchange(*buffer, nullptr));
    return model_.mState = 1, 0;
  }

  uint32_t reset(bool multi) {
    const char* const name = multi ? "MultiChannel_ResetBuffer" : "SrcReset";
    log(3, "+", name, "()\n");
    if (model_.mState != 2) return 2;
    library(multi, "Reset", model_.mpResampler);
    return log(3, "-", name, "()\n"), 0;
  }

  uint32_t* field(int32_t setID) {
    SrcParam& p = model_.mParam;
    uint32_t* const fields[] = {&p.format, &p.inSampleRate, &p.outSampleRate, &p.inChannels, &p.outChannels};
    return setID >= 0 && setID <= 8 && setID % 2 == 0 ? fields[setID / 2] : nullptr;
  }

  uint32_t getParameter(int32_t id) {
    log(3, "+SrcGetParameter(), paramID ", id, "\n");
    if (id < 0 || !field(id - 1)) return 1;
    return log(3, "-SrcGetParameter(), paramID ", id, ", param 0x", std::hex, *field(id - 1), "\n"), 0;
  }

  uint32_t setParameter(int32_t id, uint32_t value) {
    log(3, "+SrcSetParameter(), paramID ", id, ", param 0x", std::hex, value, "\n");
    if (model_.mState == 2 && id != 4) return 2;
    if (!field(id) || (id == 0 && value > 4)) return 1;
    *field(id) = value;
    if (model_.mState == 2) library(false, "SetSamplingRate", model_.mpResampler, value);
    return log(3, "-SrcSetParameter()\n"), 0;
  }

  uint32_t open(bool multi, const SrcParam& p) {
    const char* const name = multi ? "MultiChannel_Open" : "SrcOpen";
    if (multi) log(3, "+", name, "()\n");
    if (model_.mState != 1) return 2;
    if (multi && p.inChannels != p.outChannels)
      return log(6, "in ch ", p.inChannels, " != out ch ", p.outChannels), 2;
    model_.mParam = p;
    library(multi, "GetBufferSize", &record_.mInternalBufSize, &record_.mTempBufSize, &record_.mParam, p);
    model_.mInternalBufSize = world.internalBytes, model_.mTempBufSize = world.scratchBytes;
    if (world.result < 0) return log(3, "Palix_GetBufferSize return err ", world.result, "\n"), 2;
    void* const internal = allocate(world.internalBytes);
    if (!internal && world.internalBytes) return log(3, name, "() mpInternalBuf malloc failed\n"), 2;
    void* const temp = allocate(world.scratchBytes);
    if (!temp && world.scratchBytes) {
      log(3, name, "() mpTempBuf malloc failed\n");
      if (internal) want("free", internal);
      return 2;
    }
    library(multi, "Open", &record_.mpResampler, internal, &record_.mParam, p);
    model_.mpInternalBuf = internal, model_.mpTempBuf = temp;
    model_.mpResampler = world.instance, model_.mState = 2;
    if (multi) log(3, "-", name, "()\n");
    return 0;
  }

  // The first block's length: whole frames, and every product modulo 2^32.
  uint32_t blockBytes(uint32_t inBytes) const {
    const auto times = [](uint64_t a, uint64_t b) { return a * b % (uint64_t{1} << 32); };
    const SrcParam& p = model_.mParam;
    const uint64_t product = times(times(times(inBytes, p.format == 1 ? 2 : 1), p.outSampleRate), p.outChannels);
    const uint64_t divisor = times(p.inChannels, p.inSampleRate), bytes = divisor == 0 ? 0 : product / divisor;
    const uint64_t frame = p.format > 3 ? 1 : times(p.format == 0 ? 2 : 4, p.outChannels);
    return static_cast<uint32_t>(frame == 0 ? 0 : times((bytes + frame - 1) / frame, frame));
  }

  uint32_t process(bool multi, uint32_t& in, uint32_t& out, Bytes& dst) {
    if (model_.mState != 2) return 2;
    uint32_t bytes = blockBytes(in);
    if (model_.mParam.format > 3) log(6, "unknown format ", model_.mParam.format, "!!");
    if (bytes > out) log(6, "OutputSampleCount ", out, " < ", bytes, "!!"), bytes = out;
    library(multi, "Process", model_.mpResampler, model_.mpTempBuf, &src_, &in_, in, dst_.data(), &out_, out);
    in = world.left, out = world.made, dst = output(kRoom, 0, out);
    if (model_.mFirstBlockDone != 1 && out != bytes) {
      log(3, "OutputSampleCount ", out, " => ", bytes);
      if (out < bytes) {
        const void* const block = allocate(bytes);
        if (!block) return log(3, multi ? "MultiChannel_Process" : "SrcProcess", "() tmp malloc failed\n"), 2;
        want("free", block);
        dst = output(kRoom, bytes - out, out), out = bytes;
      }
    }
    return model_.mFirstBlockDone = 1, 0;
  }

  Random random_;
  Record record_, model_;
  Bytes dst_;
  uint32_t src_ = 0, in_ = 0, out_ = 0;
  char instances_[8] = {};
  std::vector<std::string> expected_;
  size_t asked_ = 0;  // allocations of the model in this operation
};

TEST(Threads, DriveSeparateResamplersThatEqualTheirModel) {
  std::vector<std::jthread> threads;
  for (uint32_t seed = 0; seed < 4; ++seed)
    threads.emplace_back([seed] {
      Player one(seed), other(seed + 4);
      for (int step = 0; step < 10000 && !testing::Test::HasFailure(); ++step) one.play(), other.play();
    });
}

// What was logged since the last look.
std::string logged() {
  std::string lines;
  for (const std::string& event : std::exchange(world.seen, {}))
    if (event.starts_with("log ")) lines += event.substr(4) + (event.ends_with('\n') ? "" : "|");
  return lines;
}

TEST(Resampler, AlignsTheFirstBlock) {
  const struct {
    SrcParam param;
    uint32_t inBytes, capacity, made, expected;
    const char* errors = "";
  } rows[] = {
      {{44100, 2, 48000, 2, 0}, 17640, 32768, 19000, 19200},
      {{44100, 2, 48000, 2, 1}, 8820, 32768, 19000, 19200},
      {{44100, 2, 48000, 2, 0}, 17640, 32768, 19200, 19200},
      {{44100, 2, 48000, 2, 0}, 17640, 32768, 19204, 19200},
      {{44100, 1, 48000, 1, 0}, 102, 200, 110, 112},
      {{44100, 1, 48000, 1, 0}, 102, 100, 90, 100, "6 OutputSampleCount 100 < 112!!|"},
      {{44100, 1, 48000, 1, 4}, 102, 200, 90, 111, "6 unknown format 4!!|"},
      {{44100, 0, 48000, 2, 0}, 400, 400, 8, 0},
      {{0, 2, 48000, 2, 0}, 400, 400, 8, 0},
      // Beyond 32 bits: the product, the whole frames, the frame.
      {{44100, 2, 48000, 2, 0}, 44744, 400, 2, 8},
      {{1, 1, 1, 1, 2}, 0xFFFFFFFF, 400, 8, 0},
      {{1, 1, 1, 0x40000000, 2}, 3, 400, 8, 0},
  };
  for (const auto& [p, inBytes, capacity, made, expected, errors] : rows) {
    Record r;
    InitKesAudioSrcInC(&r);
    for (const bool first : {true, false}) {
      world = {.made = made};
      r.Open(&r, p.inSampleRate, p.inChannels, p.outSampleRate, p.outChannels, p.format);
      Bytes dst = output(capacity);
      uint32_t in = inBytes, out = capacity;
      EXPECT_EQ(r.Process(&r, nullptr, &in, dst.data(), &out), 0u);
      const uint32_t zeros = first && made < expected ? expected - made : 0;
      EXPECT_EQ(out, zeros + made) << p;
      EXPECT_TRUE(dst == output(capacity, zeros, made)) << p;
      const std::string told = text("3 OutputSampleCount ", made, " => ", expected, "|");
      EXPECT_EQ(logged(), errors + (first && made != expected ? told : "")) << p;
      r.Close(&r);
    }
  }
}

}  // namespace

// ---- the fakes, found before the platform's libraries and the C library's heap

#define FLAVOUR(prefix)                                                                                 \
  int32_t prefix##GetBufferSize(uint32_t* internalBytes, uint32_t* scratchBytes, SrcParam* param) {     \
    saw(#prefix "GetBufferSize", internalBytes, scratchBytes, param, *param);                           \
    *internalBytes = world.internalBytes, *scratchBytes = world.scratchBytes;                           \
    return world.result;                                                                                \
  }                                                                                                     \
  int32_t prefix##Open(void** instance, void* internal, SrcParam* param) {                              \
    *instance = world.instance;                                                                         \
    return saw(#prefix "Open", instance, internal, param, *param);                                      \
  }                                                                                                     \
  int32_t prefix##Reset(void* instance) { return saw(#prefix "Reset", instance); }                      \
  int32_t prefix##Process(void* instance, void* scratch, const void* src, uint32_t* inBytes, void* dst, \
                          uint32_t* outBytes) {                                                         \
    saw(#prefix "Process", instance, scratch, src, inBytes, *inBytes, dst, outBytes, *outBytes);        \
    const Unwatched unwatched;                                                                          \
    std::ranges::copy(output(world.made, 0, world.made), static_cast<std::byte*>(dst));                 \
    *inBytes = world.left, *outBytes = world.made;                                                      \
    return world.unexamined;                                                                            \
  }
FLAVOUR(Palix_)
FLAVOUR(Palix_MultiChannel_)
int32_t Palix_SetSamplingRate(void* instance, uint32_t rate) { return saw(__func__, instance, rate); }

int __android_log_print(int priority, const char* tag, const char* format, ...) {
  EXPECT_STREQ(tag, "KesAudioSrcInC");
  char line[200];
  va_list arguments;
  va_start(arguments, format);
  vsnprintf(line, sizeof line, format, arguments);
  va_end(arguments);
  return saw("log", priority, line);
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
