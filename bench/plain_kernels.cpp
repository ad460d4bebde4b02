// SPDX-License-Identifier: Apache-2.0
// The kernels as plain loops, for compilers to make of them what they can: over single samples, with the counts of
// channels up to 8 as constants. For a whole number of frames in blocks that are apart.
#include <cstring>
#include <type_traits>

#include "channel/frames.h"
#include "channel/gain.h"
#include "kesaudio/channel_kernels.h"

using namespace kesaudio;
using namespace kesaudio::channel;

namespace {

// The gain of the mixes, and the exact sum clamped, of single samples.
template <class Format>
constexpr std::int32_t gain(std::int32_t x) {
  return clamp<S32>(scale(x, kMixGainShift));
}
template <class Format, class... Terms>
constexpr std::int32_t clampedSum(std::int32_t first, Terms... terms) {
  return clamp<Format>((std::int64_t{first} + ... + terms));
}

template <class Body>
void withCount(int32_t count, Body body) {
  switch (count) {
    case 1: return body(std::integral_constant<int32_t, 1>{});
    case 2: return body(std::integral_constant<int32_t, 2>{});
    case 3: return body(std::integral_constant<int32_t, 3>{});
    case 4: return body(std::integral_constant<int32_t, 4>{});
    case 5: return body(std::integral_constant<int32_t, 5>{});
    case 6: return body(std::integral_constant<int32_t, 6>{});
    case 7: return body(std::integral_constant<int32_t, 7>{});
    case 8: return body(std::integral_constant<int32_t, 8>{});
  }
}

struct Call {
  void* dst;
  const void* src;
  int32_t byteCount;
};

// Runs convert(out, in) over the frames of a block of kSrc channels, to frames of kDst.
template <class Format, int32_t kDst, int32_t kSrc, class Convert>
void forFrames(const Call& call, Convert convert) {
  auto* __restrict out = static_cast<Byte*>(call.dst);
  const auto* __restrict in = static_cast<const Byte*>(call.src);
  const std::ptrdiff_t frames = call.byteCount / (kSrc * Format::kBytes);
  for (std::ptrdiff_t f = 0; f < frames; ++f)
    convert(out + f * kDst * Format::kBytes, in + f * kSrc * Format::kBytes);
}

template <class Format>
int32_t sample(const Byte* frame, int32_t channel) {
  return Format::load(frame + channel * Format::kBytes);
}
template <class Format>
void set(Byte* frame, int32_t channel, int32_t value) {
  Format::store(frame + channel * Format::kBytes, value);
}

// Sets channel j of each output frame to channel source(j) of the input's, or to silence where that is not one.
template <class Source>
void move(const Call& call, int32_t dstChannels, int32_t srcChannels, PcmFormat format, Source source) {
  withFormat(format, [&](auto tag) {
    using Format = decltype(tag);
    withCount(srcChannels, [&](auto src) {
      withCount(dstChannels, [&](auto dst) {
        constexpr int32_t kSrc = src, kDst = dst;
        forFrames<Format, kDst, kSrc>(call, [=](Byte* out, const Byte* in) {
          for (int32_t j = 0; j < kDst; ++j) {
            const int32_t from = source(j, kSrc);
            set<Format>(out, j, from < kSrc ? sample<Format>(in, from) : 0);
          }
        });
      });
    });
  });
}

}  // namespace

void channel_DownMix_Strip(void* dst, int32_t dstChannels, const void* src, int32_t srcChannels, int32_t byteCount,
                           PcmFormat format) {
  move({dst, src, byteCount}, dstChannels, srcChannels, format, [](int32_t j, int32_t) { return j; });
}

void channel_UpMix_WithZero(void* dst, int32_t dstChannels, const void* src, int32_t srcChannels, int32_t byteCount,
                            PcmFormat format) {
  move({dst, src, byteCount}, dstChannels, srcChannels, format, [](int32_t j, int32_t) { return j; });
}

void channel_UpMix_Duplicate(void* dst, int32_t dstChannels, const void* src, int32_t srcChannels, int32_t byteCount,
                             PcmFormat format) {
  move({dst, src, byteCount}, dstChannels, srcChannels, format, [](int32_t j, int32_t n) { return j % n; });
}

