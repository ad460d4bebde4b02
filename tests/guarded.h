// SPDX-License-Identifier: Apache-2.0
// Memory between two pages that can't be touched: a byte read or written past either end ends the test program.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>

class Guarded {
 public:
  static constexpr uint8_t kMarker = 0xA5;

  explicit Guarded(size_t capacity) {
    const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    capacity = (capacity / page + 1) * page;
    void* map = mmap(nullptr, capacity + 2 * page, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    begin_ = static_cast<uint8_t*>(map) + page;
    end_ = begin_ + capacity;
    if (map == MAP_FAILED || mprotect(begin_, capacity, PROT_READ | PROT_WRITE) != 0) std::abort();
  }

  // `used` bytes, `gap` bytes behind the lower guard or before the upper one; marked, as up to 64 bytes around them.
  uint8_t* place(size_t used, bool low, size_t gap = 0) {
    at_ = low ? begin_ + gap : end_ - used - gap;
    atEnd_ = at_ + used;
    std::fill(windowBegin(), windowEnd(), kMarker);
    return at_;
  }
  bool surroundingsIntact() const {
    auto marked = [](uint8_t byte) { return byte == kMarker; };
    return std::all_of(windowBegin(), at_, marked) && std::all_of(atEnd_, windowEnd(), marked);
  }

 private:
  uint8_t* windowBegin() const { return at_ - std::min<ptrdiff_t>(at_ - begin_, 64); }
  uint8_t* windowEnd() const { return atEnd_ + std::min<ptrdiff_t>(end_ - atEnd_, 64); }

  uint8_t *begin_, *end_, *at_ = nullptr, *atEnd_ = nullptr;
};
