// The C interface: the public headers (structs with their exact layout, literal constants,
// descriptors, prototypes), the exported wrappers, and the export lists.
#include <algorithm>
#include <cctype>
#include <cstdio>
#include <functional>
#include <set>
#include <sstream>

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
    std::string s = format("/* %s: enumeration, %d variant(s); user values (wire value = position) */\n", t.name.c_str(),
                           t.n_variants);
    s += "enum " + t.name + "_literal {\n";
    for (size_t i = 0; i < t.literals.size(); ++i) {
        const Literal &l = t.literals[i];
        s += format("    %s = %uu,", l.name.c_str(), l.user);
        if (l.wire != l.user || l.from) s += format(" /* wire %u, from variant %d */", l.wire, l.from);
        s += "\n";
    }
    s += "};\n";
    s += "struct " + t.name +
         " {\n    void *descriptor;\n    int8_t variant;\n    int8_t layout;\n    uint8_t flags;\n"
         "    uint32_t value; /* the user value */\n};\n";
    s += format("@U@_LAYOUT_ASSERT(sizeof(struct %s) == %u, \"%s instance size\");\n\n", t.name.c_str(), t.size, t.name.c_str());
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
        s += format("@U@_LAYOUT_ASSERT(@U@_FIELD_END(struct %s, %s) == %u, \"%s variant %d used length\");\n", t.name.c_str(),
                    last->name.c_str(), t.used[static_cast<size_t>(v)], t.name.c_str(), v);
    }
    s += format("@U@_LAYOUT_ASSERT(sizeof(struct %s) == %u, \"%s instance size\");\n\n", t.name.c_str(), t.size, t.name.c_str());
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
         "#include \"mgx/contract.h\"\n#include \"ovrin/json.h\"\n\n";
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

