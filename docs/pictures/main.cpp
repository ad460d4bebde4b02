// SPDX-License-Identifier: Apache-2.0
// kesaudio_pictures FOLDER [KEPT]: draws every picture into FOLDER, and fails when one is not the one in KEPT.
#include <fmt/format.h>

#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "pictures.h"

int main(int argc, char** argv) try {
  if (argc != 2 && argc != 3) {
    fmt::print(stderr, "usage: kesaudio_pictures FOLDER [KEPT]\n");
    return 2;
  }
  constexpr struct {
    const char* name;
    std::string (*draw)();
  } kPictures[] = {{"formats", pictures::formats},
                   {"layouts", pictures::layouts},
                   {"mixes", pictures::mixes},
                   {"states", pictures::states},
                   {"first_block", pictures::firstBlock}};
  bool same = true;
  for (const auto& [name, draw] : kPictures) {
    const std::string file = fmt::format("{}.svg", name), svg = draw();
    std::ofstream out(std::filesystem::path(argv[1]) / file, std::ios::binary);
    if (!(out << svg).flush()) throw std::runtime_error(fmt::format("{}/{} cannot be written", argv[1], file));
    if (argc == 2) continue;
    std::ifstream in(std::filesystem::path(argv[2]) / file, std::ios::binary);
    if (std::string(std::istreambuf_iterator<char>(in), {}) == svg) continue;
    fmt::print(stderr, "{}/{} is not what the library does now; to renew it: {} {}\n", argv[2], file, argv[0],
               argv[2]);
    same = false;
  }
  return same ? 0 : 1;
} catch (const std::exception& error) {
  fmt::print(stderr, "kesaudio_pictures: {}\n", error.what());
  return 1;
}
