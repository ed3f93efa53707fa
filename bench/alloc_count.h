// Heap allocations made through the global operator new of this process (the benchmark binary
// replaces it), counted so that each benchmark can report allocations per operation for both
// sides: the protocol-buffer comparator allocates this way, and so do the C++ containers of the
// reference runtime.
#ifndef OVRIN_BENCH_ALLOC_COUNT_H
#define OVRIN_BENCH_ALLOC_COUNT_H

#include <cstdint>

namespace bench {

uint64_t heap_allocations();

} // namespace bench

#endif
