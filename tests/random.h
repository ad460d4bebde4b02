// SPDX-License-Identifier: Apache-2.0
// Pseudo-random numbers, the same on every machine, or numbers from a fuzzer's bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <random>

class Random {
 public:
  explicit Random(uint32_t seed) : engine_(seed) {}
  // Each number takes the bytes that its range needs; once they are used up, it is pseudo-random.
  Random(const uint8_t* bytes, size_t count) : next_(bytes), end_(bytes + count) {}
  bool usedUp() const { return next_ == end_; }

  uint32_t word() { return drawn(UINT32_MAX); }
  uint8_t byte() { return static_cast<uint8_t>(drawn(UINT8_MAX)); }
  uint32_t below(uint32_t limit) { return drawn(limit - 1) % limit; }
  int32_t between(int32_t low, int32_t high) {
    return low + static_cast<int32_t>(below(static_cast<uint32_t>(high - low + 1)));
  }
  bool oneIn(uint32_t chances) { return below(chances) == 0; }
  template <class T, size_t kCount>
  T from(const T (&values)[kCount]) {
    return values[below(kCount)];
  }

 private:
  uint32_t drawn(uint32_t highest) {
    if (usedUp()) return static_cast<uint32_t>(engine_());
    uint32_t bits = 0;
    for (int at = 0; at < 32 && highest >> at != 0 && !usedUp(); at += 8) bits |= uint32_t{*next_++} << at;
    return bits;
  }

  const uint8_t *next_ = nullptr, *end_ = nullptr;
  std::mt19937 engine_;
};
