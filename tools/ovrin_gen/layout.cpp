// Name resolution, instance layout, state-flag areas and fingerprints.
//
// Instance layout: an 11-byte header, then the fields in declaration order, each at its natural
// alignment. The used length of a variant is the end of its last field; the instance size is the
// last variant's used length rounded up to 8, plus 8 when that is at most 64, else plus 16.
//
// State-flag area of a tracked instance: a flattened tree laid out like a C struct. Every field
// has one flag byte; a nested record or union field is followed by that type's whole area, an
// aaa_tlv field by the attribute list's 16-byte area, a fixed array by one byte per element and a
// variable array by an 8-byte reference to the per-element flags in its block. Areas that hold an
// address (aaa_tlv areas, array references, and areas containing either) are 8-aligned, and an
// area's size is rounded up to its alignment.
#include <nettle/md5.h>

#include <set>
#include <type_traits>

#include "mgx/contract.h"
#include "tools/ovrin_gen/model.h"

namespace gen {

namespace {

unsigned align_up(unsigned v, unsigned a) { return (v + a - 1) / a * a; }

// Names a bundle header member or the padding member takes in the generated C structs.
const std::set<std::string> reserved_field_names = {"descriptor", "variant", "layout", "flags", "mgx_alloc_slop"};

// The bundles whose registration calls the runtime contract declares, and whether those calls
// take the caller's pointer (register: handler and pointer; unregister: the pointer) or not
// (register: the handler; unregister: nothing). Checked against the contract's declarations below.
#define OVRIN_CONTRACT_BUNDLES(X) X(if_common, true) X(platform_comm, false) X(aaa_common, false) X(aaa_proxy, false)

template <bool takes_arg> struct BundleCalls {
    using reg = uint64_t(uint64_t, void *);
    using unreg = uint64_t(void *);
};
template <> struct BundleCalls<false> {
    using reg = uint64_t(uint64_t);
    using unreg = uint64_t();
};
#define OVRIN_CHECK_BUNDLE(B, ARG)                                                                                               \
    static_assert(std::is_same_v<decltype(B##_bundle_handler_register), BundleCalls<ARG>::reg> &&                                \
                      std::is_same_v<decltype(B##_bundle_handler_unregister), BundleCalls<ARG>::unreg>,                          \
                  "the contract declares the calls of " #B " otherwise");
OVRIN_CONTRACT_BUNDLES(OVRIN_CHECK_BUNDLE)
#undef OVRIN_CHECK_BUNDLE

struct ContractBundle {
    const char *name;
    bool takes_arg;
};
constexpr ContractBundle contract_bundles[] = {
#define OVRIN_BUNDLE(B, ARG) {#B, ARG},
    OVRIN_CONTRACT_BUNDLES(OVRIN_BUNDLE)
#undef OVRIN_BUNDLE
};

// Each bundle named once and known to the contract; its calls' arguments come from the contract.
void resolve_dependencies(Catalogue &c) {
    std::set<std::string> named;
    for (Dependency &d : c.depends) {
        const ContractBundle *known = nullptr;
        std::string names;
        for (const ContractBundle &b : contract_bundles) {
            if (d.bundle == b.name) known = &b;
            names += names.empty() ? b.name : std::string(", ") + b.name;
        }
        if (!known) throw Error(d.line, "unknown bundle '" + d.bundle + "': the runtime contract has the calls of " + names);
        if (!named.insert(d.bundle).second) throw Error(d.line, "bundle " + d.bundle + " is named twice");
        d.takes_arg = known->takes_arg;
    }
}

bool is_count_prim(const Field &f) {
    return f.shape == Shape::scalar && f.prim && (*f.prim == Prim::u16 || *f.prim == Prim::u32);
}

void resolve_enum(Type &t, std::map<std::string, const Type *> &literal_owner) {
    if (t.literals.empty()) throw Error(t.line, "enumeration " + t.name + " has no literals");
    for (size_t i = 0; i < t.literals.size(); ++i) {
        const Literal &l = t.literals[i];
        auto [it, fresh] = literal_owner.emplace(l.name, &t);
        if (!fresh) throw Error(l.line, "literal " + l.name + " is already defined in " + it->second->name);
        if (i > 0 && l.user <= t.literals[i - 1].user)
            throw Error(l.line, "literals of " + t.name + " must be listed in increasing value order");
        if (l.wire != i) throw Error(l.line, "the wire value of " + l.name + " must be its position " + std::to_string(i));
        if (l.from >= t.n_variants)
            throw Error(l.line, l.name + " is from variant " + std::to_string(l.from) + " but " + t.name + " has " +
                                    std::to_string(t.n_variants) + " variant(s)");
    }
}

void resolve_record(Catalogue &c, Type &t) {
    if (t.fields.empty()) throw Error(t.line, t.name + " has no fields");
    std::map<std::string, int> index_of;
    bool members_started = false;
    int last_from = 0;
    for (size_t i = 0; i < t.fields.size(); ++i) {
        Field &f = t.fields[i];
        if (reserved_field_names.count(f.name)) throw Error(f.line, "field name " + f.name + " is reserved");
        if (!index_of.emplace(f.name, static_cast<int>(i)).second)
            throw Error(f.line, "field " + f.name + " is declared twice in " + t.name);
        if (f.from >= t.n_variants)
            throw Error(f.line, f.name + " is from variant " + std::to_string(f.from) + " but " + t.name + " has " +
                                    std::to_string(t.n_variants) + " variant(s)");
        if (f.from < last_from) throw Error(f.line, f.name + " is from an earlier variant than the field before it");
        last_from = f.from;

        if (f.shape == Shape::member) {
            if (t.kind != TypeKind::union_) throw Error(f.line, "only unions have members");
            members_started = true;
        } else if (members_started) {
            throw Error(f.line, "field " + f.name + " follows the members of " + t.name);
        }

        if (f.shape != Shape::var_string) {
            f.prim = primitive(f.type_name);
            if (!f.prim) {
                auto it = c.by_name.find(f.type_name);
                if (it == c.by_name.end()) throw Error(f.line, "unknown type '" + f.type_name + "'");
                f.type = it->second;
            }
        }
        switch (f.shape) {
        case Shape::member:
        case Shape::var_array:
            if (!f.type || f.type->is_enum())
                throw Error(f.line, f.name + ": the element type must be a record or union of the catalogue");
            break;
        case Shape::fixed_array:
            // A fixed array keeps one state byte per element in its record's flag area: there is
            // no room for the flag areas of records as elements.
            if (f.type && !f.type->is_enum()) throw Error(f.line, f.name + ": fixed arrays hold primitives or enumerations");
            break;
        default: break;
        }
        if (f.shape == Shape::var_array || f.shape == Shape::var_string) {
            auto it = index_of.find(f.companion_name);
            if (it == index_of.end() || it->second == static_cast<int>(i))
                throw Error(f.line, f.name + ": its count/length field " + f.companion_name + " must be declared before it");
            Field &companion = t.fields[static_cast<size_t>(it->second)];
            if (!is_count_prim(companion))
                throw Error(f.line, f.name + ": " + companion.name + " must be a u_int16 or u_int32 field");
            if (companion.companion >= 0) throw Error(f.line, companion.name + " already counts another field");
            if (companion.from != f.from)
                throw Error(f.line, f.name + " and " + companion.name + " must belong to the same variant");
            f.companion = it->second;
            companion.companion = static_cast<int>(i);
        }
    }
    if (t.kind != TypeKind::union_) return;

    auto d = index_of.find(t.discriminator_name);
    if (d == index_of.end()) throw Error(t.line, "discriminator " + t.discriminator_name + " is not a field of " + t.name);
    Field &disc = t.fields[static_cast<size_t>(d->second)];
    if (disc.shape != Shape::scalar || !disc.type || !disc.type->is_enum() || disc.from != 0)
        throw Error(disc.line, "discriminator " + disc.name + " must be a variant-0 enumeration field");
    t.discriminator = d->second;
    disc.discriminator = true;
    std::set<uint32_t> selected;
    for (Field &f : t.fields) {
        if (f.shape != Shape::member) continue;
        const Literal *lit = nullptr;
        for (const Literal &l : disc.type->literals)
            if (l.name == f.select_name) lit = &l;
        if (!lit) throw Error(f.line, f.select_name + " is not a literal of " + disc.type->name);
        if (!selected.insert(lit->user).second) throw Error(f.line, f.select_name + " already selects another member");
        f.select = lit->user;
    }
}

// Inline bytes and alignment of one element of a field.
void element_storage(Field &f, unsigned &size, unsigned &align) {
    if (f.prim) {
        switch (*f.prim) {
#define OVRIN_PRIM(K, T, S, A)                                                                                                   \
    case Prim::K: size = S, align = A; return;
            OVRIN_ALL_PRIMS(OVRIN_PRIM)
#undef OVRIN_PRIM
        }
    }
    size = f.type->is_enum() ? enum_instance_size : f.type->size;
    align = 8;
}

void lay_out_type(Type &t);

void lay_out_fields(Type &t) {
    unsigned offset = header_bytes;
    for (Field &f : t.fields) {
        // A member is only a pointer: its type is laid out on its own (and may even hold this one).
        unsigned elem = 8, align = 8;
        if (f.shape == Shape::var_string) {
            elem = 1;
        } else if (f.shape != Shape::member) {
            if (f.type) lay_out_type(*f.type);
            element_storage(f, elem, align);
        }
        f.elem_size = elem;
        switch (f.shape) {
        case Shape::scalar: f.size = elem; break;
        case Shape::fixed_array: f.size = elem * f.count; break;
        case Shape::var_array:
        case Shape::var_string:
        case Shape::member: f.size = 8, align = 8; break;
        }
        f.align = align;
        offset = align_up(offset, align);
        f.offset = offset;
        offset += f.size;
    }
    t.used.assign(static_cast<size_t>(t.n_variants), header_bytes);
    for (int v = 0; v < t.n_variants; ++v)
        for (const Field &f : t.fields)
            if (f.from <= v) t.used[static_cast<size_t>(v)] = f.end();
    unsigned rounded = align_up(t.last_used(), 8);
    t.size = rounded + (rounded <= 64 ? 8 : 16);
}

void lay_out_state_flags(Type &t) {
    unsigned pos = 0, align = 1;
    auto nested = [&](Field &f, unsigned size, unsigned a) {
        pos = align_up(pos, a);
        f.sttr_nested = pos;
        pos += size;
        align = std::max(align, a);
    };
    for (Field &f : t.fields) {
        f.sttr_pos = pos++;
        switch (f.shape) {
        case Shape::scalar:
            if (f.prim == Prim::aaa_tlv) nested(f, aaa_tlv_area, 8);
            else if (f.type && !f.type->is_enum()) nested(f, f.type->sttr_size, f.type->sttr_align);
            break;
        case Shape::fixed_array: nested(f, f.count, 1); break;
        case Shape::var_array: nested(f, 8, 8); break;
        case Shape::var_string:
        case Shape::member: break;
        }
    }
    t.sttr_align = align;
    t.sttr_size = align_up(pos, align);
}

void lay_out_type(Type &t) {
    if (t.laid_out) return;
    if (t.laying_out) throw Error(t.line, t.name + " contains itself");
    t.laying_out = true;
    if (t.is_enum()) {
        t.used.assign(static_cast<size_t>(t.n_variants), enum_instance_size);
        t.size = enum_instance_size;
        t.sttr_size = 0; // an enumeration's flag is its container's byte for the field
    } else {
        lay_out_fields(t);
        lay_out_state_flags(t);
        if (t.size > 0xFFFF || t.sttr_size > 0xFFFE) throw Error(t.line, t.name + " is too large");
    }
    t.laying_out = false;
    t.laid_out = true;
}

// The definition as canonical text: the catalogue's words, every default spelled out, one
// member per line, so that layout, comments and spacing do not matter but every change of the
// definition does.
std::string definition_text(const Type &t) {
    std::string s = (t.kind == TypeKind::record   ? "record "
                     : t.kind == TypeKind::union_ ? "union "
                                                  : "enum ") +
                    t.name + " variants " + std::to_string(t.n_variants);
    if (t.kind == TypeKind::union_) s += " discriminator " + t.discriminator_name;
    s += "\n";
    for (const Literal &l : t.literals)
        s += "  " + l.name + " " + std::to_string(l.user) + " wire " + std::to_string(l.wire) + " from " +
             std::to_string(l.from) + "\n";
    for (const Field &f : t.fields) {
        s += "  ";
        switch (f.shape) {
        case Shape::scalar: s += f.name + " " + f.type_name; break;
        case Shape::fixed_array: s += f.name + " " + f.type_name + "[" + std::to_string(f.count) + "]"; break;
        case Shape::var_array: s += f.name + " " + f.type_name + "[] count " + f.companion_name; break;
        case Shape::var_string: s += f.name + " var_string length " + f.companion_name; break;
        case Shape::member: s += "member " + f.name + " " + f.type_name + " select " + f.select_name; break;
        }
        s += " from " + std::to_string(f.from) + "\n";
    }
    return s;
}

std::array<uint8_t, 16> md5(const std::string &text) {
    md5_ctx ctx;
    md5_init(&ctx);
    md5_update(&ctx, text.size(), reinterpret_cast<const uint8_t *>(text.data()));
    std::array<uint8_t, 16> out{};
    md5_digest(&ctx, out.size(), out.data());
    return out;
}

// The fingerprint covers the type's own definition and, through their fingerprints, every type
// it refers to: a change anywhere below a type gives it a new registry key.
void fingerprint_type(Type &t, const std::string &domain) {
    if (t.fingerprinted) return;
    if (t.fingerprinting) throw Error(t.line, t.name + " refers to itself");
    t.fingerprinting = true;
    t.definition = definition_text(t);
    std::string input = "domain " + domain + "\n" + t.definition;
    std::set<const Type *> seen;
    for (const Field &f : t.fields) {
        if (!f.type || !seen.insert(f.type).second) continue;
        fingerprint_type(*f.type, domain);
        input += "uses " + f.type->name + " " + hex(f.type->fingerprint.data(), 16) + "\n";
    }
    t.fingerprint = md5(input);
    t.second_digest = md5(t.definition);
    t.fingerprinting = false;
    t.fingerprinted = true;
}

} // namespace

std::string hex(const uint8_t *bytes, size_t n) {
    static const char digits[] = "0123456789abcdef";
    std::string s;
    for (size_t i = 0; i < n; ++i) {
        s += digits[bytes[i] >> 4];
        s += digits[bytes[i] & 15];
    }
    return s;
}

void resolve(Catalogue &c) {
    std::map<std::string, const Type *> literal_owner;
    for (auto &t : c.types)
        if (t->is_enum()) resolve_enum(*t, literal_owner);
    for (auto &t : c.types)
        if (!t->is_enum()) resolve_record(c, *t);
    resolve_dependencies(c);
}

void lay_out(Catalogue &c) {
    for (auto &t : c.types) lay_out_type(*t);
}

void fingerprint(Catalogue &c) {
    for (auto &t : c.types) fingerprint_type(*t, c.domain);
}

} // namespace gen
