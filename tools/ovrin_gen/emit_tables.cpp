// The data the bundle runs on: the type tables for the generic operations, the exported
// descriptors with their variant info and the descriptor table, and the compressed trace texts.

#include <algorithm>
#include <stdexcept>

#include "formats/trace_format.h"
#include "tools/ovrin_gen/emit.h"

namespace gen {

const char *kind_name(const Field &f) {
    if (f.shape == Shape::var_string) return "character";
    if (f.prim) {
        switch (*f.prim) {
#define OVRIN_PRIM(K, T, S, A)                                                                                                   \
    case Prim::K: return #K;
            OVRIN_ALL_PRIMS(OVRIN_PRIM)
#undef OVRIN_PRIM
        }
    }
    return f.type->is_enum() ? "enumeration" : "record";
}

std::vector<WireStep> wire_steps(const Type &t, int variant) {
    std::vector<WireStep> steps;
    for (size_t i = 0; i < t.fields.size(); ++i) {
        const Field &f = t.fields[i];
        if (f.from > variant) continue;
        steps.push_back({i, f.shape != Shape::scalar, f.companion >= 0 && f.shape == Shape::scalar});
    }
    return steps;
}

namespace {

const char *shape_name(Shape s) {
    switch (s) {
#define OVRIN_SHAPE(S)                                                                                                           \
    case Shape::S: return #S;
        OVRIN_SHAPES(OVRIN_SHAPE)
#undef OVRIN_SHAPE
    }
    return "";
}

const char *type_kind_name(TypeKind k) {
    switch (k) {
    case TypeKind::record: return "record";
    case TypeKind::union_: return "union_";
    case TypeKind::enumeration: return "enumeration";
    }
    return "";
}

// The TypeFlag bits of ops/types.h that the catalogue asks for.
std::string type_flags(const Type &t) {
    std::string s;
    if (t.select_by_user_value) s += "type_flag_select_by_user_value";
    return s.empty() ? "type_flag_none" : s;
}

unsigned msg_base(const Type &t) { return bundle_message_count() + t.index * type_message_count(); }

std::string byte_array(const uint8_t *bytes, size_t n, const char *indent) {
    std::string s;
    for (size_t i = 0; i < n; ++i) {
        if (i % 16 == 0) s += i ? "\n" : "", s += indent;
        s += format("0x%02x,", bytes[i]);
    }
    return s;
}

std::string field_entry(const Field &f) {
    std::string type = f.type ? "&" + f.type->name : "nullptr";
    std::string nested = f.sttr_nested == no_area ? "no_area" : std::to_string(f.sttr_nested);
    return format("    {.name = %s, .type = %s, .offset = %u, .size = %u, .elem_size = %u, .count = %u, "
                  ".kind = Kind::%s, .shape = Shape::%s, .from_variant = %d, .companion = %d, .sttr_pos = %u, "
                  ".sttr_nested = %s, .select = %u, .roles = %s},\n",
                  c_string(f.name).c_str(), type.c_str(), f.offset, f.size, f.elem_size, f.count, kind_name(f),
                  shape_name(f.shape), f.from, f.companion, f.sttr_pos, nested.c_str(), f.select,
                  settable_by_all(f)   ? "field_settable_by_all | field_readable_by_all"
                  : readable_by_all(f) ? "field_readable_by_all"
                                       : "0");
}

// The lifecycle plan of a type (see Type::plan): which fields create, embed, tracked initialize
// and destroy visit. Inline instances are nested records, unions and enumerations (also as
// fixed-array elements) and the runtime's instance-like primitives, which it initialises and
// destroys itself; integers need nothing.
bool inline_instance(const Field &f) {
    if (f.shape != Shape::scalar && f.shape != Shape::fixed_array) return false;
    return f.type || (f.prim && *f.prim != Prim::u8 && *f.prim != Prim::u16 && *f.prim != Prim::u32 && *f.prim != Prim::u64);
}
bool owning(const Field &f) {
    return f.shape == Shape::member || f.shape == Shape::var_string || f.shape == Shape::var_array || inline_instance(f);
}
bool nested_area(const Field &f) {
    return f.shape == Shape::scalar && f.sttr_nested != no_area &&
           ((f.type && !f.type->is_enum()) || (f.prim && *f.prim == Prim::aaa_tlv));
}

struct Plan {
    std::vector<unsigned> fields;
    size_t n_owning = 0, n_inline = 0, n_areas = 0;
};

Plan plan_of(const Type &t) {
    Plan p;
    auto collect = [&](bool (*wanted)(const Field &)) {
        size_t before = p.fields.size();
        for (size_t i = 0; i < t.fields.size(); ++i)
            if (wanted(t.fields[i])) p.fields.push_back(static_cast<unsigned>(i));
        return p.fields.size() - before;
    };
    p.n_owning = collect(owning);
    p.n_inline = collect(inline_instance);
    p.n_areas = collect(nested_area);
    return p;
}

// A type's wire plan at one variant, one table entry per step of wire_steps.
std::string wire_plan(const Type &t, int variant) {
    std::string s;
    for (const WireStep &step : wire_steps(t, variant)) {
        const Field &f = t.fields[step.field];
        std::string type = f.type ? "&" + f.type->name : "nullptr";
        s += format("    {.type = %s, .offset = %u, .sttr_pos = %u, .field = %zu, .kind = Kind::%s, .flags = %s},\n",
                    type.c_str(), f.offset, f.sttr_pos, step.field, kind_name(f),
                    step.composite ? "step_composite"
                    : step.counter ? "0"
                                   : "step_state_byte");
    }
    return s;
}

} // namespace

std::string emit_tables_header(const Catalogue &c) {
    std::string s = format("// The type tables of the bundle. %s\n", generated_banner);
    s += "#ifndef @U@_INTERNAL_TABLES_H\n#define @U@_INTERNAL_TABLES_H\n\n"
         "#include \"ops/types.h\"\n#include \"@D@/types.h\"\n\nnamespace ovrin {\n\nnamespace table {\n\n";
    size_t fields = 0;
    for (const auto &t : c.types) fields += t->fields.size();
    s += format("inline constexpr unsigned type_count = %zu;\n", c.types.size());
    s += format("inline constexpr unsigned field_count = %zu; // fields of all types together\n\n", fields);
    for (const auto &t : c.types) s += format("extern const Type %s;\n", t->name.c_str());
    s += "\n// Every type, in registration order.\nextern const Type *const all[type_count];\n\n} // namespace table\n\n";
    s += "// The exported descriptors in registration order, null-terminated.\n"
         "extern const void *const descriptor_table[table::type_count + 1];\n\n"
         "// The bundle's trace message texts, by message number.\nextern mgx_trace_table_t trace_table;\n\n"
         "// What the engine needs of this bundle; every type of it points here.\nextern const Bundle bundle;\n\n"
         "} // namespace ovrin\n\n#endif\n";
    return s;
}

std::string emit_tables(const Catalogue &c) {
    std::string s = format("// Definitions of the type tables; compiled into the bundle once. %s\n", generated_banner);
    s += "#include \"@D@_internal/tables.h\"\n\nnamespace ovrin::table {\n\nnamespace {\n";
    for (const auto &tp : c.types) {
        const Type &t = *tp;
        s += format("\n// %s\nalignas(8) unsigned char placeholder_%s[%u];\n", t.name.c_str(), t.name.c_str(), t.size);
        s += format("const Variant variants_%s[] = {", t.name.c_str());
        for (int v = 0; v < t.n_variants; ++v)
            s += format("%s{%u, %u}", v ? ", " : "", t.used[static_cast<size_t>(v)], t.size - t.used[static_cast<size_t>(v)]);
        s += "};\n";
        if (t.is_enum()) {
            s += format("const Literal literals_%s[] = {\n", t.name.c_str());
            for (const Literal &l : t.literals)
                s += format("    {%s, %u, %u, %d},\n", c_string(l.name).c_str(), l.user, l.wire, l.from);
            s += "};\n";
        } else {
            s += format("const Field fields_%s[] = {\n", t.name.c_str());
            for (const Field &f : t.fields) s += field_entry(f);
            s += "};\n";
        }
        Plan p = plan_of(t);
        s += format("const uint16_t plan_%s[] = {", t.name.c_str());
        for (size_t i = 0; i < p.fields.size(); ++i) s += format("%s%u", i ? ", " : "", p.fields[i]);
        s += p.fields.empty() ? "0};\n" : "};\n"; // an array may not be empty
        if (t.is_enum()) continue;
        std::string plans;
        for (int v = 0; v < t.n_variants; ++v) {
            std::string steps = wire_plan(t, v);
            s += format("const WireStep wire_%s_%d[] = {\n%s};\n", t.name.c_str(), v,
                        steps.empty() ? "    {}, // an array may not be empty\n" : steps.c_str());
            plans += format("%s{wire_%s_%d, %zu}", v ? ", " : "", t.name.c_str(), v,
                            steps.empty() ? size_t{0} : static_cast<size_t>(std::count(steps.begin(), steps.end(), '\n')));
        }
        s += format("const WirePlan wire_%s[] = {%s};\n", t.name.c_str(), plans.c_str());
    }
    s += "\n} // namespace\n";
    for (const auto &tp : c.types) {
        const Type &t = *tp;
        s += format("\nconst Type %s = {\n    .bundle = &ovrin::bundle,\n", t.name.c_str());
        s += format("    .name = %s,\n    .descriptor = &_%s_type_info_internal,\n", c_string(t.name).c_str(), t.name.c_str());
        s += t.is_enum() ? "    .fields = nullptr,\n" : format("    .fields = fields_%s,\n", t.name.c_str());
        s += t.is_enum() ? format("    .literals = literals_%s,\n", t.name.c_str()) : "    .literals = nullptr,\n";
        s += format("    .variants = variants_%s,\n    .placeholder = placeholder_%s,\n", t.name.c_str(), t.name.c_str());
        s += format("    .size = %u,\n    .sttr_size = %u,\n    .msg_base = %u,\n", t.size, t.sttr_size, msg_base(t));
        s += format("    .n_fields = %zu,\n    .n_literals = %zu,\n    .index = %u,\n", t.fields.size(), t.literals.size(),
                    t.index);
        s += format("    .kind = TypeKind::%s,\n    .n_variants = %d,\n    .discriminator = %d,\n", type_kind_name(t.kind),
                    t.n_variants, t.discriminator);
        Plan p = plan_of(t);
        s += format("    .sttr_align = %u,\n    .flags = %s,\n", t.sttr_align, type_flags(t).c_str());
        s += format("    .plan = plan_%s,\n    .n_owning = %zu,\n    .n_inline = %zu,\n    .n_areas = %zu,\n", t.name.c_str(),
                    p.n_owning, p.n_inline, p.n_areas);
        s += t.is_enum() ? "    .wire = nullptr,\n};\n" : format("    .wire = wire_%s,\n};\n", t.name.c_str());
    }
    s += "\nconst Type *const all[type_count] = {\n";
    for (const auto &t : c.types) s += format("    &%s,\n", t->name.c_str());
    s += "};\n\n} // namespace ovrin::table\n";
    return s;
}

std::string emit_tables_source(const Catalogue &c) {
    std::string s = format("// The type tables, held against the public structs. %s\n", generated_banner);
    s += "#include \"@D@_internal/tables.inc\"\n#include \"@D@_internal/wire.h\"\n#include \"ops/enum/enum.h\"\n#include "
         "\"@D@/ops.h\"\n\n";
    // The library's own copy of the tables points at the bundle context; private copies (tests,
    // tools) define a context of their own.
    s += format("namespace {\nuint8_t traced_once[%zu];\n} // namespace\n\n", c.types.size());
    s += format("const ovrin::Bundle ovrin::bundle = {\n    .domain = \"@D@\",\n    .type_count = %zu,\n"
                "    .types = ovrin::table::all,\n    .register_types = @D@_typeinfo_initialize,\n"
                "    .trace_init = mgx_@D@_trace_init,\n    .trace_table = &ovrin::trace_table,\n"
                "    .trace_module = &g_mgx_@D@_trace_module_id,\n    .traced_once = traced_once,\n"
                "    .code = ovrin::wire_code::by_type,\n};\n\n",
                c.types.size());
    for (const auto &t : c.types) {
        if (t->is_enum()) {
            s += format("static_assert(sizeof(::%s) == sizeof(ovrin::EnumInstance) && "
                        "offsetof(::%s, value) == offsetof(ovrin::EnumInstance, value) && "
                        "offsetof(::%s, flags) == offsetof(ovrin::EnumInstance, flags));\n",
                        t->name.c_str(), t->name.c_str(), t->name.c_str());
            continue;
        }
        size_t counted = 0;
        for (const Field &f : t->fields) counted += f.shape == Shape::var_string || f.shape == Shape::var_array;
        s += format("static_assert(%zu <= ovrin::max_counted_fields, \"%s: more strings and variable arrays than the engine "
                    "keeps counts for\");\n",
                    counted, t->name.c_str());
        for (const Field &f : t->fields)
            s += format("static_assert(offsetof(::%s, %s) == %u);\n", t->name.c_str(), f.name.c_str(), f.offset);
    }
    return s;
}

std::string emit_descriptors(const Catalogue &c) {
    std::string s = format("// The exported type descriptors. %s\n", generated_banner);
    s += "#include \"@D@_internal/tables.h\"\n\n"
         "static_assert(sizeof(mgx_type_info_t) == 272 && sizeof(mgx_variant_entry_t) == 40 &&\n"
         "              sizeof(mgx_type_variant_info_t) == 16);\n\nnamespace {\n";
    for (const auto &tp : c.types) {
        const Type &t = *tp;
        s += format("\nmgx_variant_entry_t entries_%s[] = {\n", t.name.c_str());
        for (int v = 0; v < t.n_variants; ++v)
            s += format("    {%d, %u, %u, 0, {}},\n", v, t.used[static_cast<size_t>(v)], t.size - t.used[static_cast<size_t>(v)]);
        s += format("};\nmgx_type_variant_info_t variant_info_%s = {%d, {}, entries_%s};\n", t.name.c_str(), t.n_variants,
                    t.name.c_str());
    }
    s += "\n} // namespace\n\nextern \"C\" {\n";
    for (const auto &tp : c.types) {
        const Type &t = *tp;
        s += format("\nmgx_type_info_t _%s_type_info_internal = {\n", t.name.c_str());
        s += "    .magic = MGX_TYPE_INFO_MAGIC,\n    .fingerprint = {\n";
        s += byte_array(t.fingerprint.data(), 16, "        ");
        s += "\n    },\n";
        s += format("    .fingerprint_text = \"%s\",\n", hex(t.fingerprint.data(), 16).c_str());
        s += format("    .type_name = %s,\n    .domain_name = \"@D@\",\n    .kind = \"%s\",\n", c_string(t.name).c_str(),
                    t.kind_word());
        s += "    .pad0 = {},\n    .registry_slot = -1,\n    .pad1 = {},\n";
        s += format("    .variant_info = &variant_info_%s,\n    .registry_mode = 0,\n    .pad2 = {},\n};\n", t.name.c_str());
    }
    s += "\n} // extern \"C\"\n\nconst void *const ovrin::descriptor_table[ovrin::table::type_count + 1] = {\n";
    for (const auto &t : c.types) s += format("    &_%s_type_info_internal,\n", t->name.c_str());
    s += "    nullptr,\n};\n";
    return s;
}

std::string emit_trace_table(const Catalogue &c) {
    std::vector<std::string> texts = trace_texts(c);
    std::vector<uint8_t> section = mgx::tracefmt::texts_section(texts);
    if (section.empty()) throw std::runtime_error("compressing the trace texts failed");
    std::string raw;
    for (const std::string &t : texts) raw += t + '\0';
    std::string s = format("// The trace message texts live in a section that is not loaded: the code passes message\n"
                           "// numbers only, and the texts are read from the library file when someone reads a trace.\n"
                           "// %s\n",
                           generated_banner);
    s += format("// %zu texts: %u for the bundle, then %u per type in registration order.\n", texts.size(),
                bundle_message_count(), type_message_count());
    s += "#include \"@D@_internal/tables.h\"\n\n";
    s += nonloaded_section(trace_section, section);
    s += format("\nmgx_trace_table_t ovrin::trace_table = {MGX_TRACE_TABLE_MAGIC, %zu, \"mgx_@D@\", \"%s\", 0x%08xu, nullptr};\n",
                texts.size(), trace_section, mgx::tracefmt::texts_crc(raw));
    return s;
}

} // namespace gen
