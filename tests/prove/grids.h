// SPDX-License-Identifier: Apache-2.0
// Calls of every shape, between guard pages: each returns how many calls it made and the first that went wrong.
#pragma once

#include <array>
#include <cfenv>
#include <span>
#include <sstream>

#include "../guarded.h"
#include "../oracle.h"
#include "platform/shifter_lib.h"

thread_local inline const Call* current;  // for the report of a stray access

inline constexpr int kRoundings[] = {FE_TONEAREST, FE_UPWARD, FE_DOWNWARD, FE_TOWARDZERO};

class Grids {
 public:
  std::string difference;
  uint64_t calls = 0;

  // Every frame count up to two turns of the longest loop and its tail (of stereo frames four steps of 16), and those
  // around the chunks that longer blocks are cut into; each time at other addresses and with another partial frame
  // behind; apart, and in place.
  void tryMix(Kernel kernel, uint32_t mask, uint32_t format, int32_t channels) {
    Call call{kernel, 0, channels, 0, format, mask};
    for (const int32_t dstChannels : {1, 2, 3, 8, 9})
      for (const int32_t frames : countsTo(channels == 2 ? 145 : 40, {128, 256})) {
        call.dstChannels = dstChannels;
        const int32_t frameBytes = channels * call.sampleBytes();
        call.byteCount = frames * frameBytes + frames % frameBytes;
        // Noise of full range, in which small numbers and limits abound.
        uint32_t noise = static_cast<uint32_t>(calls);
        input_.resize(static_cast<size_t>(frames * frameBytes));
        for (uint8_t& byte : input_) {
          noise = noise * 1664525 + 1013904223;
          byte = (noise >> 13) % 3 == 0 ? static_cast<uint8_t>(noise % 5 - 2) : static_cast<uint8_t>(noise >> 24);
        }
        check(call, frames % 2 != 0, static_cast<size_t>(frames % 17), kApart);
        if (static_cast<size_t>(outputBlock(call, input_.data()).size()) <= input_.size())
          check(call, frames % 2 == 0, static_cast<size_t>(frames % 17), 0);
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
          input_.resize(static_cast<size_t>(call.byteCount));
          for (size_t i = 0; i < input_.size(); ++i) input_[i] = static_cast<uint8_t>(i * i >> 7);
          check(call, false, 1, kApart);
        }
  }

  // Bytes that carry their position, first its lower and then its higher digit to the base 255; 0 is silence alone.
  void tryMoves(Kernel kernel, uint32_t format, int32_t in) {
    for (int32_t out = 1; out <= 16; ++out) tryMove(kernel, format, in, out);
  }
  void tryMove(Kernel kernel, uint32_t format, int32_t in, int32_t out) {
    Call call{kernel, out, in, 0, format};
    const int32_t inBytes = in * call.sampleBytes(), outBytes = out * call.sampleBytes(), chunk = 1024 / inBytes;
    for (const int32_t frames : countsTo(40 + 256 / inBytes, {chunk, 2 * chunk, 2 * chunk + 20}))
      for (const size_t digit : {1, 255}) {
        call.byteCount = frames * inBytes + frames % inBytes;
        input_.resize(static_cast<size_t>(frames * inBytes));
        for (size_t i = 0; i < input_.size(); ++i) input_[i] = static_cast<uint8_t>(1 + i / digit % 255);
        const int32_t lead = frames % 16;
        check(call, digit == 1, static_cast<size_t>(lead), kApart);
        // In place: every overlap of a few short blocks, and some overlaps of the others.
        if (kernel == kStrip ? out > in : out < in) continue;
        const bool every = frames == 3 || frames == 18;
        const int32_t last = frames * std::max(inBytes, outBytes) + 1;
        for (int32_t shift = every ? 0 : lead; shift <= std::min(last, every ? 300 : last);
             shift += every ? 1 : last / 2 + 1)
          check(call, digit == 1, 0, kernel == kStrip ? -shift : shift);
      }
  }

