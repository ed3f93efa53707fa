// ovrin-sm types [TYPE]: the table of the bundle's types, read from the loaded library through its
// module node in the runtime's module list (registration order) and the descriptors it lists; with
// TYPE, that type's members, arms and literals from the tool's copy of the type tables, or with
// --xml-skeleton or --json-skeleton a document of the type for encode to start from.
#include <cstdio>
#include <cstring>
#include <string>

#include "cli/commands.h"
#include "cli/options.h"
#include "cli/tables.h"
#include "ovrin_sm/ops.h"

namespace {

using namespace ovrin;
using namespace ovrin::cli;

const mgx_module_node_t *bundle_module() {
    for (const mgx_module_node_t *n = mgx_module_tot_root.first; n; n = n->next)
        if (n->domain_name && !std::strcmp(n->domain_name, "ovrin_sm")) return n;
    return nullptr;
}

std::string variants_of(const mgx_type_variant_info_t *info) {
    std::string s;
    if (!info) return "-";
    for (int i = 0; i < info->n_variants; ++i) {
        char cell[32];
        std::snprintf(cell, sizeof cell, "%s%u/%u", i ? " " : "", info->entries[i].used_length, info->entries[i].alloc_slop);
        s += cell;
    }
    return s;
}

int list_types() {
    const mgx_module_node_t *module = bundle_module();
    if (!module || !module->descriptor_table) {
        std::fprintf(stderr, "ovrin-sm: the ovrin_sm bundle is not linked into the runtime's module list\n");
        return exit_failure;
    }
    std::printf("%3s  %-38s %-4s  %-22s %5s  %s\n", "#", "type", "kind", "variants (used/slop)", "size", "fingerprint");
    int n = 0;
    for (const void *const *entry = module->descriptor_table; *entry; ++entry) {
        const auto *d = static_cast<const mgx_type_info_t *>(*entry);
        const mgx_type_variant_info_t *info = d->variant_info;
        unsigned size = info && info->n_variants > 0 ? info->entries[0].used_length + info->entries[0].alloc_slop : 0;
        std::printf("%3d  %-38s %-4s  %-22s %5u  %s\n", ++n, d->type_name, d->kind, variants_of(info).c_str(), size,
                    d->fingerprint_text);
    }
    return exit_ok;
}

// The element kind as the catalogue names it.
std::string type_of(const Field &f) {
    switch (f.kind) {
    case Kind::u8: return "u_int8";
    case Kind::u16: return "u_int16";
    case Kind::u32: return "u_int32";
    case Kind::u64: return "u_int64";
    case Kind::boolean: return "mgx_boolean";
    case Kind::mac_addr: return "mgx_mac_addr";
    case Kind::ipv4_addr: return "ipv4_addr";
    case Kind::ipv6_addr: return "ipv6_addr";
    case Kind::aaa_tlv: return "aaa_tlv";
    case Kind::character: return "char";
    case Kind::enumeration:
    case Kind::record: return f.type->name;
    }
    return "?";
}

std::string kind_of(const Field &f) {
    std::string element = f.kind == Kind::enumeration ? "enumeration"
                          : f.kind == Kind::record    ? (f.type->kind == TypeKind::union_ ? "union" : "record")
                                                      : "primitive";
    switch (f.shape) {
    case Shape::scalar: return element;
    case Shape::fixed_array: return "fixed array of " + element;
    case Shape::var_array: return "variable array of " + element;
    case Shape::var_string: return "counted string";
    case Shape::member: return "union member (" + element + ")";
    }
    return element;
}

const Literal *literal_with_user(const Type &e, uint32_t user) {
    for (uint16_t i = 0; i < e.n_literals; ++i)
        if (e.literals[i].user == user) return &e.literals[i];
    return nullptr;
}

std::string bounds_of(const FieldView &f) {
    if (const char *relation = f.relation()) return std::string(relation) + " " + f.companion()->name;
    if (f.discriminator()) return "discriminator";
    if (f->shape == Shape::fixed_array)
        return std::to_string(f->count) + " elements of " + std::to_string(f->elem_size) + " bytes";
    if (f->shape != Shape::member) return "";
    const Field &d = f.type.fields[f.type.discriminator];
    const Literal *l = literal_with_user(*d.type, f->select);
    return std::string("when ") + d.name + " is " + (l ? l->name : std::to_string(f->select));
}

void describe(const Type &t) {
    const char *kind = t.kind == TypeKind::record ? "record" : t.kind == TypeKind::union_ ? "union" : "enumeration";
    std::printf("%s: %s of the ovrin_sm domain, %d variant%s (used/slop:", t.name, kind, t.n_variants,
                t.n_variants == 1 ? "" : "s");
    for (int8_t v = 0; v < t.n_variants; ++v) std::printf(" %u/%u", t.variants[v].used, t.variants[v].slop);
    std::printf("), instance %u bytes", t.size);
    if (t.sttr_size) std::printf(" (+%u state-flag bytes when tracked)", t.sttr_size);
    std::printf("\n");
    if (t.kind == TypeKind::enumeration) {
        std::printf("\n  %-48s %6s %6s  %s\n", "literal", "value", "wire", "variant");
        for (uint16_t i = 0; i < t.n_literals; ++i) {
            const Literal &l = t.literals[i];
            std::printf("  %-48s %6u %6u  %d\n", l.name, l.user, l.wire, l.from_variant);
        }
        return;
    }
    std::printf("\n  %-32s %-30s %-28s %5s %6s  %-7s %s\n", "member", "type", "kind", "width", "offset", "variant",
                "bounds, companion, arm");
    for (const FieldView &f : fields_of(t))
        std::printf("  %-32s %-30s %-28s %5u %6u  %-7d %s\n", f.element().c_str(), type_of(*f).c_str(), kind_of(*f).c_str(),
                    f->size, f->offset, f->from_variant, bounds_of(f).c_str());
}

// A document of the type that encode takes as it stands: every member with a fresh instance's
// value, a union with the member its fresh discriminator selects, and one element of every
// variable array (its count 1), so that the shape of an element shows.
class Skeleton {
public:
    std::string out;

