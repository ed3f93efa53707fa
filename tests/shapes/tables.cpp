// The second catalogue's type tables, compiled once into the test program as a private copy, so that tests
// can walk the same fields, offsets and variants that the generic operations walk.
#include "shapes_internal/tables.inc"

// This copy's context names its types for the tests; nothing here runs the engine on them (the
// library runs on its own copy), so it needs no registration or trace.
const ovrin::Bundle ovrin::bundle = {
    .domain = "shapes",
    .type_count = ovrin::table::type_count,
    .types = ovrin::table::all,
    .register_types = nullptr,
    .trace_init = nullptr,
    .trace_table = nullptr,
    .trace_module = nullptr,
    .traced_once = nullptr,
};
