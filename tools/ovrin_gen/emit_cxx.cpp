// The C++ interface (include/NAME/NAME.hpp): per enumeration an enum class and its names; per
// record and union the table of its C operations (ovrin::c_ops), a mixin of typed accessors, and
// the owning message and the reference that share the mixin. Each accessor is one call of a C
// export through the generic helpers of ovrin/message.hpp, so this file only names things.
#include <set>
#include <stdexcept>

#include "tools/ovrin_gen/emit.h"

namespace gen {

namespace {

// Names the generic classes already give a meaning to: a field so named would hide or be hidden.
const std::set<std::string> &reserved() {
    static const std::set<std::string> names = {
        "get",     "runtime",     "luid",  "live",    "to_string", "to_xml", "encoded_size", "encode",  "encode_to",
        "decode",  "decode_from", "hash",  "compare", "type_name", "create", "adopt",        "release", "from_xml",
        "to_json", "from_json",   "clone", "reset",   "which",     "ref",    "ops",          "c_type",  "as_ref"};
    return names;
}

// The namespace of the domain's C++ types: ovrin_X becomes ovrin::X, any other name stays.
std::string cxx_namespace(const std::string &domain) {
    return domain.rfind("ovrin_", 0) == 0 ? "ovrin::" + domain.substr(6) : domain;
}

bool is_companion(const Type &t, const Field &f) {
    for (const Field &g : t.fields)
        if ((g.shape == Shape::var_array || g.shape == Shape::var_string) && &t.fields[g.companion] == &f) return true;
    return false;
}

bool integer(Prim p) { return p == Prim::u8 || p == Prim::u16 || p == Prim::u32 || p == Prim::u64; }

// The C++ value type of one element of a primitive field.
std::string value_type(Prim p) { return p == Prim::boolean ? "bool" : prim_c_type(p); }

const Literal &literal(const Type &e, const std::string &name) {
    for (const Literal &l : e.literals)
        if (l.name == name) return l;
    throw std::runtime_error("no literal " + name + " in " + e.name);
}

struct Writer {
    std::string out;
    std::string t, f; // the type and field being written, for $T and $F

