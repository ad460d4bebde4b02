// SPDX-License-Identifier: Apache-2.0
#include "layout.h"

#include <fmt/ranges.h>
#include <sndfile.h>

#include <algorithm>
#include <bit>
#include <charconv>

#include "failure.h"

namespace kesconvert {
namespace {

// By bit of the mask.
constexpr const char* kPositionNames[] = {"FL", "FR", "FC", "LFE", "BL",  "BR",  "FLC", "FRC", "BC",
                                          "SL", "SR", "TC", "TFL", "TFC", "TFR", "TBL", "TBC", "TBR"};
// clang-format off
constexpr int kMapIds[] = {
    SF_CHANNEL_MAP_LEFT, SF_CHANNEL_MAP_RIGHT, SF_CHANNEL_MAP_CENTER, SF_CHANNEL_MAP_LFE, SF_CHANNEL_MAP_REAR_LEFT,
    SF_CHANNEL_MAP_REAR_RIGHT, SF_CHANNEL_MAP_FRONT_LEFT_OF_CENTER, SF_CHANNEL_MAP_FRONT_RIGHT_OF_CENTER,
    SF_CHANNEL_MAP_REAR_CENTER, SF_CHANNEL_MAP_SIDE_LEFT, SF_CHANNEL_MAP_SIDE_RIGHT, SF_CHANNEL_MAP_TOP_CENTER,
    SF_CHANNEL_MAP_TOP_FRONT_LEFT, SF_CHANNEL_MAP_TOP_FRONT_CENTER, SF_CHANNEL_MAP_TOP_FRONT_RIGHT,
    SF_CHANNEL_MAP_TOP_REAR_LEFT, SF_CHANNEL_MAP_TOP_REAR_CENTER, SF_CHANNEL_MAP_TOP_REAR_RIGHT};
// clang-format on
constexpr unsigned kPositions = std::size(kMapIds);

constexpr ChannelMask kMono = 0x4;

struct NamedLayout {
  const char* name;
  ChannelMask mask;
};
constexpr NamedLayout kLayouts[] = {
    {"mono", kMono},     {"stereo", 0x3},     {"2.1", 0xB},         {"3.0", 0x7},
    {"3.0-back", 0x103}, {"quad", 0x33},      {"quad-side", 0x603}, {"4.0", 0x107},
    {"5.0", 0x37},       {"5.0-side", 0x607}, {"5.1", 0x3F},        {"5.1-side", kLayout5Point1Side},
    {"6.1", 0x13F},      {"6.1-side", 0x70F}, {"7.1", 0x63F},       {"none", KES_LAYOUT_NONE}};

// The entries of a table for the positions of a layout, in channel order.
template <class Entry>
std::vector<Entry> select(ChannelMask layout, const Entry (&table)[kPositions]) {
  std::vector<Entry> entries;
  for (unsigned bit = 0; bit < kPositions; ++bit)
    if (layout >> bit & 1) entries.push_back(table[bit]);
  return entries;
}

}  // namespace

ChannelMask parseLayout(const std::string& text) {
  for (const NamedLayout& layout : kLayouts)
    if (text == layout.name) return layout.mask;
  ChannelMask mask = 0;
  const char* end = text.data() + text.size();
  const auto [parsed, error] = std::from_chars(text.data() + std::min<std::size_t>(2, text.size()), end, mask, 16);
  if (!text.starts_with("0x") || error != std::errc() || parsed != end || mask >> kPositions != 0)
    failUsage("--layout {} is unknown; use a mask like 0x3F or one of {}", text, layoutNames());
  return mask;
}

std::string layoutNames() {
  std::vector<const char*> names;
  for (const NamedLayout& layout : kLayouts) names.push_back(layout.name);
  return fmt::format("{}", fmt::join(names, ", "));
}

std::string describe(ChannelMask layout) {
  if (layout == KES_LAYOUT_NONE) return "unknown";
  const auto named = std::ranges::find(kLayouts, layout, &NamedLayout::mask);
  return fmt::format("{} ({}, 0x{:X})", named != std::end(kLayouts) ? named->name : "nameless",
                     fmt::join(select(layout, kPositionNames), " "), layout);
}

unsigned positions(ChannelMask layout) { return static_cast<unsigned>(std::popcount(layout)); }

ChannelMask firstPositions(ChannelMask layout, unsigned channels) {
  while (positions(layout) > channels) layout &= ~std::bit_floor(layout);
  return layout;
}

ChannelMask standardLayout(unsigned channels) {
  constexpr ChannelMask kStandard[] = {0, kMono, 0x3, 0x7, 0x33, 0x37, 0x3F, 0x13F, 0x63F};
  return channels < std::size(kStandard) ? kStandard[channels] : ChannelMask{KES_LAYOUT_NONE};
}

ChannelMask flacLayout(unsigned channels) { return channels == 7 ? 0x70F : standardLayout(channels); }

const char* vorbisOrder(unsigned channels) {
  constexpr const char* kOrders[] = {"", "", "", "021", "", "02134", "021534", "0216534", "02175634"};
  return channels < std::size(kOrders) ? kOrders[channels] : "";
}

ChannelMask layoutOfChannelMap(const std::vector<int>& map) {
  if (map == std::vector<int>{SF_CHANNEL_MAP_MONO}) return kMono;
  ChannelMask layout = 0;
  for (const int id : map) {
    if (id == SF_CHANNEL_MAP_INVALID) break;  // the file places fewer channels than it has
    const auto found = std::ranges::find(kMapIds, id);
    if (found == std::end(kMapIds) || layout >> (found - kMapIds) != 0) return KES_LAYOUT_NONE;
    layout |= ChannelMask{1} << (found - kMapIds);
  }
  return layout;
}

std::vector<int> channelMapOfLayout(ChannelMask layout) { return select(layout, kMapIds); }

}  // namespace kesconvert
