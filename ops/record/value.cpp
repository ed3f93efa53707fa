// Compare, hash and member validity of records and unions, over the type tables.
#include "ops/record/value.h"

#include <algorithm>
#include <cstring>

#include "ops/enum/enum.h"

namespace ovrin {

namespace {

template <class U> int32_t three_way(U a, U b) { return a < b ? -1 : (a > b ? 1 : 0); }

template <class U> U value_at(const void *p) {
    U v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

const void *element_at(const void *base, const Field &f, uint32_t i) { return bytes(base) + i * f.elem_size; }


const void *pointer_at(const void *instance, const Field &f) { return value_at<const void *>(field_at(instance, f)); }

// The discriminator's stored value, as it stands in the instance.
uint32_t stored_selector(const Type &t, const void *instance) {
    return static_cast<const EnumInstance *>(field_at(instance, t.fields[t.discriminator]))->value;
}

// Whether the discriminator chooses member f: the members are listed by user value.
bool chosen(const Type &t, const Field &f, const void *instance) {
    return enum_map_to_user_value(*t.fields[t.discriminator].type, stored_selector(t, instance)) == f.select;
}

// One inline element: a primitive, an enumeration, or a nested record or union.
int32_t compare_element(const Field &f, const void *a, const void *b) {
    switch (f.kind) {
    case Kind::u8: return three_way(value_at<uint8_t>(a), value_at<uint8_t>(b));
    case Kind::u16: return three_way(value_at<uint16_t>(a), value_at<uint16_t>(b));
    case Kind::u32: return three_way(value_at<uint32_t>(a), value_at<uint32_t>(b));
    case Kind::u64: return three_way(value_at<uint64_t>(a), value_at<uint64_t>(b));
    case Kind::boolean:
        return mgx_boolean_compare(static_cast<const mgx_boolean *>(a), static_cast<const mgx_boolean *>(b));
    case Kind::mac_addr:
        return mgx_mac_addr_compare(static_cast<const mgx_mac_addr *>(a), static_cast<const mgx_mac_addr *>(b));
    case Kind::ipv4_addr: return ipv4_addr_compare(static_cast<const ipv4_addr *>(a), static_cast<const ipv4_addr *>(b));
    case Kind::ipv6_addr: return ipv6_addr_compare(static_cast<const ipv6_addr *>(a), static_cast<const ipv6_addr *>(b));
    case Kind::aaa_tlv: return aaa_tlv_compare(static_cast<const aaa_tlv *>(a), static_cast<const aaa_tlv *>(b));
    case Kind::enumeration: return enum_compare(a, b);
    case Kind::record: return compare(*f.type, a, b);
    case Kind::character: break;
    }
    return 0;
}

uint32_t hash_element(const Field &f, const void *p, uint32_t seed) {
    switch (f.kind) {
    case Kind::u8: return u_int8_hash(static_cast<const u_int8 *>(p), seed);
    case Kind::u16: return u_int16_hash(static_cast<const u_int16 *>(p), seed);
    case Kind::u32: return u_int32_hash(static_cast<const u_int32 *>(p), seed);
    case Kind::u64: return u_int64_hash(static_cast<const u_int64 *>(p), seed);
    case Kind::boolean: return mgx_boolean_hash(static_cast<const mgx_boolean *>(p), seed);
    case Kind::mac_addr: return mgx_mac_addr_hash(static_cast<const mgx_mac_addr *>(p), seed);
    case Kind::ipv4_addr: return ipv4_addr_hash(static_cast<const ipv4_addr *>(p), seed);
    case Kind::ipv6_addr: return ipv6_addr_hash(static_cast<const ipv6_addr *>(p), seed);
    case Kind::aaa_tlv: return aaa_tlv_hash(static_cast<const aaa_tlv *>(p), seed);
    case Kind::enumeration: return enum_hash(p, seed);
    case Kind::record: return hash(*f.type, p, seed);
    case Kind::character: break;
    }
    return seed;
}

// The characters of a counted string: its length (held in the companion field), then memcmp
// over the shorter length, whose result is returned as it is. A string whose block is missing
// (a failed set keeps the old length) holds no characters.
int32_t compare_string(const Type &t, const Field &f, const void *a, const void *b) {
    const Field &length = t.fields[f.companion];
    uint32_t na = count_at(a, length), nb = count_at(b, length);
    if (int32_t c = three_way(na, nb)) return c;
    auto ta = static_cast<const char *>(pointer_at(a, f)), tb = static_cast<const char *>(pointer_at(b, f));
    if (!ta || !tb) return three_way(ta != nullptr, tb != nullptr);
    return std::memcmp(ta, tb, std::min(na, nb));
}

int32_t compare_array(const Type &t, const Field &f, const void *a, const void *b) {
    const Field &counter = t.fields[f.companion];
    uint32_t na = count_at(a, counter), nb = count_at(b, counter);
    if (int32_t c = three_way(na, nb)) return c;
    const void *ea = pointer_at(a, f), *eb = pointer_at(b, f);
    if (!ea || !eb) return three_way(ea != nullptr, eb != nullptr);
    for (uint32_t i = 0; i < na; ++i)
        if (int32_t c = compare(*f.type, element_at(ea, f, i), element_at(eb, f, i))) return c;
    return 0;
}

int32_t compare_field(const Type &t, const Field &f, const void *a, const void *b) {
    switch (f.shape) {
    case Shape::scalar:
    case Shape::fixed_array:
        for (uint16_t i = 0; i < f.count; ++i)
            if (int32_t c = compare_element(f, element_at(field_at(a, f), f, i), element_at(field_at(b, f), f, i)))
                return c;
        return 0;
    case Shape::var_string: return compare_string(t, f, a, b);
    case Shape::var_array: return compare_array(t, f, a, b);
    case Shape::member:
        // The discriminator precedes the members and has compared equal, so a's value stands for both.
        if (!chosen(t, f, a)) return 0;
        return compare(*f.type, pointer_at(a, f), pointer_at(b, f));
    }
    return 0;
}

// A counted string adds its length a second time, with the length field's own hash, before the
// characters: once as a field of the record, once as the string's count.
uint32_t hash_string(const Type &t, const Field &f, const void *instance, uint32_t seed) {
    const Field &length = t.fields[f.companion];
    seed = hash_element(length, field_at(instance, length), seed);
    auto text = static_cast<const char *>(pointer_at(instance, f));
    return SuperFastHash(text, static_cast<int>(count_at(instance, length)), seed);
}

// A variable array adds its elements in index order; its count is hashed as the field it is.
uint32_t hash_array(const Type &t, const Field &f, const void *instance, uint32_t seed) {
    const void *block = pointer_at(instance, f);
    if (!block) return seed;
    uint32_t n = count_at(instance, t.fields[f.companion]);
    for (uint32_t i = 0; i < n; ++i) seed = hash(*f.type, element_at(block, f, i), seed);
    return seed;
}

uint32_t hash_field(const Type &t, const Field &f, const void *instance, uint32_t seed) {
    switch (f.shape) {
    case Shape::scalar:
    case Shape::fixed_array:
        for (uint16_t i = 0; i < f.count; ++i) seed = hash_element(f, element_at(field_at(instance, f), f, i), seed);
        return seed;
    case Shape::var_string: return hash_string(t, f, instance, seed);
    case Shape::var_array: return hash_array(t, f, instance, seed);
    case Shape::member: {
        // Every arm counts, selected or not: the discriminator's value bytes, then the arm.
        uint32_t value = stored_selector(t, instance);
        seed = SuperFastHash(reinterpret_cast<const char *>(&value), sizeof value, seed);
        return hash(*f.type, pointer_at(instance, f), seed);
    }
    }
    return seed;
}

} // namespace

int32_t compare(const Type &t, const void *a, const void *b) {
    if (!a || !b) return a == b ? 0 : (a ? 1 : -1);
    for (uint16_t i = 0; i < t.n_fields; ++i)
        if (int32_t c = compare_field(t, t.fields[i], a, b)) return c;
    return 0;
}

uint32_t hash(const Type &t, const void *instance, uint32_t seed) {
    if (!instance) return seed;
    for (uint16_t i = 0; i < t.n_fields; ++i) seed = hash_field(t, t.fields[i], instance, seed);
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

} // namespace ovrin