    void type(const Type &t, const std::string &name, int depth) {
        if (t.kind == TypeKind::enumeration) {
            const Literal *l = fresh_literal(t);
            line(depth, "<" + name + "><" + (l ? l->name : t.literals[0].name) + "/></" + name + ">");
            return;
        }
        line(depth, "<" + name + ">");
        for (const FieldView &f : fields_of(t)) {
            switch (f->shape) {
            case Shape::scalar:
                if (f.counts_array())
                    line(depth + 1, "<" + std::string(f->name) + ">1</" + f->name + ">"); // the one element below
                else element(*f, f->name, depth + 1);
                break;
            case Shape::fixed_array:
                for (uint16_t k = 0; k < f->count; ++k) element(*f, f->name, depth + 1);
                break;
            case Shape::var_array: element(*f, f->name, depth + 1); break;
            case Shape::var_string: {
                std::string empty = "<";
                empty.append(f->name).append("></").append(f->name).append(">");
                line(depth + 1, empty);
                break;
            }
            case Shape::member:
                if (f.fresh_selected()) type(*f->type, f.element(), depth + 1);
                break;
            }
        }
        line(depth, "</" + name + ">");
    }

private:
    void line(int depth, const std::string &text) { out += std::string(2 * static_cast<size_t>(depth), ' ') + text + "\n"; }

    void element(const Field &f, const std::string &name, int depth) {
        const char *value = "0";
        switch (f.kind) {
        case Kind::record:
        case Kind::enumeration: type(*f.type, name, depth); return;
        case Kind::aaa_tlv: line(depth, "<" + name + "></" + name + ">"); return;
        case Kind::boolean: value = "false"; break;
        case Kind::mac_addr: value = "00:00:00:00:00:00"; break;
        case Kind::ipv4_addr: value = "0.0.0.0"; break;
        case Kind::ipv6_addr: value = "::"; break;
        default: break;
        }
        line(depth, "<" + name + ">" + value + "</" + name + ">");
    }
};

// The same document in the JSON form, indented as 'decode --json --pretty' writes it: every member
// under its name, a union's discriminator with its fresh literal and the member that selects, one
// element of every variable array and attribute list.
class JsonSkeleton {
public:
    std::string out;

