// The generator's outputs: one emitter per generated file.
#ifndef OVRIN_GEN_EMIT_H
#define OVRIN_GEN_EMIT_H

#include <cstdarg>
#include <string>
#include <vector>

#include "tools/ovrin_gen/model.h"

namespace gen {

// Type kinds an entry point exists for.
enum KindMask : unsigned { k_record = 1, k_union = 2, k_enum = 4, k_composite = k_record | k_union, k_all = 7 };

// A per-type exported entry point `<type>_<op>`: a one-line call of a generic operation. In
// result, params and call, $T stands for the type's name and $table for its table (an
// ovrin::Type lvalue).
struct EntryPoint {
    const char *op;
    unsigned kinds;
    const char *result;
    const char *params;
    const char *call;
};

// A per-field exported entry point `<type>_<field>_<op>`, for the fields `applies` accepts. On top
// of $T and $table: $F is the field's name, $FT the C type of one of its elements, $field its
// table entry (an ovrin::Field lvalue) and $index its index in the table, $from the variant it
// appears in and $last its type's last variant.
struct FieldEntryPoint {
    const char *op;
    unsigned kinds;
    bool (*applies)(const Field &);
    const char *result;
    const char *params;
    const char *call;
};

// One exported function of one type, with every placeholder filled in: `op` is the entry point's
// operation, `field` the field a per-field entry point serves (null for a type entry point).
struct Wrapper {
    std::string name, result, params, call;
    std::string op;
    const Field *field = nullptr;
};

// A bundle-level export: its name and its C declaration.
struct BundleSymbol {
    const char *name;
    const char *declaration;
};

const std::vector<EntryPoint> &entry_points();
const std::vector<FieldEntryPoint> &field_entry_points();
const std::vector<BundleSymbol> &bundle_functions();
const std::vector<BundleSymbol> &bundle_data();
// Every exported function of t, in a stable order: type entry points, then field entry points.
std::vector<Wrapper> wrappers_of(const Type &t);

// Message texts of ops/messages.def with the type's name in place.
std::vector<std::string> trace_texts(const Catalogue &c);
unsigned type_message_count();
unsigned bundle_message_count();

// Build facts that go into the manifest's build record.
struct BuildInfo {
    std::string platform; // what the build is for, e.g. "Linux x86_64"
    std::string comment;  // the catalogue's path in the source tree
};

// Each returns the file's contents.
std::string emit_public_types(const Catalogue &c);
// include/NAME/ops.h: per type a comment block and the operations an application calls;
// include/NAME/ops_runtime.h (which ops.h includes): the forms the runtime and tools call.
std::string emit_public_ops(const Catalogue &c);
std::string emit_runtime_ops(const Catalogue &c);
std::string emit_export_list(const Catalogue &c);
std::string emit_version_script(const Catalogue &c);
std::string emit_tables_header(const Catalogue &c);
std::string emit_tables(const Catalogue &c);
std::string emit_tables_source(const Catalogue &c);
std::string emit_descriptors(const Catalogue &c);
std::string emit_entry_points(const Catalogue &c);
std::string emit_trace_table(const Catalogue &c);
std::string emit_manifest(const Catalogue &c, const BuildInfo &build);
std::string emit_frame_names(const Catalogue &c);
// src/sm_dependents.cpp: the calls that register the bundle's handler with the bundles it depends on.
std::string emit_dependents(const Catalogue &c);
// The operations table (include/NAME/optable.h and its definition with the thunks it points to),
// and the symbols it adds to the exports.
std::string emit_optable_header(const Catalogue &c);
std::string emit_optable_source(const Catalogue &c);
const std::vector<BundleSymbol> &optable_symbols();
// include/NAME/NAME.hpp: the C++ interface over the exports.
std::string emit_cxx_header(const Catalogue &c);
// An assembler block placing bytes in a named section that is kept in the file but not loaded.
std::string nonloaded_section(const char *name, const std::vector<uint8_t> &bytes);
// The section holding the compressed trace message texts.
// Emitted text names the bundle through placeholders that the writer fills in from the domain:
// @D@ the domain ("ovrin_sm"), @U@ the same in capitals.
inline constexpr const char *trace_section = ".@D@_trace_texts";

// Helpers shared by the emitters.
std::string format(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
std::string c_string(const std::string &s);
std::string replace_all(std::string s, const std::string &from, const std::string &to);
std::vector<std::string> exported_names(const Catalogue &c);
inline constexpr const char *generated_banner = "Generated from the @D@ catalogue by ovrin_gen; do not edit.";

// One member of a type's wire form at one variant: a scalar goes straight to its kind's reader or
// writer, with a state byte behind it unless it is a count or length (counter); anything else is
// composite and goes through the engine's field walker. The type tables' wire plans and the
// compiled wire code are both made from this list, so their steps are the same.
struct WireStep {
    size_t field; // index in the type's fields
    bool composite, counter;
};
std::vector<WireStep> wire_steps(const Type &t, int variant);
// The field kind the engine's tables name (ops/kinds.h: a primitive, character, enumeration, record).
const char *kind_name(const Field &f);
// src/sm_wire.cpp and NAME_internal/wire.h: the compiled wire code (length, encode, decode per
// record and union).
std::string emit_wire_header(const Catalogue &c);
std::string emit_wire_source(const Catalogue &c);

// The integer fields that _set_all takes, in field order (u_int64 is not among them). The type
// tables carry the answer (Field::roles), so that the engine walks the very fields the generated
// parameter lists name.
inline bool settable_by_all(const Field &f) {
    return f.shape == Shape::scalar && f.prim && (*f.prim == Prim::u8 || *f.prim == Prim::u16 || *f.prim == Prim::u32);
}

// The fields _get_all reads: the same integers, and the enumerations.
inline bool readable_by_all(const Field &f) {
    return settable_by_all(f) || (f.shape == Shape::scalar && f.type && f.type->is_enum());
}

} // namespace gen

#endif
