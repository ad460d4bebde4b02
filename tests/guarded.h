// SPDX-License-Identifier: Apache-2.0
// Memory between two inaccessible pages: reading or writing a byte beyond either end ends the test program. Under the
// address sanitizer, so does touching the unused bytes around a block.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <memory>

// Null without the sanitizer.
extern "C" __attribute__((weak)) void __asan_poison_memory_region(const volatile void*, size_t);
extern "C" __attribute__((weak)) void __asan_unpoison_memory_region(const volatile void*, size_t);

class Guarded {
 public:
  static constexpr uint8_t kMarker = 0xA5;

  explicit Guarded(size_t capacity) {
    const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    capacity = (capacity / page + 1) * page;
    const size_t mapped = capacity + 2 * page;
    void* const map = mmap(nullptr, mapped, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    begin_ = static_cast<uint8_t*>(map) + page, end_ = at_ = atEnd_ = begin_ + capacity;
    if (map == MAP_FAILED || mprotect(begin_, capacity, PROT_READ | PROT_WRITE) != 0) std::abort();
    map_ = {map, [mapped](void* unused) {
              watch(unused, mapped, __asan_unpoison_memory_region);
              munmap(unused, mapped);
            }};
  }

  // Returns a block of `used` bytes, `gap` bytes above the lower guard page or below the upper one. The block and up
  // to 64 bytes around it are filled with kMarker.
  uint8_t* place(size_t used, bool low, size_t gap = 0) {
    const auto capacity = static_cast<size_t>(end_ - begin_);
    watch(begin_, capacity, __asan_unpoison_memory_region);
    at_ = low ? begin_ + gap : end_ - used - gap;
    atEnd_ = at_ + used;
    std::fill(windowBegin(), windowEnd(), kMarker);
    watch(begin_, capacity, __asan_poison_memory_region);
    watch(at_, used, __asan_unpoison_memory_region);
    return at_;
  }

  __attribute__((no_sanitize("address"))) bool surroundingsIntact() const {
    for (const uint8_t* at = windowBegin(); at != windowEnd(); ++at)
      if (*at != kMarker && (at < at_ || at >= atEnd_)) return false;
    return true;
  }

 private:
  static void watch(const void* from, size_t bytes, void (*change)(const volatile void*, size_t)) {
    if (change) change(from, bytes);
  }
  uint8_t* windowBegin() const { return at_ - std::min<ptrdiff_t>(at_ - begin_, 64); }
  uint8_t* windowEnd() const { return atEnd_ + std::min<ptrdiff_t>(end_ - atEnd_, 64); }

  std::shared_ptr<void> map_;
  uint8_t *begin_, *end_, *at_, *atEnd_;
};
