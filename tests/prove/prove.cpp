// SPDX-License-Identifier: Apache-2.0
// Proves by exhaustion that the library's integer functions equal their definitions (oracle.h). docs/proof.md says
// why these rows are all of it.
//
//   prove            every input
//   prove --quick    some blocks of every row, with the limits and zero
//
// The library that the loader finds is tried: LD_LIBRARY_PATH chooses the build. Prints a row of docs/proof.md for
// each family of functions. At a difference, names the function and the first input that differs; the exit code is 1.
#include <dlfcn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cfenv>
#include <csignal>
#include <cstring>
#include <ctime>
#include <deque>
#include <functional>
#include <iostream>
#include <map>
#include <mutex>
#include <span>
#include <sstream>
#include <thread>

#include "grids.h"
#include "host/limiter.h"
#include "platform/limiter_lib.h"

namespace {

template <class... Text>
std::string joined(const Text&... text) {
  std::ostringstream out;
  (out << ... << text);
  return out.str();
}

// The build of the library that a function comes from, by the library's path.
template <class Function>
std::string buildOf(Function* function) {
  Dl_info info{};
  dladdr(reinterpret_cast<void*>(function), &info);
  const std::string path = info.dli_fname ? info.dli_fname : "", levels = "glibc-hwcaps/";
  if (const size_t at = path.find(levels); at != std::string::npos)
    return path.substr(at + levels.size(), path.find('/', at + levels.size()) - at - levels.size());
#if defined(__aarch64__)
  return "aarch64";
#else
  return "x86-64";
#endif
}

double cpuSecondsHere() {
  timespec time;
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
  return static_cast<double>(time.tv_sec) + 1e-9 * static_cast<double>(time.tv_nsec);
}

// ---- calls of the library, in this process or, of a build for another machine, in one under an emulator

struct Job {
  enum { kKernel, kShifter, kLimiter } function;
  Call call;          // of a kernel
  uint32_t argument;  // the shifter's type, the limiter's channels
  uint32_t inBytes, outBytes, rounding;
};

// At a rate of 1 Hz the limiter has no delay and recovers at once: each frame gets the gain that it needs itself.
void limit(uint32_t channels, const uint8_t* src, uint32_t inBytes, uint8_t* dst, uint32_t outBytes) {
  uint32_t internalBytes, scratchBytes;
  Limiter_GetBufferSize(&internalBytes, &scratchBytes, KES_CONVERT_LIMITER);
  Bytes internal(internalBytes);
  LimiterParam param{};
  param.channels = channels, param.sampleRate = 1;
  void* instance = nullptr;
  Limiter_Open(&instance, internal.data(), &param);
  Limiter_Process(instance, nullptr, src, &inBytes, dst, &outBytes);
}

// The caller's rounding mode changes nothing.
void perform(Job job, const uint8_t* src, uint8_t* dst) {
  current = &job.call;
  std::fesetround(kRoundings[job.rounding % 4]);
  switch (job.function) {
    case Job::kKernel: job.call.run(dst, src); break;
    case Job::kShifter: Shifter_Process(src, &job.inBytes, dst, &job.outBytes, job.argument); break;
    case Job::kLimiter: limit(job.argument, src, job.inBytes, dst, job.outBytes);
  }
  std::fesetround(FE_TONEAREST);
}

class Library {
 public:
  static constexpr size_t kMostBytes = 1 << 20;  // of a block

  // A command is a program like this one, which shares the blocks' memory and waits for jobs.
  explicit Library(const std::vector<std::string>& command) {
    const int memory = memfd_create("blocks", 0);
    if (ftruncate(memory, 2 * kMostBytes) != 0) std::abort();
    map(memory);
    int sockets[2];
    if (!command.empty() && socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sockets) == 0) {
      child_ = fork();
      if (child_ == 0) {
        std::vector<char*> words;
        for (const std::string& word : command) words.push_back(const_cast<char*>(word.c_str()));
        char serve[] = "--serve";
        words.push_back(serve), words.push_back(nullptr);
        dup2(memory, 10), dup2(sockets[1], 11);
        execvp(words[0], words.data());
        _exit(127);
      }
      close(sockets[1]);
      socket_ = sockets[0];
      char name[kNameBytes + 1] = "";
      if (read(socket_, name, kNameBytes) == kNameBytes) build = name;
    }
    close(memory);
  }
  ~Library() {
    if (socket_ >= 0) close(socket_), waitpid(child_, nullptr, 0);
  }
  Library(const Library&) = delete;

