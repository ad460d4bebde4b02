// SPDX-License-Identifier: Apache-2.0
// A picture of 800 pixels' width: shapes and words at whole pixels. It brings its own ground, so that it reads on
// light and dark pages alike; its text is text, in the reader's own fonts.
#pragma once

#include <fmt/format.h>

#include <stdexcept>
#include <string>
#include <string_view>

namespace pictures {

inline constexpr int kWidth = 800, kMargin = 32;

// The looks, by the names that shapes and words carry.
inline constexpr std::string_view kStyle = R"(
text { font: 13px system-ui, 'Segoe UI', Roboto, 'Helvetica Neue', Arial, sans-serif; fill: #1f2933 }
.title { font-size: 20px; font-weight: 600 } .bold { font-weight: 600 } .muted { fill: #5b6570 } .bad { fill: #a8281c }
.small { font-size: 12px } .tiny { font-size: 11px } .middle { text-anchor: middle } .end { text-anchor: end }
.mono { font-family: ui-monospace, Menlo, Consolas, 'DejaVu Sans Mono', monospace }
.ground { fill: #fcfcfa; stroke: #d5d7d3 } .line { fill: none; stroke: #5b6570; stroke-width: 1.5 }
.hair { fill: none; stroke: #c3c8cd } .dash { stroke-dasharray: 3 3 } .edge { stroke: #fcfcfa }
.blue { fill: #cfe2f6 } .amber { fill: #fadfb5 } .red { fill: #f6c6c0 } .grey { fill: #e6e8ea } .green { fill: #cdead5 }
.wave { fill: none; stroke: #1f5f9f; stroke-width: 20 } .made { stroke: #2f7d4f } .arrow { fill: none; stroke: #1f5f9f; stroke-width: 2 }
.head { fill: #1f5f9f })";

class Svg {
 public:
  Svg(std::string_view title, std::string_view about) : title_(escaped(title)) {
    text(kMargin, 42, "title", title);
    text(kMargin, 64, "muted", about);
  }

  void text(int x, int y, std::string_view look, std::string_view words) {
    add(R"(<text x="{}" y="{}" class="{}">{}</text>)", x, y, look, escaped(words));
  }
  void rect(int x, int y, int width, int height, std::string_view look, int radius = 0) {
    add(R"(<rect x="{}" y="{}" width="{}" height="{}" rx="{}" class="{}"/>)", x, y, width, height, radius, look);
  }
  void line(int x1, int y1, int x2, int y2, std::string_view look) {
    add(R"(<path d="M{} {}L{} {}" class="{}"/>)", x1, y1, x2, y2, look);
  }
  void path(std::string_view points, std::string_view look) { add(R"(<path d="{}" class="{}"/>)", points, look); }
  // In tenths of a pixel, joined by lines.
  void wave(std::string_view points, std::string_view look) {
    add(R"svg(<polyline transform="scale(.1)" points="{}" class="wave {}"/>)svg", points, look);
  }

  // An arrow's point at (x, y), towards dx, dy: one of them 1 or -1, the other 0.
  void head(int x, int y, int dx, int dy) {
    path(fmt::format("M{} {}l{} {}l{} {}z", x, y, -9 * dx - 5 * dy, -9 * dy - 5 * dx, 10 * dy, 10 * dx), "head");
  }

  // A key: a sample of each look beside its meaning. Returns where the next would begin.
  int key(int x, int y, std::string_view look, std::string_view words) {
    rect(x, y - 11, 14, 14, look, 2);
    text(x + 21, y, "small", words);
    return x + 45 + 6 * static_cast<int>(words.size());
  }

  std::string finished(int height) const {
    return fmt::format(
        R"(<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {0} {1}" width="{0}" height="{1}" role="img">
<title>{2}</title>
<style>{3}
</style>
<rect x="0.5" y="0.5" width="{4}" height="{5}" rx="10" class="ground"/>
{6}</svg>
)",
        kWidth, height, title_, kStyle, kWidth - 1, height - 1, body_);
  }

 private:
  template <class... Args>
  void add(fmt::format_string<const Args&...> element, const Args&... args) {
    body_ += fmt::format(element, args...) + "\n";
  }

  static std::string escaped(std::string_view words) {
    std::string text;
    for (const char c : words) {
      if (c == '<' || c == '&')
        text += c == '<' ? "&lt;" : "&amp;";
      else
        text += c;
    }
    return text;
  }

  std::string title_, body_;
};

// What a picture says must be what the library does.
inline void require(bool holds, std::string_view what) {
  if (!holds) throw std::runtime_error(std::string(what));
}

}  // namespace pictures
