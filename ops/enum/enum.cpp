// The enumeration operations over the type tables.
#include "ops/enum/enum.h"

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstring>

namespace ovrin {

// Every generated enumeration struct has this one layout (the generated tables check theirs).
static_assert(sizeof(EnumInstance) == 16 && offsetof(EnumInstance, value) == 12);

namespace {

EnumInstance *as_enum(void *p) { return static_cast<EnumInstance *>(p); }
const EnumInstance *as_enum(const void *p) { return static_cast<const EnumInstance *>(p); }

// Brings the instance's layout up to the handle's domain variant, capped to the type's last variant.
uint32_t adjust(const Type &t, mgx_handle_t *h, uint32_t luid, void *instance, uint32_t *err) {
    const void *descriptor = instance ? mgx_get_manifested_type_info(instance) : nullptr;
    return mgxlib_adjust_variant(h, luid, instance, descriptor, t.last_variant(), err);
}

// Steps shared by set and set_value: adjust the variant, then check the value against the
// instance's variant. False (with 43 stored) when the value may not be stored.
bool prepare_store(const Type &t, mgx_handle_t *h, uint32_t luid, void *instance, uint32_t value, uint32_t *err) {
    adjust(t, h, luid, instance, err);
    if (failed(err)) return false;
    if (!enum_admits(t, value, mgx_get_instance_variant(instance, 0, 1))) {
        mgx_store_epoch_err(h, MGX_EVARIANT, err);
        return false;
    }
    return true;
}

} // namespace

// Literals are listed in strictly increasing user value and travel as their position (the
// generator refuses anything else), so both lookups are direct: an index for the common dense
// enumeration, a binary search for the sparse ones.
const Literal *literal_named_by(const Type &t, uint32_t user) {
    if (user < t.n_literals && t.literals[user].user == user) return &t.literals[user];
    const Literal *end = t.literals + t.n_literals;
    const Literal *l = std::lower_bound(t.literals, end, user, [](const Literal &a, uint32_t v) { return a.user < v; });
    return l != end && l->user == user ? l : nullptr;
}

const Literal *literal_on_wire(const Type &t, uint32_t wire) { return wire < t.n_literals ? &t.literals[wire] : nullptr; }

uint32_t enum_map_to_internal_value(const Type &t, uint32_t user) {
    const Literal *l = literal_named_by(t, user);
    return l ? l->wire : user;
}

uint32_t enum_wire_to_user(const Type &t, uint32_t wire) {
    const Literal *l = literal_on_wire(t, wire);
    return l ? l->user : wire;
}

bool enum_admits(const Type &t, uint32_t value, int variant) {
    const Literal *l = literal_on_wire(t, enum_map_to_internal_value(t, value));
    int needed = l ? l->from_variant : t.n_variants;
    return needed <= 0 || variant >= needed;
}

uint32_t enum_adjust_variant(const Type &t, mgx_handle_t *h, uint32_t luid, void *instance, uint32_t *err) {
    if (!begin(h, luid, instance, err)) return 0;
    return adjust(t, h, luid, instance, err);
}

int32_t enum_compare(const void *a, const void *b) {
    if (!a || !b) return a == b ? 0 : (a ? 1 : -1);
    return static_cast<int32_t>(as_enum(a)->value - as_enum(b)->value);
}

uint32_t enum_hash(const void *instance, uint32_t seed) {
    if (!instance) return seed;
    return SuperFastHash(reinterpret_cast<const char *>(&as_enum(instance)->value), sizeof(uint32_t), seed);
}

uint32_t enum_len_cr(const mgx_handle_t *h) { return h->last_error ? 0 : enum_wire_length; }

void *enum_get(mgx_handle_t *h, uint32_t luid, void *instance) {
    if (h->database) mgxdb_record_containment2(h, luid, instance, nullptr, 1);
    return instance;
}

uint32_t enum_get_value(mgx_handle_t *h, uint32_t luid, const void *instance, uint32_t *err) {
    if (!begin(h, luid, instance, err)) return 0;
    if (!instance) {
        fail(h, err, MGX_EINVAL);
        return 0;
    }
    return as_enum(instance)->value;
}

// The whole source instance is copied, header included: the instance takes on the source's
// variant, flags and descriptor along with its value.
void enum_set(const Type &t, mgx_handle_t *h, uint32_t luid, void *instance, const void *source, uint32_t *err) {
    if (!begin(h, luid, instance, err)) return;
    if (!instance || !source) return fail(h, err, MGX_EINVAL);
    if (!prepare_store(t, h, luid, instance, as_enum(source)->value, err)) return;
    notify(h, instance, t.size, luid, instance);
    std::memmove(instance, source, t.size);
}

void enum_set_value(const Type &t, mgx_handle_t *h, uint32_t luid, void *instance, uint32_t value, uint32_t *err) {
    if (!begin(h, luid, instance, err)) return;
    if (!instance) return fail(h, err, MGX_EINVAL);
    if (!prepare_store(t, h, luid, instance, value, err)) return;
    EnumInstance *e = as_enum(instance);
    notify(h, &e->value, sizeof e->value, luid, instance);
    e->value = value;
}

namespace {

// The opening of the enumerations' encode and decode: false when there is nothing to do (the slot
// holds a code), no byte of buffer (error 90) or no instance (error 22).
bool wire_start(mgx_handle_t *h, uint32_t luid, const void *buf, const void *instance, int32_t room, uint32_t *err) {
    if (!begin(h, luid, instance, err)) return false;
    if (!buf || room < 1) {
        fail(h, err, MGX_ESHORT);
        return false;
    }
    if (!instance) {
        fail(h, err, MGX_EINVAL);
        return false;
    }
    return true;
}

} // namespace

// An instance ahead of the handle's domain is still written, at the domain's variant, with 43 in
// the caller's slot; the pieces therefore report into a cell of their own.
uint32_t enum_marshal(const Type &t, mgx_handle_t *h, uint32_t luid, uint8_t *buf, const void *instance, int32_t space,
                      uint32_t *err) {
    if (!wire_start(h, luid, buf, instance, space, err)) return 0;
    const EnumInstance *e = as_enum(instance);
    uint32_t local = 0;
    int8_t variant = mgx_get_instance_variant(instance, 0, 1);
    int8_t domain = mgx_domain_lookup_variant(h, &h->variant_domain, e->descriptor, &local);
    if (local) {
        fail(h, err, local);
        return 0;
    }
    if (variant > domain) {
        mgx_store_epoch_err(h, MGX_EVARIANT, err);
        variant = domain;
    }
    variant = static_cast<int8_t>(enum_variant_cap(t, static_cast<uint8_t>(variant)) & 0xFFu);

    uint32_t n = _mgx_instance_variant_marshal(h, luid, buf, variant, space, &local);
    uint32_t wire = enum_map_to_internal_value(t, e->value);
    if (!local) n += u_int32_marshal(h, luid, buf + n, &wire, space - static_cast<int32_t>(n), &local);
    // A piece that could not be written replaces a variant error already given: the encoding is
    // incomplete, which is what the caller must hear.
    if (local && err) *err = local;
    return n;
}

// No range check: a wire value this bundle does not know is kept as it came.
uint32_t enum_unmarshal(const Type &t, mgx_handle_t *h, uint32_t luid, const uint8_t *buf, void *instance, int32_t length,
                        uint32_t flags, uint32_t *err) {
    if (!wire_start(h, luid, buf, instance, length, err)) return 0;
    EnumInstance *e = as_enum(instance);
    int8_t variant = 0;
    uint32_t n = _mgx_instance_variant_unmarshal(h, luid, buf, &variant, length, err);
    if (!n) return 0;
    e->variant = variant > e->layout ? e->layout : variant;
    e->descriptor = descriptor_for(t, h, luid);
    uint32_t m = u_int32_unmarshal(h, luid, buf + n, &e->value, length - static_cast<int32_t>(n), flags, err);
    if (!m) return n;
    notify(h, &e->value, sizeof e->value, luid, instance);
    e->value = enum_wire_to_user(t, e->value);
    return n + m;
}

uint32_t enum_print(const Type &t, mgx_handle_t *h, uint32_t luid, char *buf, uint32_t indent, const char *name,
                    const void *instance, uint32_t size, uint32_t *err) {
    if (!begin(h, luid, instance, err)) return 0;
    if (!instance) {
        fail(h, err, MGX_EINVAL);
        return 0;
    }
    uint32_t n = mgx_print_space(h, luid, buf, indent, size, err);
    n += mgx_snprintf(h, luid, buf + n, size - n, err, "%s@%s:", name ? name : "", t.name);
    if (const Literal *l = literal_named_by(t, as_enum(instance)->value))
        n += mgx_snprintf(h, luid, buf + n, size - n, err, "%s\n", l->name);
    else n += mgx_snprintf(h, luid, buf + n, size - n, err, "%s", "Enum value out of range");
    return n;
}

uint32_t enum_print_cr(const Type &t, mgx_handle_t *h, const void *instance, char *buf, uint32_t size) {
    uint32_t n = enum_print(t, h, h->desc_call_luid, buf, 0, t.name, instance, size, &h->last_error);
    return h->last_error ? UINT32_MAX : n;
}

uint32_t enum_to_xml(const Type &t, mgx_handle_t *h, uint32_t luid, const char *name, char *buf, const void *instance,
                     uint32_t size, uint8_t state_flag, uint32_t *err) {
    if (!begin(h, luid, instance, err)) return 0;
    if (!instance) {
        fail(h, err, MGX_EINVAL);
        return 0;
    }
    // Type names and literal names are short identifiers; the markup always fits.
    char markup[192];
    const Literal *l = literal_named_by(t, as_enum(instance)->value);
    int length = l ? std::snprintf(markup, sizeof markup, "<%s/>", l->name)
                   : std::snprintf(markup, sizeof markup, "<%s value out of range/>", t.name);
    uint32_t n = start_tag(buf, size, name, state_flag);
    n += xml_enum_print(buf + n, size - n, markup, static_cast<uint32_t>(length));
    n += end_tag(buf + n, size - n, name);
    return n;
}

uint32_t enum_toxml_cr(const Type &t, mgx_handle_t *h, const void *instance, char *buf, uint32_t size) {
    uint32_t n = enum_to_xml(t, h, h->desc_call_luid, t.name, buf, instance, size, 0, &h->last_error);
    return h->last_error ? UINT32_MAX : n;
}

// Literals are looked for as child elements in value order; the first present one wins. Absence
// of one is no failure (the next is tried); any other answer ends the search with that error.
void enum_from_xml(const Type &t, mgx_handle_t *h, uint32_t luid, const char *path, void *doc, void *instance, uint32_t *err,
                   char *msg, uint32_t msg_size) {
    if (!begin(h, luid, instance, err)) return;
    if (!instance) return fail(h, err, MGX_EINVAL);
    char literal_path[256];
    char value[128];
    for (uint16_t i = 0; i < t.n_literals; ++i) {
        const Literal &l = t.literals[i];
        std::snprintf(literal_path, sizeof literal_path, "%s/%s", path ? path : "", l.name);
        uint32_t status = xml_get_element_value(doc, literal_path, value, sizeof value, nullptr);
        if (status == 0) {
            as_enum(instance)->value = l.user;
            return;
        }
        fail(h, err, status);
        if (status == MGX_ENOENT) {
            if (err) *err = 0;
            continue;
        }
        if (msg && msg_size) std::snprintf(msg, msg_size, "Failed xpath: %s", path ? path : "");
        return;
    }
}

mgx_boolean enum_is_valid_cr(const Type &t, mgx_handle_t *h, uint32_t value) {
    uint32_t local = 0;
    int8_t domain = mgx_domain_lookup_variant(h, &h->variant_domain, t.descriptor, &local);
    const Literal *l = literal_on_wire(t, enum_map_to_internal_value(t, value));
    return l && (l->from_variant == 0 || domain >= l->from_variant);
}

} // namespace ovrin