  // Does the jobs of the program that started this one.
  static int serve() {
    const Library here;
    std::string name = here.build;
    name.resize(kNameBytes);
    if (write(11, name.data(), kNameBytes) != kNameBytes) return 1;
    for (Job job; read(11, &job, sizeof job) == sizeof job;) {
      perform(job, here.src, here.dst);
      const double seconds = cpuSecondsHere();
      if (write(11, &seconds, sizeof seconds) != sizeof seconds) return 1;
    }
    return 0;
  }

  bool run(const Job& job) {
    if (socket_ < 0) return perform(job, src, dst), true;
    return write(socket_, &job, sizeof job) == sizeof job &&
           read(socket_, &secondsThere, sizeof secondsThere) == sizeof secondsThere;
  }

  uint8_t *src, *dst;
  std::string build = buildOf(Audio_Channel_Downmix);
  double secondsThere = 0;  // CPU time of the other process

 private:
  static constexpr size_t kNameBytes = 32;
  Library() { map(10); }
  void map(int memory) {
    src = static_cast<uint8_t*>(mmap(nullptr, 2 * kMostBytes, PROT_READ | PROT_WRITE, MAP_SHARED, memory, 0));
    if (src == MAP_FAILED) std::abort();
    dst = src + kMostBytes;
  }
  int socket_ = -1;
  pid_t child_ = 0;
};

// ---- a block of frames, whose output is compared with the definition's

// Interleaves the channels of `of` from `first` to `last`, two at a time where it can: the fewer stores, the faster.
template <int32_t kBytes>
void pack(const Channels& of, size_t first, size_t last, uint8_t* __restrict to) {
  const size_t frames = of[0].size(), stride = kBytes * of.size();
  for (size_t begin = 0, end; begin < frames; begin = end) {  // piece by piece, in the nearest cache
    end = std::min(begin + 256, frames);
    for (size_t c = first; c <= last; ++c) {
      const int32_t* __restrict x = of[c].data(), * __restrict y = of[c < last ? c + 1 : c].data();
      uint8_t* __restrict at = to + c * kBytes;
      if (c == last) {
        for (size_t f = begin; f < end; ++f) std::memcpy(at + f * stride, x + f, kBytes);
        break;
      }
      for (size_t f = begin; f < end; ++f) {
        const uint64_t low = static_cast<uint32_t>(x[f]), high = static_cast<uint32_t>(y[f]);
        const uint64_t both = (low & (UINT64_MAX >> (64 - 8 * kBytes))) | high << (8 * kBytes);
        std::memcpy(at + f * stride, &both, 2 * kBytes);
      }
      if (++c == last) break;
    }
  }
}
void pack(const Channels& of, size_t first, size_t last, uint8_t* to, int32_t bytes) {
  if (bytes == 2) pack<2>(of, first, last, to);
  if (bytes == 3) pack<3>(of, first, last, to);
  if (bytes == 4) pack<4>(of, first, last, to);
}

constexpr char kEnded[] = "the program ended";

class Trial {
 public:
  explicit Trial(const std::vector<std::string>& command) : library(command) {}

  Library library;
  std::string difference;
  uint64_t inputs = 0;
  Channels in, out;
  int32_t bytes = 0;

  // Samples of channels that a block does not fill stay those of the block before.
  void begin(size_t channels, size_t frames, int32_t sampleBytes) {
    if (in.size() == channels && in[0].size() == frames && bytes == sampleBytes) return;
    in.assign(channels, std::vector<int32_t>(frames));
    bytes = sampleBytes;
    ramps_.assign(channels, {0, 0});
    if (channels * frames * static_cast<size_t>(bytes) > Library::kMostBytes) std::abort();
    firstFilled_ = 0, lastFilled_ = channels - 1;
  }

