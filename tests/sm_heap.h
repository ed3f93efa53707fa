// The program's own operator new and delete: they count every C++ allocation made in the process
// (the runtime's and the bundle's included), can be told to fail one of them, and keep the most
// bytes held at once since a start, as the allocator sized the blocks.
#ifndef OVRIN_TESTS_SM_HEAP_H
#define OVRIN_TESTS_SM_HEAP_H

#include <cstddef>
#include <cstdint>

namespace heap {

uint64_t allocations(); // operator new calls so far, of every form
// The nth operator new call from now fails (1 = the next): the throwing forms throw
// std::bad_alloc, the nothrow forms return null. 0 disarms.
void fail_at(uint64_t nth);
bool fired(); // whether the armed failure has happened
// Starts a window: peak() then answers the most bytes held at once since, beyond what was held
// at the start.
void start();
size_t peak();

} // namespace heap

#endif
