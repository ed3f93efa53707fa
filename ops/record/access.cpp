// Field access and state tracking of every record and union, over the type tables.
#include "ops/record/access.h"

#include <algorithm>
#include <cstring>

#include "ops/enum/enum.h"
#include "ops/record/lifecycle.h"

namespace ovrin {

namespace {

// ---------------------------------------------------------------- the runtime's primitives

#define OVRIN_VALUE_PRIMS(X) X(u8, u_int8) X(u16, u_int16) X(u32, u_int32) X(u64, u_int64) X(boolean, mgx_boolean)
#define OVRIN_PRIMS(X) OVRIN_VALUE_PRIMS(X) X(mac_addr, mgx_mac_addr) X(ipv4_addr, ipv4_addr) X(ipv6_addr, ipv6_addr)

bool is_primitive(Kind k) {
    switch (k) {
#define OVRIN_CASE(K, T) case Kind::K:
        OVRIN_PRIMS(OVRIN_CASE)
#undef OVRIN_CASE
    case Kind::aaa_tlv: return true;
    default: return false;
    }
}

void *prim_get(Kind k, mgx_handle_t *h, uint32_t luid, void *field, uint32_t *err) {
    switch (k) {
#define OVRIN_CASE(K, T)                                                                                               \
    case Kind::K: return T##_get(h, luid, static_cast<T *>(field), err);
        OVRIN_PRIMS(OVRIN_CASE)
        OVRIN_CASE(aaa_tlv, aaa_tlv)
#undef OVRIN_CASE
    default: return nullptr;
    }
}

void prim_set(Kind k, mgx_handle_t *h, uint32_t luid, void *field, const void *value, uint32_t *err) {
    switch (k) {
#define OVRIN_CASE(K, T)                                                                                               \
    case Kind::K: return T##_set(h, luid, static_cast<T *>(field), static_cast<const T *>(value), err);
        OVRIN_PRIMS(OVRIN_CASE)
        OVRIN_CASE(aaa_tlv, aaa_tlv)
#undef OVRIN_CASE
    default: return;
    }
}

uint64_t prim_get_value(Kind k, mgx_handle_t *h, uint32_t luid, const void *field, uint32_t *err) {
    switch (k) {
#define OVRIN_CASE(K, T)                                                                                               \
    case Kind::K: return T##_get_value(h, luid, static_cast<const T *>(field), err);
        OVRIN_VALUE_PRIMS(OVRIN_CASE)
#undef OVRIN_CASE
    default: return 0;
    }
}

void prim_set_value(Kind k, mgx_handle_t *h, uint32_t luid, void *field, uint64_t value, uint32_t *err) {
    switch (k) {
#define OVRIN_CASE(K, T)                                                                                               \
    case Kind::K: return T##_set_value(h, luid, static_cast<T *>(field), static_cast<T>(value), err);
        OVRIN_VALUE_PRIMS(OVRIN_CASE)
#undef OVRIN_CASE
    default: return;
    }
}

// ---------------------------------------------------------------- enumeration fields

uint32_t &enum_value(void *instance) { return static_cast<EnumInstance *>(instance)->value; }
uint32_t enum_value(const void *instance) { return static_cast<const EnumInstance *>(instance)->value; }

// ---------------------------------------------------------------- common steps

int8_t variant_of(const void *instance) { return mgx_get_instance_variant(instance, 1, 0); }

// Every mutation first brings the instance to the variant the handle's domain gives its type.
bool adjust(const Type &t, mgx_handle_t *h, uint32_t luid, void *instance, uint32_t *err) {
    mgxlib_adjust_variant(h, luid, instance, mgx_get_manifested_type_info(instance), t.last_variant(), err);
    return !(err && *err);
}

// The field exists in the instance's variant; otherwise the variant error 43.
bool check_present(const Field &f, mgx_handle_t *h, const void *instance, uint32_t *err) {
    if (present(f, variant_of(instance))) return true;
    mgx_store_epoch_err(h, MGX_EVARIANT, err);
    return false;
}

bool check_instance(mgx_handle_t *h, const void *instance, uint32_t *err) {
    if (instance) return true;
    fail(h, err, MGX_EINVAL);
    return false;
}

bool tracked(const void *instance) { return (hdr(instance)->flags & MGX_IF_TRACKED) != 0; }

void report(mgx_handle_t *h, uint32_t luid, const void *object, const void *container) {
    if (h->database) mgxdb_record_containment2(h, luid, object, container, 1);
}

// After a successful set under a tracking handle, the field's flag byte says it was set (2).
void mark_set(const Type &t, const Field &f, mgx_handle_t *h, uint32_t luid, void *instance, uint32_t *err) {
    if (!tracking(t, h)) return;
    if (!tracked(instance)) {
        fail(h, err, MGX_EINVAL);
        trace(t, Message::not_state_tracked, MGX_SEV_ERROR);
        return;
    }
    if (uint8_t *area = state_area(t, h, luid, instance)) {
        notify(h, area + f.sttr_pos, 1, luid, instance);
        area[f.sttr_pos] = 2;
    }
}

// The state-flag operations refuse an untracking handle without a word (22) and a corrupt one
// fatally; a handle without a state-tracking record goes on to the instance's own check.
bool flags_available(const Type &t, mgx_handle_t *h, uint32_t *err) {
    if (h->sttr && !tracking(t, h)) {
        fail(h, err, MGX_EINVAL);
        return false;
    }
    return true;
}

template <class Fn> void for_each_element_pair(void *dst, void *src, const Field &f, Fn fn) {
    for (uint16_t i = 0; i < f.count; ++i) fn(bytes(dst) + f.offset + i * f.elem_size, bytes(src) + f.offset + i * f.elem_size);
}


void *&pointer_at(void *instance, const Field &f) { return *static_cast<void **>(field_at(instance, f)); }

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

// Releases the out-of-line storage of dst that a copy from src is about to replace: attribute
// bodies, strings and array blocks, at every depth of the inline tree, except what dst already
// shares with src (after a raw byte copy the two hold the same pointers). Union members are not
// destroyed: a whole-union copy overwrites dst's members, whose release is their holder's business.
void release_replaced(const Type &t, mgx_handle_t *h, uint32_t luid, void *dst, void *src) {
    int8_t variant = variant_of(dst);
    for (uint16_t i = 0; i < t.n_fields; ++i) {
        const Field &f = t.fields[i];
        if (!present(f, variant)) continue;
        switch (f.shape) {
        case Shape::scalar:
        case Shape::fixed_array:
            if (f.kind == Kind::aaa_tlv)
                release_list(h, luid, static_cast<aaa_tlv *>(field_at(dst, f)), static_cast<aaa_tlv *>(field_at(src, f)));
            else if (f.kind == Kind::record)
                for_each_element_pair(dst, src, f, [&](void *d, void *s) { release_replaced(*f.type, h, luid, d, s); });
            break;
        case Shape::var_string: {
            void *&text = pointer_at(dst, f);
            if (!text || text == pointer_at(src, f)) break;
            h->inst_free(h->alloc_ctx, luid, text);
            notify(h, &text, sizeof text, luid, dst);
            text = nullptr;
            break;
        }
        case Shape::var_array: {
            void *&block = pointer_at(dst, f);
            if (!block || block == pointer_at(src, f)) break;
            uint32_t n = companion_count(t, f, dst);
            for (uint32_t k = 0; k < n; ++k) destroy_internal(*f.type, h, luid, bytes(block) + k * f.elem_size, 0);
            h->inst_free(h->alloc_ctx, luid, block);
            notify(h, &block, sizeof block, luid, dst);
            block = nullptr;
            break;
        }
        case Shape::member: break;
        }
    }
}

// The copy of one level: the variant and layout bytes and every field present in src's variant
// that lies wholly in the instance (integers, booleans, addresses, enumeration values, counts and
// lengths), plus the pointer words of strings, arrays and members. Nested records and attribute
// lists are left to post_copy, so that dst keeps its own headers and state-flag registrations.
void shallow_copy(const Type &t, void *dst, const void *src) {
    hdr(dst)->variant = hdr(src)->variant;
    hdr(dst)->layout = hdr(src)->layout;
    int8_t variant = variant_of(src);
    for (uint16_t i = 0; i < t.n_fields; ++i) {
        const Field &f = t.fields[i];
        if (!present(f, variant)) continue;
        if (f.shape == Shape::scalar || f.shape == Shape::fixed_array) {
            if (f.kind == Kind::record || f.kind == Kind::aaa_tlv) continue;
            if (f.kind == Kind::enumeration) {
                for (uint16_t k = 0; k < f.count; ++k)
                    enum_value(bytes(dst) + f.offset + k * f.elem_size) =
                        enum_value(bytes(src) + f.offset + k * f.elem_size);
                continue;
            }
        }
        std::memcpy(field_at(dst, f), field_at(src, f), f.size);
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
void duplicate_string(const Type &t, const Field &f, mgx_handle_t *h, uint32_t luid, void *dst, void *src,
                      uint32_t *err) {
    void *&text = pointer_at(dst, f);
    if (!text || text != pointer_at(src, f)) return;
    uint32_t length = companion_count(t, f, src);
    notify(h, &text, sizeof text, luid, dst);
    void *copy = h->inst_alloc(h->alloc_ctx, luid, size_t{length} + 1);
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
void duplicate_array(const Type &t, const Field &f, mgx_handle_t *h, uint32_t luid, void *dst, void *src,
                     uint32_t *err) {
    void *&block = pointer_at(dst, f);
    void *source = pointer_at(src, f);
    if (!block || block != source) return;
    uint32_t n = companion_count(t, f, src);
    bool tracked_block = tracking(t, h);
    const ArrayLayout layout(f);
    size_t size = layout.size(n, tracked_block);
    notify(h, &block, sizeof block, luid, dst);
    void *copy = h->inst_alloc(h->alloc_ctx, luid, size);
    if (!copy) {
        block = nullptr;
        fail(h, err, MGX_ENOMEM);
        return;
    }
    std::memset(copy, 0, size);
    block = copy;
    uint8_t *flags = layout.flags(copy, n, tracked_block);
    for (uint32_t k = 0; k < n; ++k) {
        void *element = layout.element(copy, k);
        initialize(*f.type, h, luid, element, f.type->descriptor, 0, 0, MGX_IF_NESTED, layout.slot_of(flags, k), err);
        copy_instance(*f.type, h, luid, element, layout.element(source, k), err, true);
    }
    // Each element's own state byte comes along; the flags inside its area were set by the copy.
    const uint8_t *source_flags = layout.flags(static_cast<const void *>(source), n, tracked_block);
    for (uint32_t k = 0; flags && source_flags && k < n; ++k) *layout.slot_of(flags, k) = *layout.slot_of(source_flags, k);
}

// What a raw copy of src into dst leaves shared, made dst's own: nested records and unions are
// set from src's, attribute lists copied, strings and arrays duplicated; union members move to
// dst, leaving src's slots empty.
void post_copy(const Type &t, mgx_handle_t *h, uint32_t luid, void *dst, void *src, uint32_t *err) {
    int8_t variant = variant_of(dst);
    for (uint16_t i = 0; i < t.n_fields; ++i) {
        const Field &f = t.fields[i];
        if (!present(f, variant)) continue;
        switch (f.shape) {
        case Shape::scalar:
        case Shape::fixed_array:
            if (f.kind == Kind::aaa_tlv)
                aaa_tlv_set(h, luid, static_cast<aaa_tlv *>(field_at(dst, f)), static_cast<aaa_tlv *>(field_at(src, f)),
                            err);
            else if (f.kind == Kind::record)
                for_each_element_pair(dst, src, f,
                                      [&](void *d, void *s) { copy_instance(*f.type, h, luid, d, s, err, true); });
            break;
        case Shape::var_string: duplicate_string(t, f, h, luid, dst, src, err); break;
        case Shape::var_array: duplicate_array(t, f, h, luid, dst, src, err); break;
        case Shape::member: {
            void *&slot = pointer_at(src, f);
            if (!slot) break;
            notify(h, &slot, sizeof slot, luid, src);
            slot = nullptr;
            break;
        }
        }
    }
}

// Whole-instance copy. The caller's form (nested false) checks the variants and carries the
// state flags; the copies of nested instances that it makes go without either: the container's
// own check covers them and its flag area holds theirs.
void copy_instance(const Type &t, mgx_handle_t *h, uint32_t luid, void *dst, void *src, uint32_t *err, bool nested) {
    if (!begin(h, luid, dst, err)) return;
    if (!check_instance(h, dst, err) || !check_instance(h, src, err)) return;
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
    if (under_tracking && !tracked(dst) && !(err && *err)) {
        fail(h, err, MGX_EINVAL);
        trace(t, Message::not_state_tracked, MGX_SEV_ERROR);
    }
}

} // namespace

bool settable_by_all(const Field &f) {
    return f.shape == Shape::scalar && (f.kind == Kind::u8 || f.kind == Kind::u16 || f.kind == Kind::u32);
}

bool readable_by_all(const Field &f) {
    return settable_by_all(f) || (f.shape == Shape::scalar && f.kind == Kind::enumeration);
}

void *get(const Type &, mgx_handle_t *h, uint32_t luid, void *instance) {
    report(h, luid, instance, nullptr);
    return instance;
}

void set(const Type &t, mgx_handle_t *h, uint32_t luid, void *dst, void *src, uint32_t *err) {
    copy_instance(t, h, luid, dst, src, err, false);
}

void get_all(const Type &t, mgx_handle_t *h, uint32_t luid, const void *instance, std::initializer_list<void *> outputs,
             uint32_t *err) {
    if (!begin(h, luid, instance, err) || !check_instance(h, instance, err)) return;
    int8_t variant = variant_of(instance);
    const auto *out = outputs.begin();
    for (uint16_t i = 0; i < t.n_fields && out != outputs.end(); ++i) {
        const Field &f = t.fields[i];
        if (!readable_by_all(f)) continue;
        void *target = *out++;
        const void *field = field_at(instance, f);
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
    if (!begin(h, luid, instance, err) || !check_instance(h, instance, err)) return;
    if (!adjust(t, h, luid, instance, err)) return;
    int8_t variant = variant_of(instance);
    const uint32_t *value = values.begin();
    for (uint16_t i = 0; i < t.n_fields && value != values.end(); ++i) {
        const Field &f = t.fields[i];
        if (!settable_by_all(f)) continue;
        uint32_t v = *value++;
        if (present(f, variant)) prim_set_value(f.kind, h, luid, field_at(instance, f), v, err);
    }
}

void set_all_state_tracking_flag(const Type &t, mgx_handle_t *h, uint32_t luid, void *instance, uint8_t value) {
    if (!instance || !tracking(t, h) || !tracked(instance)) return;
    // Deliberately not write-notified: the flags are the runtime's own bookkeeping.
    if (uint8_t *area = state_area(t, h, luid, instance)) std::memset(area, value, t.sttr_size);
}

void post_copyout_cleanup(const Type &t, mgx_handle_t *h, uint32_t luid, void *dst, void *src, uint32_t *err) {
    if (!begin(h, luid, dst, err)) return;
    if (!check_instance(h, dst, err) || !check_instance(h, src, err) || dst == src) return;
    post_copy(t, h, luid, dst, src, err);
}

void offset_update(const Type &t, mgx_handle_t *h, uint32_t luid, void *instance, uint8_t *flag_base, uint32_t *err) {
    if (!begin(h, luid, instance, err) || !check_instance(h, instance, err)) return;
    for (uint16_t i = 0; i < t.n_fields; ++i) {
        const Field &f = t.fields[i];
        if (f.shape != Shape::scalar || f.sttr_nested == no_area) continue;
        if (f.kind != Kind::record && f.kind != Kind::aaa_tlv) continue;
        void *field = field_at(instance, f);
        uint8_t *area = flag_base + f.sttr_nested;
        mgxlib_update_sttr_offset(h, luid, field, area - bytes(field));
        if (f.kind == Kind::aaa_tlv)
            aaa_tlv_offset_update(h, luid, static_cast<aaa_tlv *>(field), area, err);
        else
            offset_update(*f.type, h, luid, field, area, err);
    }
}

void offset_remove(const Type &t, mgx_handle_t *h, uint32_t luid, void *instance, uint32_t *err) {
    if (!begin(h, luid, instance, err) || !check_instance(h, instance, err)) return;
    for (uint16_t i = 0; i < t.n_fields; ++i) {
        const Field &f = t.fields[i];
        if (f.shape != Shape::scalar || f.sttr_nested == no_area) continue;
        if (f.kind != Kind::record && f.kind != Kind::aaa_tlv) continue;
        void *field = field_at(instance, f);
        mgx_hd_mapping_destroy(h, luid, field, err);
        if (err && *err) return;
        if (f.kind == Kind::aaa_tlv)
            aaa_tlv_offset_remove(h, luid, static_cast<aaa_tlv *>(field), err);
        else
            offset_remove(*f.type, h, luid, field, err);
    }
}

void *field_get(const Type &, const Field &f, mgx_handle_t *h, uint32_t luid, void *instance, uint32_t *err) {
    if (!begin(h, luid, instance, err) || !check_instance(h, instance, err)) return nullptr;
    if (!check_present(f, h, instance, err)) return nullptr;
    void *field = field_at(instance, f);
    if (is_primitive(f.kind)) {
        field = prim_get(f.kind, h, luid, field, err);
        if (field) report(h, luid, field, instance);
        return field;
    }
    // A nested instance is fetched through its own type (which reports it alone), then reported
    // as the instance's child.
    if (f.kind == Kind::enumeration)
        enum_get(h, luid, field);
    else
        get(*f.type, h, luid, field);
    report(h, luid, field, instance);
    return field;
}

void field_set(const Type &t, const Field &f, mgx_handle_t *h, uint32_t luid, void *instance, void *value,
               uint32_t *err) {
    if (!begin(h, luid, instance, err) || !check_instance(h, instance, err)) return;
    if (!adjust(t, h, luid, instance, err) || !check_present(f, h, instance, err)) return;
    if (!check_instance(h, value, err)) return;
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
    if (err && *err) return;
    mark_set(t, f, h, luid, instance, err);
    if (err && *err) return;
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
    if (!begin(h, luid, instance, err) || !check_instance(h, instance, err)) return;
    if (!adjust(t, h, luid, instance, err)) return;
    void *field = field_get(t, f, h, luid, instance, err);
    if (err && *err) return;
    if (!field) {
        fail(h, err, MGX_ENOENT);
        return;
    }
    if (f.kind == Kind::enumeration)
        enum_set_value(*f.type, h, luid, field, static_cast<uint32_t>(value), err);
    else
        prim_set_value(f.kind, h, luid, field, value, err);
    if (err && *err) return;
    mark_set(t, f, h, luid, instance, err);
}

uint8_t state_flag_get(const Type &t, const Field &f, mgx_handle_t *h, uint32_t luid, void *instance, uint32_t *err) {
    if (!begin(h, luid, instance, err) || !check_instance(h, instance, err)) return 0;
    if (!flags_available(t, h, err)) return 0;
    if (!tracked(instance)) {
        fail(h, err, MGX_EINVAL);
        trace(t, Message::non_state_tracked, MGX_SEV_ERROR);
        return 0;
    }
    const uint8_t *area = state_area(t, h, luid, instance);
    return area ? area[f.sttr_pos] : 0;
}

void state_flag_set(const Type &t, const Field &f, mgx_handle_t *h, uint32_t luid, void *instance, uint8_t value,
                    uint32_t *err) {
    if (!begin(h, luid, instance, err) || !check_instance(h, instance, err)) return;
    if (!flags_available(t, h, err)) return;
    if (!tracked(instance)) {
        fail(h, err, MGX_EINVAL);
        trace(t, Message::not_state_tracked, MGX_SEV_ERROR);
        return;
    }
    if (!adjust(t, h, luid, instance, err) || !check_present(f, h, instance, err)) return;
    if (uint8_t *area = state_area(t, h, luid, instance)) {
        notify(h, area + f.sttr_pos, 1, luid, instance);
        area[f.sttr_pos] = value;
    }
}

} // namespace ovrin
