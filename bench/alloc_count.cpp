// Global operator new and delete that count, then use malloc and free (see alloc_count.h).
#include "bench/alloc_count.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace {

std::atomic<uint64_t> allocations{0};

void *counted(std::size_t size) {
    allocations.fetch_add(1, std::memory_order_relaxed);
    if (void *p = std::malloc(size ? size : 1)) return p;
    throw std::bad_alloc();
}

void *counted_aligned(std::size_t size, std::align_val_t align) {
    allocations.fetch_add(1, std::memory_order_relaxed);
    std::size_t a = static_cast<std::size_t>(align);
    if (void *p = std::aligned_alloc(a, (size + a - 1) / a * a)) return p;
    throw std::bad_alloc();
}

} // namespace

namespace bench {
uint64_t heap_allocations() { return allocations.load(std::memory_order_relaxed); }
} // namespace bench

void *operator new(std::size_t size) { return counted(size); }
void *operator new[](std::size_t size) { return counted(size); }
void *operator new(std::size_t size, const std::nothrow_t &) noexcept {
    try {
        return counted(size);
    } catch (...) {
        return nullptr;
    }
}
void *operator new[](std::size_t size, const std::nothrow_t &t) noexcept { return operator new(size, t); }
void *operator new(std::size_t size, std::align_val_t a) { return counted_aligned(size, a); }
void *operator new[](std::size_t size, std::align_val_t a) { return counted_aligned(size, a); }
void operator delete(void *p) noexcept { std::free(p); }
void operator delete[](void *p) noexcept { std::free(p); }
void operator delete(void *p, std::size_t) noexcept { std::free(p); }
void operator delete[](void *p, std::size_t) noexcept { std::free(p); }
void operator delete(void *p, std::align_val_t) noexcept { std::free(p); }
void operator delete[](void *p, std::align_val_t) noexcept { std::free(p); }
void operator delete(void *p, std::size_t, std::align_val_t) noexcept { std::free(p); }
void operator delete[](void *p, std::size_t, std::align_val_t) noexcept { std::free(p); }
