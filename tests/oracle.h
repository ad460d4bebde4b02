// SPDX-License-Identifier: Apache-2.0
// What the kernels must produce, in the slowest plain form: one sample at a time, 64-bit, shared with nothing.
#pragma once

#include <kesaudio/kesaudio.h>

#include <algorithm>
#include <cstdint>
#include <ostream>
#include <vector>

using Bytes = std::vector<uint8_t>;

enum Kernel { kStrip, kFold, kAverage, kToMono, kToStereo, kFoldDispatch, kZeroFill, kDuplicate, kKernels };

struct KernelEntry {
  const char* name;
  void (*plain)(void*, int32_t, const void*, int32_t, int32_t, PcmFormat);
  void (*withMask)(void*, int32_t, const void*, int32_t, int32_t, PcmFormat, ChannelMask);
};
inline constexpr KernelEntry kKernelTable[kKernels] = {
    {"Strip", channel_DownMix_Strip, nullptr},
    {"Fold", channel_DownMix_Fold_Minus3dB, nullptr},
    {"Average", channel_DownMix_Fold_Mono_Average, nullptr},
    {"ToMono", nullptr, channel_DownMix_To_Mono},
    {"ToStereo", nullptr, channel_DownMix_To_Stereo},
    {"FOLD", nullptr, channel_DownMix_FOLD},
    {"ZeroFill", channel_UpMix_WithZero, nullptr},
    {"Duplicate", channel_UpMix_Duplicate, nullptr},
};

struct Call {
  Kernel kernel;
  int32_t dstChannels, srcChannels, byteCount;
  uint32_t format, mask = 0;

  void run(void* dst, const void* src) const {
    const KernelEntry& entry = kKernelTable[kernel];
    if (entry.plain) return entry.plain(dst, dstChannels, src, srcChannels, byteCount, format);
    entry.withMask(dst, dstChannels, src, srcChannels, byteCount, format, mask);
  }
};

inline std::ostream& operator<<(std::ostream& out, const Call& call) {
  return out << kKernelTable[call.kernel].name << " " << call.srcChannels << " -> " << call.dstChannels << ", format "
             << call.format << ", mask 0x" << std::hex << call.mask << std::dec << ", " << call.byteCount << " bytes";
}

inline int32_t sampleBytes(uint32_t format) {
  return format == 1 ? 2 : format == 6 ? 3 : format == 3 || format == 4 ? 4 : 0;
}

inline int64_t readSample(const uint8_t* at, int32_t bytes) {
  int64_t value = 0;
  for (int32_t i = 0; i < bytes; ++i) value += int64_t{at[i]} << (8 * i);
  return value >= int64_t{1} << (8 * bytes - 1) ? value - (int64_t{1} << (8 * bytes)) : value;
}

inline void appendSample(Bytes& out, int64_t value, int32_t bytes) {
  for (int32_t i = 0; i < bytes; ++i) out.push_back(static_cast<uint8_t>(value >> (8 * i)));
}

inline int64_t limited(int64_t value, int32_t bytes) {
  const int64_t limit = int64_t{1} << (8 * bytes - 1);
  return value < -limit ? -limit : value >= limit ? limit - 1 : value;
}

inline int64_t floorDivided(int64_t value, int64_t divisor) {
  return value / divisor - (value % divisor < 0 ? 1 : 0);
}

inline int64_t gained(int64_t x) { return limited(floorDivided(x * 46346, 32768), 4); }

