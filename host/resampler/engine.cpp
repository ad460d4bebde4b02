// SPDX-License-Identifier: Apache-2.0
// The resampler library for machines without the platform's: a polyphase windowed-sinc filter (filter_design.h).
//
// With L / M the ratio of the rates in lowest terms, output n stands at the input time n * M / L = i + p, 0 <= p < 1:
//
//   out[n] = sum over k of in[i + k - (taps / 2 - 1)] * h(k - (taps / 2 - 1) - p)
//
// It can be made once in[i + taps / 2] has arrived: the latency is taps / 2 input frames, 30 (0.7 ms) at 44.1 kHz.
//
// A row holds the taps of one output. Four outputs form a group (polyphase.h), or three where that divides L and four
// does not. They share one window of the history, that of the first; the rows of the others start with a few zeros. p
// takes L values, so the groups repeat. If their rows fit into the table, it holds them in order of use and is read
// sequentially. Otherwise (44100 to 48001 Hz) it holds rows at evenly spaced p, and each output is interpolated
// linearly between two of them: this adds images of -129 dB at most, for the end of the pass band, 12 dB less for
// each octave below.
//
// Internal buffer, from its first multiple of 64 bytes on:
//   Stream          the state
//   table           tableFloats(maxTaps)
//   history         historyFloats(maxTaps) per channel: input frames, the first maxTaps / 2 - 1 before the group's
// Scratch buffer, likewise:
//   output          kOutputFloats per channel: output frames, interleaved
#include <algorithm>
#include <new>

#include "host/resampler/filter_design.h"
#include "host/resampler/polyphase.h"
#include "host/resampler/samples.h"
#include "platform/resampler_lib.h"

namespace {

using namespace palix;

constexpr uint32_t kMinRate = 4000, kMaxRate = 768000, kMaxChannels = 8;
constexpr uint32_t kBlockFrames = 1024;                             // most frames read or made at a time
constexpr uint32_t kOutputFloats = kBlockFrames + 2 * kMaxOutputs;  // with unused parts of the first and last group
constexpr uint32_t kRowsPerPeriod = 768;  // rows per period of the lower rate, to interpolate
constexpr size_t kAlignment = 64;

// Room for the table in order of use of the common pairs of rates (8 to 44.1 kHz: 441 rows of 64 floats; 192 to
// 44.1 kHz: 147 of 272), and for the rows to interpolate between of all others: at most 768 * b + 2 rows of
// 60 / b + 3 / b + 10 floats, where b <= 1 is the bandwidth and 60 / b <= taps.
constexpr size_t kOrderedFloats = 49152;
constexpr size_t tableFloats(uint32_t maxTaps) { return kOrderedFloats + 8192 + 4 * size_t{maxTaps}; }
constexpr size_t historyFloats(uint32_t maxTaps) { return 3 * size_t{maxTaps} + kBlockFrames; }

struct Stream {
  SrcParam param;
  uint32_t maxTaps;  // twice the taps at open: room for lower output rates
  Ratio ratio;

  bool interpolates;
  double bandwidth;  // of the table's rows
  uint32_t taps, rowFloats;

  // The group of the next output. Its first output is (phase + fraction) / L behind the input frame `centre`.
  size_t centre;  // index in the history
  uint32_t phase;
  double fraction;  // 0 to 1; 0 until the rate changes
  uint32_t group;   // index in a table in order of use
  uint32_t done;    // outputs of the group already made

