// The compiled wire code: per record and union, its length, encode and decode as calls of the
// engine's wire pieces (ops/wire/code.h) in wire order, with each member's kind, offset, state
// byte and nested type written in. The rules stay in the engine; this code only orders them.

#include "tools/ovrin_gen/emit.h"

namespace gen {

namespace {

// A primitive of fixed wire width: a run of them reserves its bytes once.
bool fixed_width(const Field &f) { return f.shape == Shape::scalar && f.prim && *f.prim != Prim::aaa_tlv; }

// The variants of a type grouped by their wire steps: variants whose members are the same share
// one sequence (the first of them names the plan a run falls back to).
struct VariantGroup {
    std::vector<int> variants;
    std::vector<WireStep> steps;
};

std::vector<VariantGroup> variant_groups(const Type &t) {
    std::vector<VariantGroup> groups;
    for (int v = 0; v < t.n_variants; ++v) {
        std::vector<WireStep> steps = wire_steps(t, v);
        auto same = [&](const VariantGroup &g) {
            if (g.steps.size() != steps.size()) return false;
            for (size_t i = 0; i < steps.size(); ++i)
                if (g.steps[i].field != steps[i].field) return false;
            return true;
        };
        bool joined = false;
        for (VariantGroup &g : groups)
            if (same(g)) g.variants.push_back(v), joined = true;
        if (!joined) groups.push_back({{v}, steps});
    }
    return groups;
}

std::string case_labels(const VariantGroup &g) {
    std::string s;
    for (int v : g.variants) s += format("    case %d:\n", v);
    return s;
}

// The element code a composite member's elements take, by family ("len", "put", "get").
std::string element_code(const Field &f, const char *family) {
    if (f.prim) return format("prim_%s<Kind::%s>", family, kind_name(f));
    if (f.type->is_enum()) return format("enum_%s<table::%s>", family, f.type->name.c_str());
    static const std::map<std::string, const char *> suffix = {{"len", "length"}, {"put", "encode"}, {"get", "decode"}};
    return format("record_%s<%s_%s>", family, f.type->name.c_str(), suffix.at(family));
}

// The engine's piece for a composite member's shape, by family ("length", "put", "get").
std::string shape_piece(const Field &f, const char *family) {
    switch (f.shape) {
    case Shape::fixed_array: return format("%s_fixed", family);
    case Shape::var_string: return format("%s_string", family);
    case Shape::var_array: return format("%s_array", family);
    case Shape::member: return format("%s_member", family);
    case Shape::scalar: break;
    }
    return format("%s_composite", family);
}

// The element argument of a composite piece (none for a counted string).
std::string element_arg(const Field &f, const char *family) {
    return f.shape == Shape::var_string ? "" : ", " + element_code(f, family);
}

// A run of fixed-width scalars: steps [first, last) of the group's plan.
struct Run {
    size_t first, last;
};

template <class EmitRun, class EmitStep> void walk_steps(const VariantGroup &g, const Type &t, EmitRun run, EmitStep step) {
    size_t i = 0;
    while (i < g.steps.size()) {
        if (!g.steps[i].composite && fixed_width(t.fields[g.steps[i].field])) {
            size_t j = i;
            while (j < g.steps.size() && !g.steps[j].composite && fixed_width(t.fields[g.steps[j].field])) ++j;
            run(Run{i, j});
            i = j;
        } else {
            step(i, g.steps[i]);
            ++i;
        }
    }
}

std::string field_note(const Field &f) { return format(" // %s", f.name.c_str()); }

// The bytes a run reserves, as the sum of the engine's widths of its members' kinds.
std::string run_width(const Type &t, const VariantGroup &g, Run r) {
    std::string width;
    for (size_t i = r.first; i < r.last; ++i)
        width += format("%swidth_of(Kind::%s)", i == r.first ? "" : " + ", kind_name(t.fields[g.steps[i].field]));
    return width;
}

// A coder's switch over the variant groups: each group's case labels, its runs and single steps
// in wire order as run(group, run) and step(step) write them, and its break.
template <class EmitRun, class EmitStep> std::string variant_cases(const Type &t, EmitRun run, EmitStep step) {
    std::string s;
    for (const VariantGroup &g : variant_groups(t)) {
        s += case_labels(g);
        walk_steps(
            g, t, [&](Run r) { s += run(g, r); }, [&](size_t, const WireStep &w) { s += step(w); });
        s += "        break;\n";
    }
    return s;
}

std::string length_function(const Type &t) {
    const char *T = t.name.c_str();
    std::string s = format("uint32_t %s_length(mgx_handle_t *h, uint32_t luid, const void *instance) {\n", T);
    s += format("    [[maybe_unused]] const Type &t = table::%s;\n    Length l{h, luid};\n", T);
    s += "    switch (plan_variant(t, mgx_get_instance_variant(instance, 1, 0))) {\n";
    for (const VariantGroup &g : variant_groups(t)) {
        s += case_labels(g);
        unsigned state = 0;
        for (const WireStep &step : g.steps) {
            const Field &f = t.fields[step.field];
            if (step.composite) {
                s += format("        %s(FieldAt<const void>(t, t.fields[%zu], instance), l%s);%s\n",
                            shape_piece(f, "length").c_str(), step.field, element_arg(f, "len").c_str(), field_note(f).c_str());
                continue;
            }
            state += !step.counter;
            if (f.prim) s += format("        l.n += prim_len<Kind::%s>(l, at(instance, %u));", kind_name(f), f.offset);
            else if (f.type->is_enum()) s += "        l.n += enum_wire_length;";
            else s += format("        l.n += %s_length(h, luid, at(instance, %u));", f.type->name.c_str(), f.offset);
            s += field_note(f) + "\n";
        }
        if (state) s += format("        l.state += %u;\n", state);
        s += "        break;\n";
    }
    s += "    }\n    return l.total(t, instance);\n}\n";
    return s;
}

std::string encode_function(const Type &t) {
    const char *T = t.name.c_str();
    std::string s = format(
        "uint32_t %s_encode(mgx_handle_t *h, uint32_t luid, uint8_t *buf, const void *instance, int32_t space, "
        "bool check, uint32_t *err) {\n",
        T);
    s += format("    [[maybe_unused]] const Type &t = table::%s;\n    Writer w(h, luid, buf, space, err);\n", T);
    s += "    switch (open_record(t, w, instance, check)) {\n";
    s += variant_cases(
        t,
        [&](const VariantGroup &g, Run r) {
            int plan = g.variants.front();
            std::string body;
            for (size_t i = r.first; i < r.last; ++i) {
                const Field &f = t.fields[g.steps[i].field];
                body += format("            run.put<Kind::%s>(h, luid, instance, %u);%s\n", kind_name(f), f.offset,
                               field_note(f).c_str());
            }
            return format("        if (w.fits(%s)) {\n            PutRun run(w);\n%s        } else {\n",
                          run_width(t, g, r).c_str(), body.c_str()) +
                   format(
                       "            encode_steps(t, t.wire[%d].steps + %zu, t.wire[%d].steps + %zu, w, instance);\n        }\n",
                       plan, r.first, plan, r.last);
        },
        [&](const WireStep &step) {
            const Field &f = t.fields[step.field];
            if (step.composite)
                return format("        %s(FieldAt<const void>(t, t.fields[%zu], instance), w%s);", shape_piece(f, "put").c_str(),
                              step.field, element_arg(f, "put").c_str()) +
                       field_note(f) + "\n";
            return format("        put_scalar(w, instance, %u, %u, %s, %s);", f.offset, f.sttr_pos,
                          step.counter ? "false" : "true", element_code(f, "put").c_str()) +
                   field_note(f) + "\n";
        });
    s += "    }\n    return close_record(w);\n}\n";
    return s;
}

std::string decode_function(const Type &t) {
    const char *T = t.name.c_str();
    std::string s = format(
        "uint32_t %s_decode(mgx_handle_t *h, uint32_t luid, const uint8_t *buf, void *instance, int32_t length, "
        "uint32_t flags, uint32_t *err) {\n",
        T);
    s += format("    [[maybe_unused]] const Type &t = table::%s;\n    Reader r(h, luid, buf, length, flags, err);\n", T);
    s += "    int8_t variant = open_decode(t, r, instance);\n    if (*r.err) return static_cast<uint32_t>(r.pos);\n";
    s += "    switch (plan_variant(t, variant)) {\n";
    const char *stop = "return static_cast<uint32_t>(r.pos);";
    s += variant_cases(
        t,
        [&](const VariantGroup &g, Run r) {
            int plan = g.variants.front();
            std::string body;
            for (size_t i = r.first; i < r.last; ++i) {
                const Field &f = t.fields[g.steps[i].field];
                if (g.steps[i].counter)
                    body += format("            run.counter<Kind::%s>(t, %zu, h, luid, instance, %u);%s\n", kind_name(f),
                                   g.steps[i].field, f.offset, field_note(f).c_str());
                else
                    body += format("            run.get<Kind::%s>(h, luid, instance, %u);%s\n", kind_name(f), f.offset,
                                   field_note(f).c_str());
            }
            return format("        if (r.fits(%s)) {\n            GetRun run(r);\n%s        } else if (!decode_run(t, "
                          "t.wire[%d].steps + %zu, t.wire[%d].steps + %zu, r, instance)) {\n            %s\n        }\n",
                          run_width(t, g, r).c_str(), body.c_str(), plan, r.first, plan, r.last, stop);
        },
        [&](const WireStep &step) {
            const Field &f = t.fields[step.field];
            if (step.composite)
                return format("        if (!%s(FieldAt<void>(t, t.fields[%zu], instance), r%s)) %s",
                              shape_piece(f, "get").c_str(), step.field, element_arg(f, "get").c_str(), stop) +
                       field_note(f) + "\n";
            return format("        if (!get_scalar(t, r, instance, %zu, %u, %u, %s, %s)) %s", step.field, f.offset, f.sttr_pos,
                          step.counter ? "false" : "true", element_code(f, "get").c_str(), stop) +
                   field_note(f) + "\n";
        });
    s += "    }\n    return close_decode(t, r, instance, variant);\n}\n";
    return s;
}

std::string type_comment(const Type &t) {
    std::string s = format("\n// %s (%s, %d variant%s)", t.name.c_str(), t.kind == TypeKind::union_ ? "union" : "record",
                           t.n_variants, t.n_variants == 1 ? "" : "s");
    std::string members;
    for (const Field &f : t.fields) members += (members.empty() ? "" : ", ") + f.name;
    return s + (members.empty() ? ": no members\n" : ": " + members + "\n");
}

} // namespace

std::string emit_wire_header(const Catalogue &c) {
    std::string s = format("// The compiled wire code of every record and union. %s\n", generated_banner);
    s += "#ifndef @U@_INTERNAL_WIRE_H\n#define @U@_INTERNAL_WIRE_H\n\n#include \"ops/types.h\"\n\nnamespace ovrin::wire_code "
         "{\n\n";
    for (const auto &t : c.types) {
        if (t->is_enum()) continue;
        const char *T = t->name.c_str();
        s += format("uint32_t %s_length(mgx_handle_t *h, uint32_t luid, const void *instance);\n", T);
        s += format(
            "uint32_t %s_encode(mgx_handle_t *h, uint32_t luid, uint8_t *buf, const void *instance, int32_t space, bool check, "
            "uint32_t *err);\n",
            T);
        s += format("uint32_t %s_decode(mgx_handle_t *h, uint32_t luid, const uint8_t *buf, void *instance, int32_t length, "
                    "uint32_t flags, uint32_t *err);\n",
                    T);
    }
    s += "\n// Every type's functions by registration order (none for enumerations).\nextern const WireCode by_type[];\n\n";
    s += "} // namespace ovrin::wire_code\n\n#endif\n";
    return s;
}

std::string emit_wire_source(const Catalogue &c) {
    std::string s = format("// The compiled wire code: per record and union, its length, encode and decode as the engine's\n"
                           "// wire pieces in wire order (ops/wire/code.h). %s\n",
                           generated_banner);
    s += "#include \"@D@_internal/wire.h\"\n\n#include \"@D@_internal/tables.h\"\n#include \"ops/wire/code.h\"\n\n"
         "namespace ovrin::wire_code {\n\nusing namespace ovrin::wire;\n";
    for (const auto &t : c.types) {
        if (t->is_enum()) continue;
        s += type_comment(*t) + length_function(*t) + encode_function(*t) + decode_function(*t);
    }
    s += "\nconst WireCode by_type[] = {\n";
    for (const auto &t : c.types)
        s += t->is_enum() ? format("    {nullptr, nullptr, nullptr}, // %s\n", t->name.c_str())
                          : format("    {%s_length, %s_encode, %s_decode},\n", t->name.c_str(), t->name.c_str(), t->name.c_str());
    s += "};\n\n} // namespace ovrin::wire_code\n";
    return s;
}

} // namespace gen
