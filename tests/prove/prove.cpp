// SPDX-License-Identifier: Apache-2.0
// Proves by exhaustion that the library's integer functions equal their definitions (oracle.h): docs/proof.md says
// why these rows are all of it, and has the table that this prints.
//
//   prove [--quick] [--thin N] [--grids] [--only TEXT] [COMMAND...]
//
//   --quick   some blocks of each function, those with the limits and zero among them
//   --thin    of functions with 2^32 inputs only every N-th block
//   --grids   only the calls of every shape
//   --only    only what has this in its name
//   COMMAND   a program like this one, of a build for another machine, under an emulator: its library is tried
//
// The library is the one that the loader finds: LD_LIBRARY_PATH chooses the build. At a difference, prints the
// function and the first input that differs; the exit code is 1.
#include <dlfcn.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include <atomic>
#include <csignal>
#include <cstring>
#include <ctime>
#include <deque>
#include <functional>
#include <iostream>
#include <map>
#include <mutex>
#include <thread>

#include "grids.h"
#include "host/limiter.h"
#include "platform/limiter_lib.h"

namespace {

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

double cpuSecondsHere() { return static_cast<double>(std::clock()) / CLOCKS_PER_SEC; }

// ---- calls of the library, in this process or in another

struct Job {
  enum { kKernel, kShifter, kLimiter } function;
  Call call;          // of a kernel
  uint32_t argument;  // the shifter's type, the limiter's channels
  uint32_t inBytes = 0, outBytes = 0, rounding = 0;
};

// At a rate of 1 Hz the limiter has no delay and recovers at once: each frame gets the gain that it needs itself.
void limit(Job job, const uint8_t* src, uint8_t* dst) {
  uint32_t internalBytes, scratchBytes;
  Limiter_GetBufferSize(&internalBytes, &scratchBytes, KES_CONVERT_LIMITER);
  Bytes internal(internalBytes);
  LimiterParam param{};
  param.channels = job.argument, param.sampleRate = 1;
  void* instance = nullptr;
  Limiter_Open(&instance, internal.data(), &param);
  Limiter_Process(instance, nullptr, src, &job.inBytes, dst, &job.outBytes);
}

void perform(Job job, const uint8_t* src, uint8_t* dst) {
  if (job.function == Job::kKernel) currentCall = &job.call;
  std::fesetround(kRoundings[job.rounding % 4]);  // which is the caller's, and changes nothing
  switch (job.function) {
    case Job::kKernel: job.call.run(dst, src); break;
    case Job::kShifter: Shifter_Process(src, &job.inBytes, dst, &job.outBytes, job.argument); break;
    case Job::kLimiter: limit(job, src, dst);
  }
  std::fesetround(FE_TONEAREST);
  currentCall = nullptr;
}

class Library {
 public:
  explicit Library(const std::vector<std::string>& command) {
    const int memory = memfd_create("blocks", 0);
    if (ftruncate(memory, 2 * kMostBytes) != 0) std::abort();
    map(memory);
    int sockets[2];
    if (command.empty() || socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sockets) != 0) return;
    if (fork() == 0) {
      std::vector<const char*> words;
      for (const std::string& word : command) words.push_back(word.c_str());
      words.insert(words.end(), {"--serve", nullptr});
      dup2(memory, kMemory), dup2(sockets[1], kSocket);
      execvp(words[0], const_cast<char**>(words.data()));
      _exit(127);
    }
    close(sockets[1]);
    socket_ = sockets[0];
    char name[kNameBytes] = "";
    if (read(socket_, name, kNameBytes) == kNameBytes) build = name;
  }
  ~Library() {
    if (socket_ >= 0) close(socket_), wait(nullptr);
  }

  // Does the jobs of the program that started this one, in memory that both share.
  static int serve() {
    const Library here;
    char name[kNameBytes] = "";
    here.build.copy(name, kNameBytes - 1);
    bool open = write(kSocket, name, kNameBytes) == kNameBytes;
    for (Job job; open && read(kSocket, &job, sizeof job) == sizeof job;) {
      perform(job, here.src, here.dst);
      const double seconds = cpuSecondsHere();
      open = write(kSocket, &seconds, sizeof seconds) == sizeof seconds;
    }
    return 0;
  }

