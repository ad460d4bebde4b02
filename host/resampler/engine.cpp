// SPDX-License-Identifier: Apache-2.0
// The resampler library for machines without the platform's: a polyphase windowed-sinc filter (filter_design.h).
//
// With L / M the ratio of the rates in lowest terms, output n stands at the input time n * M / L = i + p, 0 <= p < 1:
//
//   out[n] = sum over k of in[i + k - (taps / 2 - 1)] * h(k - (taps / 2 - 1) - p)
//
// It can be made once in[i + taps / 2] has arrived: the latency is taps / 2 input frames, 38 (0.9 ms) at 44.1 kHz.
//
// A row holds the taps of one output. Four outputs form a group (polyphase.h) and share one window of the history,
// that of the first output; the rows of the others start with a few zeros. p takes L values, so the groups
// repeat after lcm(L, 4) outputs. If their rows fit into the table, it holds them in order of use and is read
// sequentially. Otherwise (44100 to 48001 Hz), and after a change of rate in mid-stream, it holds rows at evenly
// spaced p, and each group's rows are interpolated, with an error of about -130 dB.
//
// Internal buffer, from its first multiple of 64 bytes on:
//   Stream          the state
//   kernelScratch   maxTaps doubles
//   table           tableFloats(maxTaps)
//   history         historyFloats(maxTaps) per channel: input frames, the first maxTaps / 2 - 1 before the group's
// Scratch buffer, likewise:
//   output          kOutputFloats per channel: output frames
//   rows            rowsFloats(maxTaps): the interpolated rows of a group
#include <algorithm>
#include <new>

#include "host/resampler/filter_design.h"
#include "host/resampler/polyphase.h"
#include "host/resampler/samples.h"
#include "platform/resampler_lib.h"

namespace {

using namespace palix;

constexpr uint32_t kMinRate = 4000, kMaxRate = 768000, kMaxChannels = 8;
constexpr uint32_t kBlockFrames = 1024;                        // most frames read or made at a time
constexpr uint32_t kOutputFloats = kBlockFrames + 2 * kGroup;  // with the unused part of the first and last group
constexpr uint32_t kRowsPerPeriod = 64;                        // rows per period of the lower rate, to interpolate
constexpr size_t kAlignment = 64;

// Room for the table in order of use of the common pairs of rates (48 to 44.1 kHz: 588 rows of 96 floats), and for
// the rows to interpolate between of all others: at most 64 * b + 4 rows of 79 / b + 18 floats, where b <= 1 is the
// bandwidth and 76 / b <= taps.
constexpr size_t kOrderedFloats = 65536;
constexpr size_t tableFloats(uint32_t maxTaps) { return kOrderedFloats + 6 * size_t{maxTaps}; }
constexpr size_t historyFloats(uint32_t maxTaps) { return 3 * size_t{maxTaps} + kBlockFrames; }
constexpr size_t rowsFloats(uint32_t maxTaps) { return kGroup * 2 * size_t{maxTaps}; }

struct Stream {
  SrcParam param;
  uint32_t maxTaps;  // twice the taps at open: room for lower output rates
  Ratio ratio;
  bool interpolates;

  // The group of the next output. Its first output is (phase + fraction) / L behind the input frame `centre`.
  size_t centre;  // index in the history
  uint32_t phase;
  double fraction;  // 0 to 1; 0 until the rate changes
  uint32_t group;   // index in a table in order of use
  uint32_t done;    // outputs of the group already made