namespace {

// The operations an application calls, by entry-point name: the type's own, and those of one of
// its fields. Every other export (the _internal, _cr, _offset_*, _post_copyout_cleanup and state
// flag forms, the variant and OID queries) is there for the runtime, the frame and the tools.
// _print_cr and _toxml_cr are the application's text forms: they need no owner id or error slot.
// clang-format off
const std::set<std::string> application_ops = {
    "create",  "destroy", "sizeof",   "len",   "marshal",  "adjust_variant", "unmarshal", "clone",
    "compare", "hash",    "print",    "print_cr", "to_xml", "toxml_cr",      "from_xml",  "set", "to_json", "from_json",
    "get_all", "set_all", "get_value", "set_value", "map_to_user_value", "map_to_internal_value"};
const std::set<std::string> application_field_ops = {"get",     "set",        "get_value",        "set_value",
                                                     "get_mem", "set_mem",    "length_get",       "length_get_value",
                                                     "remove_elements", "get_detach"};
// clang-format on

bool for_application(const Wrapper &w) {
    return w.field ? application_field_ops.count(w.op) != 0 : application_ops.count(w.op) != 0;
}

std::string prototype(const Wrapper &w) {
    return format("@U@_API %s %s(%s);\n", w.result.c_str(), w.name.c_str(), w.params.c_str());
}

// Words joined by spaces into comment lines of at most 100 columns, the first opened by `lead`,
// the others by `more`.
std::string wrapped(const std::string &lead, const std::vector<std::string> &words, const std::string &more = " * ") {
    std::string out, line = lead;
    for (size_t i = 0; i < words.size(); ++i) {
        if (i && line.size() + 1 + words[i].size() > 100) {
            out += line + "\n";
            line = more + words[i];
        } else {
            if (i && line != more) line += ' ';
            line += words[i];
        }
    }
    return out + line + "\n";
}

std::vector<std::string> words_of(const std::string &text) {
    std::vector<std::string> words;
    std::istringstream in(text);
    for (std::string w; in >> w;) words.push_back(w);
    return words;
}

// Each item but the last followed by `punct`.
std::vector<std::string> listed(std::vector<std::string> items, const char *punct) {
    for (size_t i = 0; i + 1 < items.size(); ++i) items[i] += punct;
    return items;
}

// What a field holds, in catalogue terms.
std::string field_kind(const Field &f) {
    std::string elem = f.prim ? prim_c_type(*f.prim) : f.type ? f.type->name : "";
    std::string what = elem;
    if (f.type && f.shape != Shape::member)
        what = std::string(f.type->is_enum() ? "enum " : f.type->kind == TypeKind::union_ ? "union " : "record ") + elem;
    switch (f.shape) {
    case Shape::scalar: break;
    case Shape::fixed_array: what += "[" + std::to_string(f.count) + "]"; break;
    case Shape::var_array: what += "[], count in " + f.companion_name; break;
    case Shape::var_string: what = "string, length in " + f.companion_name; break;
    case Shape::member: what = "member " + elem + " (" + f.select_name + ")"; break;
    }
    if (f.discriminator) what += ", the discriminator";
    if (f.from) what += format(", from variant %d", f.from);
    return what;
}

// Where the type is held: each field of another type whose elements are of this type.
std::vector<std::string> holders(const Catalogue &c, const Type &t) {
    std::vector<std::string> out;
    for (const auto &other : c.types)
        for (const Field &f : other->fields)
            if (f.type == &t) out.push_back(other->name + "." + f.name);
    return out;
}

std::string describe_type(const Catalogue &c, const Type &t) {
    std::string rule = "/* ==== " + t.name + " ";
    if (rule.size() < 100) rule.resize(100, '=');
    std::string s = rule + "\n *\n";
    std::string what = t.is_enum() ? "An enumeration" : t.kind == TypeKind::union_ ? "A union" : "A record";
    if (!t.group.empty()) {
        std::string group = t.group;
        if (!group.empty() && group.back() == '.') group.pop_back();
        group[0] = static_cast<char>(std::tolower(static_cast<unsigned char>(group[0])));
        what += " (" + group + ")";
    }
    if (t.n_variants > 1) what += format(" with %d variants", t.n_variants);
    if (!t.is_enum()) what += format(", %u-byte instance", t.size);
    std::vector<std::string> held = holders(c, t);
    std::vector<std::string> words = words_of(what +
                                              (held.empty() ? ", held by no other type: a message of its own." : "; held by"));
    for (const std::string &h : listed(held, ",")) words.push_back(h);
    if (!held.empty()) words.back() += ".";
    s += wrapped(" * ", words);
    if (!t.note.empty()) s += wrapped(" * ", words_of(t.note));
    if (t.is_enum()) {
        s += format(" * Literals (user value; enum %s_literal in types.h):\n", t.name.c_str());
        std::vector<std::string> lits;
        for (const Literal &l : t.literals)
            lits.push_back(l.name + " " + std::to_string(l.user) + (l.from ? format(" (from variant %d)", l.from) : ""));
        s += wrapped(" *     ", listed(lits, ","), " *     ");
        std::string first = held.empty() ? "Start with: " + t.name + "_create, " + t.name + "_set_value, " + t.name +
                                               "_get_value, " + t.name + "_destroy."
                                         : "Usually read and written as a user value through the holder's <member>_get_value "
                                           "and _set_value (" +
                                               held[0] + ").";
        return s + wrapped(" * ", words_of(first)) + " */\n";
    }
    s += " * Members, in declaration (and wire) order, with their accessors <type>_<member>_<op>:\n";
    size_t name_w = 0, kind_w = 0;
    std::vector<std::string> kinds;
    for (const Field &f : t.fields) {
        name_w = std::max(name_w, f.name.size());
        kinds.push_back(field_kind(f));
        kind_w = std::max(kind_w, std::min<size_t>(kinds.back().size(), 40));
    }
    const std::vector<Wrapper> all = wrappers_of(t);
    for (size_t i = 0; i < t.fields.size(); ++i) {
        const Field &f = t.fields[i];
        std::string ops;
        for (const Wrapper &w : all)
            if (w.field == &f && for_application(w)) {
                if (!ops.empty()) ops += ' ';
                ops += w.op;
            }
        std::string line = " *   " + f.name + std::string(name_w - f.name.size() + 2, ' ') + kinds[i];
        if (!ops.empty()) line += std::string(kinds[i].size() < kind_w ? kind_w - kinds[i].size() + 2 : 2, ' ') + ops;
        s += line + "\n";
    }
    const std::string &T = t.name;
    std::string first;
    if (!held.empty()) {
        size_t dot = held[0].find('.');
        first = "Usually reached in place through its holder (" + held[0].substr(0, dot) + "_" + held[0].substr(dot + 1) +
                "_get) and filled there; on its own: " + T + "_create, the accessors below, " + T + "_compare, " + T +
                "_print_cr, " + T + "_destroy.";
    } else {
        first = "Start with: " + T + "_create; ";
        if (t.kind == TypeKind::union_)
            first += T + "_" + t.discriminator_name +
                     "_set_value to choose the member, then the member's _set (or _get, "
                     "to fill it in place); ";
        else first += "the accessors below; ";
        first += T + "_len and " + T + "_marshal to encode; " + T + "_adjust_variant and " + T +
                 "_unmarshal to decode into a fresh instance; " + T + "_print_cr to look at it; " + T + "_destroy.";
    }
    return s + wrapped(" * ", words_of(first)) + " */\n";
}

} // namespace

