// SPDX-License-Identifier: Apache-2.0
// Calls of every shape, between guard pages. Counts them, and describes the first that goes wrong.
#pragma once

#include <array>
#include <cfenv>
#include <span>
#include <sstream>

#include "../guarded.h"
#include "../oracle.h"
#include "platform/shifter_lib.h"

#pragma GCC diagnostic ignored "-Wsign-conversion"

inline constexpr int kRoundings[] = {FE_TONEAREST, FE_UPWARD, FE_DOWNWARD, FE_TOWARDZERO};

// For the report of a stray access: the row, and the call.
inline std::string currentRow;
thread_local inline const Call* currentCall;

template <class... Text>
std::string joined(const Text&... text) {
  std::ostringstream out;
  (out << ... << text);
  return out.str();
}

class Grids {
 public:
  std::string difference;
  int64_t calls = 0;

  // Every frame count up to two turns of the longest loop and its tail (of stereo frames four steps of 16), and those
  // around the chunks that longer blocks are cut into; each time at other addresses and with another partial frame
  // behind; apart, and in place.
  void tryMix(Kernel kernel, uint32_t mask, uint32_t format, int32_t channels) {
    for (const int32_t dstChannels : {1, 2, 3, 8, 9})
      for (const int32_t frames : countsTo(channels == 2 ? 145 : 40, {128, 256})) {
        Call call{kernel, dstChannels, channels, 0, format, mask};
        const int32_t frameBytes = channels * call.sampleBytes();
        call.byteCount = frames * frameBytes + frames % frameBytes;
        input_.resize(frames * frameBytes);
        for (auto noise = static_cast<uint32_t>(calls); uint8_t & byte : input_) {  // small and great numbers
          noise = noise * 1664525 + 1013904223;
          byte = static_cast<uint8_t>((noise >> 13) % 3 == 0 ? noise % 5 - 2 : noise >> 24);
        }
        check(call, frames % 2 != 0, frames % 17, kApart);
        if (outputBlock(call, input_.data()).size() <= input_.size()) check(call, frames % 2 == 0, frames % 17, 0);
      }
  }

  // Thousands of channels stay exact and off the stack, and so do long blocks.
  void tryWideFrames() {
    for (const auto [format, channels, frames] :
         {std::array{1, 20000, 1}, {3, 20000, 1}, {6, 180, 1}, {1, 1, 70001}, {6, 2, 30000}})
      for (const Kernel kernel : {kFold, kAverage, kToStereo, kStrip})
        for (const uint32_t mask : {0u, 0x3Fu}) {
          Call call{kernel, kernel == kStrip ? 1 : 2, channels, 0, static_cast<uint32_t>(format), mask};
          call.byteCount = frames * channels * call.sampleBytes();
          input_.resize(call.byteCount);
          for (size_t i = 0; i < input_.size(); ++i) input_[i] = static_cast<uint8_t>(i * i >> 7);
          check(call, false, 1, kApart);
        }
  }

  // Bytes that carry their position, first its lower and then its higher digit to the base 255; 0 is silence alone.
  // In place, every overlap of a few short blocks, and some overlaps of the others.
  void tryMoves(Kernel kernel, uint32_t format, int32_t in, int32_t out) {
    Call call{kernel, out, in, 0, format};
    const int32_t inBytes = in * call.sampleBytes(), outBytes = out * call.sampleBytes(), chunk = 1024 / inBytes;
    for (const int32_t frames : countsTo(40 + 256 / inBytes, {chunk, 2 * chunk, 2 * chunk + 20}))
      for (const int digit : {1, 255}) {
        call.byteCount = frames * inBytes + frames % inBytes;
        input_.resize(frames * inBytes);
        for (int i = 0; i < frames * inBytes; ++i) input_[i] = static_cast<uint8_t>(1 + i / digit % 255);
        check(call, digit == 1, frames % 16, kApart);
        if (kernel == kStrip ? out > in : out < in) continue;
        const bool every = frames == 3 || frames == 18;
        const int32_t last = frames * std::max(inBytes, outBytes) + 1, step = every ? 1 : last / 2 + 1;
        for (int32_t shift = every ? 0 : frames % 16; shift <= std::min(last, every ? 300 : last); shift += step)
          check(call, digit == 1, 0, kernel == kStrip ? -shift : shift);
      }
  }

