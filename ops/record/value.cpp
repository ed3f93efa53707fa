// Clone, compare, hash and member validity of records and unions, over the type tables.
#include "ops/record/value.h"

#include <algorithm>
#include <cstring>

#include "ops/record/lifecycle.h"
#include "ops/walk.h"
#include "ops/wire/wire.h"

namespace ovrin {

namespace {

template <class U> int32_t three_way(U a, U b) { return a < b ? -1 : (a > b ? 1 : 0); }

template <class U> U value_at(const void *p) {
    U v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

// One inline element: a primitive, an enumeration, or a nested record or union.
int32_t compare_element(const Field &f, const void *a, const void *b) {
    switch (f.kind) {
#define OVRIN_NUMBER(K, T, S, A)                                                                                                 \
    case Kind::K: return three_way(value_at<T>(a), value_at<T>(b));
        OVRIN_INTEGER_PRIMS(OVRIN_NUMBER)
#undef OVRIN_NUMBER
#define OVRIN_INSTANCE(K, T, S, A)                                                                                               \
    case Kind::K: return T##_compare(static_cast<const T *>(a), static_cast<const T *>(b));
        OVRIN_INSTANCE_PRIMS(OVRIN_INSTANCE)
#undef OVRIN_INSTANCE
    case Kind::enumeration: return enum_compare(a, b);
    case Kind::record: return compare(*f.type, a, b);
    case Kind::character: break;
    }
    return 0;
}

uint32_t hash_element(const Field &f, const void *p, uint32_t seed) {
    switch (f.kind) {
#define OVRIN_HASH(K, T, S, A)                                                                                                   \
    case Kind::K: return T##_hash(static_cast<const T *>(p), seed);
        OVRIN_ALL_PRIMS(OVRIN_HASH)
#undef OVRIN_HASH
    case Kind::enumeration: return enum_hash(p, seed);
    case Kind::record: return hash(*f.type, p, seed);
    case Kind::character: break;
    }
    return seed;
}

// The characters of a counted string: its length (held in the companion field), then memcmp
// over the shorter length, whose result is returned as it is. A string whose block is missing
// (a failed set keeps the old length) holds no characters.
int32_t compare_string(const FieldAt<const void> &a, const FieldAt<const void> &b) {
    uint32_t na = a.count(), nb = b.count();
    if (int32_t c = three_way(na, nb)) return c;
    auto ta = static_cast<const char *>(a.block()), tb = static_cast<const char *>(b.block());
    if (!ta || !tb) return three_way(ta != nullptr, tb != nullptr);
    return std::memcmp(ta, tb, std::min(na, nb));
}

int32_t compare_field(const FieldAt<const void> &a, const FieldAt<const void> &b) {
    const Field &f = a.field();
    switch (f.shape) {
    case Shape::var_string: return compare_string(a, b);
    case Shape::var_array:
        if (int32_t c = three_way(a.count(), b.count())) return c;
        if (!a.block() || !b.block()) return three_way(a.block() != nullptr, b.block() != nullptr);
        [[fallthrough]];
    case Shape::scalar:
    case Shape::fixed_array:
        for (uint32_t k = 0, n = a.count(); k < n; ++k)
            if (int32_t c = compare_element(f, a.element(k), b.element(k))) return c;
        return 0;
    case Shape::member:
        // The discriminator precedes the members and has compared equal, so a's value stands for both.
        return a.selected() ? compare(*f.type, a.block(), b.block()) : 0;
    }
    return 0;
}

uint32_t hash_field(const FieldAt<const void> &a, uint32_t seed) {
    const Field &f = a.field();
    switch (f.shape) {
    case Shape::scalar:
    case Shape::fixed_array:
    case Shape::var_array: // its elements in index order; its count is hashed as the field it is
        for (uint32_t k = 0, n = a.elements(); k < n; ++k) seed = hash_element(f, a.element(k), seed);
        return seed;
    case Shape::var_string: {
        // The length a second time, with the length field's own hash, before the characters: once
        // as a field of the record, once as the string's count.
        seed = hash_element(a.counter(), field_at(a.instance(), a.counter()), seed);
        return SuperFastHash(static_cast<const char *>(a.block()), static_cast<int>(a.count()), seed);
    }
    case Shape::member: {
        // Every arm counts, selected or not: the discriminator's stored value bytes, then the arm.
        uint32_t value = stored_selector(a.type(), a.instance());
        seed = SuperFastHash(reinterpret_cast<const char *>(&value), sizeof value, seed);
        return hash(*f.type, a.block(), seed);
    }
    }
    return seed;
}

} // namespace

int32_t compare(const Type &t, const void *a, const void *b) {
    if (!a || !b) return a == b ? 0 : (a ? 1 : -1);
    // Every field, whatever the variants: what lies past an instance's variant compares as it is.
    for (FieldAt<const void> fa : fields(t, a, t.last_variant()))
        if (int32_t c = compare_field(fa, field_of(t, fa.field(), b))) return c;
    return 0;
}

uint32_t hash(const Type &t, const void *instance, uint32_t seed) {
    if (!instance) return seed;
    for (FieldAt<const void> a : fields(t, instance, t.last_variant())) seed = hash_field(a, seed);
    return seed;
}

mgx_boolean is_valid_cr(const Type &t, mgx_handle_t *h, const void *instance, uint32_t member_index, uint32_t flags) {
    if (member_index >= t.n_fields) return 0;
    uint32_t err = 0;
    int variant = domain_variant(t, h, &err);
    if (!(flags & 1u)) variant = std::min<int>(variant, mgx_get_instance_variant(instance, 1, 0));
    const Field &f = t.fields[member_index];
    return f.from_variant == 0 || present(f, variant) ? 1 : 0;
}

void clone_internal(const Type &t, mgx_handle_t *h, uint32_t luid, const void *source, void **destination, uint8_t *buf,
                    uint32_t length, uint32_t *err) {
    if (!begin(h, luid, source, err)) return;
    if (!destination || !buf || !source) {
        fail(h, err, MGX_ENOENT);
        return;
    }
    // A tracked encode may store one byte past the space it is given: keep that byte inside.
    int64_t room = static_cast<int64_t>(length) - (tracking(t, h) ? 1 : 0);
    int32_t space = room > INT32_MAX ? INT32_MAX : static_cast<int32_t>(room);
    uint32_t n = encode(t, h, luid, buf, source, space, false, err);
    if (*err) return;
    if (!*destination) {
        t.bundle->trace_init();
        void *fresh = create_internal(t, h, luid);
        if (!fresh) {
            fail(h, err, MGX_ENOMEM);
            return;
        }
        uint32_t e = 0;
        raise_variant(t, h, luid, fresh, &e); // the copy may hold every variant the handle knows
        *destination = fresh;
    }
    decode(t, h, luid, buf, *destination, static_cast<int32_t>(n), 0, err);
    if (*err) {
        if (*destination != t.placeholder) destroy_internal(t, h, luid, *destination, 1);
        *destination = nullptr;
    }
}

void clone(const Type &t, mgx_handle_t *h, uint32_t luid, const void *source, void **destination, uint8_t *buf, uint32_t length,
           uint32_t *err) {
    if (destination) *destination = nullptr;
    clone_internal(t, h, luid, source, destination, buf, length, err);
}

void *clone_cr(const Type &t, mgx_handle_t *h, const void *source, uint32_t work_space_min) {
    uint32_t length = 0;
    auto *ws = static_cast<uint8_t *>(mgxlib_get_handle_ws(h, work_space_min, &length));
    void *destination = nullptr;
    clone_internal(t, h, h->desc_call_luid, source, &destination, ws, length, &h->last_error);
    return destination;
}

} // namespace ovrin
