// The bundle's type tables, compiled into the tool as a private copy: the strict document check of
// encode and the member listing of types walk the same fields, literals and variants that the
// library's operations walk. Nothing here runs the library's operations on them, so the copy's
// bundle context needs no registration or trace.
#include "ovrin_sm_internal/tables.inc"

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

#include <algorithm>
#include <cstring>

#include "cli/tables.h"

namespace ovrin::cli {

const Type *find_table(const std::string &name) {
    for (unsigned i = 0; i < table::type_count; ++i)
        if (name == table::all[i]->name) return table::all[i];
    return nullptr;
}

const Literal *fresh_literal(const Type &e) {
    for (uint16_t i = 0; i < e.n_literals; ++i)
        if (e.literals[i].wire == 0) return &e.literals[i];
    return nullptr;
}

const Field *member_selected_by(const Type &u, const Literal *literal) {
    if (!literal) return nullptr;
    for (uint16_t i = 0; i < u.n_fields; ++i)
        if (u.fields[i].shape == Shape::member && u.fields[i].select == literal->user) return &u.fields[i];
    return nullptr;
}

} // namespace ovrin::cli