std::string emit_public_ops(const Catalogue &c) {
    std::string s = format("/* The operations of the @D@ types. %s\n", generated_banner);
    s += R"( *
 * Per type: what it is and what holds it, its members with their accessors, and the prototypes
 * of the operations an application calls: create and destroy, member access, encode (_len,
 * _marshal) and decode (_adjust_variant, _unmarshal), copy, compare, hash, the print, XML and
 * JSON forms. Every operation takes the runtime handle first (mgx/runtime.h); most take the caller's
 * owner id (luid) next and an error slot last: once the slot holds a code, later operations given
 * it do nothing, so a sequence of calls is checked once at the end.
 *
 * The forms the runtime, the frame and the tools call (_internal, _cr other than _print_cr and
 * _toxml_cr, _offset_update, _offset_remove, _post_copyout_cleanup, the state flags, the variant
 * and object-reference queries) are declared in @D@/ops_runtime.h, included at the end. The
 * catalogue the types come from is installed beside this header as @D@/@D@.types.
 */
)";
    s += "#ifndef @U@_OPS_H\n#define @U@_OPS_H\n\n#include \"@D@/types.h\"\n\n";
    s += c_prologue;
    // In the order a program goes through them: lifecycle, copy, encoding, text; then each field's
    // accessors together, in field order.
    // clang-format off
    static const std::vector<std::string> order = {
        "create", "destroy", "set", "clone", "compare", "hash", "sizeof", "get_value", "set_value", "get_all", "set_all",
        "map_to_user_value", "map_to_internal_value", "len", "marshal", "adjust_variant", "unmarshal", "print_cr",
        "toxml_cr", "print", "to_xml", "from_xml", "to_json", "from_json"};
    // clang-format on
    auto rank = [&](const Type &t, const Wrapper &w) {
        if (w.field) return order.size() + static_cast<size_t>(w.field - t.fields.data());
        return static_cast<size_t>(std::find(order.begin(), order.end(), w.op) - order.begin());
    };
    for (const auto &t : c.types) {
        s += '\n';
        s += describe_type(c, *t);
        std::vector<Wrapper> shown;
        for (const Wrapper &w : wrappers_of(*t))
            if (for_application(w)) shown.push_back(w);
        std::stable_sort(shown.begin(), shown.end(),
                         [&](const Wrapper &a, const Wrapper &b) { return rank(*t, a) < rank(*t, b); });
        for (const Wrapper &w : shown) s += prototype(w);
    }
    s += "\n";
    s += c_epilogue;
    s += "\n#include \"@D@/ops_runtime.h\"\n\n#endif\n";
    return s;
}

std::string emit_runtime_ops(const Catalogue &c) {
    std::string s = format("/* The runtime-facing exports of the @D@ bundle. %s\n", generated_banner);
    s += R"( *
 * Included by @D@/ops.h, which declares what an application calls. Declared here: the bundle's
 * registration and trace entry points, and per type the forms the runtime, the frame and the
 * tools call: _internal and _cr variants, variant and object-reference queries, the state flags,
 * _offset_update, _offset_remove and _post_copyout_cleanup.
 */
)";
    s += "#ifndef @U@_OPS_RUNTIME_H\n#define @U@_OPS_RUNTIME_H\n\n#include \"@D@/types.h\"\n\n";
    s += c_prologue;
    s += "\n/* The bundle. */\n";
    for (const BundleSymbol &b : bundle_functions()) s += "@U@_API " + std::string(b.declaration) + ";\n";
    for (const BundleSymbol &b : bundle_data()) s += "@U@_API " + std::string(b.declaration) + ";\n";
    for (const auto &t : c.types) {
        s += "\n/* " + t->name + " */\n";
        for (const Wrapper &w : wrappers_of(*t))
            if (!for_application(w)) s += prototype(w);
    }
    s += "\n";
    s += c_epilogue;
    s += "\n#endif\n";
    return s;
}

