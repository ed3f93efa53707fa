// The C++ heap of a fuzz target, counted: every operator new and delete goes through malloc and
// free, and the bytes held (as the allocator sized the blocks) are summed, with their peak since
// the last fuzz::heap::start(). The readers of library and trace files hold what they read in
// vectors and strings, so this is what they allocate.
#include <malloc.h>

#include <cstdlib>
#include <new>

#include "fuzz/fuzz_files.h"

namespace {

size_t held = 0, start_held = 0, peak_held = 0;

void *take(size_t n) {
    void *p = std::malloc(n ? n : 1);
    if (p) {
        held += malloc_usable_size(p);
        if (held > peak_held) peak_held = held;
    }
    return p;
}

void *take_aligned(size_t n, std::align_val_t a) {
    size_t align = static_cast<size_t>(a);
    void *p = std::aligned_alloc(align, (n + align - 1) / align * align);
    if (p) {
        held += malloc_usable_size(p);
        if (held > peak_held) peak_held = held;
    }
    return p;
}

void give(void *p) {
    if (!p) return;
    held -= malloc_usable_size(p);
    std::free(p);
}

} // namespace

void fuzz::heap::start() { start_held = peak_held = held; }
size_t fuzz::heap::peak() { return peak_held - start_held; }

void *operator new(size_t n) {
    if (void *p = take(n)) return p;
    throw std::bad_alloc();
}
void *operator new[](size_t n) {
    if (void *p = take(n)) return p;
    throw std::bad_alloc();
}
void *operator new(size_t n, const std::nothrow_t &) noexcept { return take(n); }
void *operator new[](size_t n, const std::nothrow_t &) noexcept { return take(n); }
void *operator new(size_t n, std::align_val_t a) {
    if (void *p = take_aligned(n, a)) return p;
    throw std::bad_alloc();
}
void *operator new[](size_t n, std::align_val_t a) {
    if (void *p = take_aligned(n, a)) return p;
    throw std::bad_alloc();
}
void *operator new(size_t n, std::align_val_t a, const std::nothrow_t &) noexcept { return take_aligned(n, a); }
void *operator new[](size_t n, std::align_val_t a, const std::nothrow_t &) noexcept { return take_aligned(n, a); }

void operator delete(void *p) noexcept { give(p); }
void operator delete[](void *p) noexcept { give(p); }
void operator delete(void *p, size_t) noexcept { give(p); }
void operator delete[](void *p, size_t) noexcept { give(p); }
void operator delete(void *p, const std::nothrow_t &) noexcept { give(p); }
void operator delete[](void *p, const std::nothrow_t &) noexcept { give(p); }
void operator delete(void *p, std::align_val_t) noexcept { give(p); }
void operator delete[](void *p, std::align_val_t) noexcept { give(p); }
void operator delete(void *p, size_t, std::align_val_t) noexcept { give(p); }
void operator delete[](void *p, size_t, std::align_val_t) noexcept { give(p); }
void operator delete(void *p, std::align_val_t, const std::nothrow_t &) noexcept { give(p); }
void operator delete[](void *p, std::align_val_t, const std::nothrow_t &) noexcept { give(p); }