  size_t filled;  // frames in the history
  double* kernelScratch;
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

// Largest distance in input frames from the window of a group's first output to the last one's; depends on the
// bandwidth alone.
uint32_t maxPhaseOffset(const Ratio& ratio) {
  return divideUp((kGroup - 1) * uint64_t{std::max(ratio.L, ratio.M)}, ratio.L);
}

// Floats of a row: the taps, and room for a zero for each input frame by which its window is ahead of the group's.
uint32_t rowFloats(const Ratio& ratio) { return kLanes * divideUp(ratio.taps() + maxPhaseOffset(ratio), kLanes); }

// If the output rate is the lower one, its period is M / L input frames.
uint32_t rowsPerInputFrame(const Ratio& ratio) {
  return ratio.L < ratio.M ? divideUp(uint64_t{kRowsPerPeriod} * ratio.L, ratio.M) : kRowsPerPeriod;
}

uint32_t groupsInTable(const Ratio& ratio) { return ratio.L / std::gcd(ratio.L, kGroup); }

void buildTable(Stream& s) {
  const auto [L, M] = s.ratio;
  const uint32_t taps = s.ratio.taps(), floats = rowFloats(s.ratio), rowsPerFrame = rowsPerInputFrame(s.ratio);
  const uint32_t rows = s.interpolates ? rowsPerFrame + 3 : groupsInTable(s.ratio) * kGroup;
  // Zeros before the first row: interpolation reads up to maxPhaseOffset() floats ahead of a row.
  const uint32_t before = s.interpolates ? maxPhaseOffset(s.ratio) : 0;
  std::fill_n(s.table, before + rows * size_t{floats}, 0.0f);
  uint64_t phase = 0;  // counted from the group's first frame
  for (uint32_t row = 0; row < rows; ++row) {
    float* const to = s.table + before + row * size_t{floats};
    if (s.interpolates) {  // rows of one input frame, and one more on either side for the cubic
      makeRow(to, taps, s.ratio.bandwidth(), (row - 1.0) / rowsPerFrame, s.kernelScratch);
    } else {
      makeRow(to + phase / L, taps, s.ratio.bandwidth(), static_cast<double>(phase % L) / L, s.kernelScratch);
      phase = (row + 1) % kGroup == 0 ? (phase + M) % L : phase + M;
    }
  }
}

// Advances (frame, phase) by a fixed number of outputs.
struct Step {
  uint32_t L, frames, phases;

  Step(const Ratio& ratio, uint32_t outputs)
      : L(ratio.L), frames(outputs * ratio.M / L), phases(outputs * ratio.M % L) {}

  void apply(size_t& frame, uint32_t& phase) const {
    frame += frames;
    phase += phases;
    if (phase >= L) {
      phase -= L;
      ++frame;
    }
  }
};

// Interpolates the group's rows, each by the cubic through the four rows of the table around it.
void interpolateRows(const Stream& s, float* rows) {
  const uint32_t floats = rowFloats(s.ratio), rowsPerFrame = rowsPerInputFrame(s.ratio);
  const float* const table = s.table + maxPhaseOffset(s.ratio);
  const double rowsPerPhase = static_cast<double>(rowsPerFrame) / s.ratio.L;
  const Step step(s.ratio, 1);
  size_t frame = 0;
  uint32_t phase = s.phase;
  for (uint32_t o = 0; o < kGroup; ++o, step.apply(frame, phase)) {
    const double at = (phase + s.fraction) * rowsPerPhase;
    const uint32_t row = std::min(static_cast<uint32_t>(at), rowsPerFrame - 1);
    const double x = at - row;
    const float weights[4] = {
        static_cast<float>(x * (x - 1) * (2 - x) / 6), static_cast<float>((x + 1) * (x - 1) * (x - 2) / 2),
        static_cast<float>((x + 1) * x * (2 - x) / 2), static_cast<float>((x + 1) * x * (x - 1) / 6)};
    blend(table + row * size_t{floats} - frame, floats, weights, rows + o * size_t{floats});
  }
}

// ---- setting up

constexpr size_t alignUp(size_t bytes) { return (bytes + kAlignment - 1) / kAlignment * kAlignment; }

template <class T>
T* alignUp(T* pointer) {
  return reinterpret_cast<T*>(alignUp(reinterpret_cast<uintptr_t>(pointer)));
}

// Offsets of the internal buffer's parts, in bytes from its first multiple of kAlignment.
struct Layout {
  size_t kernelScratch, table, history, end;

