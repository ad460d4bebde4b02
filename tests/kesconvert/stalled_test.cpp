// SPDX-License-Identifier: Apache-2.0
// Conversions through a library that refuses or stalls end in one message.
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include "tools/conversion.h"
#include "tools/failure.h"

namespace kesconvert {
namespace {

// Sends silence through one stage, and returns the failure's message.
std::string messageOf(const Stage& stage) {
  const Descriptor input(memfd_create("in", 0));
  EXPECT_EQ(ftruncate(input.get(), 36000), 0);
  AudioSource source(input, "in", stage.in);
  const OutputFile output("/dev/null", false, input);
  AudioSink sink(output, SF_FORMAT_RAW, stage.out, KES_LAYOUT_NONE, {});
  try {
    convert(source, {stage}, stage.out, sink, 1000, [](std::uint64_t) {});
  } catch (const Failure& failure) {
    return failure.what();
  }
  return "";
}

Stage stageOf(const ProcessCall& process) {
  const StreamFormat format{8000, 1, KES_PCM_S16};
  return {process, format, format, "a stage"};
}

TEST(Conversion, EndsWhenTheLibraryStalls) {
  EXPECT_EQ(messageOf(stageOf([](const void*, std::uint32_t*, void*, std::uint32_t* outBytes) { *outBytes = 0; })),
            "a stage: the library takes no input and makes no output; leave this step out");
  EXPECT_EQ(messageOf(stageOf([](const void*, std::uint32_t* inBytes, void*, std::uint32_t* outBytes) {
              *inBytes = *outBytes = 0;
            })),
            "the library keeps back 18000 of 18000 frames; leave out --rate or --limit");
  ChannelMask layout = KES_LAYOUT_NONE;
  EXPECT_EQ(messageOf(mixTo(2, {8000, 9, KES_PCM_S16}, layout, false)),  // the converter takes 8 channels
            "the library refused a block of 18000 bytes; give a smaller --block");
}

}  // namespace
}  // namespace kesconvert