  // Fills a channel with value(frame), wrapped to the width of a sample.
  template <class Value>
  void fill(size_t channel, Value value) {
    ramps_[channel] = {0, 1};
    const int unused = 32 - 8 * bytes;
    int64_t frame = 0;
    for (int32_t& sample : in[channel])
      sample = static_cast<int32_t>(static_cast<uint32_t>(value(frame++)) << unused) >> unused;
    firstFilled_ = std::min(firstFilled_, channel), lastFilled_ = std::max(lastFilled_, channel);
  }
  void ramp(size_t channel, int64_t start, int64_t step = 1) {
    if (step == 0 && ramps_[channel] == std::pair(start, step)) return;
    fill(channel, [=](int64_t frame) { return start + step * frame; });
    ramps_[channel] = {start, step};
  }

  // Compares what a job makes of the block with `out`.
  void compare(int32_t outBytes, Job job) {
    const size_t frames = in[0].size(), frameBytes = out.size() * static_cast<size_t>(outBytes);
    job.inBytes = static_cast<uint32_t>(frames * in.size()) * static_cast<uint32_t>(bytes);
    job.outBytes = static_cast<uint32_t>(frames * frameBytes);
    expected_.resize(job.outBytes);
    pack(out, 0, out.size() - 1, expected_.data(), outBytes);
    if (firstFilled_ <= lastFilled_) pack(in, firstFilled_, lastFilled_, library.src, bytes);
    firstFilled_ = in.size(), lastFilled_ = 0;
    std::memset(library.dst, 0xA5, job.outBytes);
    if (!library.run(job)) difference = kEnded;
    inputs += frames;
    if (std::memcmp(library.dst, expected_.data(), job.outBytes) == 0) return;
    if (!difference.empty()) return;
    const auto wrong = std::ranges::mismatch(expected_, std::span(library.dst, job.outBytes)).in1 - expected_.begin();
    const size_t f = static_cast<size_t>(wrong) / frameBytes;
    std::ostringstream text;
    text << "the frame";
    for (const std::vector<int32_t>& channel : in) text << ' ' << channel[f];
    text << " becomes";
    for (size_t c = 0; c < out.size(); ++c)
      text << ' ' << readSample(library.dst + f * frameBytes + c * static_cast<size_t>(outBytes), outBytes);
    text << " instead of";
    for (const std::vector<int32_t>& channel : out) text << ' ' << channel[f];
    text << " (frame " << f << " of " << frames << ')';
    difference = text.str();
  }

  void check(Call call, uint64_t rounding) {
    call.byteCount = static_cast<int32_t>(in.size() * in[0].size()) * bytes;
    outputOf(call, in, out);
    compare(bytes, {Job::kKernel, call, 0, 0, 0, static_cast<uint32_t>(rounding)});
  }

 private:
  std::vector<std::pair<int64_t, int64_t>> ramps_;
  size_t firstFilled_ = SIZE_MAX, lastFilled_ = 0;
  Bytes expected_;
};

// ---- rows

struct Row {
  std::string family, function;
  uint64_t blocks;
  std::function<void(Trial&, uint64_t block)> tryBlock;
  uint64_t quickBlocks = 256;
};
std::vector<Row> rows;

// Frames of a block. An odd number ends in a tail, and moves the values of each block to other lanes.
int64_t frames = 4096, oddFrames = 4093;
bool emulated = false;  // which takes ten times as long: rows that say so try fewer inputs then

constexpr uint64_t blocksOf(int32_t bytes, int64_t length) {
  return ((uint64_t{1} << (8 * bytes)) + static_cast<uint64_t>(length) - 1) / static_cast<uint64_t>(length);
}
// The first value of a block: those of block 0 are around 0, those in the middle around the limits.
constexpr int64_t firstValue(uint64_t block, int64_t length) {
  return static_cast<int64_t>(block) * length - length / 2;
}

constexpr uint32_t kFormats[] = {1, 6, 3};
const std::string kBitsOf[] = {"", "", "16 bits", "24 bits", "32 bits"};

Call callOf(Kernel kernel, int32_t channels, uint32_t format, uint32_t mask) {
  return {kernel, kernel == kToStereo ? 2 : 1, channels, 0, format, mask};
}