  Layout(uint32_t maxTaps, uint32_t channels)
      : kernelScratch(alignUp(sizeof(Stream))),
        table(kernelScratch + alignUp(maxTaps * sizeof(double))),
        history(table + alignUp(tableFloats(maxTaps) * sizeof(float))),
        end(history + channels * historyFloats(maxTaps) * sizeof(float)) {}
};

uint32_t maxTapsOf(const SrcParam& param) { return 2 * Ratio(param.inSampleRate, param.outSampleRate).taps(); }

// Changes the output rate; the next output begins a group and stands p behind its input frame. Rebuilds the table
// only if it changes: rows to interpolate between depend on the bandwidth alone.
void setRate(Stream& s, uint32_t outRate, double p) {
  const Ratio old = s.ratio;
  const bool interpolated = s.interpolates;
  s.param.outSampleRate = outRate;
  s.ratio = Ratio(s.param.inSampleRate, outRate);
  const size_t floats = size_t{kGroup} * groupsInTable(s.ratio) * rowFloats(s.ratio);
  s.interpolates = p != 0 || floats > kOrderedFloats;
  s.phase = std::min(static_cast<uint32_t>(p * s.ratio.L), s.ratio.L - 1);
  s.fraction = p * s.ratio.L - s.phase;
  s.group = s.done = 0;
  const bool isSame = s.interpolates ? s.ratio.bandwidth() == old.bandwidth() : s.ratio == old;
  if (!isSame || s.interpolates != interpolated) buildTable(s);
}

// Fills the history with silence and puts the first output on the first input frame.
void reset(Stream& s) {
  std::fill_n(s.history, s.param.inChannels * historyFloats(s.maxTaps), 0.0f);
  s.filled = s.centre = s.maxTaps / 2 - 1;
  setRate(s, s.param.outSampleRate, 0);
}

// ---- making output

// Makes `frames` outputs: the rest of the group, then further groups. Groups are written whole, so the outputs begin
// at output + s.done.
void filter(Stream& s, float* output, float* rows, uint32_t frames) {
  const uint32_t taps = s.ratio.taps(), floats = rowFloats(s.ratio), channels = s.param.inChannels;
  const size_t stride = historyFloats(s.maxTaps);
  const Step step(s.ratio, kGroup);
  const uint32_t end = s.done + frames;
  for (uint32_t begin = 0; begin < end; begin += kGroup) {
    if (s.interpolates) interpolateRows(s, rows);
    const float* const from = s.interpolates ? rows : s.table + s.group * size_t{kGroup} * floats;
    const float* history = s.history + s.centre - (taps / 2 - 1);
    for (uint32_t c = 0; c < channels; c += 2) {
      const auto together = c + 1 < channels ? convolve<2> : convolve<1>;
      together(from, floats, history + c * stride, stride, output + c * kOutputFloats + begin, kOutputFloats);
    }
    s.done = std::min(end - begin, kGroup);
    if (s.done < kGroup) break;
    step.apply(s.centre, s.phase);
    s.group = s.group + 1 == groupsInTable(s.ratio) ? 0 : s.group + 1;
    s.done = 0;
  }
}

// Index in the history of the input frame at or before an output; outputs are counted from the group's first.
uint64_t frameOf(const Stream& s, uint64_t output) { return s.centre + (s.phase + output * s.ratio.M) / s.ratio.L; }

// Number of outputs for which the history suffices.
uint64_t outputsPossible(const Stream& s) {
  const size_t lookahead = s.ratio.taps() / 2;
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
      filter(s, scratch, scratch + channels * kOutputFloats, frames);
      interleave<Out>(scratch + done, kOutputFloats, gain, channels, frames, dst);
      dst += frames * outFrameBytes;
      room -= frames;
      continue;
    }
    // Takes the input that the outputs with room need; without room, the input that makes no output possible yet.
    const uint64_t last = room > 0 ? frameOf(s, done + room - 1) + 1 : frameOf(s, done);
    const uint64_t most = last + s.ratio.taps() / 2;
    const size_t taken = std::min<uint64_t>({offered, most - std::min<uint64_t>(most, s.filled), kBlockFrames});
    if (taken == 0) break;
    if (s.filled + taken > historyFloats(s.maxTaps) - s.maxTaps) dropOldFrames(s);
    deinterleave<In>(src, channels, taken, s.history + s.filled, historyFloats(s.maxTaps));
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
  *scratchBytes = static_cast<uint32_t>(
      alignment + (param->inChannels * size_t{kOutputFloats} + rowsFloats(maxTaps)) * sizeof(float));
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
  s->kernelScratch = reinterpret_cast<double*>(memory + layout.kernelScratch);
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
  setRate(s, outSampleRate, (static_cast<double>(phase % s.ratio.L) + s.fraction) / s.ratio.L);
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
