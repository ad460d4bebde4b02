// SPDX-License-Identifier: Apache-2.0
// The layouts: the bits of each mask, and the frame that they make.
#include <bit>

#include "pictures.h"
#include "svg.h"

namespace pictures {
namespace {

// Left, right and what both have, told apart by colour.
std::string_view side(std::string_view name) {
  return name.ends_with('L') ? "blue" : name.ends_with('R') ? "green" : name == "LFE" ? "grey" : "amber";
}

}  // namespace

std::string layouts() {
  constexpr int kMask = 246, kFrame = 542, kBit = 38, kCell = 38, kRow = 58;
  Svg svg("Channel order of the layouts with a stereo mix of their own",
          "A frame has one sample for each bit that is set in the mask, lowest bit first.");
  svg.text(kMask, 98, "bold", "mask, bit by bit");
  svg.text(kFrame, 98, "bold", "frame");
  int x = kMask;
  for (const Position& position : kPositions) {
    svg.text(x + kBit / 2 - 1, 120, "tiny muted middle", fmt::format("{}", std::countr_zero(position.bit)));
    x += kBit;
  }
  int y = 130;
  for (const auto& [mask, constant] : kLayouts) {
    svg.text(kMargin, y + 14, "bold mono", fmt::format("0x{:X}", mask));
    svg.text(kMargin, y + 31, "small mono muted", constant);
    x = kMask;
    for (const auto& [bit, name] : kPositions) {
      svg.rect(x, y, kBit - 2, 32, mask & bit ? side(name) : "hair", 3);
      svg.text(x + kBit / 2 - 1, y + 21, mask & bit ? "small middle" : "small muted middle", mask & bit ? name : "·");
      x += kBit;
    }
    x = kFrame;
    for (const std::string& name : frameOf(mask)) {
      svg.rect(x, y, kCell, 32, fmt::format("edge {}", side(name)));
      svg.text(x + kCell / 2, y + 21, "small middle", name);
      svg.text(x + kCell / 2, y + 46, "tiny mono muted middle", fmt::format("s{}", (x - kFrame) / kCell));
      x += kCell;
    }
    y += kRow;
  }
  return svg.finished(y + 14);
}

}  // namespace pictures
