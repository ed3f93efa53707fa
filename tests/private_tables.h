// A test program's private copy of a bundle's type tables (included after that bundle's
// tables.inc) names its types through a bundle context of its own; nothing here runs the engine
// on them (the library runs on its own copy), so it needs no registration or trace.
#ifndef OVRIN_TESTS_PRIVATE_TABLES_H
#define OVRIN_TESTS_PRIVATE_TABLES_H

#define OVRIN_PRIVATE_BUNDLE(domain_name)                                                                                        \
    const ovrin::Bundle ovrin::bundle = {                                                                                        \
        .domain = domain_name,                                                                                                   \
        .type_count = ovrin::table::type_count,                                                                                  \
        .types = ovrin::table::all,                                                                                              \
        .register_types = nullptr,                                                                                               \
        .trace_init = nullptr,                                                                                                   \
        .trace_table = nullptr,                                                                                                  \
        .trace_module = nullptr,                                                                                                 \
        .traced_once = nullptr,                                                                                                  \
        .code = nullptr,                                                                                                         \
    };

#endif
