// SPDX-License-Identifier: Apache-2.0
// Our host resampler beside others, speed and quality of each in one run, as Markdown.
//
// Speed is the least CPU time of several repetitions, in seconds per hour of audio, in blocks of 1024 frames; the
// engines take turns. Compare the rows: absolute times say more about the machine than about the code. Every engine
// gets interleaved samples of the kind that suits it best: 16-bit ones if it takes them, else the conversion to and
// from float counts; and in the 32-bit jobs float, ours 32-bit integers.
//
//   resampler_bench [--benchmark_filter=REGEX] [other options of Google Benchmark]
#include <cstdio>
#include <map>
#include <random>
#include <string>

#include "fastest.h"
#include "resampler_quality.h"

namespace {

struct Job {
  const char* name;
  uint32_t inRate, outRate, channels;
  bool isS16;
};

// All engines run the first ones; the others only ours and the peer that it has to beat.
constexpr size_t kCommonJobs = 3;
constexpr Job kJobs[] = {
    {"16-bit stereo", 44100, 48000, 2, true},
    {"32-bit stereo", 44100, 48000, 2, false},
    {"32-bit 6 channels", 44100, 48000, 6, false},
    {"16-bit 6 channels", 44100, 48000, 6, true},
    {"16-bit mono", 44100, 48000, 1, true},
    {"32-bit mono", 44100, 48000, 1, false},
    {"32-bit stereo, 48000 to 44100", 48000, 44100, 2, false},
    {"32-bit stereo, 48000 to 16000", 48000, 16000, 2, false},
    {"32-bit stereo, 44100 to 48001", 44100, 48001, 2, false},
};
constexpr uint32_t kRatePairs[][2] = {{44100, 48000}, {48000, 44100}, {48000, 16000}};
constexpr const EngineType& kOurs = kEngines[0];

// The quality that makes a peer comparable, and that ours has to keep.
bool isGood(const Quality& q) {
  return std::abs(q.loss) < 0.05 && q.worstSpur < -120 && q.thdN > 120 && q.minus3dB >= 0.93;
}

// ---- speed

void runJob(benchmark::State& state, const EngineType& type, const Job& job) {
  const Stream stream = {job.inRate, job.outRate, job.channels, job.isS16 ? Sample::kS16 : type.wide};
  const size_t frameBytes = job.channels * bytesOf(stream.sample);
  std::vector<float> noise(kBlockFrames * job.channels);
  std::minstd_rand random;
  for (float& value : noise) value = std::uniform_real_distribution<float>(-0.5f, 0.5f)(random);
  std::vector<std::byte> in(kBlockFrames * frameBytes), out(stream.capacity() * frameBytes);
  fromFloat(noise.data(), noise.size(), stream.sample, in.data());
  const Engine engine = type.make(stream);
  for (auto _ : state) {
    engine(in.data(), kBlockFrames, out.data());
    benchmark::ClobberMemory();
  }
  const double hours = static_cast<double>(state.iterations()) * kBlockFrames / job.inRate / 3600;
  state.counters["s/h"] = benchmark::Counter(hours, benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

std::string labelOf(const EngineType& type, const Job& job) { return std::string(type.name) + ": " + job.name; }

// NaN where the job was not run.
double cost(const Fastest& fastest, const EngineType& type, const Job& job) { return fastest(labelOf(type, job)); }

// ---- report

using Qualities = std::map<const EngineType*, Quality>;

bool wasRun(const Fastest& fastest, const EngineType& type) {
  return std::any_of(std::begin(kJobs), std::end(kJobs),
                     [&](const Job& job) { return !std::isnan(cost(fastest, type, job)); });
}

// Quality at a pair of rates, behind the speeds of the common jobs if it is theirs.
Qualities printTable(const Fastest& fastest, uint32_t inRate, uint32_t outRate) {
  const bool hasSpeeds = inRate == kJobs[0].inRate && outRate == kJobs[0].outRate;
  std::printf("\n%u to %u Hz\n\n| engine |", inRate, outRate);
  for (size_t j = 0; hasSpeeds && j < kCommonJobs; ++j) std::printf(" %s, s/h |", kJobs[j].name);
  std::printf(
      " latency, samples | loss at 0.9 Nyquist, dB | worst spur below it, dB | THD+N, dB | THD+N 16-bit, dB "
      "| -3 dB at | good |\n%s|---|---|---|---|---|---|---|---|\n",
      hasSpeeds ? "|---|---|---" : "");
  Qualities qualities;
  for (const EngineType& type : kEngines) {
    if (!wasRun(fastest, type)) continue;
    const Quality& q = qualities[&type] = quality(type, inRate, outRate);
    std::printf("| %s |", type.name);
    for (size_t j = 0; hasSpeeds && j < kCommonJobs; ++j) std::printf(" %.2f |", cost(fastest, type, kJobs[j]));
    std::printf(" %.0f | %.3f | %.1f | %.1f | %.1f | %.3f | %s |\n", q.latency, q.loss, q.worstSpur, q.thdN, q.thdN16,
                q.minus3dB, isGood(q) ? "yes" : "no");
    std::fflush(stdout);
  }
  return qualities;
}

// How many times as fast ours is as the fastest good peer.
void printRatios(const Fastest& fastest, const Qualities& qualities) {
  std::printf("\n| job | %s, s/h | fastest good peer, s/h | times as fast |\n|---|---|---|---|\n", kOurs.name);
  for (const Job& job : kJobs) {
    const EngineType* peer = nullptr;
    for (const auto& [type, q] : qualities)
      if (type != &kOurs && isGood(q) && !(peer && cost(fastest, *peer, job) <= cost(fastest, *type, job)) &&
          !std::isnan(cost(fastest, *type, job)))
        peer = type;
    if (peer)
      std::printf("| %s | %.2f | %s: %.2f | %.2f |\n", job.name, cost(fastest, kOurs, job), peer->name,
                  cost(fastest, *peer, job), cost(fastest, *peer, job) / cost(fastest, kOurs, job));
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (!initializeRepetitions(argc, argv, "9", "0.05")) return 1;

  for (const Job& job : kJobs)
    for (const EngineType& type : kEngines)
      if (&job < kJobs + kCommonJobs || &type == &kOurs || type.name == std::string("SoXR HQ"))
        benchmark::RegisterBenchmark(labelOf(type, job).c_str(), [&](benchmark::State& state) {
          runJob(state, type, job);
        })->MeasureProcessCPUTime();
  Fastest fastest("s/h");
  benchmark::RunSpecifiedBenchmarks(&fastest);

  Qualities qualities;
  for (const auto& [inRate, outRate] : kRatePairs) {
    Qualities measured = printTable(fastest, inRate, outRate);
    if (qualities.empty()) qualities = std::move(measured);
  }
  printRatios(fastest, qualities);
  std::printf(
      "\nGood: loss below 0.05 dB, spurs below -120 dB, THD+N above 120 dB, -3 dB not before 0.93. The measurement "
      "finds nothing above %.0f dB beside an exact sine, %.0f dB beside one in float.\n",
      measuringFloor<double>(), measuringFloor<float>());
}
