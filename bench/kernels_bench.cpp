// SPDX-License-Identifier: Apache-2.0
// The channel kernels beside memcpy of the same bytes, beside their own scalar loops and beside other libraries'
// mixers, in one run, as Markdown.
//
// A figure is the least CPU time of several repetitions, in nanoseconds a frame; all benchmarks take turns. Compare
// figures of one run: absolute times say more about the machine than about the code.
//
//   kernels_bench [--picture=DATA] [--benchmark_filter=REGEX] [other options of Google Benchmark]
//
// DATA is a file to write for kernels.gp. The loader chooses the build of the kernels for the processor; that for an
// older one is measured by /lib64/ld-linux-x86-64.so.2 --glibc-hwcaps-mask x86-64-v3 kernels_bench.
#include <SDL_audio.h>
#include <dlfcn.h>
#include <kesaudio/kesaudio.h>
extern "C" {
#include <libavutil/channel_layout.h>
#include <libswresample/swresample.h>
}

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <random>
#include <stdexcept>
#include <string_view>

#include "fastest.h"

namespace {

struct Cell {
  const char* family;
  const char* kernel;
  ChannelMask mask;
  int32_t srcChannels, dstChannels;
  bool isFirst = false;  // of its family: measured through entry point and component too
};

constexpr char kToStereo[] = "channel_DownMix_To_Stereo", kZeroFill[] = "channel_UpMix_WithZero";

constexpr Cell kCells[] = {
    {"5.1", kToStereo, KES_LAYOUT_5POINT1, 6, 2, true},
    {"quad", kToStereo, KES_LAYOUT_QUAD, 4, 2, true},
    {"front", kToStereo, KES_LAYOUT_FRONT, 3, 2, true},
    {"pairwise", kToStereo, KES_LAYOUT_NONE, 6, 2, true},
    {"pairwise", kToStereo, KES_LAYOUT_NONE, 8, 2},
    {"average", "channel_DownMix_Fold_Mono_Average", KES_LAYOUT_NONE, 6, 1, true},
    {"average", "channel_DownMix_Fold_Mono_Average", KES_LAYOUT_NONE, 8, 1},
    {"fold", "channel_DownMix_Fold_Minus3dB", KES_LAYOUT_5POINT1, 6, 1, true},
    {"strip", "channel_DownMix_Strip", KES_LAYOUT_NONE, 8, 6, true},
    {"strip", "channel_DownMix_Strip", KES_LAYOUT_NONE, 6, 4},
    {"duplicate", "channel_UpMix_Duplicate", KES_LAYOUT_NONE, 2, 6, true},
    {"duplicate", "channel_UpMix_Duplicate", KES_LAYOUT_NONE, 1, 2},
    {"zero fill", kZeroFill, KES_LAYOUT_NONE, 2, 6, true},
};

// Peers have no packed 24-bit samples of 3 bytes; theirs are 32-bit ones.
struct Format {
  const char* name;
  PcmFormat pcm;
  int32_t sampleBytes;
  AVSampleFormat swr;
  SDL_AudioFormat sdl;
};

constexpr Format kFormats[] = {
    {"s16", KES_PCM_S16, 2, AV_SAMPLE_FMT_S16, AUDIO_S16SYS},
    {"s24", KES_PCM_S24_PACKED, 3, AV_SAMPLE_FMT_S32, AUDIO_S32SYS},
    {"s32", KES_PCM_S32, 4, AV_SAMPLE_FMT_S32, AUDIO_S32SYS},
};

constexpr int32_t kFrames = 1024, kSmallBlocks[] = {48, 480}, kStreamBytes = 64 << 20;
constexpr int kRate = 48000;  // which no peer changes

struct Job {
  Cell cell;
  Format format;
  int32_t frames;

