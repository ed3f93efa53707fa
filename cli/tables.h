// The tool's private copy of the bundle's type tables (cli/tables.cpp), and what the commands look
// up in them.
#ifndef OVRIN_CLI_TABLES_H
#define OVRIN_CLI_TABLES_H

#include <string>
#include <vector>

#include "cli/options.h"
#include "ovrin_sm_internal/tables.h"

namespace ovrin::cli {

// The type so named, or null.
const Type *find_table(const std::string &name);

// The literal of an enumeration that a fresh instance holds (stored value 0), or null.
const Literal *fresh_literal(const Type &enumeration);

// The union member that a discriminator holding the literal selects, or null for none.
const Field *member_selected_by(const Type &union_type, const Literal *literal);

// A field's element in documents: a union member's is "<discriminator>-<member>", any other's its name.
std::string element_name(const Type &t, const Field &f);

// One field of a type as the tables describe it, with what the commands ask of it answered once:
// its element name, its companion, whether it is the discriminator or a selected member.
struct FieldView {
    const Type &type;
    const Field &field;
    uint16_t index;
    const Literal *fresh; // the literal a fresh instance's discriminator holds (unions), or null

    const Field &operator*() const { return field; }
    const Field *operator->() const { return &field; }
    std::string element() const { return element_name(type, field); }
    // A string's or variable array's count or length, or what a count or length counts; or null.
    const Field *companion() const { return field.companion >= 0 ? &type.fields[field.companion] : nullptr; }
    bool counter() const { return field.companion >= 0 && field.shape == Shape::scalar; } // a count or length
    bool counts_array() const { return counter() && companion()->shape == Shape::var_array; }
    // The companion as the member listing names it: "count in", "length in", "count of", "length of"; or null.
    const char *relation() const;
    bool discriminator() const { return type.kind == TypeKind::union_ && index == type.discriminator; }
    // Whether this is the union member a discriminator holding the literal selects.
    bool selected_by(const Literal *l) const { return l && field.shape == Shape::member && field.select == l->user; }
    bool fresh_selected() const { return selected_by(fresh); }
};

// The fields of a type in declaration order as FieldViews: the tool's one walk over the tables
// (ops/walk.h walks the fields of an instance; this one needs none).
struct TableFields {
    const Type &t;
    const Literal *fresh = t.kind == TypeKind::union_ ? fresh_literal(*t.fields[t.discriminator].type) : nullptr;
    struct iterator {
        const TableFields &w;
        uint16_t i;
        FieldView operator*() const { return {w.t, w.t.fields[i], i, w.fresh}; }
        iterator &operator++() { return ++i, *this; }
        bool operator!=(const iterator &o) const { return i != o.i; }
    };
    iterator begin() const { return {*this, 0}; }
    iterator end() const { return {*this, t.n_fields}; }
};
inline TableFields fields_of(const Type &t) { return {t}; }

// (Suggestions for misspelt names, closest() and did_you_mean(), are in cli/options.h.)

} // namespace ovrin::cli

#endif