  // False if the other process has ended.
  bool run(const Job& job) {
    if (socket_ < 0) return perform(job, src, dst), true;
    return write(socket_, &job, sizeof job) == sizeof job &&
           read(socket_, &secondsThere, sizeof secondsThere) == sizeof secondsThere;
  }

  uint8_t *src, *dst;
  std::string build = buildOf(Audio_Channel_Downmix);
  double secondsThere = 0;  // CPU time of the other process

 private:
  static constexpr int kMostBytes = 1 << 20, kNameBytes = 32, kMemory = 10, kSocket = 11;
  Library() { map(kMemory); }
  void map(int memory) {
    src = static_cast<uint8_t*>(mmap(nullptr, 2 * kMostBytes, PROT_READ | PROT_WRITE, MAP_SHARED, memory, 0));
    if (src == MAP_FAILED) std::abort();
    dst = src + kMostBytes;
  }
  int socket_ = -1;
};

// ---- a block of frames, whose output is compared with the definition's

// Interleaves the channels from `first` to `last`, two at a time where it can: the fewer stores, the faster.
template <int kBytes>
void pack(const Channels& of, int64_t first, int64_t last, uint8_t* __restrict to) {
  const int64_t length = std::ssize(of[0]), stride = kBytes * std::ssize(of);
  for (int64_t begin = 0, end; begin < length; begin = end) {  // piece by piece, in the nearest cache
    end = std::min(begin + 256, length);
    for (int64_t c = first; c <= last; c += 2) {
      const int32_t* __restrict x = of[c].data(), * __restrict y = of[std::min(c + 1, last)].data();
      uint8_t* __restrict at = to + c * kBytes;
      for (int64_t f = begin; c == last && f < end; ++f) std::memcpy(at + f * stride, x + f, kBytes);
      for (int64_t f = begin; c < last && f < end; ++f) {
        const uint64_t low = static_cast<uint32_t>(x[f]), high = static_cast<uint32_t>(y[f]);
        const uint64_t both = (low & (UINT64_MAX >> (64 - 8 * kBytes))) | high << (8 * kBytes);
        std::memcpy(at + f * stride, &both, 2 * kBytes);
      }
    }
  }
}
void pack(const Channels& of, int64_t first, int64_t last, uint8_t* to, int bytes) {
  (bytes == 2 ? pack<2> : bytes == 3 ? pack<3> : pack<4>)(of, first, last, to);
}

constexpr char kEnded[] = "the program ended";

class Trial {
 public:
  explicit Trial(const std::vector<std::string>& command) : library(command) {}

  Library library;
  Channels in, out;
  std::string difference;
  int64_t inputs = 0;

  // Channels that a block does not fill keep their samples.
  void begin(int64_t channels, int64_t length, int bytes) {
    if (std::ssize(in) == channels && std::ssize(in[0]) == length && bytes_ == bytes) return;
    in.assign(channels, std::vector<int32_t>(length));
    constants_.assign(channels, 0);
    bytes_ = bytes, firstFilled_ = 0, lastFilled_ = channels - 1;
  }
  // Fills a channel with value(frame), wrapped to the width of a sample.
  template <class Value>
  void fill(int64_t channel, Value value) {
    const int unused = 32 - 8 * bytes_;
    int64_t frame = 0;
    for (int32_t& sample : in[channel])
      sample = static_cast<int32_t>(static_cast<uint32_t>(value(frame++)) << unused) >> unused;
    firstFilled_ = std::min(firstFilled_, channel), lastFilled_ = std::max(lastFilled_, channel);
    constants_[channel] = INT64_MIN;
  }
  void ramp(int64_t channel, int64_t start, int64_t step = 1) {
    fill(channel, [=](int64_t frame) { return start + step * frame; });
  }
  void constant(int64_t channel, int64_t value) {
    if (constants_[channel] == value) return;
    ramp(channel, value, 0);
    constants_[channel] = value;
  }