    void type(const Type &t, int depth) {
        if (t.kind == TypeKind::enumeration) {
            const Literal *l = fresh_literal(t);
            out.append("\"").append(l ? l->name : t.literals[0].name).append("\"");
            return;
        }
        bool first = true;
        for (const FieldView &f : fields_of(t)) {
            if (f->shape == Shape::member && !f.fresh_selected()) continue;
            out += first ? "{\n" : ",\n";
            first = false;
            pad(depth + 1);
            out.append("\"").append(f->name).append("\": ");
            switch (f->shape) {
            case Shape::scalar:
                if (f.counts_array()) out += "1"; // the one element
                else element(*f, depth + 1);
                break;
            case Shape::fixed_array: array(*f, f->count, depth + 1); break;
            case Shape::var_array: array(*f, 1, depth + 1); break;
            case Shape::var_string: out += "\"\""; break;
            case Shape::member: type(*f->type, depth + 1); break;
            }
        }
        if (first) {
            out += "{}";
            return;
        }
        out += "\n";
        pad(depth);
        out += "}";
    }

private:
    void pad(int depth) { out.append(2 * static_cast<size_t>(depth), ' '); }

    void array(const Field &f, unsigned n, int depth) {
        out += "[\n";
        for (unsigned k = 0; k < n; ++k) {
            pad(depth + 1);
            element(f, depth + 1);
            out += k + 1 < n ? ",\n" : "\n";
        }
        pad(depth);
        out += "]";
    }

    void element(const Field &f, int depth) {
        switch (f.kind) {
        case Kind::record:
        case Kind::enumeration: type(*f.type, depth); return;
        case Kind::aaa_tlv:
            out += "[\n";
            pad(depth + 1);
            out += "{\n";
            pad(depth + 2);
            out += "\"type\": 0,\n";
            pad(depth + 2);
            out += "\"value\": \"\"\n";
            pad(depth + 1);
            out += "}\n";
            pad(depth);
            out += "]";
            return;
        case Kind::u64: out += "\"0\""; return;
        case Kind::boolean: out += "false"; return;
        case Kind::mac_addr: out += "\"00:00:00:00:00:00\""; return;
        case Kind::ipv4_addr: out += "\"0.0.0.0\""; return;
        case Kind::ipv6_addr: out += "\"::\""; return;
        default: out += "0"; return;
        }
    }
};

} // namespace

int ovrin_cmd_types(int argc, char **argv) {
    enum { opt_skeleton = 256, opt_json_skeleton };
    static const Command command = {
        "types",
        "[TYPE [--xml-skeleton | --json-skeleton]]",
        "Without TYPE: one line per type of the ovrin_sm domain, in registration order, with its kind,\n"
        "variants, instance size and fingerprint, as the loaded library describes itself.\n"
        "With TYPE: its members in declaration order (type, kind, width and offset in the instance, the\n"
        "variant that introduced it, array bounds, the length or count companion, and for a union each\n"
        "member with the discriminator literal that selects it), or an enumeration's literals with the\n"
        "values callers see and the values the wire carries.\n"
        "\n"
        "  --xml-skeleton        print a document of TYPE holding a fresh instance's values, which\n"
        "                        'ovrin-sm encode TYPE' accepts as it stands\n"
        "  --json-skeleton       the same document in JSON\n",
        {{"xml-skeleton", no_argument, nullptr, opt_skeleton}, {"json-skeleton", no_argument, nullptr, opt_json_skeleton}}};
    Parser p(command, argc, argv);
    int skeleton = 0;
    int status = p.run([&](int val, const char *) {
        if (skeleton && skeleton != val) return usage_error(command, "--xml-skeleton and --json-skeleton cannot go together");
        skeleton = val;
        return -1;
    });
    if (status >= 0) return status;
    const auto &operands = p.operands();
    if (operands.size() > 1) return usage_error(command, std::string("unexpected operand '") + operands[1] + "'");
    if (operands.empty()) return skeleton ? usage_error(command, p.name_of(skeleton) + " needs a TYPE") : list_types();
    const Type *t = find_table(operands[0]);
    if (!t) {
        std::vector<std::string> names;
        for (unsigned i = 0; i < table::type_count; ++i) names.push_back(table::all[i]->name);
        std::fprintf(stderr, "ovrin-sm: no type '%s'%s\n", operands[0], did_you_mean(operands[0], names).c_str());
        return exit_usage;
    }
    if (skeleton == opt_json_skeleton) {
        JsonSkeleton s;
        s.type(*t, 0);
        s.out += "\n";
        std::fputs(s.out.c_str(), stdout);
    } else if (skeleton) {
        Skeleton s;
        s.type(*t, t->name, 0);
        std::fputs(s.out.c_str(), stdout);
    } else {
        describe(*t);
    }
    return exit_ok;
}
