// SPDX-License-Identifier: Apache-2.0
// The results of the kernels and entry points, in the plainest form: one sample at a time, in 64 bits, sharing
// nothing with the library.
#pragma once

#include <kesaudio/kesaudio.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

using Bytes = std::vector<uint8_t>;
using Frame = std::vector<int64_t>;

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
  int32_t sampleBytes() const { return format == 1 ? 2 : format == 6 ? 3 : format == 3 || format == 4 ? 4 : 0; }
  int32_t frames() const {
    return sampleBytes() && srcChannels > 0 && byteCount > 0 ? byteCount / sampleBytes() / srcChannels : 0;
  }
};

inline std::ostream& operator<<(std::ostream& out, const Call& call) {
  return out << kKernelTable[call.kernel].name << " " << call.srcChannels << " -> " << call.dstChannels << ", format "
             << call.format << ", mask " << call.mask << ", " << call.byteCount << " bytes";
}
// Reads a call from the start of a line, as operator<< writes it.
inline std::optional<Call> parsedCall(const std::string& line) {
  Call call{};
  const auto* const entry = std::ranges::find(kKernelTable, line.substr(0, line.find(' ')), &KernelEntry::name);
  call.kernel = static_cast<Kernel>(entry - kKernelTable);
  const int read = std::sscanf(line.c_str(), "%*s %d -> %d, format %u, mask %u, %d bytes", &call.srcChannels,
                               &call.dstChannels, &call.format, &call.mask, &call.byteCount);
  return call.kernel < kKernels && read == 5 ? std::optional(call) : std::nullopt;
}

inline int64_t limited(int64_t value, int32_t bytes) {
  const int64_t limit = int64_t{1} << (8 * bytes - 1);
  return std::clamp(value, -limit, limit - 1);
}
inline int64_t readSample(const uint8_t* at, int32_t bytes) {
  uint64_t value = 0;
  for (int32_t i = 0; i < bytes; ++i) value += uint64_t{at[i]} << (8 * i);
  const int64_t limit = int64_t{1} << (8 * bytes - 1);
  return (static_cast<int64_t>(value) + limit) % (2 * limit) - limit;
}
inline void appendSample(Bytes& out, int64_t value, int32_t bytes) {
  for (int32_t i = 0; i < bytes; ++i) out.push_back(static_cast<uint8_t>(value >> (8 * i)));
}
inline int64_t floorDivided(int64_t value, int64_t divisor) { return value / divisor - (value % divisor < 0); }
// Sums of 16 and 24 bits wrap in 32.
inline int64_t summed(int64_t sum, int32_t bytes) { return bytes == 4 ? sum : static_cast<int32_t>(sum); }
inline int64_t gained(int64_t x) { return limited(floorDivided(x * 46346, 32768), 4); }

inline Frame stereoFrame(const Call& call, const Frame& s) {
  const int32_t bytes = call.sampleBytes();
  const auto n = static_cast<int64_t>(s.size());
  int64_t left = 0, right = 0;
  if ((call.mask == 0x7 || call.mask == 0xB || call.mask == 0x103) && n >= 3) {
    left = s[0] + gained(s[2]), right = s[1] + gained(s[2]);
  } else if (call.mask == 0x33 && n >= 4) {
    left = s[0] + gained(s[2]), right = s[1] + gained(s[3]);
  } else if (call.mask == 0x3F && n >= 6) {
    const int64_t centre = limited(s[2] + gained(s[3]), bytes == 2 ? 2 : 4);
    left = s[0] + gained(centre) + gained(s[4]), right = s[1] + gained(centre) + gained(s[5]);
  } else {
    for (size_t c = 0; c < s.size(); ++c) (c % 2 ? right : left) += s[c];
    return {limited(summed(left, bytes) / n, bytes), limited(summed(right, bytes) / n, bytes)};
  }
  Frame out{limited(left, bytes), limited(right, bytes)};
  if (bytes == 3) out.resize(static_cast<size_t>(std::max(call.dstChannels, 0)), 0);
  return out;
}

// One output frame of the call for the input frame s.
inline Frame outputFrame(const Call& call, const Frame& s) {
  const int32_t bytes = call.sampleBytes();
  const auto n = static_cast<int64_t>(s.size());
  int64_t sum = 0, divisor = 32768;
  if (call.kernel == kToStereo) return stereoFrame(call, s);
  if (call.kernel == kAverage) {
    for (int64_t x : s) sum += x;
    return {limited(summed(sum, bytes) / n, bytes)};
  }
  Frame out(static_cast<size_t>(std::max(call.dstChannels, 0)), 0);
  if (call.kernel == kFold) {
    for (int64_t room = 1; bytes == 4 && room < 2 * n; room *= 2) divisor *= 2;
    for (int64_t x : s) sum += floorDivided(x * 46346, divisor);
    out.assign(out.size(), limited(summed(sum, bytes), bytes));
  } else if (call.kernel == kDuplicate) {
    for (size_t j = 0; j < out.size(); ++j) out[j] = s[j % s.size()];
  } else {
    std::copy_n(s.begin(), std::min(out.size(), s.size()), out.begin());
  }
  return out;
}

// All bytes that the call writes, from the start of dst.
inline Bytes outputBlock(Call call, const uint8_t* src) {
  if (call.kernel == kToMono) call.kernel = call.mask ? kFold : kAverage;
  if (call.kernel == kFoldDispatch) {
    call.kernel = call.dstChannels == 2 ? kToStereo : call.dstChannels == 1 && call.mask == 0 ? kAverage : kFold;
  }
  Bytes out;
  if (call.kernel == kStrip && call.dstChannels > call.srcChannels) return out;
  if (call.kernel == kZeroFill && call.dstChannels < call.srcChannels) return out;
  const bool upmix = call.kernel == kZeroFill || call.kernel == kDuplicate;
  if (upmix && int64_t{call.frames()} * call.sampleBytes() * call.dstChannels >> 31) return out;
  if (call.frames() == 0) return out;
  Frame frame(static_cast<size_t>(std::max(call.srcChannels, 0)));
  for (int32_t f = call.frames(); f > 0; --f) {
    for (int64_t& sample : frame) sample = readSample(src, call.sampleBytes()), src += call.sampleBytes();
    for (int64_t sample : outputFrame(call, frame)) appendSample(out, sample, call.sampleBytes());
  }
  return out;
}

// Results of an entry point: the two counts, and all bytes written from the start of dst.
struct EntryResult {
  uint32_t inBytes, outBytes;
  Bytes written;
};

// mask is the zero-fill word of an upmix.
inline EntryResult entryResult(bool upmix, uint32_t in, uint32_t out, uint32_t format, const uint8_t* src,
                               uint32_t inBytes, uint32_t outBytes, uint32_t mask) {
  if (upmix ? in > out : in < out) return {inBytes, outBytes, {}};
  const uint32_t need = (in ? inBytes / in : 0) * out;
  const uint32_t taken = outBytes >= need ? inBytes : (out ? outBytes / out : 0) * in;
  const Kernel downmix = out == 1                      ? mask ? kFold : kAverage
                         : out == 2                    ? kToStereo
                         : mask == 0 || mask == 0xFFFF ? kStrip
                                                       : kFold;
  const Call call{upmix ? mask ? kZeroFill : kDuplicate : downmix,
                  static_cast<int32_t>(out),
                  static_cast<int32_t>(in),
                  static_cast<int32_t>(taken),
                  format,
                  mask};
  return {inBytes - taken, std::min(need, outBytes), outputBlock(call, src)};
}
