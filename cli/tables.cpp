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
    .code = nullptr,
};

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
    for (const FieldView &f : fields_of(u))
        if (f.selected_by(literal)) return &f.field;
    return nullptr;
}

std::string element_name(const Type &t, const Field &f) {
    return f.shape == Shape::member ? std::string(t.fields[t.discriminator].name) + "-" + f.name : f.name;
}

const char *FieldView::relation() const {
    if (field.companion < 0) return nullptr;
    if (counter()) return companion()->shape == Shape::var_string ? "length of" : "count of";
    return field.shape == Shape::var_string ? "length in" : "count in";
}

} // namespace ovrin::cli
