// The bundle's type tables, compiled into the seed writer as its private copy, so that tests
// can walk the same fields, offsets and variants that the generic operations walk.
#include "ovrin_sm_internal/tables.inc"

// This copy's context names its types for the tests; nothing here runs the engine on them (the
// library runs on its own copy), so it needs no registration or trace.
const ovrin::Bundle ovrin::bundle = {
    .domain = "ovrin_sm",
    .type_count = ovrin::table::type_count,
    .types = ovrin::table::all,
    .register_types = nullptr,
    .trace_init = nullptr,
    .trace_table = nullptr,
    .trace_module = nullptr,
    .traced_once = nullptr,
};
