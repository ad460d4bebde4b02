// SPDX-License-Identifier: Apache-2.0
// kesconvert's way from one file to another, all but its command line: any bytes are a file to convert, or raw PCM.
// Their last four, audio at most, choose the conversion too, so that a seed is an ordinary file. Whatever is made
// must be readable, as long as was meant; whatever cannot be made fails as the tool's user is told.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "tools/audio_file.h"
#include "tools/conversion.h"
#include "tools/failure.h"

namespace kesconvert {
namespace {

constexpr std::uint64_t kMostFrames = 50000;  // a few bytes of FLAC can be hours

// Draws from one word.
class Choices {
 public:
  explicit Choices(std::uint32_t word) : word_(word) {}
  std::uint32_t below(std::uint32_t limit) {
    const std::uint32_t chosen = word_ % limit;
    word_ /= limit;
    return chosen;
  }

 private:
  std::uint32_t word_;
};

void expect(bool holds) {
  if (!holds) std::abort();
}

Form formOf(const StreamFormat& format) { return {format.rate, format.channels, integersOf(format.sampleBytes)}; }

void convertFile(const Descriptor& input, Choices choose) {
  std::optional<StreamFormat> raw;
  if (choose.below(8) == 0)
    raw = {8000 + static_cast<int>(choose.below(2)) * 40000, choose.below(8) + 1, choose.below(3) + 2};
  AudioSource source(input, "in", raw);
  const StreamFormat& in = source.format;
  expect(in.rate > 0 && in.channels > 0 && in.sampleBytes >= 2 && in.sampleBytes <= 4);
  if (in.channels > 8) fail("too many channels");

  constexpr int kRates[] = {8000, 44100, 48000};
  constexpr int kContainers[] = {SF_FORMAT_WAV, SF_FORMAT_RAW,  SF_FORMAT_RF64, SF_FORMAT_W64,
                                 SF_FORMAT_CAF, SF_FORMAT_AIFF, SF_FORMAT_FLAC, SF_FORMAT_AU};
  StreamFormat out = in;
  Wishes wishes;
  if (choose.below(2) != 0) out.channels = choose.below(8) + 1;
  if (choose.below(3) == 0) out.rate = kRates[choose.below(std::size(kRates))];
  if (choose.below(2) != 0) out.sampleBytes = choose.below(3) + 2;
  wishes.limit = choose.below(4) == 0;
  wishes.multichannel = choose.below(2) != 0;
  wishes.addSilentChannels = choose.below(2) != 0;
  const int container = kContainers[choose.below(std::size(kContainers))];
  const std::size_t blockFrames = choose.below(2) != 0 ? 4096 : choose.below(64) + 1;
  if (wishes.limit) out.sampleBytes = 2;

  const Plan plan = makePlan(formOf(in), source.layout, formOf(out), wishes);
  const OutputFile output("/dev/null", true, input);  // written through a file without a name, and never committed
  const auto outFrames = source.frames ? std::optional(framesAt(*source.frames, in.rate, out.rate)) : std::nullopt;
  AudioSink sink(output, container, out, plan.layout, outFrames);
  const Report report = convert(source, plan.steps, formOf(out), sink, blockFrames, [](std::uint64_t frames) {
    if (frames > kMostFrames) fail("too long");
  });
  sink.finish();

  expect(!outFrames || report.outFrames == *outFrames);
  const Descriptor made(dup(output.fd()));
  AudioSource again(made, "out", container == SF_FORMAT_RAW ? std::optional(out) : std::nullopt);
  expect(again.format.rate == out.rate && again.format.channels == out.channels &&
         again.format.sampleBytes == out.sampleBytes);
  std::uint64_t frames = 0;
  std::vector<std::int32_t> block(4096 * out.channels);
  while (const std::size_t got = again.read(block.data(), 4096)) frames += got;
  expect(frames == report.outFrames);
}

}  // namespace
}  // namespace kesconvert

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace kesconvert;
  const Descriptor input(memfd_create("in", MFD_CLOEXEC));
  expect(write(input.get(), data, size) == static_cast<ssize_t>(size));
  lseek(input.get(), 0, SEEK_SET);
  std::uint32_t word = 0;
  std::memcpy(&word, data + size - std::min(size, sizeof word), std::min(size, sizeof word));
  try {
    convertFile(input, Choices(word));
  } catch (const Failure&) {
  }
  return 0;
}