  // Compares what a job makes of the block with `out`.
  void compare(int outBytes, Job job) {
    const int64_t length = std::ssize(in[0]), frameBytes = std::ssize(out) * outBytes;
    job.inBytes = static_cast<uint32_t>(length * std::ssize(in) * bytes_);
    job.outBytes = static_cast<uint32_t>(length * frameBytes);
    expected_.resize(job.outBytes);
    pack(out, 0, std::ssize(out) - 1, expected_.data(), outBytes);
    pack(in, firstFilled_, lastFilled_, library.src, bytes_);
    firstFilled_ = std::ssize(in), lastFilled_ = 0;
    std::memset(library.dst, 0xA5, job.outBytes);
    if (!library.run(job)) difference = kEnded;
    inputs += length;
    if (!difference.empty() || std::memcmp(library.dst, expected_.data(), job.outBytes) == 0) return;
    const auto wrong = std::ranges::mismatch(expected_, std::span(library.dst, job.outBytes)).in1 - expected_.begin();
    const int64_t f = wrong / frameBytes;
    difference = "the frame";
    for (const auto& channel : in) difference += joined(' ', channel[f]);
    difference += " becomes";
    for (int c = 0; c < std::ssize(out); ++c)
      difference += joined(' ', readSample(library.dst + f * frameBytes + c * outBytes, outBytes));
    difference += " instead of";
    for (const auto& channel : out) difference += joined(' ', channel[f]);
    difference += joined(", frame ", f, " of ", length);
  }
  void check(Call call, int64_t rounding) {
    call.byteCount = static_cast<int32_t>(std::ssize(in) * std::ssize(in[0])) * bytes_;
    outputOf(call, in, out);
    compare(bytes_, {Job::kKernel, call, 0, 0, 0, static_cast<uint32_t>(rounding)});
  }

 private:
  int bytes_ = 0;
  int64_t firstFilled_ = 0, lastFilled_ = 0;
  std::vector<int64_t> constants_;
  Bytes expected_;
};

// ---- rows

using TryBlock = std::function<void(Trial&, int64_t block)>;

struct Row {
  std::string family, function;
  int64_t blocks;
  TryBlock tryBlock;
  int64_t quickBlocks = 256;
};
std::vector<Row> rows;

// Frames of a block. An odd number ends in a tail, and moves the values of each block to other lanes.
int64_t frames = 4096, oddFrames = 4093;
bool emulated = false;  // which takes ten times as long: rows that say so try fewer inputs then

int64_t blocksOf(int bytes, int64_t length) { return ((int64_t{1} << (8 * bytes)) + length - 1) / length; }
// The first value of a block: those of block 0 are around 0, those in the middle around the limits.
int64_t firstValue(int64_t block, int64_t length) { return block * length - length / 2; }

struct Mix {
  Kernel kernel;
  uint32_t mask;
  int least;  // channels
  const char* name;

  Call call(int channels, uint32_t format) const {
    return {kernel, kernel == kToStereo ? 2 : 1, channels, 0, format, mask};
  }
};

void addRow(const Mix& mix, int channels, uint32_t format, const char* inputs, int64_t blocks,
            const TryBlock& tryBlock) {
  const auto function = joined(mix.name, ", ", format == 1 ? 16 : format == 6 ? 24 : 32, " bits");
  rows.push_back({joined(function, ": ", inputs), joined(function, ", ", channels, " channels"), blocks, tryBlock});
}

// Every sample in each channel from `first` to `last`, with silence in the others. A 16-bit sample has many positions
// of a block; 32-bit samples go from channel to channel.
void addTerms(const Mix& mix, int channels, uint32_t format, int first, int last, int64_t length) {
  const Call call = mix.call(channels, format);
  const int bytes = call.sampleBytes(), count = last - first + 1;
  const int64_t values = blocksOf(bytes, length), shifts = bytes != 2 ? 1 : length < 16 ? 2 : 16;
  const auto tryBlock = [=](Trial& trial, int64_t block) {
    const int64_t hot = first + (bytes == 4 ? block / 16 : block / (values * shifts)) % count;
    trial.begin(channels, length, bytes);
    for (int c = 0; c < channels; ++c)
      if (c != hot) trial.constant(c, 0);
    trial.ramp(hot, firstValue(block / shifts % values, length) - block % shifts);
    trial.check(call, block);
  };
  addRow(mix, channels, format, length < 16 ? "every sample, in tails" : "every sample in every channel",
         values * shifts * (bytes == 4 ? 1 : count), tryBlock);
}