void channel_DownMix_Fold_Mono_Average(void* dst, int32_t, const void* src, int32_t srcChannels, int32_t byteCount,
                                       PcmFormat format) {
  withFormat(format, [&](auto tag) {
    using Format = decltype(tag);
    withCount(srcChannels, [&](auto channels) {
      constexpr int32_t kSrc = channels;
      forFrames<Format, 1, kSrc>({dst, src, byteCount}, [](Byte* out, const Byte* in) {
        typename Format::Sum sum = 0;
        for (int32_t c = 0; c < kSrc; ++c) sum += sample<Format>(in, c);
        set<Format>(out, 0, static_cast<int32_t>(sum / kSrc));
      });
    });
  });
}

void channel_DownMix_Fold_Minus3dB(void* dst, int32_t dstChannels, const void* src, int32_t srcChannels,
                                   int32_t byteCount, PcmFormat format) {
  withFormat(format, [&](auto tag) {
    using Format = decltype(tag);
    withCount(srcChannels, [&](auto channels) {
      withCount(dstChannels, [&](auto dstCount) {
        constexpr int32_t kSrc = channels, kDst = dstCount;
        constexpr bool kIs32 = std::is_same_v<Format, S32>;
        constexpr int kShift = kIs32 ? 16 + std::bit_width(static_cast<uint32_t>(kSrc) - 1) : 15;
        forFrames<Format, kDst, kSrc>({dst, src, byteCount}, [](Byte* out, const Byte* in) {
          typename Format::Sum sum = 0;
          for (int32_t c = 0; c < kSrc; ++c)
            sum += static_cast<typename Format::Sum>(scale(sample<Format>(in, c), kShift));
          const int32_t value = kIs32 ? static_cast<int32_t>(sum) : clamp<Format>(sum);
          for (int32_t c = 0; c < kDst; ++c) set<Format>(out, c, value);
        });
      });
    });
  });
}

void channel_DownMix_To_Stereo(void* dst, int32_t, const void* src, int32_t srcChannels, int32_t byteCount,
                               PcmFormat format, ChannelMask mask) {
  withFormat(format, [&](auto tag) {
    using Format = decltype(tag);
    withCount(srcChannels, [&](auto channels) {
      constexpr int32_t kSrc = channels;
      const auto run = [&](auto sides) { forFrames<Format, 2, kSrc>({dst, src, byteCount}, sides); };
      if constexpr (kSrc >= 3)
        if (mask == KES_LAYOUT_FRONT)
          return run([](Byte* out, const Byte* in) {
            const int32_t third = gain<Format>(sample<Format>(in, 2));
            for (int32_t c = 0; c < 2; ++c) set<Format>(out, c, clampedSum<Format>(sample<Format>(in, c), third));
          });
      if constexpr (kSrc >= 4)
        if (mask == KES_LAYOUT_QUAD)
          return run([](Byte* out, const Byte* in) {
            for (int32_t c = 0; c < 2; ++c)
              set<Format>(out, c, clampedSum<Format>(sample<Format>(in, c), gain<Format>(sample<Format>(in, 2 + c))));
          });
      if constexpr (kSrc >= 6)
        if (mask == KES_LAYOUT_5POINT1)
          return run([](Byte* out, const Byte* in) {
            using Centre = std::conditional_t<std::is_same_v<Format, S16>, S16, S32>;
            const int32_t centre =
                gain<Format>(clampedSum<Centre>(sample<Format>(in, 2), gain<Format>(sample<Format>(in, 3))));
            for (int32_t c = 0; c < 2; ++c)
              set<Format>(out, c,
                          clampedSum<Format>(sample<Format>(in, c), centre, gain<Format>(sample<Format>(in, 4 + c))));
          });
      run([](Byte* out, const Byte* in) {
        typename Format::Sum sums[2] = {};
        for (int32_t c = 0; c < kSrc; ++c) sums[c % 2] += sample<Format>(in, c);
        for (int32_t c = 0; c < 2; ++c) set<Format>(out, c, static_cast<int32_t>(sums[c] / kSrc));
      });
    });
  });
}
