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

// (Suggestions for misspelt names, closest() and did_you_mean(), are in cli/options.h.)

} // namespace ovrin::cli

#endif