struct Mix {
  Kernel kernel;
  uint32_t mask;
  int32_t least;  // channels
  const char* name;
};
constexpr Mix kMixes[] = {{kFold, 0, 1, "fold"},         {kAverage, 0, 1, "mono average"},
                          {kToStereo, 0, 1, "pairwise"}, {kToStereo, 0x7, 3, "front"},
                          {kToStereo, 0x33, 4, "quad"},  {kToStereo, 0x3F, 6, "5.1"}};

// Every sample in each channel from `first` to `last`, with silence in the others. A 16-bit sample has many positions
// of a block; 32-bit samples go from channel to channel.
void addTerms(const Mix& mix, int32_t channels, uint32_t format, int32_t first, int32_t last, int64_t length,
              const char* where) {
  const Call call = callOf(mix.kernel, channels, format, mix.mask);
  const int32_t bytes = call.sampleBytes();
  const auto count = static_cast<uint64_t>(last - first + 1);
  const uint64_t values = blocksOf(bytes, length), shifts = bytes != 2 ? 1 : length < 16 ? 2 : 16;
  rows.push_back({joined(mix.name, ", ", kBitsOf[bytes], ": every sample in every channel", where), joined(call),
                  values * shifts * (bytes == 4 ? 1 : count), [=](Trial& trial, uint64_t block) {
                    const uint64_t turn = bytes == 4 ? block / 16 : block / (values * shifts);
                    const size_t hot = static_cast<size_t>(first) + turn % count;
                    trial.begin(static_cast<size_t>(channels), static_cast<size_t>(length), bytes);
                    for (size_t c = 0; c < trial.in.size(); ++c)
                      if (c != hot) trial.ramp(c, 0, 0);
                    trial.ramp(hot,
                               firstValue(block / shifts % values, length) - static_cast<int64_t>(block % shifts));
                    trial.check(call, block);
                  }});
}

// Every sum of a frame, or of a side of it, as channels * quotient + rest. Of 32 bits those with the least and the
// greatest rest, the two sides of each quotient's edge; of a side, with the rests in turn.
void addSums(const Mix& mix, int32_t channels, uint32_t format) {
  const Call call = callOf(mix.kernel, channels, format, mix.mask);
  const int32_t bytes = call.sampleBytes(), step = mix.kernel == kToStereo ? 2 : 1;
  const int32_t summed = (channels + step - 1) / step;
  const uint64_t values = blocksOf(bytes, oddFrames), rests = static_cast<uint64_t>(bytes != 4               ? summed
                                                                                    : step == 1 && !emulated ? 2
                                                                                                             : 1);
  rows.push_back({joined(mix.name, ", ", kBitsOf[bytes], ": every sum"), joined(call), values * rests,
                  [=](Trial& trial, uint64_t block) {
                    const auto turn = static_cast<int32_t>(block % rests);
                    const int32_t rest = bytes != 4   ? turn
                                         : rests == 2 ? turn * (summed - 1)
                                                      : static_cast<int32_t>(block % static_cast<uint64_t>(summed));
                    trial.begin(static_cast<size_t>(channels), static_cast<size_t>(oddFrames), bytes);
                    const int64_t quotient = firstValue(block / rests, oddFrames);
                    for (int32_t c = 0; c < channels; ++c)
                      trial.ramp(static_cast<size_t>(c), quotient + (c / step >= summed - rest));
                    trial.check(call, block / rests);
                  }});
}