// Every sum of a frame, or of a side of it, as channels * quotient + rest. Of 32 bits those with the least and the
// greatest rest, the two sides of each quotient's edge; of a side, with the rests in turn.
void addSums(const Mix& mix, int channels, uint32_t format) {
  const Call call = mix.call(channels, format);
  const int bytes = call.sampleBytes(), sides = mix.kernel == kToStereo ? 2 : 1,
            summed = (channels + sides - 1) / sides;
  const int64_t values = blocksOf(bytes, oddFrames), rests = bytes != 4 ? summed : sides == 1 && !emulated ? 2 : 1;
  const int64_t thin = emulated && bytes == 4 && sides == 2 && channels > 2 ? 8 : 1;  // the averages divide alike
  const auto tryBlock = [=](Trial& trial, int64_t block) {
    const int64_t rest = bytes != 4 ? block % rests : rests == 2 ? block % 2 * (summed - 1) : block % summed;
    trial.begin(channels, oddFrames, bytes);
    for (int c = 0; c < channels; ++c)
      trial.ramp(c, firstValue(block * thin / rests, oddFrames) + (c / sides >= summed - rest));
    trial.check(call, block / rests);
  };
  addRow(mix, channels, format, "every sum", values * rests / thin, tryBlock);
}

// Every pair of 16-bit samples: a in some channels, b in others; the rest gets a few values in turn. A second channel
// of a pair gets its complement, so that both sides of a frame try every pair at once.
void addPairs(const Mix& mix, const std::string& pattern) {
  const int channels = static_cast<int>(pattern.size());
  const Call call = mix.call(channels, 1);
  const auto tryBlock = [=](Trial& trial, int64_t block) {
    constexpr int64_t kOthers[] = {0, 32767, -32768, 20011, -20011};
    const int64_t blocks = 65536 / frames, b = block / blocks;
    const int64_t a = firstValue(block % blocks, frames) + b;  // in another lane for each b
    trial.begin(channels, frames, 2);
    for (int c = 0; c < channels; ++c) switch (pattern[c]) {
        case 'a': trial.ramp(c, a); break;
        case 'A': trial.ramp(c, ~a, -1); break;
        case 'b': trial.constant(c, b); break;
        case 'B': trial.constant(c, ~b); break;
        default: trial.constant(c, kOthers[b % 5]);
      }
    trial.check(call, block);
  };
  addRow(mix, channels, 1, "every pair of samples", (int64_t{1} << 32) / frames, tryBlock);
}

// Sums on both sides of each limit: every sample in the mixed-in channels, and in the front ones what brings the sum
// to a limit or `beyond` it.
void addLimits(const Mix& mix, int channels, uint32_t format) {
  const Call call = mix.call(channels, format);
  const int bytes = call.sampleBytes();
  const int64_t values = blocksOf(bytes, oddFrames), turns = bytes == 4 ? 1 : 4;
  const auto tryBlock = [=](Trial& trial, int64_t block) {
    const int64_t turn = bytes == 4 ? block % 2 : block / values, x = firstValue(block % values, oddFrames);
    trial.begin(channels, oddFrames, bytes);
    for (int c = 2; c < channels; ++c) trial.ramp(c, c % 2 ? ~x : x, c % 2 ? -1 : 1);
    const int64_t limit = int64_t{1} << (8 * bytes - 1);
    if (mix.mask == 0x3F) {  // every centre, in another order, beside a few LFEs: every sum of 24 bits that t can be
      trial.ramp(2, x * 0x61C88647, 0x61C88647);
      trial.constant(3, std::array{int64_t{0}, -limit, limit - 1, x / 2}[bytes == 4 ? block / 2 % 4 : turn]);
    }
    static thread_local std::vector<int64_t> mixed;
    for (int side = 0; side < 2; ++side) {
      mixedIn(call, trial.in, side, mixed);
      const int64_t beyond = side ? 1 - turn : turn - (turns == 4 ? 1 : 0);
      trial.fill(side, [=, sums = mixed.data()](int64_t f) {
        return limited((sums[f] < 0 ? -limit - beyond : limit - 1 + beyond) - sums[f], bytes);
      });
    }
    trial.check(call, block);
  };
  addRow(mix, channels, format, "both sides of every limit", values * turns, tryBlock);
}