  int32_t srcBytes() const { return frames * cell.srcChannels * format.sampleBytes; }
  int32_t dstBytes() const { return frames * cell.dstChannels * format.sampleBytes; }
  bool isUpmix() const { return cell.srcChannels < cell.dstChannels; }
  std::string name() const {
    return std::string(cell.family) + " " + std::to_string(cell.srcChannels) + "→" + std::to_string(cell.dstChannels);
  }
  std::string label(const std::string& what) const {
    return name() + " " + format.name + ": " + what + " " + std::to_string(frames);
  }
};

// In one block of 64 MiB on its longer side.
Job streaming(const Cell& cell, const Format& format) {
  return {cell, format, kStreamBytes / format.sampleBytes / std::max(cell.srcChannels, cell.dstChannels)};
}

// ---- what is measured

char* allocate() { return static_cast<char*>(std::aligned_alloc(4096, kStreamBytes + 8192)); }

// Noise in a format, a quarter of full scale, so that few sums are clamped.
const char* noise(int32_t sampleBytes) {
  char* const buffer = allocate();
  std::minstd_rand random;
  const auto bytes = static_cast<size_t>(sampleBytes);
  for (size_t at = 0; at + bytes <= kStreamBytes; at += bytes) {
    const int32_t sample = static_cast<int32_t>(static_cast<uint32_t>(random()) << 1) >> 2;
    std::memcpy(buffer + at, reinterpret_cast<const char*>(&sample) + sizeof sample - bytes, bytes);
  }
  return buffer;
}
const char* noiseOf(int32_t sampleBytes) {
  static const char* const buffers[] = {noise(2), noise(3), noise(4)};
  return buffers[sampleBytes - 2];
}

// Half a page away from the noise: a load of it and a store here do not meet in the lower 12 bits of their addresses.
char* output() {
  static char* const buffer = static_cast<char*>(std::memset(allocate(), 0, kStreamBytes + 8192)) + 2048;
  return buffer;
}

constexpr char kCounter[] = "ns/frame";

template <class Call>
void add(const Job& job, const char* what, Call call) {
  benchmark::RegisterBenchmark(job.label(what).c_str(), [=, frames = job.frames](benchmark::State& state) mutable {
    for (auto _ : state) {
      call();
      benchmark::ClobberMemory();
    }
    const double billions = static_cast<double>(state.iterations()) * frames / 1e9;
    state.counters[kCounter] =
        benchmark::Counter(billions, benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
  });
}

// Calls use(kernel) with kernel(out, in, bytes, format), the cell's kernel of this program or of a library that
// dlopen returned.
template <class Use>
void withKernel(const Cell& cell, void* library, Use use) {
  const auto withSymbol = [&]<class... Mask>(Mask... mask) {
    using Symbol = void(void*, int32_t, const void*, int32_t, int32_t, PcmFormat, Mask...);
    const auto symbol = reinterpret_cast<Symbol*>(dlsym(library, cell.kernel));
    if (!symbol) throw std::runtime_error(std::string("no kernel is named ") + cell.kernel);
    use([=, to = cell.dstChannels, from = cell.srcChannels](void* out, const void* in, int32_t bytes,
                                                            PcmFormat format) {
      symbol(out, to, in, from, bytes, format, mask...);
    });
  };
  cell.kernel == kToStereo ? withSymbol(cell.mask) : withSymbol();
}

void addKernel(const Job& job, const char* what, const char* in, void* library = RTLD_DEFAULT) {
  withKernel(job.cell, library, [&](auto kernel) {
    add(job, what,
        [=, out = output(), bytes = job.srcBytes(), format = job.format.pcm] { kernel(out, in, bytes, format); });
  });
}

void addMemcpy(const Job& job) {
  add(job, "memcpy",
      [out = output(), in = noiseOf(job.format.sampleBytes),
       bytes = static_cast<size_t>(job.srcBytes() / 2 + job.dstBytes() / 2)] { std::memcpy(out, in, bytes); });
}

void addEntryPoint(const Job& job) {
  add(job, "entry point", [job, out = output(), in = noiseOf(job.format.sampleBytes)] {
    const Cell& cell = job.cell;
    const auto from = static_cast<uint32_t>(cell.srcChannels), to = static_cast<uint32_t>(cell.dstChannels);
    auto inBytes = static_cast<uint32_t>(job.srcBytes()), outBytes = static_cast<uint32_t>(job.dstBytes());
    if (job.isUpmix())
      Audio_Channel_Upmix(from, to, job.format.pcm, in, &inBytes, out, &outBytes, cell.kernel == kZeroFill);
    else
      Audio_Channel_Downmix(from, to, job.format.pcm, in, &inBytes, out, &outBytes, cell.mask);
  });
}

void addComponent(const Job& job) {
  KesAudioChannelConverterInC record;
  InitKesAudioChannelConverterInC(&record);
  record.Open(&record, static_cast<uint32_t>(job.cell.srcChannels), static_cast<uint32_t>(job.cell.dstChannels),
              job.format.pcm);
  record.mChannelMask = job.cell.mask;
  record.mUpmixMode = job.cell.kernel == kZeroFill;
  add(job, "component", [=, out = output(), in = noiseOf(job.format.sampleBytes)]() mutable {
    auto inBytes = static_cast<uint32_t>(job.srcBytes()), outBytes = static_cast<uint32_t>(job.dstBytes());
    record.Process(&record, in, &inBytes, out, &outBytes);
  });
}

// What the kernel makes of an impulse in each channel: a row of gains for each output. 24-bit samples speak for
// 16-bit ones, whose gains are the same.
std::vector<double> matrixOf(const Cell& cell, const Format& format) {
  constexpr int32_t kImpulse = 1 << 20;
  const Format& precise = kFormats[format.pcm == KES_PCM_S32 ? 2 : 1];
  const auto bytes = static_cast<size_t>(precise.sampleBytes);
  const auto channels = static_cast<size_t>(cell.srcChannels), outputs = static_cast<size_t>(cell.dstChannels);
  std::vector<double> matrix(channels * outputs);
  for (size_t c = 0; c < channels; ++c) {
    char in[8 * 4] = {}, out[8 * 4] = {};
    std::memcpy(in + c * bytes, &kImpulse, bytes);
    withKernel(cell, RTLD_DEFAULT,
               [&](auto kernel) { kernel(out, in, static_cast<int32_t>(channels * bytes), precise.pcm); });
    for (size_t o = 0; o < outputs; ++o) {
      int32_t gain = 0;
      std::memcpy(&gain, out + o * bytes, bytes);
      matrix[o * channels + c] = static_cast<double>(gain) / kImpulse;
    }
  }
  return matrix;
}

void addSwresample(const Job& job) {
  AVChannelLayout fromLayout, toLayout;
  av_channel_layout_default(&fromLayout, job.cell.srcChannels);
  av_channel_layout_default(&toLayout, job.cell.dstChannels);
  SwrContext* made = nullptr;
  const bool isMade = swr_alloc_set_opts2(&made, &toLayout, job.format.swr, kRate, &fromLayout, job.format.swr, kRate,
                                          0, nullptr) == 0;
  const std::shared_ptr<SwrContext> context(made, [](SwrContext* c) { swr_free(&c); });
  if (!isMade || swr_set_matrix(made, matrixOf(job.cell, job.format).data(), job.cell.srcChannels) != 0 ||
      swr_init(made) != 0)
    throw std::runtime_error("libswresample refuses " + job.label(""));
  add(job, "libswresample",
      [context, frames = job.frames, out = output(), in = noiseOf(av_get_bytes_per_sample(job.format.swr))] {
        auto* to = reinterpret_cast<uint8_t*>(out);
        const auto* from = reinterpret_cast<const uint8_t*>(in);
        if (swr_convert(context.get(), &to, frames, &from, frames) != frames)
          throw std::runtime_error("libswresample left frames");
      });
}

// SDL2 has mixes of its own and converts in place.
void addSdl(const Job& job) {
  SDL_AudioCVT conversion;
  if (SDL_BuildAudioCVT(&conversion, job.format.sdl, static_cast<uint8_t>(job.cell.srcChannels), kRate,
                        job.format.sdl, static_cast<uint8_t>(job.cell.dstChannels), kRate) != 1)
    return;
  conversion.buf = reinterpret_cast<uint8_t*>(output());
  conversion.len = job.frames * job.cell.srcChannels * SDL_AUDIO_BITSIZE(job.format.sdl) / 8;
  add(job, "SDL2", [conversion]() mutable { SDL_ConvertAudio(&conversion); });
}

// The scalar loops; a compiler that the build did not find is left out.
constexpr const char* kPlainCompilers[] = {"g++", "clang++"};
constexpr const char* kPeers[] = {"libswresample", "SDL2"};

void addAll() {
  void* plain[std::size(kPlainCompilers)];
  for (size_t i = 0; i < std::size(plain); ++i)
    plain[i] = dlopen((std::string("libkernels_plain_") + kPlainCompilers[i] + ".so").c_str(), RTLD_NOW | RTLD_LOCAL);
  for (const Cell& cell : kCells)
    for (const Format& format : kFormats) {
      const char* const in = noiseOf(format.sampleBytes);
      const Job block = {cell, format, kFrames};
      addKernel(block, "kernel", in);
      addKernel(block, "in place", output());
      addMemcpy(block);
      for (size_t i = 0; i < std::size(plain); ++i)
        if (plain[i]) addKernel(block, kPlainCompilers[i], in, plain[i]);
      addSwresample(block);
      addSdl(block);
      for (const int32_t frames : kSmallBlocks) addKernel({cell, format, frames}, "kernel", in);
      addKernel(streaming(cell, format), "kernel", in);
      addMemcpy(streaming(cell, format));
      if (!cell.isFirst) continue;
      addEntryPoint({cell, format, kSmallBlocks[0]});
      addComponent({cell, format, kSmallBlocks[0]});
    }
}

// ---- report

// The least of several benchmarks of a job; NaN if none of them was run.
template <size_t kCount>
double leastOf(const Fastest& fastest, const Job& job, const char* const (&whats)[kCount]) {
  double least = std::nan("");
  for (const char* what : whats) least = std::fmin(least, fastest(job.label(what)));
  return least;
}

void printFigure(const char* format, double value) {
  std::isnan(value) ? std::printf(" – |") : (std::printf(format, value), std::printf(" |"));
}

void printComparison(const Fastest& fastest) {
  std::printf(
      "\n| ns/frame in blocks of %d | memcpy | kernel | of memcpy | libswresample | SDL2 | times as fast | loop g++ "
      "| loop clang++ | times as fast |\n|---|---|---|---|---|---|---|---|---|---|\n",
      kFrames);
  for (const Cell& cell : kCells)
    for (const Format& format : kFormats) {
      const Job job = {cell, format, kFrames};
      const double ours = fastest(job.label("kernel")), copy = fastest(job.label("memcpy"));
      if (std::isnan(ours)) continue;
      std::printf("| %s %s |", job.name().c_str(), format.name);
      printFigure(" %.3f", copy);
      printFigure(" %.3f", ours);
      printFigure(" %.2f", copy / ours);
      for (const char* peer : kPeers) printFigure(" %.2f", fastest(job.label(peer)));
      printFigure(" %.1f", leastOf(fastest, job, kPeers) / ours);
      for (const char* compiler : kPlainCompilers) printFigure(" %.2f", fastest(job.label(compiler)));
      printFigure(" %.1f", leastOf(fastest, job, kPlainCompilers) / ours);
      std::printf("\n");
    }
}

void printWays(const Fastest& fastest) {
  const auto isMeasured = [&](const Cell& cell) {
    return std::ranges::any_of(kFormats, [&](const Format& format) {
      return !std::isnan(fastest(Job{cell, format, kSmallBlocks[0]}.label("kernel")));
    });
  };
  if (std::ranges::none_of(kCells, isMeasured)) return;
  std::printf("\n| ns/frame |");
  for (const int32_t frames : kSmallBlocks) std::printf(" %d |", frames);
  std::printf(
      " %d | in place | speed at %d of %d | entry point, %d | component, %d | 64 MiB | memcpy 64 MiB | of memcpy |\n"
      "|---|---|---|---|---|---|---|---|---|---|---|\n",
      kFrames, kSmallBlocks[0], kFrames, kSmallBlocks[0], kSmallBlocks[0]);
  for (const Cell& cell : kCells)
    for (const Format& format : kFormats) {
      const Job block = {cell, format, kFrames}, small = {cell, format, kSmallBlocks[0]};
      const double ours = fastest(block.label("kernel"));
      const double stream = fastest(streaming(cell, format).label("kernel"));
      const double copy = fastest(streaming(cell, format).label("memcpy"));
      if (std::isnan(ours)) continue;
      std::printf("| %s %s |", block.name().c_str(), format.name);
      for (const int32_t frames : kSmallBlocks)
        printFigure(" %.3f", fastest(Job{cell, format, frames}.label("kernel")));
      printFigure(" %.3f", ours);
      printFigure(" %.3f", fastest(block.label("in place")));
      printFigure(" %.2f", ours / fastest(small.label("kernel")));
      printFigure(" %.3f", fastest(small.label("entry point")));
      printFigure(" %.3f", fastest(small.label("component")));
      printFigure(" %.2f", stream);
      printFigure(" %.2f", copy);
      printFigure(" %.2f", copy / stream);
      std::printf("\n");
    }
}

// For kernels.gp: a line for each pair of channels, with the speeds against memcpy of the kernel, of the fastest peer
// and of the faster scalar loop, format by format.
bool writePicture(const Fastest& fastest, const char* path) {
  FILE* const file = std::fopen(path, "w");
  if (!file) return false;
  for (const Cell& cell : kCells) {
    std::fprintf(file, "\"%s\"", Job{cell, kFormats[0], kFrames}.name().c_str());
    for (const Format& format : kFormats) {
      const Job job = {cell, format, kFrames};
      const double copy = fastest(job.label("memcpy"));
      std::fprintf(file, " %.4f %.4f %.4f", copy / fastest(job.label("kernel")), copy / leastOf(fastest, job, kPeers),
                   copy / leastOf(fastest, job, kPlainCompilers));
    }
    std::fprintf(file, "\n");
  }
  return std::fclose(file) == 0;
}

// The folder of the library that the loader chose, which is named after the level of the processor.
std::string levelOfKernels() {
  Dl_info info;
  if (!dladdr(reinterpret_cast<void*>(channel_UpMix_WithZero), &info)) return "unknown";
  const std::filesystem::path folder = std::filesystem::path(info.dli_fname).parent_path();
  return folder.parent_path().filename() == "glibc-hwcaps" ? folder.filename().string() : "baseline";
}

}  // namespace

int main(int argc, char** argv) try {
  constexpr std::string_view kPicture = "--picture=";
  const char* picture = nullptr;
  const auto rest = std::remove_if(argv + 1, argv + argc, [&](const char* argument) {
    const bool isPicture = std::string_view(argument).starts_with(kPicture);
    if (isPicture) picture = argument + kPicture.size();
    return isPicture;
  });
  if (!initializeRepetitions(static_cast<int>(rest - argv), argv, "15", "0.004")) return 1;
  addAll();
  Fastest fastest(kCounter);
  benchmark::RunSpecifiedBenchmarks(&fastest);
  std::printf("Kernels built for: %s\n", levelOfKernels().c_str());
  printComparison(fastest);
  printWays(fastest);
  if (picture && !writePicture(fastest, picture)) {
    std::fprintf(stderr, "kernels_bench: cannot write %s: give --picture a file in a folder that exists\n", picture);
    return 1;
  }
} catch (const std::exception& error) {
  std::fprintf(stderr, "kernels_bench: %s\n", error.what());
  return 1;
}