// Every pair of 16-bit samples: a in some channels, b in others; the rest gets a few values in turn. A second channel
// of a pair gets its complement, so both sides of a frame try every pair at once.
void addPairs(const Mix& mix, int32_t channels, std::string_view pattern) {
  const Call call = callOf(mix.kernel, channels, 1, mix.mask);
  rows.push_back({joined(mix.name, ", 16 bits: every pair of samples"), joined(call, ", pairs ", pattern),
                  (uint64_t{1} << 32) / static_cast<uint64_t>(frames),
                  [=, pattern = std::string(pattern)](Trial& trial, uint64_t block) {
                    constexpr int64_t kOthers[] = {0, 32767, -32768, 20011, -20011};
                    const uint64_t blocks = 65536 / static_cast<uint64_t>(frames);
                    const auto b = static_cast<int64_t>(block / blocks);
                    const int64_t a = firstValue(block % blocks, frames) + b;  // in another lane for each b
                    trial.begin(static_cast<size_t>(channels), static_cast<size_t>(frames), 2);
                    for (size_t c = 0; c < trial.in.size(); ++c) switch (c < pattern.size() ? pattern[c] : '.') {
                        case 'a': trial.ramp(c, a); break;
                        case 'A': trial.ramp(c, ~a, -1); break;
                        case 'b': trial.ramp(c, b, 0); break;
                        case 'B': trial.ramp(c, ~b, 0); break;
                        default: trial.ramp(c, kOthers[b % 5], 0);
                      }
                    trial.check(call, block);
                  }});
}

// Sums on both sides of each limit: every sample in the mixed-in channels, and at the sides what brings the sum to a
// limit, one inside, one and two beyond.
void addLimits(const Mix& mix, int32_t channels, uint32_t format) {
  const Call call = callOf(mix.kernel, channels, format, mix.mask);
  const int32_t bytes = call.sampleBytes();
  const uint64_t values = blocksOf(bytes, oddFrames), turns = bytes == 4 ? 1 : 4;
  rows.push_back({joined(mix.name, ", ", kBitsOf[bytes], ": both sides of every limit"), joined(call, ", limits"),
                  values * turns, [=](Trial& trial, uint64_t block) {
                    const auto turn = static_cast<int64_t>(bytes == 4 ? block % 2 : block / values);
                    const int64_t x = firstValue(block % values, oddFrames);
                    trial.begin(static_cast<size_t>(channels), static_cast<size_t>(oddFrames), bytes);
                    Channels& s = trial.in;
                    for (size_t c = 2; c < s.size(); ++c) trial.ramp(c, c % 2 ? ~x : x, c % 2 ? -1 : 1);
                    if (mix.mask == 0x3F) {  // the sum of the centre takes every value, too, in another order
                      trial.ramp(2, x * 7, 0x61C88647);
                      trial.ramp(3, block % 3 ? x / 2 : 0, 0);
                    }
                    static thread_local std::vector<int64_t> mixed;
                    const int64_t limit = int64_t{1} << (8 * bytes - 1);
                    for (size_t side = 0; side < 2; ++side) {
                      mixedIn(call, s, side, mixed);
                      const int64_t beyond = side ? 1 - turn : turn - (turns == 4 ? 1 : 0);
                      const int64_t* const sums = mixed.data();
                      trial.fill(side, [=](int64_t f) {
                        return limited((sums[f] < 0 ? -limit - beyond : limit - 1 + beyond) - sums[f], bytes);
                      });
                    }
                    trial.check(call, block);
                  }});
}

void addMixes() {
  for (const Mix& mix : kMixes)
    for (const uint32_t format : kFormats) {
      const bool named = mix.mask != 0;
      for (int32_t n = mix.least; n <= 9; ++n) {
        if (format != 3) addTerms(mix, n, format, 0, n - 1, format == 1 ? frames : oddFrames, "");
        if (format == 1) addTerms(mix, n, format, 0, n - 1, 15, ", in tails");
        // Frames of other counts than these lose their last channels before they are mixed.
        const bool mixesAll = n == mix.least || n == (mix.mask == 0x7 ? 4 : mix.mask == 0x3F ? 8 : 0);
        if (named ? format == 3 && mixesAll : mix.kernel == kFold && format == 3 && n < 9)
          addTerms(mix, n, format, named ? 2 : 0, named ? mix.least - 1 : n - 1, oddFrames, "");
        if (named && n < 9 && (format == 6 || (format == 3 && mixesAll))) addLimits(mix, n, format);
        if (!named && n >= 2 && n <= 8 && (mix.kernel != kFold || format != 3)) addSums(mix, n, format);
      }
    }
  for (const Mix& mix : kMixes) {
    if (mix.mask == 0 && mix.kernel != kToStereo) addPairs(mix, 2, "ab");
    if (mix.mask == 0x7) addPairs(mix, 3, "aAb"), addPairs(mix, 4, "aAb.");
    if (mix.mask == 0x33) addPairs(mix, 4, "aAbB");
    if (mix.mask == 0x3F)
      addPairs(mix, 6, "..ab.."), addPairs(mix, 6, "aA..bB"), addPairs(mix, 6, "..b.aA"), addPairs(mix, 8, "..ab.."),
          addPairs(mix, 8, "aA..bB");
  }
}

