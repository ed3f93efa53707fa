// Counting, failable replacements of every form of the global operator new and delete. They are
// kept out of line: inlined beside a new-expression, the frees would look mismatched to GCC.
#include "tests/sm_heap.h"

#include <malloc.h>

#include <atomic>
#include <cstdlib>
#include <new>

namespace {

std::atomic<uint64_t> count{0};
std::atomic<uint64_t> fail_on{0}; // the value of count at which an allocation fails; 0 = never
std::atomic<bool> failed{false};
std::atomic<size_t> held{0}, start_held{0}, peak_held{0};

// The allocation, or null when this is the one to fail.
void *take(std::size_t size) {
    uint64_t n = count.fetch_add(1, std::memory_order_relaxed) + 1;
    if (n == fail_on.load(std::memory_order_relaxed)) {
        failed.store(true, std::memory_order_relaxed);
        return nullptr;
    }
    void *p = std::malloc(size ? size : 1);
    if (p) {
        size_t now = held.fetch_add(malloc_usable_size(p), std::memory_order_relaxed) + malloc_usable_size(p);
        size_t peak = peak_held.load(std::memory_order_relaxed);
        while (now > peak && !peak_held.compare_exchange_weak(peak, now, std::memory_order_relaxed)) {
        }
    }
    return p;
}

void give(void *p) {
    if (!p) return;
    held.fetch_sub(malloc_usable_size(p), std::memory_order_relaxed);
    std::free(p);
}

} // namespace

namespace heap {
uint64_t allocations() { return count.load(std::memory_order_relaxed); }
void fail_at(uint64_t nth) {
    failed.store(false, std::memory_order_relaxed);
    fail_on.store(nth ? count.load(std::memory_order_relaxed) + nth : 0, std::memory_order_relaxed);
}
bool fired() { return failed.load(std::memory_order_relaxed); }
void start() { start_held = peak_held = held.load(); }
size_t peak() { return peak_held - start_held; }
} // namespace heap

[[gnu::noinline]] void *operator new(std::size_t size) {
    if (void *p = take(size)) return p;
    throw std::bad_alloc();
}
[[gnu::noinline]] void *operator new[](std::size_t size) { return operator new(size); }
[[gnu::noinline]] void *operator new(std::size_t size, const std::nothrow_t &) noexcept { return take(size); }
[[gnu::noinline]] void *operator new[](std::size_t size, const std::nothrow_t &) noexcept { return take(size); }
[[gnu::noinline]] void operator delete(void *p) noexcept { give(p); }
[[gnu::noinline]] void operator delete(void *p, std::size_t) noexcept { give(p); }
[[gnu::noinline]] void operator delete(void *p, const std::nothrow_t &) noexcept { give(p); }
[[gnu::noinline]] void operator delete[](void *p) noexcept { give(p); }
[[gnu::noinline]] void operator delete[](void *p, std::size_t) noexcept { give(p); }
[[gnu::noinline]] void operator delete[](void *p, const std::nothrow_t &) noexcept { give(p); }