std::string emit_entry_points(const Catalogue &c) {
    std::string s = format("// The per-type entry points: each a call of a generic operation with its type's table.\n// %s\n",
                           generated_banner);
    s +=
        "#include \"ops/ops.h\"\n#include \"@D@/ops.h\"\n#include \"@D@_internal/tables.h\"\n#include \"@D@_internal/wire.h\"\n\n"
        "extern \"C\" {\n";
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
// bundle's exports, so that the same sources serve any catalogue, and the calls to the bundles it
// depends on that adoption makes (emit_dependents).
std::string emit_frame_names(const Catalogue &) {
    std::string s = format("// The bundle's names, for the frame's sources. %s\n", generated_banner);
    s += "#ifndef OVRIN_BUNDLE_FRAME_H\n#define OVRIN_BUNDLE_FRAME_H\n\n"
         "#include \"@D@/ops.h\"\n#include \"@D@_internal/tables.h\"\n\n"
         "#define OVRIN_BUNDLE_DOMAIN \"@D@\"\n"
         "#define OVRIN_BUNDLE_TRACE_MODULE \"mgx_@D@\"\n"
         "#define OVRIN_BUNDLE_EXPORT(name) @D@_##name\n"
         "#define OVRIN_BUNDLE_TRACE_INIT mgx_@D@_trace_init\n"
         "#define OVRIN_BUNDLE_TRACE_MODULE_ID g_mgx_@D@_trace_module_id\n"
         "#define OVRIN_BUNDLE_STUB_TRACE_MODULE_ID g_mgx_@D@_stub_trace_module_id\n\n"
         "namespace ovrin::frame {\n\n"
         "// The handler registered with, and unregistered from, each bundle this one depends on\n"
         "// (src/sm_dependents.cpp); arg is passed on to those whose calls take the caller's pointer.\n"
         "void register_dependent_bundles(uint64_t handler, void *arg);\n"
         "void unregister_dependent_bundles(void *arg);\n\n"
         "} // namespace ovrin::frame\n\n#endif\n";
    return s;
}

namespace {

// The body of one generated function: its calls, and which of its parameters they pass on (a
// parameter no call passes on is marked unused).
struct Calls {
    std::string text;
    bool handler = false, arg = false;

    void add(const std::string &function, bool with_handler, bool with_arg) {
        text += "    " + function + "(" + (with_handler ? "handler" : "") + (with_handler && with_arg ? ", " : "") +
                (with_arg ? "arg" : "") + ");\n";
        handler = handler || with_handler;
        arg = arg || with_arg;
    }
};

const char *maybe_unused_unless(bool used) { return used ? "" : "[[maybe_unused]] "; }

} // namespace

// Registration and unregistration with the catalogue's dependent bundles, both in the catalogue's
// order.
std::string emit_dependents(const Catalogue &c) {
    Calls reg, unreg;
    for (const Dependency &d : c.depends) reg.add(d.bundle + "_bundle_handler_register", true, d.takes_arg);
    for (const Dependency &d : c.depends) unreg.add(d.bundle + "_bundle_handler_unregister", false, d.takes_arg);
    std::string s = format("// The bundles @D@ depends on, in the catalogue's order: registering the bundle's handler\n"
                           "// registers it with each, unregistering unregisters from each in the same order.\n// %s\n",
                           generated_banner);
    s += "#include \"bundle_frame.h\"\n\nnamespace ovrin::frame {\n\n";
    s += format("void register_dependent_bundles(%suint64_t handler, %svoid *arg) {\n", maybe_unused_unless(reg.handler),
                maybe_unused_unless(reg.arg));
    s += reg.text + "}\n\n";
    s += format("void unregister_dependent_bundles(%svoid *arg) {\n", maybe_unused_unless(unreg.arg));
    s += unreg.text + "}\n\n} // namespace ovrin::frame\n";
    return s;
}

} // namespace gen