// ---- the host's shifter and limiter

struct ShifterFormat {
  const char* name;
  int fullScaleBits;
  int32_t bytes;
};
constexpr ShifterFormat kShifterFormats[] = {{"16", 15, 2}, {"32", 31, 4}, {"8.24", 24, 4}, {"24", 23, 3}};

int64_t shiftedToEven(int64_t value, int bits) {
  if (bits <= 0) return value << -bits;
  const int64_t floor = value >> bits, rest = value - (floor << bits), half = int64_t{1} << (bits - 1);
  return floor + (rest > half || (rest == half && floor % 2 != 0));
}

void addShifter() {
  for (uint32_t type = 0; type < 12; ++type) {
    const ShifterFormat &from = kShifterFormats[type / 3], &to = kShifterFormats[type % 3 + (type % 3 >= type / 3)];
    for (const int64_t length : {from.bytes == 4 ? oddFrames : frames, int64_t{15}}) {
      if (length == 15 && from.bytes != 2) continue;
      const uint64_t values = blocksOf(from.bytes, length), shifts = from.bytes == 4 ? 1 : 16;
      rows.push_back({joined("shifter: every sample of each pair of formats"),
                      joined("Shifter ", type, ", ", from.name, " to ", to.name), values * shifts,
                      [=](Trial& trial, uint64_t block) {
                        trial.begin(1, static_cast<size_t>(length), from.bytes);
                        trial.ramp(0, firstValue(block / shifts, length) - static_cast<int64_t>(block % shifts));
                        trial.out.resize(1), trial.out[0].resize(trial.in[0].size());
                        for (size_t f = 0; f < trial.in[0].size(); ++f)
                          trial.out[0][f] = static_cast<int32_t>(limited(
                              shiftedToEven(trial.in[0][f], from.fullScaleBits - to.fullScaleBits), to.bytes));
                        trial.compare(to.bytes, {Job::kShifter, {}, type, 0, 0, 0});
                      }});
    }
  }
}

void addLimiter() {
  if (buildOf(Limiter_Process) != buildOf(Audio_Channel_Downmix)) return;  // it is the same for all levels of x86-64
  const uint64_t thin = emulated ? 16 : 1;
  for (const uint32_t channels : {1u, 2u})
    rows.push_back({"limiter: every sample at its own gain and, beside a peak, at the lowest",
                    joined("Limiter, ", channels, " channels"), blocksOf(4, oddFrames) / thin,
                    [=](Trial& trial, uint64_t block) {
                      trial.begin(channels, static_cast<size_t>(oddFrames), 4);
                      trial.ramp(0, firstValue(block * thin, oddFrames));
                      if (channels == 2) trial.ramp(1, INT32_MIN, 0);
                      trial.out.resize(channels);
                      for (std::vector<int32_t>& channel : trial.out) channel.resize(trial.in[0].size());
                      for (size_t f = 0; f < trial.in[0].size(); ++f) {
                        int64_t peak = 0;
                        for (const auto& channel : trial.in)
                          peak = std::max<int64_t>(peak, channel[f] >= 0 ? channel[f] : -int64_t{channel[f]} - 512);
                        const int64_t gain =
                            peak <= kLimiterThreshold ? 1 << 30 : (int64_t{kLimiterThreshold} << 30) / peak;
                        for (size_t c = 0; c < channels; ++c)
                          trial.out[c][f] = static_cast<int32_t>(shiftedToEven(trial.in[c][f] * gain, 39));
                      }
                      trial.compare(2, {Job::kLimiter, {}, channels, 0, 0, 0});
                    }});
}

// ---- shapes

using Grid = std::function<void(Grids&)>;
void addGrid(const char* family, const std::vector<Grid>& grids) {
  rows.push_back({family, family, grids.size(),
                  [grids](Trial& trial, uint64_t block) {
                    Grids tried;
                    grids[block](tried);
                    trial.difference = tried.difference, trial.inputs += tried.calls;
                  },
                  UINT64_MAX});
}