  // Arguments of every kind, of which few make output.
  void tryArguments(Kernel kernel) {
    for (const uint32_t format : {0u, 1u, 2u, 3u, 4u, 5u, 6u, 7u, 257u, UINT32_MAX})
      for (const uint32_t mask : {0u, 0x7u, 0x33u, 0x3Fu, UINT32_MAX}) tryArguments(kernel, format, mask);
  }
  void tryArguments(Kernel kernel, uint32_t format, uint32_t mask) {
    constexpr int32_t kCounts[] = {INT32_MIN, -2, -1, 0, 1, 2, 3, 9, 257, 1 << 30, (1 << 30) + 1, INT32_MAX};
    for (const int32_t dstChannels : kCounts)
      for (const int32_t srcChannels : kCounts)
        for (const int32_t byteCount : {INT32_MIN, -1, 0, 1, 2, 3, 4, 5, 8, 11, 12, 13, 24, 1030}) {
          const Call call{kernel, dstChannels, srcChannels, byteCount, format, mask};
          const bool moves = kernel == kStrip || kernel == kZeroFill || kernel == kDuplicate;
          const int64_t output = int64_t{call.frames()} * call.sampleBytes() * dstChannels;
          if (output > 1 << 16 && (!moves || output < INT64_C(1) << 31)) continue;  // as much memory is not at hand
          input_.assign(static_cast<size_t>(int64_t{call.frames()} * call.sampleBytes() * std::max(srcChannels, 0)),
                        7);
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
              if (!std::equal(expected.written.begin(), expected.written.end(), dst) || !dst_.surroundingsIntact())
                fail(upmix ? "Audio_Channel_Upmix " : "Audio_Channel_Downmix ", in, " -> ", out, ", format ", format,
                     ", mask ", mask, ", ", held, " bytes, room ", room, ": wrong output");
            }
  }

  // Their byte arithmetic at every edge, without a format that makes output; and the component's.
  void tryCounts(uint32_t in, uint32_t out) {
    std::vector<uint32_t> counts;
    for (const uint64_t edge : {uint64_t{0}, uint64_t{in}, uint64_t{out}, 7 * uint64_t{in}, 7 * uint64_t{out},
                                UINT64_C(1) << 16, UINT64_C(1) << 31, UINT64_C(1) << 32})
      for (int step = -1; step <= 1; ++step)
        counts.push_back(static_cast<uint32_t>(edge) + static_cast<uint32_t>(step));
    for (const uint32_t held : counts)
      for (const uint32_t room : counts) {
        for (const bool upmix : {false, true})
          enter(upmix, in, out, 5, nullptr, held, nullptr, room, 1,
                entryResult(upmix, in, out, 5, nullptr, held, room, 1));
        if (in > 8 || out > 8) continue;
        KesAudioChannelConverterInC converter;
        InitKesAudioChannelConverterInC(&converter);
        converter.Open(&converter, in, out, 5);
        uint32_t inBytes = held, outBytes = room, code = held == 0 || room == 0 ? 2 : 0;
        EntryResult expected{held, room, {}};
        if (code == 0 && in != out) expected = entryResult(in < out, in, out, 5, nullptr, held, room, 0);
        uint8_t unused = 0;
        code -= converter.Process(&converter, &unused, &inBytes, &unused, &outBytes);
        if (code != 0 || inBytes != expected.inBytes || outBytes != expected.outBytes)
          fail("Process of the channel converter, ", in, " -> ", out, ", ", held, " bytes, room ", room, ": leaves ",
               inBytes, ", ", outBytes);
        ++calls;
      }
  }