void addMixes() {
  constexpr Mix kFolds = {kFold, 0, 1, "fold"}, kAverages = {kAverage, 0, 1, "mono average"};
  constexpr Mix kFront = {kToStereo, 0x7, 3, "front"}, kQuad = {kToStereo, 0x33, 4, "quad"};
  constexpr Mix k5Point1 = {kToStereo, 0x3F, 6, "5.1"}, kPairwise = {kToStereo, 0, 1, "pairwise"};
  for (const Mix& mix : {kFolds, kAverages, kPairwise, kFront, kQuad, k5Point1})
    for (const uint32_t format : {1u, 6u, 3u})
      for (int n = mix.least; n <= 9; ++n) {
        const bool named = mix.mask != 0;
        if (format != 3) addTerms(mix, n, format, 0, n - 1, format == 1 ? frames : oddFrames);
        if (format == 1) addTerms(mix, n, format, 0, n - 1, 15);
        // Frames of other counts than these lose their last channels before they are mixed.
        const bool mixesAll = n == mix.least || n == (mix.mask == 0x7 ? 4 : mix.mask == 0x3F ? 8 : 0);
        if (format == 3 && (named ? mixesAll : mix.kernel == kFold ? n < 9 : mix.kernel == kAverage && n == 2))
          addTerms(mix, n, format, named ? 2 : 0, named ? mix.least - 1 : n - 1, oddFrames);
        if (named && n < 9 && (format == 6 || (format == 3 && mixesAll))) addLimits(mix, n, format);
        if (!named && n >= 2 && n <= 8 && (mix.kernel != kFold || format != 3)) addSums(mix, n, format);
      }
  addPairs(kFolds, "ab"), addPairs(kAverages, "ab"), addPairs(kFront, "aAb"), addPairs(kFront, "aAb.");
  addPairs(kQuad, "aAbB");
  for (const char* pattern : {"..ab..", "aA..bB", "..b.aA", "..ab....", "aA..bB.."}) addPairs(k5Point1, pattern);
}

// ---- the host's shifter and limiter

int64_t shiftedToEven(int64_t value, int bits) {
  if (bits <= 0) return value << -bits;
  const int64_t floor = value >> bits, rest = value - (floor << bits), half = int64_t{1} << (bits - 1);
  return floor + (rest > half || (rest == half && floor % 2 != 0));
}

void addShifter() {
  constexpr struct {
    const char* name;
    int bytes, fullScaleBits;
  } kFormats[] = {{"16", 2, 15}, {"32", 4, 31}, {"8.24", 4, 24}, {"24", 3, 23}};
  for (uint32_t type = 0; type < 12; ++type) {
    const auto from = kFormats[type / 3], to = kFormats[type % 3 + (type % 3 >= type / 3)];
    for (const int64_t length : {from.bytes == 4 ? oddFrames : frames, int64_t{15}}) {
      if (length == 15 && from.bytes != 2) continue;
      const int64_t shifts = from.bytes == 4 ? 1 : 16;
      const auto tryBlock = [=](Trial& trial, int64_t block) {
        trial.begin(1, length, from.bytes);
        trial.ramp(0, firstValue(block / shifts, length) - block % shifts);
        trial.out = trial.in;
        for (int32_t& x : trial.out[0])
          x = static_cast<int32_t>(limited(shiftedToEven(x, from.fullScaleBits - to.fullScaleBits), to.bytes));
        trial.compare(to.bytes, {Job::kShifter, {}, type});
      };
      rows.push_back({"shifter: every sample of every type",
                      joined("Shifter ", type, ", ", from.name, " to ", to.name),
                      blocksOf(from.bytes, length) * shifts, tryBlock});
    }
  }
}

void addLimiter() {
  // It is built once for all levels of x86-64.
  if (!emulated && buildOf(Limiter_Process) != buildOf(Audio_Channel_Downmix)) return;
  const int64_t thin = emulated ? 16 : 1;
  for (const uint32_t channels : {1u, 2u}) {
    const auto tryBlock = [=](Trial& trial, int64_t block) {
      trial.begin(channels, oddFrames, 4);
      trial.ramp(0, firstValue(block * thin, oddFrames));
      if (channels == 2) trial.constant(1, INT32_MIN);
      trial.out = trial.in;
      for (int64_t f = 0; f < oddFrames; ++f) {
        int64_t peak = 0;
        for (const auto& channel : trial.in)
          peak = std::max<int64_t>(peak, channel[f] >= 0 ? channel[f] : -int64_t{channel[f]} - 512);
        const int64_t gain = peak <= kLimiterThreshold ? 1 << 30 : (int64_t{kLimiterThreshold} << 30) / peak;
        for (auto& channel : trial.out) channel[f] = static_cast<int32_t>(shiftedToEven(channel[f] * gain, 39));
      }
      trial.compare(2, {Job::kLimiter, {}, channels});
    };
    rows.push_back({"limiter: every sample at its own gain and, beside a peak, at the lowest",
                    joined("Limiter, ", channels, " channels"), blocksOf(4, oddFrames) / thin, tryBlock});
  }
}

