// SPDX-License-Identifier: Apache-2.0
// Pseudo-random numbers that are the same on every machine.
#pragma once

#include <cstdint>
#include <random>

class Random {
 public:
  explicit Random(uint32_t seed) : engine_(seed) {}
  uint32_t word() { return static_cast<uint32_t>(engine_()); }
  uint8_t byte() { return static_cast<uint8_t>(engine_()); }
  uint32_t below(uint32_t limit) { return word() % limit; }
  int32_t between(int32_t low, int32_t high) {
    return low + static_cast<int32_t>(below(static_cast<uint32_t>(high - low + 1)));
  }
  bool oneIn(uint32_t chances) { return below(chances) == 0; }
  template <class T, size_t kCount>
  T from(const T (&values)[kCount]) {
    return values[below(kCount)];
  }

 private:
  std::mt19937 engine_;
};