  size_t filled;  // frames in the history
  float* table;
  float* history;
};

bool isRate(uint32_t rate) { return rate >= kMinRate && rate <= kMaxRate; }

int32_t check(const SrcParam& param) {
  if (param.format > KES_RESAMPLER_Q8_24) return PALIX_BAD_FORMAT;
  if (!isRate(param.inSampleRate) || !isRate(param.outSampleRate)) return PALIX_BAD_RATE;
  if (param.inChannels < 1 || param.inChannels > kMaxChannels || param.outChannels != param.inChannels)
    return PALIX_BAD_CHANNELS;
  return PALIX_OK;
}

// ---- rows of taps

uint32_t divideUp(uint64_t dividend, uint32_t divisor) {
  return static_cast<uint32_t>((dividend + divisor - 1) / divisor);
}

uint32_t groupOutputs(const Ratio& ratio) {
  return ratio.L % 4 != 0 && ratio.L % 3 == 0 && ratio.L > 64 ? 3 : 4;  // a few rows may as well be there four times
}

uint32_t groupsInTable(const Ratio& ratio) { return ratio.L / std::gcd(ratio.L, groupOutputs(ratio)); }

// Floats of a row: the taps, and room for a zero for each input frame by which the window of the group's last output
// is ahead of the first one's.
uint32_t rowFloats(const Ratio& ratio) {
  const uint32_t ahead = divideUp((kMaxOutputs - 1) * uint64_t{std::max(ratio.L, ratio.M)}, ratio.L);
  return kBlock * divideUp(ratio.taps() + ahead, kBlock);
}

// If the output rate is the lower one, its period is 1 / bandwidth input frames.
uint32_t rowsPerInputFrame(const Stream& s) { return static_cast<uint32_t>(kRowsPerPeriod * s.bandwidth) + 1; }

void buildTable(Stream& s) {
  s.bandwidth = s.ratio.bandwidth();
  s.taps = s.ratio.taps();
  s.rowFloats = rowFloats(s.ratio);
  const double first = 1.0 - s.taps / 2;
  if (s.interpolates) {
    const uint32_t rows = rowsPerInputFrame(s);
    for (uint32_t row = 0; row <= rows; ++row)
      makeRow(s.table + row * size_t{s.rowFloats}, s.rowFloats, kBlock, s.bandwidth, first - 1.0 * row / rows);
    return;
  }
  const uint32_t outputs = groupOutputs(s.ratio);
  uint64_t phase = s.phase;  // counted from the group's first frame
  for (uint32_t group = 0; group < groupsInTable(s.ratio); ++group, phase %= s.ratio.L)
    for (uint32_t o = 0; o < outputs; ++o, phase += s.ratio.M)
      makeRow(s.table + (group * size_t{s.rowFloats} * outputs + o * kBlock), s.rowFloats, outputs * kBlock,
              s.bandwidth, first - (static_cast<double>(phase) + s.fraction) / s.ratio.L);
}

// Advances (frame, phase) by a fixed number of outputs.
struct Step {
  uint32_t L, frames, phases;

  Step(const Ratio& ratio, uint32_t outputs)
      : L(ratio.L), frames(outputs * ratio.M / L), phases(outputs * ratio.M % L) {}

  void apply(size_t& frame, uint32_t& phase) const {
    phase += phases;
    const bool wraps = phase >= L;  // no branch: it would not be predictable
    phase -= wraps ? L : 0;
    frame += frames + wraps;
  }
};

// ---- setting up

constexpr size_t alignUp(size_t bytes) { return (bytes + kAlignment - 1) / kAlignment * kAlignment; }

template <class T>
T* alignUp(T* pointer) {
  return reinterpret_cast<T*>(alignUp(reinterpret_cast<uintptr_t>(pointer)));
}

// Offsets of the internal buffer's parts, in bytes from its first multiple of kAlignment.
struct Layout {
  size_t table, history, end;