  // The host's shifter: every short block, more input or room than whole samples need, apart and in place.
  void tryShifter(uint32_t type) {
    constexpr uint32_t kBytes[] = {2, 4, 4, 3};
    const uint32_t from = kBytes[type / 3], to = kBytes[type % 3 + (type % 3 >= type / 3)];
    for (uint32_t samples = 0; samples < 70; ++samples)
      for (uint32_t more = 0; more < 9; ++more) {
        const uint32_t held = samples * from + (more % 3 ? more % from : 5 * from),
                       room = samples * to + (more % 3 ? 5 * to : more % to);
        input_.resize(samples * from);
        for (size_t i = 0; i < input_.size(); ++i)
          input_[i] = static_cast<uint8_t>(i % from == from - 1 ? 0 : i * 37 + more);
        // One sample at a time takes the way of tails alone.
        Bytes expected;
        for (uint32_t i = 0; i < samples; ++i) {
          uint32_t one = from, made = to;
          uint8_t sample[4];
          Shifter_Process(input_.data() + i * from, &one, sample, &made, type);
          expected.insert(expected.end(), sample, sample + to);
        }
        for (const bool inPlace : {false, true}) {
          if (inPlace && to > from) continue;
          uint8_t* const src = src_.place(inPlace ? std::max(held, room) : held, more % 2 != 0, more);
          uint8_t* const dst = inPlace ? src : dst_.place(room, more % 2 == 0, more);
          std::ranges::copy(input_, src);
          uint32_t inBytes = held, outBytes = room;
          Shifter_Process(src, &inBytes, dst, &outBytes, type);
          const bool kept = inPlace || std::all_of(dst + expected.size(), dst + room,
                                                   [](uint8_t byte) { return byte == Guarded::kMarker; });
          if (inBytes != held - samples * from || outBytes != expected.size() ||
              !std::ranges::equal(expected, std::span(dst, outBytes)) || !kept || !src_.surroundingsIntact() ||
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

  // All counts up to the first, and those around edges beyond.
  static std::vector<int32_t> countsTo(int32_t last, std::initializer_list<int32_t> edges) {
    std::vector<int32_t> counts;
    for (int32_t count = 0; count <= last; ++count) counts.push_back(count);
    for (const int32_t edge : edges)
      for (int32_t count = std::max(edge - 1, last + 1); count <= edge + 1; ++count) counts.push_back(count);
    return counts;
  }

  template <class... Text>
  void fail(const Text&... text) {
    if (!difference.empty()) return;
    std::ostringstream out;
    (out << ... << text);
    difference = out.str();
  }

  // Runs the call on the input at a guard page, `gap` bytes away from it: src and dst apart, or dst `shift` bytes
  // after src.
  void check(const Call& call, bool low, size_t gap, int shift) {
    current = &call;
    const Bytes expected = outputBlock(call, input_.data());
    const bool apart = shift == kApart;
    const auto before = static_cast<size_t>(apart ? 0 : std::max(-shift, 0));
    const auto after = static_cast<size_t>(apart ? 0 : std::max(shift, 0));
    const size_t blockBytes = std::max(apart ? 0 : before + input_.size(), after + expected.size());
    uint8_t* const block = dst_.place(blockBytes, low, gap);
    uint8_t* const src = apart ? src_.place(input_.size(), low, gap) : block + before;
    std::copy(input_.begin(), input_.end(), src);
    Bytes result(block, block + blockBytes);  // in place, what the output does not cover must stay
    std::copy(expected.begin(), expected.end(), result.begin() + static_cast<ptrdiff_t>(after));
    std::fesetround(kRoundings[++calls % 4]);  // which is the caller's, and changes nothing
    call.run(block + after, src);
    std::fesetround(FE_TONEAREST);

    const auto where = [&] { return apart ? std::string(" apart") : " in place, shift " + std::to_string(shift); };
    const auto wrong = std::mismatch(result.begin(), result.end(), block);
    if (wrong.first != result.end()) {
      const ptrdiff_t byte = wrong.second - block;
      fail(call, where(), ": byte ", byte, " of ", blockBytes, " is ", int{*wrong.second}, " instead of ",
           int{*wrong.first}, inputOf(call, byte, static_cast<ptrdiff_t>(expected.size())));
    }
    if (!dst_.surroundingsIntact()) fail(call, where(), ": wrote outside");
    if (apart && (!std::equal(input_.begin(), input_.end(), src) || !src_.surroundingsIntact()))
      fail(call, where(), ": changed its input");
  }

  // The input frame of an output byte.
  std::string inputOf(const Call& call, ptrdiff_t byte, ptrdiff_t outputBytes) const {
    if (byte >= outputBytes || call.srcChannels > 16) return ", beyond the output";
    std::ostringstream text;
    text << ", of the frame";
    const auto* frame = input_.data() + byte / (outputBytes / call.frames()) * call.srcChannels * call.sampleBytes();
    for (int c = 0; c < call.srcChannels; ++c)
      text << ' ' << readSample(frame + c * call.sampleBytes(), call.sampleBytes());
    return text.str();
  }

  void enter(bool upmix, uint32_t in, uint32_t out, uint32_t format, const void* src, uint32_t held, void* dst,
             uint32_t room, uint32_t mask, const EntryResult& expected) {
    uint32_t inBytes = held, outBytes = room;
    const uint32_t code =
        upmix ? static_cast<uint32_t>(Audio_Channel_Upmix(in, out, format, src, &inBytes, dst, &outBytes, mask))
              : Audio_Channel_Downmix(in, out, format, src, &inBytes, dst, &outBytes, mask);
    if (code != (upmix && in > out ? UINT32_MAX : 0) || inBytes != expected.inBytes || outBytes != expected.outBytes)
      fail(upmix ? "Audio_Channel_Upmix " : "Audio_Channel_Downmix ", in, " -> ", out, ", format ", format, ", ",
           held, " bytes, room ", room, ": leaves ", inBytes, ", ", outBytes, " instead of ", expected.inBytes, ", ",
           expected.outBytes);
    ++calls;
  }

  Bytes input_;
  Guarded src_{1 << 18}, dst_{1 << 19};
};
