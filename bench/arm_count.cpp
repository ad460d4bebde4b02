// SPDX-License-Identifier: Apache-2.0
// Runs every cell of kernel, channels and format on two block lengths, with a mark on standard output before and
// after each call, for counting instructions from mark to mark (bench/arm.sh). What is around a call is the same for
// both lengths, and so drops out of their difference.
//
//   frames N           the difference of the lengths
//   cell NAME | AIM    the cell that follows, and how many times fewer instructions than a plain loop it is to take
//   #                  a mark; four a cell: around a block of kShortFrames, and around one of kLongFrames
#include <unistd.h>

#include <cstdint>
#include <cstdio>

#include "kesaudio/channel_kernels.h"

namespace {

constexpr int32_t kShortFrames = 256, kLongFrames = 1280;
constexpr int32_t kMaxFrameBytes = 32;

using Kernel = void (*)(void* dst, int32_t dstChannels, const void* src, int32_t srcChannels, int32_t byteCount,
                        PcmFormat format);

template <ChannelMask kMask>
void toStereo(void* dst, int32_t dstChannels, const void* src, int32_t srcChannels, int32_t byteCount,
              PcmFormat format) {
  channel_DownMix_To_Stereo(dst, dstChannels, src, srcChannels, byteCount, format, kMask);
}

// Three instructions a frame, to show whether the counting is right.
void known(void*, int32_t, const void*, int32_t srcChannels, int32_t byteCount, PcmFormat) {
  int64_t frames = byteCount / 2 / srcChannels;
  asm volatile("1: nop\n subs %0, %0, #1\n b.ne 1b" : "+r"(frames) : : "cc");
}

struct Family {
  const char* name;
  Kernel kernel;
  int32_t srcChannels, dstChannels;
  bool isMove;
};

constexpr Family kKnown = {"known loop", known, 1, 1, false};
constexpr Family kFamilies[] = {
    {"5.1", toStereo<KES_LAYOUT_5POINT1>, 6, 2, false},
    {"quad", toStereo<KES_LAYOUT_QUAD>, 4, 2, false},
    {"front", toStereo<KES_LAYOUT_FRONT>, 3, 2, false},
    {"pairwise", toStereo<KES_LAYOUT_NONE>, 6, 2, false},
    {"pairwise", toStereo<KES_LAYOUT_NONE>, 8, 2, false},
    {"5.1 of 8", toStereo<KES_LAYOUT_5POINT1>, 8, 2, false},
    {"average", channel_DownMix_Fold_Mono_Average, 2, 1, false},
    {"average", channel_DownMix_Fold_Mono_Average, 5, 1, false},
    {"average", channel_DownMix_Fold_Mono_Average, 6, 1, false},
    {"average", channel_DownMix_Fold_Mono_Average, 8, 1, false},
    {"fold", channel_DownMix_Fold_Minus3dB, 6, 1, false},
    {"strip", channel_DownMix_Strip, 8, 6, true},
    {"strip", channel_DownMix_Strip, 6, 4, true},
    {"strip", channel_DownMix_Strip, 8, 2, true},
    {"duplicate", channel_UpMix_Duplicate, 2, 6, true},
    {"duplicate", channel_UpMix_Duplicate, 1, 2, true},
    {"duplicate", channel_UpMix_Duplicate, 2, 8, true},
    {"zero fill", channel_UpMix_WithZero, 2, 6, true},
    {"zero fill", channel_UpMix_WithZero, 6, 8, true},
};

struct Format {
  const char* name;
  PcmFormat format;
  int32_t bytes;
};
constexpr Format kFormats[] = {
    {"16-bit", KES_PCM_S16, 2}, {"packed 24-bit", KES_PCM_S24_PACKED, 3}, {"32-bit", KES_PCM_S32, 4}};

alignas(64) uint8_t input[kLongFrames * kMaxFrameBytes], output[kLongFrames * kMaxFrameBytes];

// By its own system call, so that a mark comes out at once.
void mark() {
  if (write(STDOUT_FILENO, "#\n", 2) != 2) _exit(1);
}

// Not inlined, so that both lengths run the same code.
[[gnu::noinline]] void convert(const Family& family, const Format& format, int32_t frames) {
  const int32_t byteCount = frames * family.srcChannels * format.bytes;
  mark();
  family.kernel(output, family.dstChannels, input, family.srcChannels, byteCount, format.format);
  mark();
}

void run(const Family& family, const Format& format) {
  const int aim = family.isMove ? 6 : format.format == KES_PCM_S16 ? 4 : 3;
  std::printf("cell %s %d → %d, %s | %d\n", family.name, family.srcChannels, family.dstChannels, format.name, aim);
  std::fflush(stdout);
  convert(family, format, kShortFrames);
  convert(family, format, kLongFrames);
}

}  // namespace

int main() {
  uint32_t random = 1;
  for (uint8_t& byte : input) byte = static_cast<uint8_t>((random = random * 1664525 + 1013904223) >> 24);
  std::printf("frames %d\n", kLongFrames - kShortFrames);
  run(kKnown, kFormats[0]);
  for (const Family& family : kFamilies)
    for (const Format& format : kFormats) run(family, format);
}
