// SPDX-License-Identifier: MIT
//
// Cache lines: vectors whose elements start on one, as the vector loops like it, and asking
// for lines ahead.

#pragma once

#include <algorithm>
#include <cstddef>
#include <new>
#include <vector>

namespace QuenloftSolver {

inline constexpr std::size_t kCacheLine = 64;

// Asks for the cache lines of the `bytes` at `begin`, to be read later.
inline void FetchLines(const void* begin, std::size_t bytes) {
  for (std::size_t byte = 0; byte < bytes; byte += kCacheLine) {
    __builtin_prefetch(static_cast<const char*>(begin) + byte);
    // g++ takes a function that does nothing else for one without effect, and drops the
    // calls of it.
    __asm__ volatile("");
  }
}

// What stands `distance` places behind the i-th of some items, or the last of them: to be fetched
// in a loop over items that may stand anywhere in memory.
template <typename Items>
const auto& Ahead(const Items& items, std::size_t i, std::size_t distance) {
  return items[std::min(i + distance, items.size() - 1)];
}

template <typename T>
struct CacheLineAllocator {
  using value_type = T;

  CacheLineAllocator() = default;
  template <typename U>
  CacheLineAllocator(const CacheLineAllocator<U>&) {}

  T* allocate(std::size_t count) {
    return static_cast<T*>(::operator new (count * sizeof(T), std::align_val_t{kCacheLine}));
  }
  void deallocate(T* memory, std::size_t) {
    ::operator delete (memory, std::align_val_t{kCacheLine});
  }

  template <typename U>
  bool operator==(const CacheLineAllocator<U>&) const {
    return true;
  }
  template <typename U>
  bool operator!=(const CacheLineAllocator<U>&) const {
    return false;
  }
};

template <typename T>
using AlignedVector = std::vector<T, CacheLineAllocator<T>>;

}  // namespace QuenloftSolver
