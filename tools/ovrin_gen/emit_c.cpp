// The C interface: the public headers (structs with their exact layout, literal constants,
// descriptors, prototypes), the exported wrappers, and the export lists.
#include <cstdio>
#include <functional>
#include <set>

#include "tools/ovrin_gen/emit.h"

namespace gen {

std::string format(const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    va_list copy;
    va_copy(copy, ap);
    int n = std::vsnprintf(nullptr, 0, fmt, copy);
    va_end(copy);
    std::string s(static_cast<size_t>(n), '\0');
    std::vsnprintf(s.data(), s.size() + 1, fmt, ap);
    va_end(ap);
    return s;
}

std::string c_string(const std::string &s) {
    std::string out = "\"";
    for (char ch : s) {
        if (ch == '"' || ch == '\\') out += '\\';
        if (ch == '\n') {
            out += "\\n";
            continue;
        }
        out += ch;
    }
    return out + "\"";
}

std::string replace_all(std::string s, const std::string &from, const std::string &to) {
    for (size_t pos = s.find(from); pos != std::string::npos; pos = s.find(from, pos + to.size()))
        s.replace(pos, from.size(), to);
    return s;
}

namespace {

// The C declaration of one field of a struct.
std::string c_member(const Field &f) {
    std::string elem = f.prim ? prim_c_type(*f.prim) : f.type ? f.type->name : "";
    switch (f.shape) {
    case Shape::scalar: return elem + " " + f.name;
    case Shape::fixed_array: return elem + " " + f.name + "[" + std::to_string(f.count) + "]";
    case Shape::var_array:
    case Shape::member: return elem + " *" + f.name;
    case Shape::var_string: return "char *" + f.name;
    }
    return "";
}

// Structs in an order where every inline nested type comes before its container.
std::vector<const Type *> definition_order(const Catalogue &c) {
    std::vector<const Type *> order;
    std::set<const Type *> done;
    std::function<void(const Type *)> visit = [&](const Type *t) {
        if (!done.insert(t).second) return;
        for (const Field &f : t->fields)
            if (f.type && (f.shape == Shape::scalar || f.shape == Shape::fixed_array)) visit(f.type);
        order.push_back(t);
    };
    for (const auto &t : c.types) visit(t.get());
    return order;
}

std::string enum_definition(const Type &t) {
    std::string s = format("/* %s: enumeration, %d variant(s); user values (wire value = position) */\n",
                           t.name.c_str(), t.n_variants);
    s += "enum " + t.name + "_literal {\n";
    for (size_t i = 0; i < t.literals.size(); ++i) {
        const Literal &l = t.literals[i];
        s += format("    %s = %uu,", l.name.c_str(), l.user);
        if (l.wire != l.user || l.from) s += format(" /* wire %u, from variant %d */", l.wire, l.from);
        s += "\n";
    }
    s += "};\n";
    s += "struct " + t.name + " {\n    void *descriptor;\n    int8_t variant;\n    int8_t layout;\n    uint8_t flags;\n"
         "    uint32_t value; /* the user value */\n};\n";
    s += format("@U@_LAYOUT_ASSERT(sizeof(struct %s) == %u, \"%s instance size\");\n\n", t.name.c_str(), t.size,
                t.name.c_str());
    return s;
}

std::string record_definition(const Type &t) {
    std::string s = format("/* %s: %s, %d variant(s), instance size %u, state-flag area %u */\n", t.name.c_str(),
                           t.kind == TypeKind::union_ ? "union" : "record", t.n_variants, t.size, t.sttr_size);
    s += "struct " + t.name + " {\n    void *descriptor;\n    int8_t variant;\n    int8_t layout;\n    uint8_t flags;\n";
    for (const Field &f : t.fields) {
        std::string decl = "    " + c_member(f) + ";";
        std::string note = format("/* %u", f.offset);
        if (f.from) note += format(", from variant %d", f.from);
        if (f.shape == Shape::member) note += ", member selected by " + f.select_name;
        if (f.shape == Shape::var_array || f.shape == Shape::var_string)
            note += ", " + std::string(f.shape == Shape::var_array ? "count in " : "length in ") +
                    t.fields[static_cast<size_t>(f.companion)].name;
        note += " */";
        if (decl.size() < 48) decl.resize(48, ' ');
        else decl += " ";
        s += decl + note + "\n";
    }
    s += format("    uint8_t mgx_alloc_slop[%u];\n};\n", t.size - t.last_used());
    for (int v = 0; v < t.n_variants; ++v) {
        const Field *last = nullptr;
        for (const Field &f : t.fields)
            if (f.from <= v) last = &f;
        s += format("@U@_LAYOUT_ASSERT(@U@_FIELD_END(struct %s, %s) == %u, \"%s variant %d used length\");\n",
                    t.name.c_str(), last->name.c_str(), t.used[static_cast<size_t>(v)], t.name.c_str(), v);
    }
    s += format("@U@_LAYOUT_ASSERT(sizeof(struct %s) == %u, \"%s instance size\");\n\n", t.name.c_str(), t.size,
                t.name.c_str());
    return s;
}

const char *c_prologue = R"(#ifdef __cplusplus
extern "C" {
#endif
)";

const char *c_epilogue = R"(#ifdef __cplusplus
}
#endif
)";

} // namespace

