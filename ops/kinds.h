// What a field's elements are and how they are held: the one list of the runtime's primitives and
// the two enumerations built from it, read by the engine and by the generator alike (the generator
// writes the type tables with these names, so the two cannot drift apart).
//
// Each primitive is listed with its field kind, the runtime's C type (its catalogue name, and the
// name the runtime's functions carry: T_len, T_marshal, T_compare, T_to_xml ...), and the size and
// alignment it is laid out with. The engine checks the size and alignment against the runtime's
// own types (ops/types.h). No includes: the generator takes this file alone.
#ifndef OVRIN_OPS_KINDS_H
#define OVRIN_OPS_KINDS_H

#include <cstdint>

// One group of primitives to a line, however long (left unformatted).
// clang-format off
// Unsigned integers, compared as numbers.
#define OVRIN_INTEGER_PRIMS(X) X(u8, u_int8, 1, 1) X(u16, u_int16, 2, 2) X(u32, u_int32, 4, 4) X(u64, u_int64, 8, 8)
#define OVRIN_BOOLEAN_PRIM(X) X(boolean, mgx_boolean, 4, 4)
// Addresses, read and set by value as the runtime's structures.
#define OVRIN_ADDRESS_PRIMS(X) X(mac_addr, mgx_mac_addr, 6, 1) X(ipv4_addr, ipv4_addr, 4, 4) X(ipv6_addr, ipv6_addr, 16, 4)
// The attribute list.
#define OVRIN_TLV_PRIM(X) X(aaa_tlv, aaa_tlv, 32, 8)

// Read and set as numbers (widened to 64 bits).
#define OVRIN_VALUE_PRIMS(X) OVRIN_INTEGER_PRIMS(X) OVRIN_BOOLEAN_PRIM(X)
// Runtime instances inside a record: initialised, embedded, compared and destroyed by the runtime.
#define OVRIN_INSTANCE_PRIMS(X) OVRIN_BOOLEAN_PRIM(X) OVRIN_ADDRESS_PRIMS(X) OVRIN_TLV_PRIM(X)
// Every primitive, in the order of Kind.
#define OVRIN_ALL_PRIMS(X) OVRIN_VALUE_PRIMS(X) OVRIN_ADDRESS_PRIMS(X) OVRIN_TLV_PRIM(X)

#define OVRIN_SHAPES(X) X(scalar) X(fixed_array) X(var_array) X(var_string) X(member)
// clang-format on

namespace ovrin {

// Left unformatted: the formatter would take each expanded list for the start of the enumerator
// after it.
// clang-format off

// What one element of a field is: a primitive (in the list's order), the characters of a counted
// string, an inline enumeration instance (16 bytes; Field::type is the enumeration), or an inline
// record or union instance (or the referenced type of a member slot).
enum class Kind : uint8_t {
#define OVRIN_KIND(K, T, S, A) K,
    OVRIN_ALL_PRIMS(OVRIN_KIND)
#undef OVRIN_KIND
    character,
    enumeration,
    record,
};

// How the elements are held: one inline (scalar); Field::count inline (fixed_array); a pointer to
// a block of elements whose count is in the companion field (var_array); a pointer to length+1
// characters whose length is in the companion field (var_string); a union member, a pointer to a
// separately allocated instance of Field::type (member).
enum class Shape : uint8_t {
#define OVRIN_SHAPE(S) S,
    OVRIN_SHAPES(OVRIN_SHAPE)
#undef OVRIN_SHAPE
};
// clang-format on

} // namespace ovrin

#endif