// ---- shapes

using Grid = std::function<void(Grids&)>;
void addGrid(const char* family, const std::vector<Grid>& grids, const std::string& function = "") {
  const auto tryBlock = [grids](Trial& trial, int64_t block) {
    Grids tried;
    grids[block](tried);
    trial.difference = tried.difference, trial.inputs += tried.calls;
  };
  rows.push_back({family, function.empty() ? family : function, std::ssize(grids), tryBlock, INT64_MAX});
}

void addGrids() {
  constexpr std::pair<Kernel, uint32_t> kMixes[] = {
      {kFold, 0},        {kAverage, 0},     {kToMono, 0},        {kToMono, 3},        {kFoldDispatch, 0},
      {kToStereo, 0},    {kToStereo, 0x7},  {kToStereo, 0xB},    {kToStereo, 0x103},  {kFoldDispatch, 0x3F},
      {kToStereo, 0x33}, {kToStereo, 0x3F}, {kToStereo, 0xFFFF}, {kToStereo, 0x1003F}};
  static constexpr uint32_t kEdges[] = {0, 1,     2,     3,          5,          6,          8,
                                        9, 65535, 65536, 0x7FFFFFFF, 0x80000000, 0x80000001, UINT32_MAX};
  std::vector<Grid> mixes{[](Grids&grids) { grids.tryWideFrames(); }}, moves, arguments, entries, counts;
  for (const auto& mix : kMixes)
    for (const uint32_t format : {1u, 3u, 4u, 6u})
      for (int n = 1; n <= 10; ++n)
        mixes.push_back([=](Grids& grids) { grids.tryMix(mix.first, mix.second, format, n); });
  for (const Kernel kernel : {kStrip, kZeroFill, kDuplicate})
    for (const uint32_t format : {1u, 3u, 6u})
      for (int in = 1; in <= 16; ++in)
        for (int out = 1; out <= 16; ++out)
          moves.push_back([=](Grids& grids) { grids.tryMoves(kernel, format, in, out); });
  for (int kernel = 0; kernel < kKernels; ++kernel)
    for (const uint32_t format : {0u, 1u, 2u, 3u, 4u, 5u, 6u, 7u, 257u, UINT32_MAX})
      for (const uint32_t mask : {0u, 0x7u, 0x33u, 0x3Fu, UINT32_MAX})
        arguments.push_back([=](Grids& grids) { grids.tryArguments(static_cast<Kernel>(kernel), format, mask); });
  for (uint32_t in = 0; in <= 9; ++in)
    for (uint32_t out = 0; out <= 9; ++out) entries.push_back([=](Grids& grids) { grids.tryEntries(in, out); });
  for (const uint32_t in : kEdges)
    for (const uint32_t out : kEdges) counts.push_back([=](Grids& grids) { grids.tryCounts(in, out); });
  addGrid("mixes: calls of every shape", mixes);
  addGrid("moves: calls of every shape", moves);
  addGrid("kernels: arguments of every kind", arguments);
  addGrid("entry points: choice of kernel", entries);
  addGrid("entry points and component: byte counts", counts);
  for (uint32_t type = 0; type < 12; ++type)
    addGrid("shifter: calls of every shape", {[=](Grids& grids) { grids.tryShifter(type); }},
            joined("Shifter ", type));
}

// ---- the run

struct Result {
  int64_t inputs = 0;
  std::string difference;
};

// Tries `count` of the row's blocks, spread evenly, but not so evenly that what blocks take in turn is left out; in
// ascending order. The difference is that of the first block.
Result run(const Row& row, int64_t count, std::deque<Trial>& trials, const std::function<void(int64_t)>& progress) {
  std::atomic<int64_t> next = 0, firstBad = INT64_MAX;
  std::mutex mutex;
  Result result;
  const auto work = [&](Trial& trial) {
    trial.inputs = 0;
    for (int64_t i; (i = next++) < count && i < firstBad;) {
      row.tryBlock(trial, i * row.blocks / count + (i % 2 ? i % (row.blocks / count) : 0));
      if (&trial == &trials.front()) progress(i);
      if (trial.difference.empty()) continue;
      const std::lock_guard lock(mutex);
      if (i < firstBad) firstBad = i, result.difference = trial.difference;
      trial.difference.clear();
    }
    const std::lock_guard lock(mutex);
    result.inputs += trial.inputs;
  };
  std::vector<std::jthread> threads;
  for (Trial& trial : trials) threads.emplace_back(work, std::ref(trial));
  threads.clear();
  return result;
}

