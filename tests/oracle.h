// SPDX-License-Identifier: Apache-2.0
// The results of the kernels and entry points, in the plainest form: in 64 bits, sharing nothing with the library.
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
inline int64_t gained(int64_t x) { return limited(x * 46346 >> 15, 4); }

// Divides each sum, rounding towards zero; by constants, which are faster.
template <int kDivisor = 1>
void divide(std::vector<int64_t>& sums, int64_t divisor) {
  if (divisor == kDivisor)
    for (int64_t& sum : sums) sum /= kDivisor;
  else if constexpr (kDivisor < 8)
    divide<kDivisor + 1>(sums, divisor);
  else
    for (int64_t& sum : sums) sum /= divisor;
}

// The samples of a block, channel by channel: definitions are loops over frames, which compilers vectorise.
using Channels = std::vector<std::vector<int32_t>>;

// Sums `term` of every step-th channel from the first on. Sums of 16 and 24 bits wrap in 32.
template <class Term>
void addUp(const Channels& in, size_t first, size_t step, int32_t bytes, std::vector<int64_t>& sums, Term term) {
  sums.assign(in[0].size(), 0);
  for (size_t c = first; c < in.size(); c += step)
    for (size_t f = 0; f < sums.size(); ++f) sums[f] += term(in[c][f]);
  for (int64_t& sum : sums) sum = bytes == 4 ? sum : static_cast<int32_t>(sum);
}
inline void store(const std::vector<int64_t>& sums, int32_t bytes, std::vector<int32_t>& out) {
  out.resize(sums.size());
  for (size_t f = 0; f < sums.size(); ++f) out[f] = static_cast<int32_t>(limited(sums[f], bytes));
}

// What the mix of the layout adds to the left or right sample, if the mask and the channels make such a mix.
inline bool mixedIn(const Call& call, const Channels& s, size_t side, std::vector<int64_t>& sums) {
  const size_t n = s.size();
  sums.resize(s[0].size());
  if ((call.mask == 0x7 || call.mask == 0xB || call.mask == 0x103) && n >= 3) {
    for (size_t f = 0; f < sums.size(); ++f) sums[f] = gained(s[2][f]);
  } else if (call.mask == 0x33 && n >= 4) {
    for (size_t f = 0; f < sums.size(); ++f) sums[f] = gained(s[2 + side][f]);
  } else if (call.mask == 0x3F && n >= 6) {
    const int32_t centreBytes = call.sampleBytes() == 2 ? 2 : 4;
    for (size_t f = 0; f < sums.size(); ++f)
      sums[f] = gained(limited(s[2][f] + gained(s[3][f]), centreBytes)) + gained(s[4 + side][f]);
  } else {
    return false;
  }
  return true;
}

inline void outputOfStereo(const Call& call, const Channels& s, Channels& out) {
  const int32_t bytes = call.sampleBytes();
  static thread_local std::vector<int64_t> sums;
  out.resize(2);
  for (size_t side = 0; side < 2; ++side) {
    const bool mixes = mixedIn(call, s, side, sums);
    if (mixes) {
      for (size_t f = 0; f < sums.size(); ++f) sums[f] += s[side][f];
    } else {
      addUp(s, side, 2, bytes, sums, [](int64_t x) { return x; });
      divide(sums, static_cast<int64_t>(s.size()));
    }
    store(sums, bytes, out[side]);
    if (mixes && side == 1 && bytes == 3)
      out.resize(static_cast<size_t>(std::max(call.dstChannels, 0)), std::vector<int32_t>(sums.size()));
  }
}

// The kernel that a dispatcher calls.
inline Kernel chosenKernel(const Call& call) {
  if (call.kernel == kToMono) return call.mask ? kFold : kAverage;
  if (call.kernel != kFoldDispatch) return call.kernel;
  return call.dstChannels == 2 ? kToStereo : call.dstChannels == 1 && call.mask == 0 ? kAverage : kFold;
}

// The output of the call for the samples s.
inline void outputOf(const Call& call, const Channels& s, Channels& out) {
  const int32_t bytes = call.sampleBytes();
  const size_t n = s.size();
  const auto outputs = static_cast<size_t>(std::max(call.dstChannels, 0));
  static thread_local std::vector<int64_t> sums;
  switch (const Kernel kernel = chosenKernel(call)) {
    case kToStereo: return outputOfStereo(call, s, out);
    case kAverage:
      out.resize(1);
      addUp(s, 0, 1, bytes, sums, [](int64_t x) { return x; });
      divide(sums, static_cast<int64_t>(n));
      return store(sums, bytes, out[0]);
    case kFold: {
      int shift = 15;
      for (size_t room = 1; bytes == 4 && room < 2 * n; room *= 2) ++shift;
      addUp(s, 0, 1, bytes, sums, [shift](int64_t x) { return x * 46346 >> shift; });
      out.resize(outputs);
      for (std::vector<int32_t>& channel : out) store(sums, bytes, channel);
      return;
    }
    default:
      out.resize(outputs);
      for (size_t c = 0; c < outputs; ++c)
        if (kernel == kDuplicate || c < n)
          out[c] = s[c % n];
        else
          out[c].assign(s[0].size(), 0);
  }
}

// All bytes that the call writes, from the start of dst.
inline Bytes outputBlock(const Call& call, const uint8_t* src) {
  Bytes out;
  const auto frames = static_cast<size_t>(call.frames());
  const int32_t bytes = call.sampleBytes();
  if (call.kernel == kStrip && call.dstChannels > call.srcChannels) return out;
  if (call.kernel == kZeroFill && call.dstChannels < call.srcChannels) return out;
  const bool upmix = call.kernel == kZeroFill || call.kernel == kDuplicate;
  if (upmix && int64_t{call.frames()} * bytes * call.dstChannels >> 31) return out;
  if (frames == 0) return out;
  Channels s(static_cast<size_t>(call.srcChannels), std::vector<int32_t>(frames)), made;
  for (size_t f = 0; f < frames; ++f)
    for (std::vector<int32_t>& channel : s) channel[f] = static_cast<int32_t>(readSample(src, bytes)), src += bytes;
  outputOf(call, s, made);
  for (size_t f = 0; f < frames; ++f)
    for (const std::vector<int32_t>& channel : made) appendSample(out, channel[f], bytes);
  return out;
}

// Results of an entry point: the two counts, and all bytes written from the start of dst.
struct EntryResult {
  uint32_t inBytes, outBytes;
  Bytes written;
};

// mask is the zero-fill word of an upmix. Counts wrap at 32 bits.
inline EntryResult entryResult(bool upmix, uint32_t in, uint32_t out, uint32_t format, const uint8_t* src,
                               uint32_t inBytes, uint32_t outBytes, uint32_t mask) {
  if (upmix ? in > out : in < out) return {inBytes, outBytes, {}};
  const uint64_t frames = in ? inBytes / in : 0, room = out ? outBytes / out : 0;
  const auto need = static_cast<uint32_t>(frames * out);
  const uint32_t taken = outBytes >= need ? inBytes : static_cast<uint32_t>(room * in);
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