  // Arguments of every kind, few of which make output.
  void tryArguments(Kernel kernel, uint32_t format, uint32_t mask) {
    constexpr int32_t kCounts[] = {INT32_MIN, -2, -1, 0, 1, 2, 3, 9, 257, 1 << 30, (1 << 30) + 1, INT32_MAX};
    for (const int32_t dstChannels : kCounts)
      for (const int32_t srcChannels : kCounts)
        for (const int32_t byteCount : {INT32_MIN, -1, 0, 1, 2, 3, 4, 5, 8, 11, 12, 13, 24, 1030}) {
          const Call call{kernel, dstChannels, srcChannels, byteCount, format, mask};
          const bool moves = kernel == kStrip || kernel == kZeroFill || kernel == kDuplicate;
          const int64_t output = int64_t{call.frames()} * call.sampleBytes() * dstChannels;
          if (output > 1 << 16 && (!moves || output < INT64_C(1) << 31)) continue;  // more memory than is at hand
          input_.assign(call.frames() * call.sampleBytes() * int64_t{std::max(srcChannels, 0)}, 7);
          check(call, false, 0, kApart);
        }
  }

  // The entry points between all formats and layouts, with room for all, for some and for no frames.
  void tryEntries(uint32_t in, uint32_t out) {
    for (const uint32_t format : {1u, 2u, 3u, 4u, 5u, 6u})
      for (const uint32_t mask : {0u, 1u, 0x7u, 0xBu, 0x103u, 0x33u, 0x3Fu, 0xFFFFu, 0x1003Fu})
        for (const uint32_t held : {0u, 1u, 47u, 144u, 289u})
          for (const uint32_t room : {0u, 1u, 29u, 72u, 5000u})
            for (const bool upmix : {false, true}) {
              uint8_t* const src = src_.place(held, held % 2 != 0);
              for (uint32_t i = 0; i < held; ++i) src[i] = static_cast<uint8_t>(i * 41 + room);
              const EntryResult expected = entryResult(upmix, in, out, format, src, held, room, mask);
              uint8_t* const dst = dst_.place(expected.written.size(), room % 2 != 0);
              enter(upmix, in, out, format, src, held, dst, room, mask, expected);
              if (!std::ranges::equal(expected.written, std::span(dst, expected.written.size())) ||
                  !dst_.surroundingsIntact())
                fail(upmix ? "upmix " : "downmix ", in, " -> ", out, ", format ", format, ", mask ", mask, ", ", held,
                     " bytes, room ", room, ": wrong output");
            }
  }

  // Their byte arithmetic at every edge, without a format that makes output; and the component's.
  void tryCounts(uint32_t in, uint32_t out) {
    std::vector<uint32_t> counts;
    for (const uint32_t edge : {0u, in, out, 7 * in, 7 * out, 1u << 16, 1u << 31})
      for (const uint32_t count : {edge - 1, edge, edge + 1}) counts.push_back(count);
    KesAudioChannelConverterInC converter;
    InitKesAudioChannelConverterInC(&converter);
    const bool opens = converter.Open(&converter, in, out, 5) == 0;
    for (const uint32_t held : counts)
      for (const uint32_t room : counts) {
        for (const bool upmix : {false, true})
          enter(upmix, in, out, 5, nullptr, held, nullptr, room, 1,
                entryResult(upmix, in, out, 5, nullptr, held, room, 1));
        if (!opens || in == out || held == 0 || room == 0) continue;
        const EntryResult expected = entryResult(in < out, in, out, 5, nullptr, held, room, 0);
        uint32_t inBytes = held, outBytes = room;
        uint8_t unused = 0;
        if (converter.Process(&converter, &unused, &inBytes, &unused, &outBytes) != 0 ||
            inBytes != expected.inBytes || outBytes != expected.outBytes)
          fail("the converter ", in, " -> ", out, ", ", held, " bytes, room ", room, ": ", inBytes, ", ", outBytes);
      }
  }

  // The host's shifter: every short block, more input or room than whole samples need, apart and in place. One sample
  // at a time gives the values: it goes the way of tails alone.
  void tryShifter(uint32_t type) {
    constexpr uint32_t kBytes[] = {2, 4, 4, 3};
    const uint32_t from = kBytes[type / 3], to = kBytes[type % 3 + (type % 3 >= type / 3)];
    for (uint32_t samples = 0; samples < 70; ++samples)
      for (uint32_t more = 0; more < 9; ++more) {
        const uint32_t held = samples * from + (more % 3 ? more % from : 5 * from);
        const uint32_t room = samples * to + (more % 3 ? 5 * to : more % to);
        input_.resize(samples * from);
        for (uint32_t i = 0; i < input_.size(); ++i) input_[i] = static_cast<uint8_t>((i + 1) % from ? i * 37 : 0);
        Bytes expected(samples * to);
        for (uint32_t i = 0; i < samples; ++i) {
          uint32_t one = from, made = to;
          Shifter_Process(&input_[i * from], &one, &expected[i * to], &made, type);
        }
        expected.resize(room, Guarded::kMarker);
        for (const bool inPlace : {false, true}) {
          if (inPlace && to > from) continue;
          uint8_t* const src = src_.place(inPlace ? std::max(held, room) : held, more % 2 != 0, more);
          uint8_t* const dst = inPlace ? src : dst_.place(room, more % 2 == 0, more);
          std::ranges::copy(input_, src);
          uint32_t inBytes = held, outBytes = room;
          Shifter_Process(src, &inBytes, dst, &outBytes, type);
          if (inBytes != held - samples * from || outBytes != samples * to || !src_.surroundingsIntact() ||
              !std::equal(dst, dst + (inPlace ? outBytes : room), expected.begin()) ||
              (!inPlace && !dst_.surroundingsIntact()))
            fail("Shifter ", type, ", ", held, " bytes, room ", room, inPlace ? ", in place" : "");
          ++calls;
        }
      }
    uint32_t inBytes = 8, outBytes = 8;
    if (Shifter_Process(nullptr, &inBytes, nullptr, &outBytes, 12) != -1 || inBytes != 8 || outBytes != 0)
      fail("Shifter 12");
  }

