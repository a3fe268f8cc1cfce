// Counts the heap allocations of the whole process, so that every benchmark row can report
// how many its call makes. Kept in a file of its own so that the replaced operators are never
// inlined into code that could be checked against the standard ones.
#include <atomic>
#include <cstdlib>
#include <new>

#include "alloc_count.h"

namespace {
std::atomic<long> g_allocations{0};
}  // namespace

long allocations() {
    return g_allocations.load(std::memory_order_relaxed);
}

void* operator new(std::size_t n) {
    g_allocations.fetch_add(1, std::memory_order_relaxed);
    if (void* p = std::malloc(n == 0 ? 1 : n)) return p;
    throw std::bad_alloc();
}
void* operator new[](std::size_t n) {
    return operator new(n);
}
void operator delete(void* p) noexcept {
    std::free(p);
}
void operator delete(void* p, std::size_t) noexcept {
    std::free(p);
}
void operator delete[](void* p) noexcept {
    std::free(p);
}
void operator delete[](void* p, std::size_t) noexcept {
    std::free(p);
}
