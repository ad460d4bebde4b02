// SPDX-License-Identifier: Apache-2.0
// Our host resampler beside others: the speed of each in one run, as Markdown. tests/resampler_quality.py measures
// their sound, for which it has them resample signals of its own.
//
// Speed is the least CPU time of several repetitions, in seconds per hour of audio, in blocks of 1024 frames; the
// engines take turns. Compare the rows: absolute times say more about the machine than about the code. Every engine
// gets interleaved samples of the kind that suits it best: 16-bit ones if it takes them, else the conversion to and
// from float counts; and in the 32-bit jobs float, ours 32-bit integers.
//
//   resampler_bench [--benchmark_filter=REGEX] [other options of Google Benchmark]
//   resampler_bench --engines                                            their names, one a line
//   resampler_bench --resample ENGINE IN_RATE OUT_RATE wide|s16 FRAMES   resamples mono floats from standard input in
//                                                                        blocks; writes for each the number of frames
//                                                                        made, and them, all as floats
#include <cstdio>
#include <random>
#include <string>

#include "fastest.h"
#include "resampler_engines.h"

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
    {"32-bit stereo, 16000 to 48000", 16000, 48000, 2, false},
    {"32-bit stereo, 96000 to 48000", 96000, 48000, 2, false},
    {"32-bit stereo, 192000 to 44100", 192000, 44100, 2, false},
    {"32-bit stereo, 44100 to 48001", 44100, 48001, 2, false},
    {"16-bit stereo, 48000 to 16000", 48000, 16000, 2, true},
    {"16-bit stereo, 16000 to 48000", 16000, 48000, 2, true},
    {"16-bit stereo, 96000 to 48000", 96000, 48000, 2, true},
    {"16-bit stereo, 192000 to 44100", 192000, 44100, 2, true},
    {"16-bit stereo, 44100 to 48001", 44100, 48001, 2, true},
};
constexpr const EngineType& kOurs = kEngines[0];
constexpr const EngineType& kPeer = kEngines[3];  // SoXR HQ: the fastest of those that sound as well

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

void printSpeeds(const Fastest& fastest) {
  std::printf("\n| engine |");
  for (size_t j = 0; j < kCommonJobs; ++j) std::printf(" %s, s/h |", kJobs[j].name);
  std::printf("\n|---|---|---|---|\n");
  for (const EngineType& type : kEngines) {
    const auto wasRun = [&](const Job& job) { return !std::isnan(cost(fastest, type, job)); };
    if (std::none_of(kJobs, kJobs + kCommonJobs, wasRun)) continue;
    std::printf("| %s |", type.name);
    for (size_t j = 0; j < kCommonJobs; ++j) std::printf(" %.2f |", cost(fastest, type, kJobs[j]));
    std::printf("\n");
  }
  std::printf("\n| job | %s, s/h | %s, s/h | times as fast |\n|---|---|---|---|\n", kOurs.name, kPeer.name);
  for (const Job& job : kJobs) {
    const double ours = cost(fastest, kOurs, job), peers = cost(fastest, kPeer, job);
    if (!std::isnan(peers / ours)) std::printf("| %s | %.2f | %.2f | %.2f |\n", job.name, ours, peers, peers / ours);
  }
}

// ---- signals of others

int resample(const std::string& name, uint32_t inRate, uint32_t outRate, bool isS16, size_t blockFrames) {
  const auto* const type = std::ranges::find(kEngines, name, &EngineType::name);
  if (type == std::end(kEngines) || inRate == 0 || outRate == 0 || blockFrames == 0 || blockFrames > kBlockFrames) {
    std::fprintf(stderr, "resampler_bench: wrong arguments of --resample; see --engines for the names\n");
    return 2;
  }
  const Stream stream = {inRate, outRate, 1, isS16 ? Sample::kS16 : type->wide};
  const Engine engine = type->make(stream);
  std::vector<float> block(stream.capacity());
  std::vector<std::byte> in(blockFrames * bytesOf(stream.sample)), out(block.size() * bytesOf(stream.sample));
  while (std::fread(block.data(), sizeof(float), blockFrames, stdin) == blockFrames) {
    fromFloat(block.data(), blockFrames, stream.sample, in.data());
    const size_t made = engine(in.data(), blockFrames, out.data());
    toFloat(out.data(), made, stream.sample, block.data());
    const auto count = static_cast<float>(made);
    std::fwrite(&count, sizeof count, 1, stdout);
    std::fwrite(block.data(), sizeof(float), made, stdout);
  }
  return std::fflush(stdout) == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string command = argc > 1 ? argv[1] : "";
  if (command == "--engines") {
    for (const EngineType& type : kEngines) std::puts(type.name);
    return 0;
  }
  if (command == "--resample" && argc == 7)
    return resample(argv[2], static_cast<uint32_t>(std::atoi(argv[3])), static_cast<uint32_t>(std::atoi(argv[4])),
                    argv[5] == std::string("s16"), static_cast<size_t>(std::atoi(argv[6])));
  if (!initializeRepetitions(argc, argv, "9", "0.05")) return 1;

  for (const Job& job : kJobs)
    for (const EngineType& type : kEngines)
      if (&job < kJobs + kCommonJobs || &type == &kOurs || &type == &kPeer)
        benchmark::RegisterBenchmark(labelOf(type, job).c_str(), [&](benchmark::State& state) {
          runJob(state, type, job);
        })->MeasureProcessCPUTime();
  Fastest fastest("s/h");
  benchmark::RunSpecifiedBenchmarks(&fastest);
  printSpeeds(fastest);
}
