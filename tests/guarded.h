// SPDX-License-Identifier: Apache-2.0
// Memory between two pages that can't be touched: a byte read or written past either end ends the test program.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>

class Guarded {
 public:
  static constexpr uint8_t kMarker = 0xA5;

  explicit Guarded(size_t capacity) {
    const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    bytes_ = (capacity + page - 1) / page * page;
    void* map = mmap(nullptr, bytes_ + 2 * page, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (map == MAP_FAILED) std::abort();
    begin_ = static_cast<uint8_t*>(map) + page;
    if (mprotect(begin_, bytes_, PROT_READ | PROT_WRITE) != 0) std::abort();
  }
  Guarded(const Guarded&) = delete;

  // The first `used` bytes behind the lower guard, or the last before the upper one, and `gap` bytes away from it.
  uint8_t* place(size_t used, bool low, size_t gap = 0) {
    at_ = low ? begin_ + gap : begin_ + bytes_ - used - gap;
    used_ = used;
    std::memset(windowBegin(), kMarker, windowBytes());
    return at_;
  }

  // Whether the bytes around the placed ones (up to 64 on each side) are as they were.
  bool surroundingsIntact() const {
    for (const uint8_t* p = windowBegin(); p < windowBegin() + windowBytes(); ++p)
      if ((p < at_ || p >= at_ + used_) && *p != kMarker) return false;
    return true;
  }

 private:
  uint8_t* windowBegin() const { return at_ - begin_ < 64 ? begin_ : at_ - 64; }
  size_t windowBytes() const {
    uint8_t* end = at_ + used_ + 64 < begin_ + bytes_ ? at_ + used_ + 64 : begin_ + bytes_;
    return static_cast<size_t>(end - windowBegin());
  }

  uint8_t* begin_ = nullptr;
  size_t bytes_ = 0;
  uint8_t* at_ = nullptr;
  size_t used_ = 0;
};
