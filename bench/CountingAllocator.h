#pragma once
// Allocation counting for the benchmarks: replaces the global operator new and delete so that a
// benchmark can read the live bytes (usable size of each block) and the number of allocations.
// Include it in exactly one source of a benchmark program.

#include <malloc.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <new>

// ---- allocation counting ------------------------------------------------------------------------
// Every block's usable size is added on allocation and taken off on release; the benchmark runs on
// one thread, so plain counters do.

namespace {
std::size_t gLiveBytes = 0;
std::uint64_t gAllocations = 0;

void* countedAlloc(std::size_t n, std::size_t align) noexcept {
  void* p =
      align <= alignof(std::max_align_t)
          ? std::malloc(n ? n : 1)
          : std::aligned_alloc(align, (std::max<std::size_t>(n, 1) + align - 1) / align * align);
  if (p) {
    gLiveBytes += malloc_usable_size(p);
    ++gAllocations;
  }
  return p;
}
void* countedAllocOrThrow(std::size_t n, std::size_t align) {
  void* p = countedAlloc(n, align);
  if (!p) throw std::bad_alloc();
  return p;
}
void countedFree(void* p) noexcept {
  if (!p) return;
  gLiveBytes -= malloc_usable_size(p);
  std::free(p);
}
constexpr std::size_t kPlain = alignof(std::max_align_t);
}  // namespace

void* operator new(std::size_t n) { return countedAllocOrThrow(n, kPlain); }
void* operator new[](std::size_t n) { return countedAllocOrThrow(n, kPlain); }
void* operator new(std::size_t n, const std::nothrow_t&) noexcept {
  return countedAlloc(n, kPlain);
}
void* operator new[](std::size_t n, const std::nothrow_t&) noexcept {
  return countedAlloc(n, kPlain);
}
void* operator new(std::size_t n, std::align_val_t a) {
  return countedAllocOrThrow(n, static_cast<std::size_t>(a));
}
void* operator new[](std::size_t n, std::align_val_t a) {
  return countedAllocOrThrow(n, static_cast<std::size_t>(a));
}
void* operator new(std::size_t n, std::align_val_t a, const std::nothrow_t&) noexcept {
  return countedAlloc(n, static_cast<std::size_t>(a));
}
void* operator new[](std::size_t n, std::align_val_t a, const std::nothrow_t&) noexcept {
  return countedAlloc(n, static_cast<std::size_t>(a));
}
void operator delete(void* p) noexcept { countedFree(p); }
void operator delete[](void* p) noexcept { countedFree(p); }
void operator delete(void* p, std::size_t) noexcept { countedFree(p); }
void operator delete[](void* p, std::size_t) noexcept { countedFree(p); }
void operator delete(void* p, const std::nothrow_t&) noexcept { countedFree(p); }
void operator delete[](void* p, const std::nothrow_t&) noexcept { countedFree(p); }
void operator delete(void* p, std::align_val_t) noexcept { countedFree(p); }
void operator delete[](void* p, std::align_val_t) noexcept { countedFree(p); }
void operator delete(void* p, std::size_t, std::align_val_t) noexcept { countedFree(p); }
void operator delete[](void* p, std::size_t, std::align_val_t) noexcept { countedFree(p); }
void operator delete(void* p, std::align_val_t, const std::nothrow_t&) noexcept { countedFree(p); }
void operator delete[](void* p, std::align_val_t, const std::nothrow_t&) noexcept {
  countedFree(p);
}