  Layout(uint32_t maxTaps, uint32_t channels)
      : table(alignUp(sizeof(Stream))),
        history(table + alignUp(tableFloats(maxTaps) * sizeof(float))),
        end(history + channels * historyFloats(maxTaps) * sizeof(float)) {}
};

uint32_t maxTapsOf(const SrcParam& param) { return 2 * Ratio(param.inSampleRate, param.outSampleRate).taps(); }

// Changes the output rate; the next output begins a group and stands p behind its input frame. Rows to interpolate
// between depend on the bandwidth alone; they stay if it changes by less than the tolerance.
void setRate(Stream& s, uint32_t outRate, double p, double tolerance) {
  const bool interpolated = s.interpolates;
  s.param.outSampleRate = outRate;
  s.ratio = Ratio(s.param.inSampleRate, outRate);
  s.interpolates = size_t{groupOutputs(s.ratio)} * groupsInTable(s.ratio) * rowFloats(s.ratio) > kOrderedFloats;
  s.phase = std::min(static_cast<uint32_t>(p * s.ratio.L), s.ratio.L - 1);
  s.fraction = p * s.ratio.L - s.phase;
  s.group = s.done = 0;
  const double change = s.ratio.bandwidth() / s.bandwidth - 1;
  if (!(s.interpolates && interpolated && change >= -tolerance && change <= tolerance)) buildTable(s);
}

// Fills the history with silence and puts the first output on the first input frame.
void reset(Stream& s) {
  std::fill_n(s.history, s.param.inChannels * historyFloats(s.maxTaps), 0.0f);
  s.filled = s.centre = s.maxTaps / 2 - 1;
  setRate(s, s.param.outSampleRate, 0, 0);
}

// ---- making output

// Filters a group for one or two channels; the outputs lie `stride` apart.
template <uint32_t kOutputs, uint32_t kChannels, class Rows>
[[gnu::always_inline]] inline void filterGroup(const Rows& rows, uint32_t floats, const float* history,
                                               size_t historyFloats, float* out, size_t stride) {
  Quad results[kChannels];
  filterRows<kChannels>(rows, floats, history, historyFloats, results);
  if constexpr (kChannels == 2) {
    const Quad pairs[] = {__builtin_shufflevector(results[0], results[1], 0, 4, 1, 5),
                          __builtin_shufflevector(results[0], results[1], 2, 6, 3, 7)};
    for (uint32_t o = 0; o < kOutputs; ++o)
      std::memcpy(out + o * stride, reinterpret_cast<const char*>(pairs) + o * 8, 8);
  } else if (stride == 1) {
    std::memcpy(out, results, sizeof *results);
  } else {
    for (uint32_t o = 0; o < kOutputs; ++o) out[o * stride] = results[0][o];
  }
}

// Makes `frames` outputs: the rest of the group, then further groups. Groups are written whole, so the outputs begin
// at output + s.done * channels. kOutputs is 1 if rows are interpolated.
template <uint32_t kOutputs>
void filter(Stream& s, float* output, uint32_t frames) {
  const uint32_t channels = s.param.inChannels, groups = groupsInTable(s.ratio), rows = rowsPerInputFrame(s);
  const size_t floats = s.rowFloats, stride = historyFloats(s.maxTaps);
  const double rowsPerPhase = static_cast<double>(rows) / s.ratio.L;
  const Step step(s.ratio, kOutputs);
  const float* history = s.history + s.centre - (s.taps / 2 - 1);
  size_t frame = 0;  // of the history
  uint32_t phase = s.phase, group = s.group, left = s.done + frames;
  for (; left > 0; output += kOutputs * channels) {
    const auto taps = [&] {
      if constexpr (kOutputs > 1) {
        return OrderedRows<kOutputs>{s.table + group * kOutputs * floats};
      } else {
        const double at = (phase + s.fraction) * rowsPerPhase;
        const uint32_t row = std::min(static_cast<uint32_t>(at), rows - 1);
        return InterpolatedRow{s.table + row * floats, floats, static_cast<float>(at - row)};
      }
    }();
    uint32_t c = 0;
    for (; c + 1 < channels; c += 2)
      filterGroup<kOutputs, 2>(taps, s.rowFloats, history + c * stride + frame, stride, output + c, channels);
    if (c < channels)
      filterGroup<kOutputs, 1>(taps, s.rowFloats, history + c * stride + frame, stride, output + c, channels);
    if (left < kOutputs) break;
    left -= kOutputs;
    step.apply(frame, phase);
    group = group + 1 == groups ? 0 : group + 1;
  }
  s.centre += frame;
  s.phase = phase;
  s.group = group;
  s.done = left;
}

// Index in the history of the input frame at or before an output; outputs are counted from the group's first.
uint64_t frameOf(const Stream& s, uint64_t output) { return s.centre + (s.phase + output * s.ratio.M) / s.ratio.L; }

// Number of outputs for which the history suffices.
uint64_t outputsPossible(const Stream& s) {
  const size_t lookahead = s.taps / 2;
  if (s.filled <= frameOf(s, s.done) + lookahead) return 0;
  const uint64_t phases = (s.filled - lookahead - s.centre) * s.ratio.L - 1 - s.phase;
  return phases / s.ratio.M + 1 - s.done;
}

void dropOldFrames(Stream& s) {
  const size_t drop = s.centre - (s.maxTaps / 2 - 1);
  for (uint32_t c = 0; c < s.param.inChannels; ++c) {
    float* const frames = s.history + c * historyFloats(s.maxTaps);
    std::copy(frames + drop, frames + s.filled, frames);
  }
  s.filled -= drop;
  s.centre -= drop;
}

template <class In, class Out>
void process(Stream& s, float* scratch, const unsigned char* src, uint32_t* inBytes, unsigned char* dst,
             uint32_t* outBytes) {
  const uint32_t channels = s.param.inChannels;
  const size_t inFrameBytes = channels * sizeof(In), outFrameBytes = channels * sizeof(Out);
  const float gain = sizeof(In) < sizeof(Out) ? 65536.0f : 1.0f;
  size_t offered = *inBytes / inFrameBytes, room = *outBytes / outFrameBytes;
  for (;;) {
    const uint32_t done = s.done;
    if (const auto frames = static_cast<uint32_t>(std::min<uint64_t>({outputsPossible(s), room, kBlockFrames}))) {
      (s.interpolates ? filter<1> : groupOutputs(s.ratio) == 3 ? filter<3> : filter<4>)(s, scratch, frames);
      toSamples<Out>(scratch + done * channels, gain, frames * channels, dst);
      dst += frames * outFrameBytes;
      room -= frames;
      continue;
    }
    // Takes the input that the outputs with room need; without room, the input that makes no output possible yet.
    const uint64_t last = room > 0 ? frameOf(s, done + room - 1) + 1 : frameOf(s, done);
    const uint64_t most = last + s.taps / 2;
    const size_t taken = std::min<uint64_t>({offered, most - std::min<uint64_t>(most, s.filled), kBlockFrames});
    if (taken == 0) break;
    if (s.filled + taken > historyFloats(s.maxTaps) - s.maxTaps) dropOldFrames(s);
    toPlanes<In>(src, channels, taken, s.history + s.filled, historyFloats(s.maxTaps));
    s.filled += taken;
    src += taken * inFrameBytes;
    offered -= taken;
  }
  *inBytes = static_cast<uint32_t>(offered * inFrameBytes + *inBytes % inFrameBytes);
  *outBytes = static_cast<uint32_t>((*outBytes / outFrameBytes - room) * outFrameBytes);
}

}  // namespace

