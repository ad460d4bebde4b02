// SPDX-License-Identifier: Apache-2.0
// Memory between two pages that can't be touched: a byte read or written past either end ends the test program. The
// address sanitizer watches over blocks of the heap more closely, and gets one of the exact size.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <memory>

#ifdef __has_feature
#define KESAUDIO_EXACT __has_feature(address_sanitizer)
#endif

#if KESAUDIO_EXACT
class Guarded {
 public:
  static constexpr uint8_t kMarker = 0xA5;

  explicit Guarded(size_t) {}
  uint8_t* place(size_t used, bool, size_t gap = 0) {
    block_.reset(new uint8_t[gap + used]);
    std::fill_n(block_.get(), gap + used, kMarker);
    gap_ = gap;
    return block_.get() + gap;
  }
  bool surroundingsIntact() const {
    return std::all_of(block_.get(), block_.get() + gap_, [](uint8_t byte) { return byte == kMarker; });
  }

 private:
  std::unique_ptr<uint8_t[]> block_;
  size_t gap_ = 0;
};
#else
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
#endif
