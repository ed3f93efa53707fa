// Test support: fills any instance of any type with distinct, valid values, walking the same type
// tables as the generic operations, so that round trips can be checked for every type.
#ifndef OVRIN_TESTS_SM_FILL_H
#define OVRIN_TESTS_SM_FILL_H

#include <string>
#include <vector>

#include "mgx/runtime.h"
#include "ops/types.h"

namespace ovrin {
// The bundle under test, as the test program's private copy of its type tables describes it
// (tests/sm_type_tables.cpp, or the second catalogue's tests/shapes/tables.cpp).
extern const Bundle bundle;
} // namespace ovrin

namespace testfill {

// Every field present at the instance's variant gets a value derived from seed; strings,
// variable arrays (2 elements) and the union member selected by `arm` (an index among the union's
// members, taken modulo their count) are allocated through the handle. With every_arm, every
// member of every union is filled and the first one selected.
constexpr unsigned every_arm = ~0u;
void fill(const ovrin::Type &t, mgx_handle_t *h, void *instance, unsigned seed, unsigned arm = 0);

// The 79 types in registration order, and one by name.
const std::vector<const ovrin::Type *> &types();
const ovrin::Type &type(const std::string &name);

// The exported operation `<type>_<op>`, looked up by name; the second as a function of type Fn.
void *op(const ovrin::Type &t, const char *name);
template <class Fn> Fn op(const ovrin::Type &t, const char *name) { return reinterpret_cast<Fn>(op(t, name)); }
void *create(const ovrin::Type &t, mgx_handle_t *h);

uint32_t members(const ovrin::Type &t); // union members

} // namespace testfill

#endif