int32_t Palix_GetBufferSize(uint32_t* internalBytes, uint32_t* scratchBytes, SrcParam* param) {
  *internalBytes = *scratchBytes = 0;
  if (const int32_t error = check(*param)) return error;
  const uint32_t maxTaps = maxTapsOf(*param);
  const size_t alignment = kAlignment - 1;
  *internalBytes = static_cast<uint32_t>(alignment + Layout(maxTaps, param->inChannels).end);
  *scratchBytes = static_cast<uint32_t>(alignment + param->inChannels * size_t{kOutputFloats} * sizeof(float));
  return PALIX_OK;
}

int32_t Palix_Open(void** instance, void* internal, SrcParam* param) {
  if (const int32_t error = check(*param)) return error;
  auto* const memory = alignUp(static_cast<unsigned char*>(internal));
  const uint32_t maxTaps = maxTapsOf(*param);
  const Layout layout(maxTaps, param->inChannels);
  auto* const s = new (memory) Stream{};
  s->param = *param;
  s->maxTaps = maxTaps;
  s->table = reinterpret_cast<float*>(memory + layout.table);
  s->history = reinterpret_cast<float*>(memory + layout.history);
  reset(*s);
  *instance = s;
  return PALIX_OK;
}

int32_t Palix_SetSamplingRate(void* instance, uint32_t outSampleRate) {
  Stream& s = *static_cast<Stream*>(instance);
  if (!isRate(outSampleRate)) return PALIX_BAD_RATE;
  if (Ratio(s.param.inSampleRate, outSampleRate).taps() > s.maxTaps) return PALIX_NO_ROOM;
  if (outSampleRate == s.param.outSampleRate) return PALIX_OK;
  const uint64_t phase = s.phase + uint64_t{s.done} * s.ratio.M;
  s.centre += phase / s.ratio.L;
  setRate(s, outSampleRate, (static_cast<double>(phase % s.ratio.L) + s.fraction) / s.ratio.L, 1e-3);
  return PALIX_OK;
}

int32_t Palix_Reset(void* instance) {
  reset(*static_cast<Stream*>(instance));
  return PALIX_OK;
}

int32_t Palix_Process(void* instance, void* scratch, const void* src, uint32_t* inBytes, void* dst,
                      uint32_t* outBytes) {
  Stream& s = *static_cast<Stream*>(instance);
  constexpr decltype(&process<int16_t, int16_t>) kProcesses[] = {
      process<int16_t, int16_t>, process<int16_t, int32_t>, process<int32_t, int32_t>, process<int32_t, int32_t>};
  kProcesses[s.param.format](s, alignUp(static_cast<float*>(scratch)), static_cast<const unsigned char*>(src),
                             inBytes, static_cast<unsigned char*>(dst), outBytes);
  return PALIX_OK;
}

int32_t Palix_MultiChannel_GetBufferSize(uint32_t* internalBytes, uint32_t* scratchBytes, SrcParam* param) {
  return Palix_GetBufferSize(internalBytes, scratchBytes, param);
}

int32_t Palix_MultiChannel_Open(void** instance, void* internal, SrcParam* param) {
  return Palix_Open(instance, internal, param);
}

int32_t Palix_MultiChannel_Reset(void* instance) { return Palix_Reset(instance); }

int32_t Palix_MultiChannel_Process(void* instance, void* scratch, const void* src, uint32_t* inBytes, void* dst,
                                   uint32_t* outBytes) {
  return Palix_Process(instance, scratch, src, inBytes, dst, outBytes);
}