void addGrids() {
  constexpr std::pair<Kernel, uint32_t> kCalls[] = {
      {kFold, 0},     {kAverage, 0},     {kToMono, 0},      {kToMono, 3},        {kFoldDispatch, 0},
      {kToStereo, 0}, {kToStereo, 0x7},  {kToStereo, 0xB},  {kToStereo, 0x103},  {kFoldDispatch, 0x3F},
      {kToStereo, 1}, {kToStereo, 0x33}, {kToStereo, 0x3F}, {kToStereo, 0xFFFF}, {kToStereo, 0x1003F}};
  std::vector<Grid> mixes, moves, arguments, entries, counts, shifters;
  for (const auto& [kernel, mask] : kCalls)
    for (const uint32_t format : {1u, 3u, 4u, 6u})
      mixes.push_back([=](Grids& grids) {
        for (int32_t n = 1; n <= 10; ++n) grids.tryMix(kernel, mask, format, n);
      });
  mixes.push_back([](Grids& grids) { grids.tryWideFrames(); });
  for (const Kernel kernel : {kStrip, kZeroFill, kDuplicate})
    for (const uint32_t format : kFormats)
      for (int32_t in = 1; in <= 16; ++in)
        moves.push_back([=](Grids& grids) {
          for (int32_t out = 1; out <= 16; ++out) grids.tryMove(kernel, format, in, out);
        });
  for (int kernel = 0; kernel < kKernels; ++kernel)
    for (const uint32_t format : {0u, 1u, 2u, 3u, 4u, 5u, 6u, 7u, 257u, UINT32_MAX})
      arguments.push_back([=](Grids& grids) {
        for (const uint32_t mask : {0u, 0x7u, 0x33u, 0x3Fu, UINT32_MAX})
          grids.tryArguments(static_cast<Kernel>(kernel), format, mask);
      });
  for (uint32_t in = 0; in <= 9; ++in)
    entries.push_back([=](Grids& grids) {
      for (uint32_t out = 0; out <= 9; ++out) grids.tryEntries(in, out);
    });
  static constexpr uint32_t kEdges[] = {0, 1,     2,     3,          5,          6,          8,
                                        9, 65535, 65536, 0x7FFFFFFF, 0x80000000, 0x80000001, UINT32_MAX};
  for (const uint32_t in : kEdges)
    counts.push_back([=](Grids& grids) {
      for (const uint32_t out : kEdges) grids.tryCounts(in, out);
    });
  for (uint32_t type = 0; type < 12; ++type) shifters.push_back([=](Grids& grids) { grids.tryShifter(type); });
  addGrid("mixes: calls of every shape", mixes);
  addGrid("moves: calls of every shape", moves);
  addGrid("kernels: arguments of every kind", arguments);
  addGrid("entry points: choice of kernel", entries);
  addGrid("entry points and component: byte counts", counts);
  addGrid("shifter: calls of every shape", shifters);
}

// ---- the run

struct Result {
  uint64_t inputs = 0;
  std::string difference;
};

// Tries `count` of the row's blocks, spread evenly, in ascending order. The difference is that of the first block.
Result run(const Row& row, uint64_t count, std::deque<Trial>& trials, const std::function<void(uint64_t)>& progress) {
  std::atomic<uint64_t> next = 0, firstBad = UINT64_MAX;
  std::mutex mutex;
  Result result;
  std::vector<std::jthread> threads;
  for (Trial& trial : trials)
    threads.emplace_back([&] {
      trial.inputs = 0;
      for (uint64_t i; (i = next++) < count && i < firstBad;) {
        row.tryBlock(trial, i * row.blocks / count);
        if (&trial == &trials.front()) progress(i);
        if (trial.difference.empty()) continue;
        const std::lock_guard lock(mutex);
        if (i < firstBad) firstBad = i, result.difference = trial.difference;
        trial.difference.clear();
        break;
      }
      const std::lock_guard lock(mutex);
      result.inputs += trial.inputs;
    });
  for (std::jthread& thread : threads) thread.join();
  return result;
}

