// The bundle's type tables, compiled into the seed writer as its private copy.
#include "ovrin_sm_internal/tables.inc"

// This copy's types point at a context of their own: nothing here runs the engine on them (the
// library runs on its own copy).
const ovrin::Bundle ovrin::bundle{};
