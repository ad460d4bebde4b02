// SPDX-License-Identifier: Apache-2.0
// kesconvert without its command line: the bytes are a file to convert, or raw PCM. Their last four also choose the
// conversion, so that a seed is an ordinary file. Every output must be readable and of the planned length; every
// refusal must be a Failure, with its message for the user.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "../random.h"
#include "tools/audio_file.h"
#include "tools/conversion.h"
#include "tools/failure.h"

namespace kesconvert {
namespace {

constexpr std::uint64_t kMaxFrames = 50000;  // a few bytes of FLAC can be hours

void expect(bool holds) {
  if (!holds) std::abort();
}

void convertFile(const Descriptor& input, Random choose) {
  std::optional<StreamFormat> raw;
  const auto chooseSamples = [&] { return choose.from<PcmFormat>({KES_PCM_S16, KES_PCM_S24_PACKED, KES_PCM_S32}); };
  if (choose.oneIn(8)) raw = {8000 + choose.between(0, 1) * 40000, choose.below(8) + 1, chooseSamples()};
  AudioSource source(input, "in", raw);
  const StreamFormat& in = source.format;
  expect(in.rate > 0 && in.channels > 0);
  if (in.channels > 8) fail("too many channels");

  constexpr int kContainers[] = {SF_FORMAT_WAV, SF_FORMAT_RAW,  SF_FORMAT_RF64, SF_FORMAT_W64,
                                 SF_FORMAT_CAF, SF_FORMAT_AIFF, SF_FORMAT_FLAC, SF_FORMAT_AU};
  StreamFormat out{in.rate, in.channels, source.usualOutput};
  ConversionOptions options;
  if (choose.oneIn(2)) out.channels = choose.below(8) + 1;
  if (choose.oneIn(3)) out.rate = choose.from({8000, 44100, 48000});
  if (choose.oneIn(2)) out.samples = chooseSamples();
  options.limit = choose.oneIn(4);
  options.addSilentChannels = choose.oneIn(2);
  const int container = choose.from(kContainers);
  const std::size_t blockFrames = choose.oneIn(2) ? 4096 : choose.below(64) + 1;
  if (options.limit) out.samples = KES_PCM_S16;

  const Plan plan = makePlan(in, source.layout, out, options);
  const OutputFile output("/dev/null", true, input);  // written through a file without a name, and never committed
  const auto outFrames =
      source.frames ? std::optional(rescaledFrameCount(*source.frames, in.rate, out.rate)) : std::nullopt;
  AudioSink sink(output, container, out, plan.layout, outFrames);
  const Report report = convert(source, plan.stages, out, sink, blockFrames, [](std::uint64_t frames) {
    if (frames > kMaxFrames) fail("too long");
  });
  sink.finish();

  expect(!outFrames || report.outFrames == *outFrames);
  const Descriptor made(dup(output.fd()));
  AudioSource again(made, "out", container == SF_FORMAT_RAW ? std::optional(out) : std::nullopt);
  expect(again.format.rate == out.rate && again.format.channels == out.channels &&
         again.format.samples == out.samples);
  std::uint64_t frames = 0;
  std::vector<std::int32_t> block(4096 * out.channels);
  while (const std::size_t got = again.read(block.data(), 4096)) frames += got;
  expect(frames == report.outFrames);
}

}  // namespace
}  // namespace kesconvert

// Memory that libsndfile and its decoders lose over a damaged file.
extern "C" const char* __lsan_default_suppressions() {
  return "leak:libsndfile\nleak:libvorbis\nleak:libogg\nleak:libopus\nleak:libmpg123\n";
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace kesconvert;
  const Descriptor input(memfd_create("in", MFD_CLOEXEC));
  expect(write(input.get(), data, size) == static_cast<ssize_t>(size));
  lseek(input.get(), 0, SEEK_SET);
  std::uint32_t word = 0;
  std::memcpy(&word, data + size - std::min(size, sizeof word), std::min(size, sizeof word));
  try {
    convertFile(input, Random(word));
  } catch (const Failure&) {
  }
  return 0;
}
