// The operations table: one entry per type, in registration order, with the type's name, its kind
// and its main operations behind pointers of one signature for every type (the instance as
// `void *`). Each pointer leads to a small thunk that converts the instance pointers and calls the
// type's own export, so that no call goes through a pointer of another function type.
#include <stdexcept>

#include "tools/ovrin_gen/emit.h"

namespace gen {

namespace {

// One slot of the table entry: the entry point it leads to, the kinds that have it, and its
// signature in the table (names as the header shows them). A slot with an engine call leads to
// no export: its thunk makes that call ($table the type's table) for the table alone.
struct Slot {
    const char *op;
    unsigned kinds;
    const char *result;
    const char *params;
    const char *note; // for the header; empty for none
    const char *engine = "";
};

const std::vector<Slot> &slots() {
    static const std::vector<Slot> list = {
        {"create", k_all, "void *", "mgx_handle_t *h, uint32_t luid", ""},
        {"destroy", k_all, "void", "mgx_handle_t *h, uint32_t luid, void *instance", ""},
        {"adjust_variant", k_all, "uint32_t", "mgx_handle_t *h, uint32_t luid, void *instance, uint32_t *err",
         "to the handle's domain variant"},
        {"len", k_composite, "uint32_t", "mgx_handle_t *h, uint32_t luid, const void *instance",
         "null for enumerations, whose encoding is always 5 bytes"},
        {"marshal", k_all, "uint32_t",
         "mgx_handle_t *h, uint32_t luid, uint8_t *buf, const void *instance, int32_t space, uint32_t *err", ""},
        {"unmarshal", k_all, "uint32_t",
         "mgx_handle_t *h, uint32_t luid, const uint8_t *buf, void *instance, int32_t length, uint32_t flags, "
         "uint32_t *err",
         ""},
        {"to_xml", k_all, "uint32_t",
         "mgx_handle_t *h, uint32_t luid, const char *name, char *buf, const void *instance, uint32_t size, "
         "uint8_t state_flag, uint32_t *err",
         ""},
        {"from_xml", k_all, "void",
         "mgx_handle_t *h, uint32_t luid, const char *path, void *doc, void *instance, uint32_t *err, char *msg, "
         "uint32_t msg_size",
         ""},
        {"print", k_all, "uint32_t",
         "mgx_handle_t *h, uint32_t luid, char *buf, uint32_t indent, const char *name, const void *instance, "
         "uint32_t size, uint32_t *err",
         ""},
        {"print_cr", k_all, "int32_t", "mgx_handle_t *h, const void *instance, char *buf, uint32_t size",
         "the length written, negative on failure"},
        {"toxml_cr", k_all, "uint32_t", "mgx_handle_t *h, const void *instance, char *buf, uint32_t size", ""},
        {"clone", k_composite, "void",
         "mgx_handle_t *h, uint32_t luid, const void *source, void **destination, uint8_t *buf, uint32_t length, "
         "uint32_t *err",
         "null for enumerations"},
        {"compare", k_all, "int32_t", "const void *a, const void *b", ""},
        {"hash", k_all, "uint32_t", "const void *instance, uint32_t seed", ""},
        {"print_whole", k_all, "int64_t", "mgx_handle_t *h, const void *instance, char **text, size_t *size",
         "print_cr's text whole, in one walk: *text (from malloc, or null) grows with realloc and is the "
         "caller's to free; the length, or -1 (the handle's last error says why)",
         "ovrin::text_whole($table, h, instance, false, text, size)"},
        {"toxml_whole", k_all, "int64_t", "mgx_handle_t *h, const void *instance, char **text, size_t *size",
         "the same for toxml_cr's text", "ovrin::text_whole($table, h, instance, true, text, size)"},
        {"to_json", k_all, "int64_t", "mgx_handle_t *h, const void *instance, uint32_t flags, char **text, size_t *size",
         "the JSON form, whole as print_whole's text (flags: OVRIN_JSON_PRETTY)"},
        {"from_json", k_all, "uint32_t",
         "mgx_handle_t *h, uint32_t luid, const char *json, size_t length, void *instance, uint32_t flags, "
         "ovrin_json_error *error",
         "0, or the code; error (if given) says what and where (flags: OVRIN_JSON_LENIENT)"},
    };
    return list;
}

unsigned kind_bit(const Type &t) { return t.kind == TypeKind::record ? k_record : t.kind == TypeKind::union_ ? k_union : k_enum; }

const char *kind_constant(const Type &t) {
    return t.kind == TypeKind::record   ? "@U@_KIND_RECORD"
           : t.kind == TypeKind::union_ ? "@U@_KIND_UNION"
                                        : "@U@_KIND_ENUMERATION";
}

std::string trim(const std::string &s) {
    size_t a = s.find_first_not_of(' '), b = s.find_last_not_of(' ');
    return a == std::string::npos ? "" : s.substr(a, b - a + 1);
}

struct Param {
    std::string type, name;
};

// A parameter list as written in the entry-point lists: "T1 name1, T2 *name2"; "void" is none.
std::vector<Param> split_params(const std::string &params) {
    std::vector<Param> out;
    if (trim(params) == "void") return out;
    size_t start = 0;
    while (start <= params.size()) {
        size_t comma = params.find(',', start);
        std::string one = trim(params.substr(start, comma == std::string::npos ? std::string::npos : comma - start));
        size_t name_at = one.find_last_of(" *") + 1;
        out.push_back({trim(one.substr(0, name_at)), one.substr(name_at)});
        if (comma == std::string::npos) break;
        start = comma + 1;
    }
    return out;
}

// The entry point a slot leads to for a type of the given kind.
const EntryPoint &entry_point(const Slot &s, unsigned kind) {
    for (const EntryPoint &e : entry_points())
        if (std::string(e.op) == s.op && (e.kinds & kind)) return e;
    throw std::runtime_error(std::string("the operations table names no entry point ") + s.op);
}

// "$T" made "void": the table's view of an entry point's types.
std::string untyped(const std::string &type) { return replace_all(type, "$T", "void"); }

// The thunk of one slot for one type: the table's signature, calling `<type>_<op>`. Instance
// pointers become the type's own again (a `void **` destination by reinterpret_cast, which the
// engine turns back into `void **` before storing through it).
std::string thunk(const Type &t, const Slot &s) {
    if (*s.engine)
        return format("%s %s_%s(%s) { return %s; }\n", s.result, t.name.c_str(), s.op, s.params,
                      replace_all(s.engine, "$table", "ovrin::table::" + t.name).c_str());
    const EntryPoint &e = entry_point(s, kind_bit(t));
    std::vector<Param> want = split_params(s.params), have = split_params(e.params);
    bool same = want.size() == have.size();
    for (size_t i = 0; same && i < want.size(); ++i) same = want[i].type == untyped(have[i].type);
    if (!same) throw std::runtime_error(t.name + "_" + s.op + ": its parameters do not fit the operations table's");
    std::string params, args;
    for (const Param &p : have) {
        params += (params.empty() ? "" : ", ") + untyped(p.type) + (untyped(p.type).back() == '*' ? "" : " ") + p.name;
        std::string arg = p.name;
        if (p.type.find("$T") != std::string::npos) {
            std::string typed = replace_all(p.type, "$T", t.name);
            arg = (p.type.find("**") != std::string::npos ? "reinterpret_cast<" : "static_cast<") + typed + ">(" + p.name + ")";
        }
        args += (args.empty() ? "" : ", ") + arg;
    }
    std::string call = "::" + t.name + "_" + s.op + "(" + args + ")";
    std::string result = s.result;
    std::string body = result == "void"              ? call + ";"
                       : untyped(e.result) == result ? "return " + call + ";"
                                                     : "return static_cast<" + result + ">(" + call + ");";
    return format("%s%s%s_%s(%s) { %s }\n", result.c_str(), result.back() == '*' ? "" : " ", t.name.c_str(), s.op, params.c_str(),
                  body.c_str());
}

} // namespace

const std::vector<BundleSymbol> &optable_symbols() {
    static const std::vector<BundleSymbol> list = {
        {"@D@_optable", "extern const @D@_type_ops @D@_optable[]"},
        {"@D@_optable_count", "extern const uint32_t @D@_optable_count"},
        {"@D@_optable_find", "const @D@_type_ops *@D@_optable_find(const char *name)"},
    };
    return list;
}

std::string emit_optable_header(const Catalogue &) {
    std::string s = format("/* The operations of every type of the @D@ bundle, as one table. %s\n *\n", generated_banner);
    s += " * One entry per type in registration order, each with the type's name, its kind and its main\n"
         " * operations. Instances are passed as `void *`, so that one entry type serves every type; the\n"
         " * instance must be of the entry's type. */\n";
    s += "#ifndef @U@_OPTABLE_H\n#define @U@_OPTABLE_H\n\n#include \"@D@/types.h\"\n\n";
    s += "#ifdef __cplusplus\nextern \"C\" {\n#endif\n\n";
    s += "typedef enum @D@_type_kind { @U@_KIND_ENUMERATION, @U@_KIND_RECORD, @U@_KIND_UNION } @D@_type_kind;\n\n";
    s += "typedef struct @D@_type_ops {\n    const char *name;\n    @D@_type_kind kind;\n";
    for (const Slot &slot : slots()) {
        std::string line = format("    %s%s(*%s)(%s);", slot.result, std::string(slot.result).back() == '*' ? "" : " ", slot.op,
                                  slot.params);
        if (*slot.note) line += format(" /* %s */", slot.note);
        s += line + "\n";
    }
    s += "} @D@_type_ops;\n\n";
    s += "/* The entries, @D@_optable_count of them; @D@_optable_find gives the entry of the type named\n"
         " * so, or null. */\n";
    for (const BundleSymbol &b : optable_symbols()) s += "@U@_API " + std::string(b.declaration) + ";\n";
    s += "\n";
    s += "#ifdef __cplusplus\n}\n#endif\n\n#endif\n";
    return s;
}

std::string emit_optable_source(const Catalogue &c) {
    std::string s = format("// The operations table and its thunks. %s\n", generated_banner);
    s += "#include <cstring>\n\n#include \"@D@/ops.h\"\n#include \"@D@/optable.h\"\n#include \"@D@_internal/tables.h\"\n"
         "#include \"ops/text/text.h\"\n\n";
    s += "namespace {\n// Each calls the export of the same name with the instance pointers typed again.\nnamespace thunk {\n";
    for (const auto &t : c.types) {
        s += "\n";
        for (const Slot &slot : slots())
            if (slot.kinds & kind_bit(*t)) s += thunk(*t, slot);
    }
    s += "\n} // namespace thunk\n} // namespace\n\nextern \"C\" {\n\n";
    s += "const @D@_type_ops @D@_optable[] = {\n";
    for (const auto &t : c.types) {
        s += format("    {%s, %s", c_string(t->name).c_str(), kind_constant(*t));
        for (const Slot &slot : slots())
            s += slot.kinds & kind_bit(*t) ? ", thunk::" + t->name + "_" + slot.op : std::string(", nullptr");
        s += "},\n";
    }
    s += "};\n\n";
    s += format("const uint32_t @D@_optable_count = %zuu;\n\n", c.types.size());
    s += "const @D@_type_ops *@D@_optable_find(const char *name) {\n"
         "    if (!name) return nullptr;\n"
         "    for (const @D@_type_ops &entry : @D@_optable)\n"
         "        if (!std::strcmp(entry.name, name)) return &entry;\n"
         "    return nullptr;\n}\n\n} // extern \"C\"\n";
    return s;
}

} // namespace gen
