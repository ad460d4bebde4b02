// SPDX-License-Identifier: Apache-2.0
// The kernels and dispatchers against their definition, with any arguments that memory allows.
#include "../kernels_test.cpp"

namespace {

constexpr int64_t kMostBytes = 1 << 14;

int32_t someChannels(Random& random) {
  const auto any = static_cast<int32_t>(random.word());
  return random.from({random.between(1, 9), random.between(1, 9), random.between(1, 300), any});
}

void playCall(Random& random) {
  const uint32_t any = random.word();
  Call call{static_cast<Kernel>(random.below(kKernels)),
            someChannels(random),
            someChannels(random),
            0,
            random.from({1u, 3u, 4u, 6u, 6u, any}),
            random.from({0u, 0xFFFFu, 0x7u, 0xBu, 0x103u, 0x33u, 0x3Fu, any})};
  const int64_t frameBytes = int64_t{call.srcChannels} * call.sampleBytes();
  const auto block = static_cast<int64_t>(random.below(1 << 10)) + frameBytes * random.below(200);
  call.byteCount = static_cast<int32_t>(block < 0 || block > kMostBytes || random.oneIn(9) ? any : block);

  const bool upmix = call.kernel == kZeroFill || call.kernel == kDuplicate;
  const bool ignoresWidth = call.kernel == kAverage || (call.kernel == kToMono && call.mask == 0) ||
                            (call.kernel == kToStereo && call.sampleBytes() != 3);
  const int64_t output = int64_t{call.frames()} * call.sampleBytes() * (ignoresWidth ? 2 : call.dstChannels);
  const bool writes =
      call.kernel == kStrip ? call.dstChannels <= call.srcChannels : !upmix || output < INT64_C(1) << 31;
  if (call.frames() * frameBytes > kMostBytes || (writes && output > 4 * kMostBytes)) return;

  Checker checker;
  checker.random = Random(random.word());  // of the samples
  checker.check(call, random.oneIn(2), random.below(9));
  if (writes) checker.checkInPlace(call);
}

void play(Random& random) {
  while (!random.usedUp()) playCall(random);
}

}  // namespace

#include "play.h"
