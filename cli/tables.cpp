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

size_t edit_distance(const std::string &a, const std::string &b) {
    std::vector<size_t> row(b.size() + 1);
    for (size_t j = 0; j <= b.size(); ++j) row[j] = j;
    for (size_t i = 1; i <= a.size(); ++i) {
        size_t diagonal = row[0];
        row[0] = i;
        for (size_t j = 1; j <= b.size(); ++j) {
            size_t up = row[j];
            row[j] = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (a[i - 1] != b[j - 1])});
            diagonal = up;
        }
    }
    return row[b.size()];
}

std::string closest(const std::string &name, const std::vector<std::string> &candidates) {
    std::string best;
    size_t best_distance = std::max<size_t>(2, name.size() / 3) + 1;
    for (const std::string &c : candidates) {
        // The distance is at least the difference in length: a name far longer or shorter than
        // a candidate is not measured against it (a hostile name costs nothing per candidate).
        size_t longer = std::max(name.size(), c.size()), shorter = std::min(name.size(), c.size());
        if (longer - shorter >= best_distance) continue;
        size_t d = edit_distance(name, c);
        if (d < best_distance) best_distance = d, best = c;
    }
    return best;
}

} // namespace ovrin::cli