// Tells now and then how far it is.
class Progress {
 public:
  explicit Progress(uint64_t blocks) : blocks_(static_cast<double>(blocks)) {}
  void tell(uint64_t done, const std::string& function) {
    const std::time_t now = std::time(nullptr);
    if (now - told_ < (isatty(2) ? 1 : 60)) return;
    told_ = now;
    const double part = static_cast<double>(done) / blocks_, seconds = static_cast<double>(now - begin_);
    std::fprintf(
        stderr,
        isatty(2) ? "\r%2.0f %%, about %.0f minutes left: %s\033[K" : "%2.0f %%, about %.0f minutes left: %s\n",
        100 * part, seconds * (1 / part - 1) / 60 + 1, function.c_str());
  }

 private:
  double blocks_;
  std::time_t begin_ = std::time(nullptr), told_ = begin_;
};

int prove(bool quick, bool grids, const std::string& only, const std::vector<std::string>& command) {
  if (!command.empty())
    emulated = true, frames *= 4, oddFrames = frames - 3;  // each block costs the time of a switch
  if (grids || command.empty()) addGrids();
  if (!grids) addMixes(), addShifter(), addLimiter();
  std::erase_if(rows, [&](const Row& row) { return (row.family + row.function).find(only) == std::string::npos; });
  std::map<std::string, size_t> families;
  for (const Row& row : rows) families.emplace(row.family, families.size());
  std::ranges::stable_sort(rows, {}, [&](const Row& row) { return families[row.family]; });
  const auto count = [quick](const Row& row) { return quick ? std::min(row.blocks, row.quickBlocks) : row.blocks; };
  uint64_t all = 0, done = 0;
  for (const Row& row : rows) all += count(row);
  Progress progress(all);
  std::deque<Trial> trials;
  for (unsigned t = 0; t < std::max(2u, std::thread::hardware_concurrency()) * (command.empty() ? 1 : 2); ++t)
    trials.emplace_back(command);
  const auto cpuSeconds = [&] {
    double seconds = cpuSecondsHere();
    for (const Trial& trial : trials) seconds += trial.library.secondsThere;
    return seconds;
  };
  int different = 0;
  for (size_t i = 0; i < rows.size();) {
    const double before = cpuSeconds();
    uint64_t inputs = 0;
    const size_t first = i;
    for (; i < rows.size() && rows[i].family == rows[first].family; ++i) {
      const Row& row = rows[i];
      const Result result =
          run(row, count(row), trials, [&](uint64_t blocks) { progress.tell(done + blocks, row.function); });
      done += count(row);
      inputs += result.inputs;
      if (result.difference.empty()) continue;
      std::printf("%s: %s: %s\n", trials[0].library.build.c_str(), row.function.c_str(), result.difference.c_str());
      ++different;
      if (result.difference == kEnded) return 1;
    }
    std::printf("| %s | %s | %.3g | %.1f |\n", rows[first].family.c_str(), trials[0].library.build.c_str(),
                static_cast<double>(inputs), cpuSeconds() - before);
    std::fflush(stdout);
  }
  std::printf("%s: %d of %zu functions differ; %.0f CPU seconds\n", trials[0].library.build.c_str(), different,
              rows.size(), cpuSeconds());
  return different ? 1 : 0;
}

}  // namespace

int main(int argc, char** argv) {
  bool quick = false, grids = false;
  std::string only;
  int i = 1;
  for (; i < argc && argv[i][0] == '-'; ++i) {
    const std::string option = argv[i];
    if (option == "--serve") return Library::serve();
    if (option == "--quick")
      quick = true;
    else if (option == "--grids")
      grids = true;
    else if (option == "--only" && i + 1 < argc)
      only = argv[++i];
    else
      return std::fprintf(stderr, "usage: prove [--quick] [--grids] [--only TEXT] [COMMAND...]\n"), 1;
  }
  std::signal(SIGPIPE, SIG_IGN);
  std::signal(SIGSEGV, [](int) {
    if (current) std::cerr << "access outside the frames in " << *current << std::endl;
    _exit(1);
  });
  return prove(quick, grids, only, {argv + i, argv + argc});
}