// One output frame of the call for the input frame s.
inline std::vector<int64_t> outputFrame(const Call& call, const std::vector<int64_t>& s) {
  const int32_t bytes = sampleBytes(call.format);
  const auto n = static_cast<int64_t>(s.size());
  const auto width = static_cast<size_t>(std::max(call.dstChannels, 0));
  std::vector<int64_t> out(width, 0);
  Kernel kernel = call.kernel;
  if (kernel == kToMono) kernel = call.mask ? kFold : kAverage;
  if (kernel == kFoldDispatch) {
    kernel = call.dstChannels == 2 ? kToStereo : call.dstChannels == 1 && call.mask == 0 ? kAverage : kFold;
  }
  int64_t sum = 0;
  switch (kernel) {
    case kStrip:
    case kZeroFill:
      std::copy_n(s.begin(), std::min(width, s.size()), out.begin());
      break;
    case kDuplicate:
      for (size_t j = 0; j < width; ++j) out[j] = s[j % s.size()];
      break;
    case kAverage:
      for (int64_t x : s) sum += x;
      return {limited(sum / n, bytes)};
    case kFold: {
      int64_t divisor = 32768;
      if (bytes == 4) {
        divisor = 65536;
        for (int64_t room = 1; room < n; room *= 2) divisor *= 2;
      }
      for (int64_t x : s) sum += floorDivided(x * 46346, divisor);
      out.assign(width, limited(sum, bytes));
      break;
    }
    default: {  // kToStereo
      const bool front3 = call.mask == 0x7 || call.mask == 0xB || call.mask == 0x103;
      const int64_t needed = front3 ? 3 : call.mask == 0x33 ? 4 : call.mask == 0x3F ? 6 : INT64_MAX;
      int64_t left = 0, right = 0;
      if (n < needed) {
        for (size_t c = 0; c < s.size(); ++c) (c % 2 ? right : left) += s[c];
        return {limited(left / n, bytes), limited(right / n, bytes)};
      }
      if (front3) {
        left = s[0] + gained(s[2]), right = s[1] + gained(s[2]);
      } else if (call.mask == 0x33) {
        left = s[0] + gained(s[2]), right = s[1] + gained(s[3]);
      } else {
        const int64_t centre = limited(s[2] + gained(s[3]), bytes == 2 ? 2 : 4);
        left = s[0] + gained(centre) + gained(s[4]), right = s[1] + gained(centre) + gained(s[5]);
      }
      if (bytes != 3) out.assign(2, 0);
      if (out.size() > 0) out[0] = limited(left, bytes);
      if (out.size() > 1) out[1] = limited(right, bytes);
    }
  }
  return out;
}

inline int64_t inputFrames(const Call& call) {
  const int32_t bytes = sampleBytes(call.format);
  return bytes && call.srcChannels > 0 && call.byteCount > 0 ? call.byteCount / bytes / call.srcChannels : 0;
}

// Everything the call writes from the start of dst.
inline Bytes outputBlock(const Call& call, const uint8_t* src) {
  Bytes out;
  const bool widthFits = call.kernel == kStrip      ? call.dstChannels <= call.srcChannels
                         : call.kernel == kZeroFill ? call.dstChannels >= call.srcChannels
                                                    : true;
  if (!widthFits) return out;
  const int32_t bytes = sampleBytes(call.format);
  std::vector<int64_t> frame(static_cast<size_t>(std::max(call.srcChannels, 0)));
  for (int64_t f = inputFrames(call); f > 0; --f) {
    for (int64_t& sample : frame) sample = readSample(src, bytes), src += bytes;
    for (int64_t sample : outputFrame(call, frame)) appendSample(out, sample, bytes);
  }
  return out;
}

// What an entry point leaves: the two counts, and everything written from the start of dst.
struct EntryResult {
  uint32_t inBytes, outBytes;
  Bytes written;
  friend bool operator==(const EntryResult&, const EntryResult&) = default;
};

// mask is the zero-fill word of an upmix.
inline EntryResult entryResult(bool upmix, uint32_t in, uint32_t out, uint32_t format, const uint8_t* src,
                               uint32_t inBytes, uint32_t outBytes, uint32_t mask) {
  if (upmix ? in > out : in < out) return {inBytes, outBytes, {}};
  const auto need = static_cast<uint32_t>(uint64_t{in ? inBytes / in : 0} * out);
  const uint32_t taken = outBytes >= need ? inBytes : (out ? outBytes / out : 0) * in;
  const bool noLayout = mask == 0 || mask == 0xFFFF;
  const Kernel kernel = upmix      ? (mask ? kZeroFill : kDuplicate)
                        : out == 1 ? (mask ? kFold : kAverage)
                        : out == 2 ? kToStereo
                        : noLayout ? kStrip
                                   : kFold;
  const Call call{kernel, static_cast<int32_t>(out), static_cast<int32_t>(in), static_cast<int32_t>(taken), format,
                  mask};
  return {inBytes - taken, outBytes >= need ? need : outBytes, outputBlock(call, src)};
}