 private:
  static constexpr int kApart = INT32_MIN;

  // All counts up to the last, and those around edges beyond.
  static std::vector<int32_t> countsTo(int32_t last, std::initializer_list<int32_t> edges) {
    std::vector<int32_t> counts;
    for (int32_t count = 0; count <= last; ++count) counts.push_back(count);
    for (const int32_t edge : edges)
      for (int32_t count = std::max(edge - 1, last + 1); count <= edge + 1; ++count) counts.push_back(count);
    return counts;
  }

  template <class... Text>
  void fail(const Text&... text) {
    if (difference.empty()) difference = joined(text...);
  }

  // Runs the call on the input at a guard page, `gap` bytes away from it: src and dst apart, or dst `shift` bytes
  // after src.
  void check(const Call& call, bool low, size_t gap, int shift) {
    currentCall = &call;
    const Bytes expected = outputBlock(call, input_.data());
    const bool apart = shift == kApart;
    const size_t before = apart ? 0 : std::max(-shift, 0), after = apart ? 0 : std::max(shift, 0);
    const size_t blockBytes = std::max(apart ? 0 : before + input_.size(), after + expected.size());
    uint8_t* const block = dst_.place(blockBytes, low, gap);
    uint8_t* const src = apart ? src_.place(input_.size(), low, gap) : block + before;
    std::ranges::copy(input_, src);
    Bytes result(block, block + blockBytes);  // in place, what the output does not cover must stay
    std::ranges::copy(expected, result.begin() + after);
    std::fesetround(kRoundings[++calls % 4]);  // which is the caller's, and changes nothing
    call.run(block + after, src);
    std::fesetround(FE_TONEAREST);
    currentCall = nullptr;

    const auto where = apart ? " apart" : joined(" in place, shift ", shift);
    const size_t byte = std::mismatch(result.begin(), result.end(), block).second - block;
    if (byte < blockBytes) fail(call, where, ": byte ", byte, inputOf(call, byte - after, expected.size()));
    if (!dst_.surroundingsIntact()) fail(call, where, ": wrote outside");
    if (apart && (!std::ranges::equal(input_, std::span(src, input_.size())) || !src_.surroundingsIntact()))
      fail(call, where, ": changed its input");
  }

  // The input frame of an output byte.
  std::string inputOf(const Call& call, size_t byte, size_t outputBytes) const {
    if (byte >= outputBytes || call.srcChannels > 16) return " beyond the output";
    std::string text = " made of";
    const size_t frame = byte / (outputBytes / call.frames()), width = call.sampleBytes();
    for (int c = 0; c < call.srcChannels; ++c)
      text += joined(' ', readSample(&input_[(frame * call.srcChannels + c) * width], call.sampleBytes()));
    return text;
  }

  void enter(bool upmix, uint32_t in, uint32_t out, uint32_t format, const void* src, uint32_t held, void* dst,
             uint32_t room, uint32_t mask, const EntryResult& expected) {
    uint32_t inBytes = held, outBytes = room;
    const uint32_t code =
        upmix ? static_cast<uint32_t>(Audio_Channel_Upmix(in, out, format, src, &inBytes, dst, &outBytes, mask))
              : Audio_Channel_Downmix(in, out, format, src, &inBytes, dst, &outBytes, mask);
    if (code != (upmix && in > out ? UINT32_MAX : 0) || inBytes != expected.inBytes || outBytes != expected.outBytes)
      fail(upmix ? "upmix " : "downmix ", in, " -> ", out, ", ", held, " bytes, room ", room, ": ", inBytes, ", ",
           outBytes, " instead of ", expected.inBytes, ", ", expected.outBytes);
    ++calls;
  }

  Bytes input_;
  Guarded src_{1 << 18}, dst_{1 << 19};
};
