// SPDX-License-Identifier: Apache-2.0
// Kernels beside memcpy of the same bytes, 1024 frames in cache. Compare the two rows of a cell: absolute times say
// more about the machine than about the code.
#include <benchmark/benchmark.h>
#include <kesaudio/kesaudio.h>

#include <cstring>
#include <string>
#include <vector>

namespace {

constexpr int32_t kFrames = 1024;

struct Cell {
  const char* family;
  void (*kernel)(void*, int32_t, const void*, int32_t, int32_t, PcmFormat);
  int32_t srcChannels, dstChannels;
};

template <ChannelMask kMask>
void toStereo(void* dst, int32_t dstChannels, const void* src, int32_t srcChannels, int32_t byteCount,
              PcmFormat format) {
  channel_DownMix_To_Stereo(dst, dstChannels, src, srcChannels, byteCount, format, kMask);
}

constexpr Cell kCells[] = {
    {"5.1", toStereo<KES_LAYOUT_5POINT1>, 6, 2},
    {"quad", toStereo<KES_LAYOUT_QUAD>, 4, 2},
    {"front", toStereo<KES_LAYOUT_FRONT>, 3, 2},
    {"pairwise", toStereo<KES_LAYOUT_NONE>, 6, 2},
    {"average", channel_DownMix_Fold_Mono_Average, 6, 1},
    {"fold", channel_DownMix_Fold_Minus3dB, 6, 1},
    {"strip", channel_DownMix_Strip, 8, 6},
    {"duplicate", channel_UpMix_Duplicate, 2, 6},
    {"zero", channel_UpMix_WithZero, 2, 6},
};

void report(benchmark::State& state, int64_t bytes) {
  state.SetItemsProcessed(state.iterations() * kFrames);
  state.SetBytesProcessed(state.iterations() * bytes);
}

[[maybe_unused]] const bool registered = [] {
  const struct {
    const char* name;
    PcmFormat format;
    int32_t sampleBytes;
  } formats[] = {{"s16", KES_PCM_S16, 2}, {"s24", KES_PCM_S24_PACKED, 3}, {"s32", KES_PCM_S32, 4}};
  for (const Cell& cell : kCells) {
    for (const auto& [name, format, sampleBytes] : formats) {
      const int32_t in = kFrames * cell.srcChannels * sampleBytes, out = kFrames * cell.dstChannels * sampleBytes;
      const std::string label = std::string(cell.family) + " " + std::to_string(cell.srcChannels) + "->" +
                                std::to_string(cell.dstChannels) + " " + name;
      benchmark::RegisterBenchmark(label.c_str(), [=, pcm = format](benchmark::State& state) {
        std::vector<char> src(static_cast<size_t>(in), 17), dst(static_cast<size_t>(out));
        for (auto _ : state) {
          cell.kernel(dst.data(), cell.dstChannels, src.data(), cell.srcChannels, in, pcm);
          benchmark::ClobberMemory();
        }
        report(state, in + out);
      });
      benchmark::RegisterBenchmark((label + " memcpy").c_str(), [=](benchmark::State& state) {
        std::vector<char> src(static_cast<size_t>(in + out) / 2, 17), dst(src.size());
        for (auto _ : state) {
          std::memcpy(dst.data(), src.data(), src.size());
          benchmark::ClobberMemory();
        }
        report(state, in + out);
      });
    }
  }
  return true;
}();

}  // namespace
