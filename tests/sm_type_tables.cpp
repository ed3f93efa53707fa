// The bundle's type tables, compiled once into the test program as a private copy, so that tests
// can walk the same fields, offsets and variants that the generic operations walk.
#include "ovrin_sm_internal/tables.inc"

// This copy's types point at a context of their own: nothing here runs the engine on them (the
// library runs on its own copy).
const ovrin::Bundle ovrin::bundle{};
