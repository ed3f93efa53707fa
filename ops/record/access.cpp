// Field access and state tracking of every record and union, over the type tables.
#include "ops/record/access.h"

#include <algorithm>
#include <cstring>

#include "ops/record/lifecycle.h"
#include "ops/steps.h"
#include "ops/walk.h"

namespace ovrin {

using namespace steps;

namespace {

// ---------------------------------------------------------------- the runtime's primitives

bool is_primitive(Kind k) {
    switch (k) {
#define OVRIN_CASE(K, T, S, A) case Kind::K:
        OVRIN_ALL_PRIMS(OVRIN_CASE)
#undef OVRIN_CASE
        return true;
    default: return false;
    }
}

[[gnu::always_inline]] inline void *prim_get(Kind k, mgx_handle_t *h, uint32_t luid, void *field, uint32_t *err) {
    switch (k) {
#define OVRIN_CASE(K, T, S, A)                                                                                                   \
    case Kind::K: return T##_get(h, luid, static_cast<T *>(field), err);
        OVRIN_ALL_PRIMS(OVRIN_CASE)
#undef OVRIN_CASE
    default: return nullptr;
    }
}

void prim_set(Kind k, mgx_handle_t *h, uint32_t luid, void *field, const void *value, uint32_t *err) {
    switch (k) {
#define OVRIN_CASE(K, T, S, A)                                                                                                   \
    case Kind::K: return T##_set(h, luid, static_cast<T *>(field), static_cast<const T *>(value), err);
        OVRIN_ALL_PRIMS(OVRIN_CASE)
#undef OVRIN_CASE
    default: return;
    }
}

uint64_t prim_get_value(Kind k, mgx_handle_t *h, uint32_t luid, const void *field, uint32_t *err) {
    switch (k) {
#define OVRIN_CASE(K, T, S, A)                                                                                                   \
    case Kind::K: return T##_get_value(h, luid, static_cast<const T *>(field), err);
        OVRIN_VALUE_PRIMS(OVRIN_CASE)
#undef OVRIN_CASE
    default: return 0;
    }
}

[[gnu::always_inline]] inline void prim_set_value(Kind k, mgx_handle_t *h, uint32_t luid, void *field, uint64_t value,
                                                  uint32_t *err) {
    switch (k) {
#define OVRIN_CASE(K, T, S, A)                                                                                                   \
    case Kind::K: return T##_set_value(h, luid, static_cast<T *>(field), static_cast<T>(value), err);
        OVRIN_VALUE_PRIMS(OVRIN_CASE)
#undef OVRIN_CASE
    default: return;
    }
}

// ---------------------------------------------------------------- enumeration fields

uint32_t &enum_value(void *instance) { return static_cast<EnumInstance *>(instance)->value; }
uint32_t enum_value(const void *instance) { return static_cast<const EnumInstance *>(instance)->value; }

// ---------------------------------------------------------------- whole-instance copy

// Releases the references an attribute list holds and its body, unless src's list shares them.
void release_list(mgx_handle_t *h, uint32_t luid, aaa_tlv *dst, const aaa_tlv *src) {
    if (!dst->body || dst->body == src->body) return;
    uint32_t local = 0;
    uint32_t n = aaa_tlv_get_oid_count(h, luid, dst, &local);
    if (n && !local) {
        // A reference that cannot be listed or released stays with the runtime; the list goes
        // regardless.
        RefList refs(n);
        if (refs.ok()) aaa_tlv_get_object_references(h, luid, dst, refs.data(), n, &local);
        for (const uint64_t *r = refs.begin(); refs.ok() && r != refs.end() && !local; ++r) {
            uint32_t release = 0;
            mgxlib_lookup_and_update_oid_ref_count(h, luid, *r, 0, &release);
        }
    }
    aaa_tlv_destroy_internal(h, luid, dst, 0);
}

// Walks dst's fields in its variant beside the same fields of src, the two sides of a copy: the
// attribute lists and nested records of the inline tree (scalars and fixed arrays, element by
// element) go to list and record, strings, arrays and union members to rest.
template <class List, class Record, class Rest>
void beside(const Type &t, void *dst, void *src, List list, Record record, Rest rest) {
    for (FieldAt<void> d : fields(t, dst, variant_of(dst))) {
        const Field &f = d.field();
        const FieldAt<void> s = field_of(t, f, src);
        if (f.shape != Shape::scalar && f.shape != Shape::fixed_array) rest(f, d, s);
        else if (f.kind == Kind::aaa_tlv)
            for (uint32_t k = 0; k < f.count; ++k)
                list(static_cast<aaa_tlv *>(d.element(k)), static_cast<aaa_tlv *>(s.element(k)));
        else if (f.kind == Kind::record)
            for (uint32_t k = 0; k < f.count; ++k) record(*f.type, d.element(k), s.element(k));
    }
}

// Releases the out-of-line storage of dst that a copy from src is about to replace: attribute
// bodies, strings and array blocks, at every depth of the inline tree, except what dst already
// shares with src (after a raw byte copy the two hold the same pointers). Union members are not
// destroyed: a whole-union copy overwrites dst's members, whose release is their holder's business.
void release_replaced(const Type &t, mgx_handle_t *h, uint32_t luid, void *dst, void *src) {
    beside(
        t, dst, src, [&](aaa_tlv *d, aaa_tlv *s) { release_list(h, luid, d, s); },
        [&](const Type &nested, void *d, void *s) { release_replaced(nested, h, luid, d, s); },
        [&](const Field &f, const FieldAt<void> &d, const FieldAt<void> &s) {
            if (d.block() == s.block()) return;
            if (f.shape == Shape::var_string) free_block(h, luid, d.pointer(), dst);
            if (f.shape == Shape::var_array) release_array(d, h, luid, d.count(), dst);
        });
}

// The copy of one level: the variant and layout bytes and every field present in src's variant
// that lies wholly in the instance (integers, booleans, addresses, enumeration values, counts and
// lengths), plus the pointer words of strings, arrays and members. Nested records and attribute
// lists are left to post_copy, so that dst keeps its own headers and state-flag registrations.
void shallow_copy(const Type &t, void *dst, const void *src) {
    hdr(dst)->variant = hdr(src)->variant;
    hdr(dst)->layout = hdr(src)->layout;
    for (FieldAt<const void> s : fields(t, src, variant_of(src))) {
        const Field &f = s.field();
        const FieldAt<void> d = field_of(t, f, dst);
        if (f.shape == Shape::scalar || f.shape == Shape::fixed_array) {
            if (f.kind == Kind::record || f.kind == Kind::aaa_tlv) continue;
            if (f.kind == Kind::enumeration) {
                for (uint32_t k = 0; k < f.count; ++k) enum_value(d.element(k)) = enum_value(s.element(k));
                continue;
            }
        }
        std::memcpy(d.address(), s.address(), f.size);
    }
}

// Bytes of dst's header and fields that a copy writes: up to the end of the larger of the
// layouts its variant and layout byte name.
uint32_t copied_length(const Type &t, const void *instance) {
    int v = std::max<int>(hdr(instance)->variant, hdr(instance)->layout);
    v = std::clamp(v, 0, static_cast<int>(t.last_variant()));
    return t.variants[v].used;
}

void copy_instance(const Type &t, mgx_handle_t *h, uint32_t luid, void *dst, void *src, uint32_t *err, bool nested);

// A string that dst shares with src gets a copy of its own.
void duplicate_string(const FieldAt<void> &d, const FieldAt<void> &s, mgx_handle_t *h, uint32_t luid, uint32_t *err) {
    void *&text = d.pointer();
    if (!text || text != s.block()) return;
    uint32_t length = s.count();
    notify(h, &text, sizeof text, luid, d.instance());
    void *copy = new_text(h, luid, length);
    if (!copy) {
        text = nullptr;
        fail(h, err, MGX_ENOMEM);
        return;
    }
    std::memcpy(copy, text, length);
    static_cast<char *>(copy)[length] = '\0';
    text = copy;
}

// An array block that dst shares with src gets a copy of its own: fresh elements, initialised
// as nested instances over their flag bytes in the new block, then set from src's.
void duplicate_array(const Type &t, const FieldAt<void> &d, const FieldAt<void> &s, mgx_handle_t *h, uint32_t luid,
                     uint32_t *err) {
    const Field &f = d.field();
    void *&block = d.pointer();
    if (!block || block != s.block()) return;
    uint32_t n = s.count();
    bool tracked_block = tracking(t, h);
    notify(h, &block, sizeof block, luid, d.instance());
    block = new_block(f, h, luid, n, tracked_block, false, err);
    if (!block) return;
    for (uint32_t k = 0; k < n; ++k) copy_instance(*f.type, h, luid, d.element(k), s.element(k), err, true);
    // Each element's own state byte comes along; the flags inside its area were set by the copy.
    const ArrayLayout layout(f);
    uint8_t *flags = layout.flags(block, n, tracked_block);
    const uint8_t *source_flags = layout.flags(s.block(), n, tracked_block);
    for (uint32_t k = 0; flags && source_flags && k < n; ++k) *layout.slot_of(flags, k) = *layout.slot_of(source_flags, k);
}

// What a raw copy of src into dst leaves shared, made dst's own: nested records and unions are
// set from src's, attribute lists copied, strings and arrays duplicated; union members move to
// dst, leaving src's slots empty.
void post_copy(const Type &t, mgx_handle_t *h, uint32_t luid, void *dst, void *src, uint32_t *err) {
    beside(
        t, dst, src, [&](aaa_tlv *d, aaa_tlv *s) { aaa_tlv_set(h, luid, d, s, err); },
        [&](const Type &nested, void *d, void *s) { copy_instance(nested, h, luid, d, s, err, true); },
        [&](const Field &f, const FieldAt<void> &d, const FieldAt<void> &s) {
            if (f.shape == Shape::var_string) return duplicate_string(d, s, h, luid, err);
            if (f.shape == Shape::var_array) return duplicate_array(t, d, s, h, luid, err);
            if (void *&slot = s.pointer()) { // a member moves to dst
                notify(h, &slot, sizeof slot, luid, src);
                slot = nullptr;
            }
        });
}

// Whole-instance copy. The caller's form (nested false) checks the variants and carries the
// state flags; the copies of nested instances that it makes go without either: the container's
// own check covers them and its flag area holds theirs.
void copy_instance(const Type &t, mgx_handle_t *h, uint32_t luid, void *dst, void *src, uint32_t *err, bool nested) {
    if (!begin(h, luid, dst, err)) return;
    if (!exists(h, dst, err) || !exists(h, src, err)) return;
    if (!adjust(t, h, luid, dst, err) || dst == src) return;
    if (!nested && (variant_of(dst) < variant_of(src) || hdr(dst)->layout != hdr(src)->layout)) {
        mgx_store_epoch_err(h, MGX_EVARIANT, err);
        return;
    }
    bool under_tracking = !nested && tracking(t, h);
    notify(h, dst, copied_length(t, dst), luid, dst);
    release_replaced(t, h, luid, dst, src);
    shallow_copy(t, dst, src);
    if (under_tracking && tracked(dst) && tracked(src)) {
        uint8_t *to = state_area(t, h, luid, dst);
        const uint8_t *from = state_area(t, h, luid, src);
        if (to && from) {
            offset_update(t, h, luid, dst, to, err);
            notify(h, to, t.sttr_size, luid, dst);
            std::memmove(to, from, t.sttr_size);
        }
    }
    post_copy(t, h, luid, dst, src, err);
    // An untracked destination under a tracking handle still gets the values (and owns what it
    // got), only not the flags.
    if (under_tracking && !tracked(dst) && !failed(err)) {
        fail(h, err, MGX_EINVAL);
        trace(t, Message::not_state_tracked, MGX_SEV_ERROR);
    }
}

} // namespace

void *get(const Type &, mgx_handle_t *h, uint32_t luid, void *instance) {
    report(h, luid, instance, nullptr);
    return instance;
}

void set(const Type &t, mgx_handle_t *h, uint32_t luid, void *dst, void *src, uint32_t *err) {
    copy_instance(t, h, luid, dst, src, err, false);
}

void get_all(const Type &t, mgx_handle_t *h, uint32_t luid, const void *instance, std::initializer_list<void *> outputs,
             uint32_t *err) {
    if (!start(h, luid, instance, err)) return;
    int8_t variant = variant_of(instance);
    const auto *out = outputs.begin();
    // Every readable field takes its output, present in the instance's variant or not (then 0).
    for (FieldAt<const void> a : fields(t, instance, t.last_variant())) {
        const Field &f = a.field();
        if (!(f.roles & field_readable_by_all)) continue;
        if (out == outputs.end()) break;
        void *target = *out++;
        const void *field = a.address();
        uint32_t value = 0;
        if (present(f, variant))
            value = f.kind == Kind::enumeration ? enum_get_value(h, luid, field, err)
                                                : static_cast<uint32_t>(prim_get_value(f.kind, h, luid, field, err));
        if (!target) continue;
        switch (f.kind) {
        case Kind::u8: *static_cast<uint8_t *>(target) = static_cast<uint8_t>(value); break;
        case Kind::u16: *static_cast<uint16_t *>(target) = static_cast<uint16_t>(value); break;
        default: *static_cast<uint32_t *>(target) = value; break;
        }
    }
}

void set_all(const Type &t, mgx_handle_t *h, uint32_t luid, void *instance, std::initializer_list<uint32_t> values,
             uint32_t *err) {
    if (!start(h, luid, instance, err)) return;
    if (!adjust(t, h, luid, instance, err)) return;
    int8_t variant = variant_of(instance);
    const uint32_t *value = values.begin();
    for (FieldAt<void> a : fields(t, instance, t.last_variant())) {
        if (!(a->roles & field_settable_by_all)) continue;
        if (value == values.end()) break;
        uint32_t v = *value++;
        if (present(a.field(), variant)) prim_set_value(a->kind, h, luid, a.address(), v, err);
    }
}

void set_all_state_tracking_flag(const Type &t, mgx_handle_t *h, uint32_t luid, void *instance, uint8_t value) {
    if (!instance || !tracking(t, h) || !tracked(instance)) return;
    // Deliberately not write-notified: the flags are the runtime's own bookkeeping.
    if (uint8_t *area = state_area(t, h, luid, instance)) std::memset(area, value, t.sttr_size);
}

void post_copyout_cleanup(const Type &t, mgx_handle_t *h, uint32_t luid, void *dst, void *src, uint32_t *err) {
    if (!begin(h, luid, dst, err)) return;
    if (!exists(h, dst, err) || !exists(h, src, err) || dst == src) return;
    post_copy(t, h, luid, dst, src, err);
}

void offset_update(const Type &t, mgx_handle_t *h, uint32_t luid, void *instance, uint8_t *flag_base, uint32_t *err) {
    if (!start(h, luid, instance, err)) return;
    for (FieldAt<void> a : area_fields(t, instance)) {
        const Field &f = a.field();
        void *field = a.address();
        uint8_t *area = flag_base + f.sttr_nested;
        mgxlib_update_sttr_offset(h, luid, field, area - bytes(field));
        if (f.kind == Kind::aaa_tlv) aaa_tlv_offset_update(h, luid, static_cast<aaa_tlv *>(field), area, err);
        else offset_update(*f.type, h, luid, field, area, err);
    }
}

void offset_remove(const Type &t, mgx_handle_t *h, uint32_t luid, void *instance, uint32_t *err) {
    if (!start(h, luid, instance, err)) return;
    for (FieldAt<void> a : area_fields(t, instance)) {
        const Field &f = a.field();
        void *field = a.address();
        mgx_hd_mapping_destroy(h, luid, field, err);
        if (failed(err)) return;
        if (f.kind == Kind::aaa_tlv) aaa_tlv_offset_remove(h, luid, static_cast<aaa_tlv *>(field), err);
        else offset_remove(*f.type, h, luid, field, err);
    }
}

namespace {

// The field's address as field get hands it out (scalars through their type's get, each reported
// with the instance as parent), for a caller that has begun and found the instance.
void *fetch_field(const Field &f, mgx_handle_t *h, uint32_t luid, void *instance, uint32_t *err) {
    if (!present_in(f, h, instance, err)) return nullptr;
    void *field = field_at(instance, f);
    if (is_primitive(f.kind)) {
        field = prim_get(f.kind, h, luid, field, err);
        if (field) report(h, luid, field, instance);
        return field;
    }
    // A nested instance is fetched through its own type (which reports it alone), then reported
    // as the instance's child.
    if (f.kind == Kind::enumeration) enum_get(h, luid, field);
    else get(*f.type, h, luid, field);
    report(h, luid, field, instance);
    return field;
}

} // namespace

void *field_get(const Type &, const Field &f, mgx_handle_t *h, uint32_t luid, void *instance, uint32_t *err) {
    if (!start(h, luid, instance, err)) return nullptr;
    return fetch_field(f, h, luid, instance, err);
}

void field_set(const Type &t, const Field &f, mgx_handle_t *h, uint32_t luid, void *instance, void *value, uint32_t *err) {
    if (!start(h, luid, instance, err)) return;
    if (!adjust_for(t, f, h, luid, instance, err)) return;
    if (!exists(h, value, err)) return;
    void *field = field_at(instance, f);
    switch (f.kind) {
    case Kind::aaa_tlv:
        // The list's old attributes and references go unless the value is that very list.
        release_list(h, luid, static_cast<aaa_tlv *>(field), static_cast<const aaa_tlv *>(value));
        prim_set(f.kind, h, luid, field, value, err);
        break;
    case Kind::enumeration: enum_set(*f.type, h, luid, field, value, err); break;
    case Kind::record: copy_instance(*f.type, h, luid, field, value, err, false); break;
    default: prim_set(f.kind, h, luid, field, value, err); break;
    }
    if (failed(err)) return;
    mark_field(t, f, h, luid, instance, err);
    if (failed(err)) return;
    report(h, luid, value, instance);
}

// Integer fields by value; an enumeration field (a union's discriminator) by its user value.
uint64_t field_get_value(const Type &t, const Field &f, mgx_handle_t *h, uint32_t luid, void *instance, uint32_t *err) {
    void *field = field_get(t, f, h, luid, instance, err);
    if (!field) return 0;
    return f.kind == Kind::enumeration ? enum_get_value(h, luid, field, err) : prim_get_value(f.kind, h, luid, field, err);
}

void field_set_value(const Type &t, const Field &f, mgx_handle_t *h, uint32_t luid, void *instance, uint64_t value,
                     uint32_t *err) {
    if (!start(h, luid, instance, err)) return;
    if (!adjust(t, h, luid, instance, err)) return;
    void *field = fetch_field(f, h, luid, instance, err); // begun above: the handle's error is clear
    if (failed(err)) return;
    if (!field) {
        fail(h, err, MGX_ENOENT);
        return;
    }
    if (f.kind == Kind::enumeration) enum_set_value(*f.type, h, luid, field, static_cast<uint32_t>(value), err);
    else prim_set_value(f.kind, h, luid, field, value, err);
    if (failed(err)) return;
    mark_field(t, f, h, luid, instance, err);
}

void scalar_set_value_general(const Type &t, uint16_t index, mgx_handle_t *h, uint32_t luid, void *instance, uint64_t value,
                              uint32_t *err) {
    field_set_value(t, t.fields[index], h, luid, instance, value, err);
}

uint64_t scalar_get_value_general(const Type &t, uint16_t index, mgx_handle_t *h, uint32_t luid, void *instance, uint32_t *err) {
    return field_get_value(t, t.fields[index], h, luid, instance, err);
}

void scalar_missing(mgx_handle_t *h, uint32_t *err) {
    if (!failed(err)) fail(h, err, MGX_ENOENT);
}

// Hands the field back, so that the caller keeps it in a register across the call.
void *scalar_report(mgx_handle_t *h, uint32_t luid, void *field, const void *instance) {
    report(h, luid, field, instance);
    return field;
}

void scalar_mark(const Type &t, uint16_t index, mgx_handle_t *h, uint32_t luid, void *instance, uint32_t *err) {
    mark_field(t, t.fields[index], h, luid, instance, err);
}

uint8_t state_flag_get(const Type &t, const Field &f, mgx_handle_t *h, uint32_t luid, void *instance, uint32_t *err) {
    if (!start(h, luid, instance, err) || !flags_reachable(t, h, instance, false, err)) return 0;
    const uint8_t *area = state_area(t, h, luid, instance);
    return area ? area[f.sttr_pos] : 0;
}

void state_flag_set(const Type &t, const Field &f, mgx_handle_t *h, uint32_t luid, void *instance, uint8_t value, uint32_t *err) {
    if (!start(h, luid, instance, err) || !flags_reachable(t, h, instance, true, err)) return;
    if (!adjust_for(t, f, h, luid, instance, err)) return; // a field of a later variant has no flag to set
    if (uint8_t *area = state_area(t, h, luid, instance)) mark(h, luid, area + f.sttr_pos, instance, value);
}

} // namespace ovrin
