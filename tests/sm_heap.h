// The test binary's own operator new and delete: they count every C++ allocation made in the
// process (the runtime's and the bundle's included) and can be told to fail one of them.
#ifndef OVRIN_TESTS_SM_HEAP_H
#define OVRIN_TESTS_SM_HEAP_H

#include <cstdint>

namespace heap {

uint64_t allocations(); // operator new calls so far, of every form
// The nth operator new call from now fails (1 = the next): the throwing forms throw
// std::bad_alloc, the nothrow forms return null. 0 disarms.
void fail_at(uint64_t nth);
bool fired(); // whether the armed failure has happened

} // namespace heap

#endif