std::string emit_public_types(const Catalogue &c) {
    std::string s = format("/* The types of the @D@ domain. %s\n *\n", generated_banner);
    s += " * Every instance starts with the 11-byte instance header (descriptor word, variant, layout\n"
         " * byte, flags); the fields follow in declaration order at their natural alignment. A tracked\n"
         " * instance carries its state-flag area right after the instance size given here. */\n";
    s += "#ifndef @U@_TYPES_H\n#define @U@_TYPES_H\n\n#include <stddef.h>\n#include <stdint.h>\n\n"
         "#include \"mgx/contract.h\"\n\n";
    s += "#ifndef @U@_API\n#define @U@_API __attribute__((visibility(\"default\")))\n#endif\n";
    s += "#ifdef __cplusplus\n#define @U@_LAYOUT_ASSERT(cond, what) static_assert(cond, what)\n#else\n"
         "#define @U@_LAYOUT_ASSERT(cond, what) _Static_assert(cond, what)\n#endif\n";
    s += "#define @U@_FIELD_END(type, field) (offsetof(type, field) + sizeof(((type *)0)->field))\n\n";
    s += c_prologue;
    s += "\n";
    for (const auto &t : c.types) s += format("typedef struct %s %s;\n", t->name.c_str(), t->name.c_str());
    s += "\n";
    for (const Type *t : definition_order(c)) s += t->is_enum() ? enum_definition(*t) : record_definition(*t);
    s += "/* The static type descriptors, in registration order. */\n";
    for (const auto &t : c.types) s += format("@U@_API extern mgx_type_info_t _%s_type_info_internal;\n", t->name.c_str());
    s += "\n";
    s += c_epilogue;
    s += "\n#endif\n";
    return s;
}

std::string emit_public_ops(const Catalogue &c) {
    std::string s = format("/* The exported operations of the @D@ bundle. %s */\n", generated_banner);
    s += "#ifndef @U@_OPS_H\n#define @U@_OPS_H\n\n#include \"@D@/types.h\"\n\n";
    s += c_prologue;
    s += "\n/* The bundle. */\n";
    for (const BundleSymbol &b : bundle_functions()) s += "@U@_API " + std::string(b.declaration) + ";\n";
    for (const BundleSymbol &b : bundle_data()) s += "@U@_API " + std::string(b.declaration) + ";\n";
    for (const auto &t : c.types) {
        s += "\n/* " + t->name + " */\n";
        for (const Wrapper &w : wrappers_of(*t))
            s += format("@U@_API %s %s(%s);\n", w.result.c_str(), w.name.c_str(), w.params.c_str());
    }
    s += "\n";
    s += c_epilogue;
    s += "\n#endif\n";
    return s;
}

std::string emit_entry_points(const Catalogue &c) {
    std::string s = format("// The per-type entry points: each a call of a generic operation with its type's table.\n// %s\n",
                           generated_banner);
    s += "#include \"ops/ops.h\"\n#include \"@D@/ops.h\"\n#include \"@D@_internal/tables.h\"\n\nextern \"C\" {\n";
    for (const auto &t : c.types) {
        s += "\n";
        for (const Wrapper &w : wrappers_of(*t))
            s += format("%s %s(%s) { %s%s; }\n", w.result.c_str(), w.name.c_str(), w.params.c_str(),
                        w.result == "void" ? "" : "return ", w.call.c_str());
    }
    s += "\n} // extern \"C\"\n";
    return s;
}

std::string emit_export_list(const Catalogue &c) {
    std::string s = format("// Every symbol lib@D@.so exports, and nothing else. %s\n", generated_banner);
    for (const std::string &name : exported_names(c)) s += c_string(name) + ",\n";
    return s;
}

std::string emit_version_script(const Catalogue &c) {
    std::string s = format("/* %s */\n{\n  global:\n", generated_banner);
    for (const std::string &name : exported_names(c)) s += "    " + name + ";\n";
    s += "  local:\n    *;\n};\n";
    return s;
}

} // namespace gen

namespace gen {

// The names the frame's sources (module node, registration, trace module, adoption) give the
// bundle's exports, so that the same sources serve any catalogue.
std::string emit_frame_names(const Catalogue &) {
    std::string s = format("// The bundle's names, for the frame's sources. %s\n", generated_banner);
    s += "#ifndef OVRIN_BUNDLE_FRAME_H\n#define OVRIN_BUNDLE_FRAME_H\n\n"
         "#include \"@D@/ops.h\"\n#include \"@D@_internal/tables.h\"\n\n"
         "#define OVRIN_BUNDLE_DOMAIN \"@D@\"\n"
         "#define OVRIN_BUNDLE_TRACE_MODULE \"mgx_@D@\"\n"
         "#define OVRIN_BUNDLE_EXPORT(name) @D@_##name\n"
         "#define OVRIN_BUNDLE_TRACE_INIT mgx_@D@_trace_init\n"
         "#define OVRIN_BUNDLE_TRACE_MODULE_ID g_mgx_@D@_trace_module_id\n"
         "#define OVRIN_BUNDLE_STUB_TRACE_MODULE_ID g_mgx_@D@_stub_trace_module_id\n\n#endif\n";
    return s;
}

} // namespace gen
