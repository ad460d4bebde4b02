// SPDX-License-Identifier: Apache-2.0
// The pictures of the documents. Each is drawn from what the library itself does when it is called, and is the same
// byte for byte on every machine: whole pixels, whole numbers.
#pragma once

#include <kesaudio/types.h>

#include <string>
#include <vector>

namespace pictures {

std::string formats();
std::string layouts();
std::string mixes();
std::string states();
std::string firstBlock();

// The channel positions, and the layouts that have a stereo mix of their own.
struct Position {
  ChannelMask bit;
  const char* name;
};
inline constexpr Position kPositions[] = {{KES_CHANNEL_FRONT_LEFT, "FL"},   {KES_CHANNEL_FRONT_RIGHT, "FR"},
                                          {KES_CHANNEL_FRONT_CENTER, "FC"}, {KES_CHANNEL_LOW_FREQUENCY, "LFE"},
                                          {KES_CHANNEL_BACK_LEFT, "BL"},    {KES_CHANNEL_BACK_RIGHT, "BR"},
                                          {KES_CHANNEL_BACK_CENTER, "BC"}};

struct Layout {
  ChannelMask mask;
  const char* constant;
};
inline constexpr Layout kLayouts[] = {{KES_LAYOUT_FRONT, "KES_LAYOUT_FRONT"},
                                      {KES_LAYOUT_2POINT1, "KES_LAYOUT_2POINT1"},
                                      {KES_LAYOUT_STEREO_BACK, "KES_LAYOUT_STEREO_BACK"},
                                      {KES_LAYOUT_QUAD, "KES_LAYOUT_QUAD"},
                                      {KES_LAYOUT_5POINT1, "KES_LAYOUT_5POINT1"}};

// The names of a frame's channels, in their order.
inline std::vector<std::string> frameOf(ChannelMask mask) {
  std::vector<std::string> names;
  for (const Position& position : kPositions)
    if (mask & position.bit) names.emplace_back(position.name);
  return names;
}

}  // namespace pictures