    void line(std::string text) {
        text = replace_all(std::move(text), "$T", t);
        text = replace_all(std::move(text), "$F", f);
        out += "    " + text + "\n";
    }
};

void scalar_accessors(Writer &w, const Type &t, const Field &f) {
    const bool setter = !is_companion(t, f);
    if (f.prim && (integer(*f.prim) || *f.prim == Prim::boolean)) {
        const std::string v = value_type(*f.prim);
        if (*f.prim == Prim::boolean) {
            w.line("bool $F() const { return this->call_(\"$F\", ::$T_$F_get_value) != 0; }");
            if (setter)
                w.line("Self &set_$F(bool v) { this->call_(\"$F\", ::$T_$F_set_value, mgx_boolean{v}); return this->self_(); }");
        } else {
            w.line(v + " $F() const { return this->call_(\"$F\", ::$T_$F_get_value); }");
            if (setter) w.line("Self &set_$F(" + v + " v) { this->call_(\"$F\", ::$T_$F_set_value, v); return this->self_(); }");
        }
    } else if (f.prim && *f.prim == Prim::aaa_tlv) {
        w.line("ovrin::attr_list $F() const { return ovrin::attr_list(this->self_().runtime(), this->self_().luid(), "
               "this->call_(\"$F\", ::$T_$F_get), \"$T\", \"$F\"); }");
    } else if (f.prim) {
        const std::string v = prim_c_type(*f.prim);
        w.line(v + " $F() const { return *this->call_(\"$F\", ::$T_$F_get); }");
        w.line("Self &set_$F(const " + v + " &v) { this->call_(\"$F\", ::$T_$F_set, &v); return this->self_(); }");
    } else if (f.type->is_enum()) {
        const std::string e = f.type->name;
        w.line(e + " $F() const { return static_cast<" + e + ">(this->call_(\"$F\", ::$T_$F_get)->value); }");
        if (f.discriminator) w.line(e + " which() const { return $F(); }");
        else
            w.line("Self &set_$F(" + e +
                   " v) { this->set_enum_(\"$F\", ::$T_$F_set, this->call_(\"$F\", ::$T_$F_get), v); "
                   "return this->self_(); }");
    } else {
        const std::string r = f.type->name;
        w.line(r + "_ref $F() const { return this->template nested_<" + r + "_ref>(\"$F\", ::$T_$F_get); }");
        w.line("Self &set_$F(" + r + " &&v) { this->call_(\"$F\", ::$T_$F_set, v.live()); return this->self_(); }");
    }
}

void member_accessors(Writer &w, const Type &t, const Field &f) {
    const Field &d = t.fields[static_cast<size_t>(t.discriminator)];
    const std::string r = f.type->name;
    w.line("bool has_$F() const { return which() == " + d.type->name + "::" + literal(*d.type, f.select_name).name + "; }");
    w.line(r + "_ref $F() const {");
    w.line("    if (!has_$F()) ovrin::detail::fail(MGX_ENOENT, \"$T\", \"$F\");");
    w.line("    return this->template nested_<" + r + "_ref>(\"$F\", ::$T_$F_get);");
    w.line("}");
    w.line("Self &set_$F(" + r +
           " &&m) { this->put_member_(\"$F\", ::$T_$F_set, &this->self_().live()->$F, std::move(m)); "
           "return this->self_(); }");
    w.line(r + "_ref emplace_$F() { return set_$F(" + r + "::create(this->self_().runtime(), this->self_().luid())).$F(); }");
}

void array_accessors(Writer &w, const Type &t, const Field &f) {
    const std::string n = std::to_string(f.count);
    if (f.shape == Shape::var_array) {
        const Field &count = t.fields[static_cast<size_t>(f.companion)];
        const std::string count_fn = count.name == f.name + "_length" ? "::$T_" + count.name + "_get_value"
                                                                      : "::$T_$F_length_get_value";
        w.line("ovrin::array_ref<::$T, " + f.type->name + "_ref, ::$T_$F_get, ::$T_$F_set, " + count_fn +
               ", ::$T_$F_remove_elements> $F() const {");
        w.line("    return {this->self_().runtime(), this->self_().luid(), this->self_().live(), \"$T\", \"$F\"};");
        w.line("}");
        return;
    }
    const std::string in_range = "if (i >= " + n + ") ovrin::detail::fail(MGX_ENOENT, \"$T\", \"$F\"); ";
    if (f.type) { // enumerations, read and written by value
        const std::string e = f.type->name;
        w.line(e + " $F(uint32_t i) const { " + in_range + "return static_cast<" + e +
               ">(this->call_(\"$F\", ::$T_$F_get_value, i)); }");
        w.line("Self &set_$F(uint32_t i, " + e +
               " v) { this->call_(\"$F\", ::$T_$F_set_value, i, static_cast<uint32_t>(v)); "
               "return this->self_(); }");
    } else if (*f.prim == Prim::aaa_tlv) {
        w.line("ovrin::attr_list $F(uint32_t i) const { " + in_range +
               "return ovrin::attr_list(this->self_().runtime(), this->self_().luid(), this->call_(\"$F\", ::$T_$F_get, i), "
               "\"$T\", \"$F\"); }");
    } else {
        const std::string c = prim_c_type(*f.prim);
        w.line("std::span<const " + c + ", " + n + "> $F() const { return std::span<const " + c + ", " + n +
               ">(this->call_(\"$F\", ::$T_$F_get, 0u), " + n + "); }");
        if (integer(*f.prim) || *f.prim == Prim::boolean)
            w.line("Self &set_$F(uint32_t i, " + value_type(*f.prim) + " v) { this->call_(\"$F\", ::$T_$F_set_value, i, " + c +
                   "(v)); return this->self_(); }");
        else
            w.line("Self &set_$F(uint32_t i, const " + c + " &v) { " + in_range +
                   "this->call_(\"$F\", ::$T_$F_set, i, &v); return this->self_(); }");
        w.line("Self &set_$F(std::span<const " + c + ", " + n + "> v) { this->call_(\"$F\", ::$T_$F_set_mem, v.data(), int32_t{" +
               n + "}); return this->self_(); }");
    }
}

void string_accessors(Writer &w, const Type &t, const Field &f) {
    const Field &length = t.fields[static_cast<size_t>(f.companion)];
    const std::string max = *length.prim == Prim::u16 ? "0xFFFFu" : "0xFFFFFFFFu";
    w.line("std::string_view $F_view() const { this->require_(\"$F\", " + std::to_string(f.from) +
           "); return this->text_(this->self_().live()->$F, this->self_().live()->" + length.name + "); }");
    w.line("std::string $F() const { return std::string($F_view()); }");
    w.line("Self &set_$F(std::string_view v) {");
    w.line("    if (v.size() > " + max + ") ovrin::detail::fail(MGX_EINVAL, \"$T\", \"$F\");");
    w.line("    this->call_(\"$F\", ::$T_$F_set, v.data(), static_cast<uint32_t>(v.size()));");
    w.line("    return this->self_();");
    w.line("}");
}

void emit_enum(std::string &out, const Type &e) {
    out += "enum class " + e.name + " : uint32_t {\n";
    for (const Literal &l : e.literals) out += "    " + l.name + " = " + std::to_string(l.user) + "u,\n";
    out += "};\n";
}

void emit_enum_names(std::string &out, const std::string &ns, const Type &e) {
    out += "template <> struct enum_names<" + ns + "::" + e.name + "> {\n";
    out += "    static constexpr std::pair<" + ns + "::" + e.name + ", std::string_view> literals[] = {\n";
    for (const Literal &l : e.literals) out += "        {" + ns + "::" + e.name + "::" + l.name + ", \"" + l.name + "\"},\n";
    out += "    };\n};\n";
}

void emit_c_ops(std::string &out, const Type &t) {
    Writer w;
    w.t = t.name;
    out += "template <> struct c_ops<::" + t.name + "> {\n";
    w.out.clear();
    w.line("static constexpr const char *name = \"$T\";");
    w.line("static constexpr uint32_t index = " + std::to_string(t.index) + ";");
    w.line("static const @D@_type_ops &table() noexcept { return @D@_optable[index]; }");
    for (const char *op : {"create", "destroy", "set", "adjust_variant", "len", "marshal", "unmarshal", "clone", "compare",
                           "hash", "from_xml", "to_json", "from_json"})
        w.line(std::string("static constexpr auto ") + op + " = &::$T_" + op + ";");
    out += w.out + "};\n";
}

void emit_type(std::string &out, const Type &t) {
    Writer w;
    w.t = t.name;
    out += "\n// " + t.name + (t.kind == TypeKind::union_ ? ": union" : ": record") + "\n";
    out += "template <class Self> struct " + t.name + "_fields : ovrin::fields<Self> {\n";
    for (const Field &f : t.fields) {
        if (reserved().count(f.name))
            throw Error(f.line, t.name + "." + f.name + ": the name is taken in the C++ interface (rename the field)");
        w.f = f.name;
        switch (f.shape) {
        case Shape::scalar: scalar_accessors(w, t, f); break;
        case Shape::member: member_accessors(w, t, f); break;
        case Shape::fixed_array:
        case Shape::var_array: array_accessors(w, t, f); break;
        case Shape::var_string: string_accessors(w, t, f); break;
        }
    }
    out += w.out + "};\n";
    w.out.clear();
    out += replace_all("// A reference to a $T held by something else (valid as long as that holder keeps it there).\n"
                       "class $T_ref final : public ovrin::ref_base<::$T>, public $T_fields<$T_ref> {\n"
                       "public:\n"
                       "    using ref_base::ref_base;\n"
                       "};\n"
                       "// An owning $T.\n"
                       "class $T final : public ovrin::message_base<::$T, $T>, public $T_fields<$T> {\n"
                       "public:\n"
                       "    using ref = $T_ref;\n"
                       "    $T_ref as_ref() const noexcept { return $T_ref(runtime(), luid(), get()); }\n"
                       "};\n",
                       "$T", t.name);
}

} // namespace

std::string emit_cxx_header(const Catalogue &c) {
    const std::string ns = cxx_namespace(c.domain);
    std::string out = "// The @D@ types for C++: owning messages, references into them, typed accessors. ";
    out += generated_banner;
    out += "\n// See ovrin/message.hpp for what every message can do and how long a reference stays valid.\n"
           "#ifndef @U@_HPP\n#define @U@_HPP\n\n"
           "#include <cstdint>\n#include <span>\n#include <string>\n#include <string_view>\n#include <tuple>\n"
           "#include <utility>\n\n"
           "#include \"@D@/ops.h\"\n#include \"@D@/optable.h\"\n#include \"ovrin/message.hpp\"\n\n";
    out += "namespace " + ns + " {\n\n";
    for (const auto &t : c.types)
        if (t->is_enum()) emit_enum(out, *t);
    out += "\n";
    for (const auto &t : c.types)
        if (!t->is_enum()) out += "class " + t->name + ";\nclass " + t->name + "_ref;\n";
    out += "\n} // namespace " + ns + "\n\nnamespace ovrin {\n\n";
    for (const auto &t : c.types) {
        if (t->is_enum()) emit_enum_names(out, ns, *t);
        else emit_c_ops(out, *t);
    }
    out += "\n} // namespace ovrin\n\nnamespace " + ns + " {\n";
    std::string all;
    for (const auto &t : c.types) {
        if (t->is_enum()) continue;
        emit_type(out, *t);
        all += std::string(all.empty() ? "" : ",\n                                ") + t->name;
    }
    out += "\n// Every record and union, in registration order, for code written once for them all.\n";
    out += "using all_messages = std::tuple<" + all + ">;\n";
    out += "\n} // namespace " + ns + "\n\n";
    out += "// The same list for the preprocessor: X(name) for every record and union.\n#define @U@_FOR_EACH_MESSAGE(X)";
    for (const auto &t : c.types)
        if (!t->is_enum()) out += " \\\n    X(" + t->name + ")";
    out += "\n\n#endif\n";
    return out;
}

} // namespace gen
