// SPDX-License-Identifier: Apache-2.0
// The states of the three components, found by calling each operation in each state: what it returned, and the state
// that it left.
#include <kesaudio/kesaudio.h>

#include <algorithm>
#include <functional>
#include <span>
#include <vector>

#include "pictures.h"
#include "svg.h"

namespace pictures {
namespace {

constexpr int kBox = 108, kBoxHeight = 78, kClosedX = 222, kOpenX = 470, kLine = 17;

template <class Record>
struct Operation {
  const char* name;
  std::function<uint32_t(Record&)> call;
};

template <class Record>
int draw(Svg& svg, int y, std::string_view name, std::string_view init, void (*initialise)(Record*),
         const std::vector<Operation<Record>>& operations) {
  std::vector<std::string> moves[2], stays[2], refused[2];
  for (const int from : {KES_STATE_CLOSED, KES_STATE_OPEN})
    for (const Operation<Record>& operation : operations) {
      Record record{};
      initialise(&record);
      if (from == KES_STATE_OPEN) operations.front().call(record);
      require(record.mState == static_cast<uint32_t>(from), fmt::format("{}: state {} not reached", name, from));
      const auto bytes = std::as_bytes(std::span(&record, 1));
      const std::vector<std::byte> before(bytes.begin(), bytes.end());
      const uint32_t code = operation.call(record);
      auto& list = code != KES_OK ? refused : record.mState == static_cast<uint32_t>(from) ? stays : moves;
      require(code == KES_OK || (code == KES_REFUSED && std::ranges::equal(bytes, before)),
              fmt::format("{}: {} is neither done nor refused", name, operation.name));
      list[from - 1].emplace_back(operation.name);
      if (record.mState == KES_STATE_OPEN) record.Close(&record);
    }
  require(!moves[0].empty() && !moves[1].empty(), fmt::format("{} does not change its state", name));

  svg.text(kMargin, y, "bold", name);
  svg.line(kMargin, y + 9, kWidth - kMargin, y + 9, "hair");
  const int lines =
      1 + static_cast<int>(std::max(stays[0].size() + refused[0].size(), stays[1].size() + refused[1].size()));
  const int height = std::max(kBoxHeight + 40, lines * kLine), middle = y + 26 + height / 2,
            top = middle - kBoxHeight / 2;

  // The initialisation.
  const int closedMiddle = kClosedX + kBox / 2, openMiddle = kOpenX + kBox / 2;
  svg.text(closedMiddle + 14, top - 20, "tiny mono", init);
  svg.path(fmt::format("M{} {}m-4 0a4 4 0 1 0 8 0a4 4 0 1 0 -8 0", closedMiddle, top - 24), "head");
  svg.line(closedMiddle, top - 24, closedMiddle, top - 8, "arrow");
  svg.head(closedMiddle, top, 0, 1);

  // The states.
  const auto state = [&](int centre, int number, std::string_view word) {
    svg.rect(centre - kBox / 2, top, kBox, kBoxHeight, number == KES_STATE_OPEN ? "green" : "blue", 12);
    svg.text(centre, middle - 2, "bold middle", fmt::format("{}", number));
    svg.text(centre, middle + 18, "middle", word);
  };
  state(closedMiddle, KES_STATE_CLOSED, "closed");
  state(openMiddle, KES_STATE_OPEN, "open");

  // Between them: names above the arrow to the open state, and below the one back.
  const int from = kClosedX + kBox + 4, to = kOpenX - 4;
  svg.line(from, middle - 14, to - 8, middle - 14, "arrow");
  svg.head(to, middle - 14, 1, 0);
  svg.line(from + 8, middle + 14, to, middle + 14, "arrow");
  svg.head(from, middle + 14, -1, 0);
  int at = middle - 22 - kLine * static_cast<int>(moves[0].size() - 1);
  const auto list = [&](int x, std::string_view look, const std::vector<std::string>& words) {
    for (const std::string& word : words) svg.text(x, at, look, word), at += kLine;
  };
  list((from + to) / 2, "small middle", moves[0]);
  at = middle + 32;
  list((from + to) / 2, "small middle", moves[1]);

  // Beside them: loops with what leaves the state as it is, and what it refuses.
  for (const int s : {0, 1}) {
    const int edge = s ? kOpenX + kBox : kClosedX, out = s ? 1 : -1;
    svg.path(fmt::format("M{} {}c{} -14 {} 42 {} 28", edge + 3 * out, middle - 14, 40 * out, 40 * out, 8 * out),
             "arrow");
    svg.head(edge + 2 * out, middle + 14, -out, 0);
    const std::string look = s ? "small" : "small end";
    at = middle - kLine * static_cast<int>(stays[s].size() + refused[s].size()) / 2 + 12;
    list(edge + 44 * out, look, stays[s]);
    list(edge + 44 * out, look + " bad", refused[s]);
  }
  return y + 26 + height + 34;
}

}  // namespace

std::string states() {
  Svg svg("The states of the components",
          "Each operation, called in each state. In red: what gave KES_REFUSED and changed nothing.");
  uint8_t block[64] = {}, made[128];
  uint32_t in = 0, out = 0;
  const auto fresh = [&] { in = sizeof block, out = sizeof made; };

  using Channel = KesAudioChannelConverterInC;
  int y =
      draw<Channel>(svg, 102, "Channel converter", "InitKesAudioChannelConverterInC", InitKesAudioChannelConverterInC,
                    {{"Open", [](Channel& r) { return r.Open(&r, 6, 2, KES_PCM_S16); }},
                     {"Process", [&](Channel& r) { return fresh(), r.Process(&r, block, &in, made, &out); }},
                     {"Reset", [](Channel& r) { return r.Reset(&r); }},
                     {"SetParameter", [](Channel& r) { return r.SetParameter(&r, KES_CHANNEL_PARAM_MASK, 0); }},
                     {"GetParameter", [](Channel& r) { return r.GetParameter(&r, KES_CHANNEL_PARAM_MASK, nullptr); }},
                     {"Close", [](Channel& r) { return r.Close(&r); }}});

  using Resampler = KesAudioSrcInC;
  y = draw<Resampler>(
      svg, y, "Resampler", "InitKesAudioSrcInC", InitKesAudioSrcInC,
      {{"Open", [](Resampler& r) { return r.Open(&r, 44100, 2, 48000, 2, KES_RESAMPLER_S16); }},
       {"MultiChannel_Open",
        [](Resampler& r) { return r.MultiChannel_Open(&r, 44100, 2, 48000, 2, KES_RESAMPLER_S16); }},
       {"Process", [&](Resampler& r) { return fresh(), r.Process(&r, block, &in, made, &out); }},
       {"MultiChannel_Process",
        [&](Resampler& r) { return fresh(), r.MultiChannel_Process(&r, block, &in, made, &out); }},
       {"Reset", [](Resampler& r) { return r.Reset(&r); }},
       {"MultiChannel_ResetBuffer", [](Resampler& r) { return r.MultiChannel_ResetBuffer(&r); }},
       {"SetParameter: output rate",
        [](Resampler& r) { return r.SetParameter(&r, KES_RESAMPLER_PARAM_OUT_RATE, 48000); }},
       {"SetParameter: others", [](Resampler& r) { return r.SetParameter(&r, KES_RESAMPLER_PARAM_IN_RATE, 44100); }},
       {"GetParameter", [](Resampler& r) { return r.GetParameter(&r, KES_RESAMPLER_PARAM_OUT_RATE + 1); }},
       {"Close", [](Resampler& r) { return r.Close(&r); }}});

  using Bits = KesAudioBitConverterC;
  y = draw<Bits>(svg, y, "Bit converter", "InitKesAudioBitConverterC", InitKesAudioBitConverterC,
                 {{"Open", [](Bits& r) { return r.Open(&r, 48000, 2, KES_CONVERT_LIMITER); }},
                  {"Process", [&](Bits& r) { return fresh(), r.Process(&r, block, &in, made, &out); }},
                  {"Reset", [](Bits& r) { return r.Reset(&r); }},
                  {"SetParameter", [](Bits& r) { return r.SetParameter(&r, KES_BIT_PARAM_CHANNELS, 2); }},
                  {"GetParameter", [](Bits& r) { return r.GetParameter(&r, KES_BIT_PARAM_CHANNELS, nullptr); }},
                  {"Close", [](Bits& r) { return r.Close(&r); }}});
  return svg.finished(y - 16);
}

}  // namespace pictures