int prove(bool quick, int64_t thin, bool grids, const std::string& only, const std::vector<std::string>& command) {
  if (!command.empty()) emulated = true, frames *= 4, oddFrames = frames - 3;  // a switch costs time for each block
  if (!grids) addMixes(), addShifter(), addLimiter();
  if (command.empty()) addGrids();
  std::erase_if(rows, [&](const Row& row) { return (row.family + row.function).find(only) == std::string::npos; });
  std::map<std::string, size_t> families;
  for (const Row& row : rows) families.emplace(row.family, families.size());
  std::ranges::stable_sort(rows, {}, [&](const Row& row) { return families[row.family]; });

  const auto count = [=](const Row& row) {
    return quick ? std::min(row.blocks, row.quickBlocks) : row.blocks > 100000 ? row.blocks / thin : row.blocks;
  };
  int64_t all = 0, done = 0, different = 0;
  for (const Row& row : rows) all += count(row);
  std::deque<Trial> trials;
  for (unsigned t = std::max(2u, std::thread::hardware_concurrency()) * (emulated ? 2 : 1); t > 0; --t)
    trials.emplace_back(command);
  const char* const build = trials[0].library.build.c_str();
  const auto cpuSeconds = [&] {
    double seconds = cpuSecondsHere();
    for (const Trial& trial : trials) seconds += trial.library.secondsThere;
    return seconds;
  };
  const std::time_t begin = std::time(nullptr);
  std::time_t told = begin;
  for (size_t i = 0; i < rows.size();) {
    const double before = cpuSeconds();
    const size_t first = i;
    int64_t inputs = 0;
    for (; i < rows.size() && rows[i].family == rows[first].family; done += count(rows[i++])) {
      const auto progress = [&](int64_t blocks) {
        const std::time_t now = std::time(nullptr);
        if (now - told < 20) return;
        told = now;
        const double part = static_cast<double>(done + blocks) / static_cast<double>(all);
        std::fprintf(stderr, "%s: %2.0f %%, about %.0f minutes left: %s\n", build, 100 * part,
                     static_cast<double>(now - begin) * (1 / part - 1) / 60 + 1, rows[i].function.c_str());
      };
      currentRow = rows[i].function;
      const Result result = run(rows[i], count(rows[i]), trials, progress);
      inputs += result.inputs;
      if (result.difference.empty()) continue;
      ++different;
      std::printf("%s: %s: %s\n", build, rows[i].function.c_str(), result.difference.c_str());
      if (quick || result.difference == kEnded) return 1;
    }
    std::printf("| %s | %s | %.3g | %.1f |\n", rows[first].family.c_str(), build, static_cast<double>(inputs),
                cpuSeconds() - before);
    std::fflush(stdout);
  }
  std::printf("%s: %d of %zu functions differ; %.0f CPU seconds\n", build, static_cast<int>(different), rows.size(),
              cpuSeconds());
  return different ? 1 : 0;
}

}  // namespace

int main(int argc, char** argv) {
  bool quick = false, grids = false;
  int64_t thin = 1;
  std::string only;
  int i = 1;
  for (; i < argc && argv[i][0] == '-'; ++i) {
    const std::string option = argv[i];
    if (option == "--serve") return Library::serve();
    if (option == "--only" && i + 1 < argc)
      only = argv[++i];
    else if (option == "--thin" && i + 1 < argc)
      thin = std::max(std::atoll(argv[++i]), 1ll);
    else if (option == "--quick" || option == "--grids")
      (option == "--quick" ? quick : grids) = true;
    else
      return std::fprintf(stderr, "usage: prove [--quick] [--thin N] [--grids] [--only TEXT] [COMMAND...]\n"), 1;
  }
  std::signal(SIGPIPE, SIG_IGN);
  std::signal(SIGSEGV, [](int) {
    std::cout << currentRow << ": access outside the frames";
    if (currentCall) std::cout << " in " << *currentCall;
    std::cout << std::endl;
    _exit(1);
  });
  return prove(quick, thin, grids, only, {argv + i, argv + argc});
}
