// The type tables: one constant table per type of the catalogue, generated from it, that the
// generic operations walk. Every exported `<type>_<op>` is a one-line call of a generic
// operation with its type's table; nothing about a type is known anywhere else.
//
// Internal to the bundle; not installed.
#ifndef OVRIN_OPS_TYPES_H
#define OVRIN_OPS_TYPES_H

#include <cstddef>
#include <cstdint>

#include "mgx/contract.h"
#include "ops/kinds.h"

namespace ovrin {

struct Type;

enum class TypeKind : uint8_t { record, union_, enumeration };

// The list's sizes and alignments are the runtime's.
#define OVRIN_CHECK_PRIM(K, T, S, A) static_assert(sizeof(T) == (S) && alignof(T) == (A), #T " is laid out as listed");
OVRIN_ALL_PRIMS(OVRIN_CHECK_PRIM)
#undef OVRIN_CHECK_PRIM

inline constexpr uint16_t no_area = 0xFFFF;
// The most strings and variable arrays one type may hold: a decode or an XML read keeps each
// one's old count, from its counter until it, in room of this size. The generated tables assert it.
inline constexpr unsigned max_counted_fields = 16;
inline constexpr uint16_t aaa_tlv_area_size = AAA_TLV_STTR_AREA;

// What a field takes part in beyond its own accessors, as the generator decided it.
enum FieldRole : uint8_t {
    field_settable_by_all = 1u << 0, // one of the values <type>_set_all takes, in field order
    field_readable_by_all = 1u << 1, // one of the outputs <type>_get_all fills, in field order
};

struct Field {
    const char *name;
    const Type *type;   // enumeration, record or union of the field, member or array element; null for primitives
    uint16_t offset;    // from the start of the instance
    uint16_t size;      // bytes held inline in the instance (all elements of a fixed array; 8 for pointers)
    uint16_t elem_size; // bytes of one element (an array element, the member's instance); == size for scalars
    uint16_t count;     // elements of a fixed array, 1 otherwise
    Kind kind;
    Shape shape;
    int8_t from_variant;  // the field exists in instances whose variant is at least this
    int8_t companion;     // var_array/var_string: index of its count/length field; count/length field:
                          // index of the field it counts; -1 otherwise
    uint16_t sttr_pos;    // position of the field's own flag byte in its type's state-flag area
    uint16_t sttr_nested; // nested record/union area, aaa_tlv area, fixed-array element bytes, or the
                          // var-array reference slot (8 bytes) in the same area; no_area otherwise
    uint32_t select;      // member: the discriminator's user value that selects it
    uint8_t roles;        // FieldRole bits
};

struct Literal {
    const char *name;
    uint32_t user; // the value callers see
    uint32_t wire; // the literal's position, as it travels
    int8_t from_variant;
};

struct Variant {
    uint32_t used; // bytes of the instance that this variant's layout uses
    uint32_t slop; // spare bytes up to the instance size
};

// Per-type departures from the generic behaviour, as flags rather than branches on names.
enum TypeFlag : uint32_t {
    type_flag_none = 0,
    // Union: the member is chosen by the discriminator's stored value mapped to its user value
    // (the enumeration's map_to_user_value), rather than by the stored value itself.
    type_flag_select_by_user_value = 1u << 0,
};

// The compiled wire code of a record or union (generated per type; see ops/wire/code.h): the same
// operations as wire_length, encode and decode, with the type's members written in.
struct WireCode {
    uint32_t (*length)(mgx_handle_t *h, uint32_t luid, const void *instance);
    uint32_t (*encode)(mgx_handle_t *h, uint32_t luid, uint8_t *buf, const void *instance, int32_t space, bool check,
                       uint32_t *err);
    uint32_t (*decode)(mgx_handle_t *h, uint32_t luid, const uint8_t *buf, void *instance, int32_t length, uint32_t flags,
                       uint32_t *err);
};

// What the engine needs of the bundle a type belongs to; everything else it knows of a type is in
// the type's own table. The generator emits one per catalogue and points every type at it, so the
// engine itself is compiled without any catalogue.
struct Bundle {
    const char *domain; // the catalogue's domain name
    unsigned type_count;
    const Type *const *types;       // registration order
    mgx_register_fn register_types; // copies the bundle's descriptors into a handle's registry
    int (*trace_init)(void);        // registers the bundle's trace module, once
    mgx_trace_table_t *trace_table; // the bundle's message table
    const uint16_t *trace_module;   // where trace_init leaves the module id
    uint8_t *traced_once;           // type_count flags for the messages given once per process
    const WireCode *code;           // each type's compiled wire code, by registration order; null in
                                    // the private copies of the tables that tests and tools keep
};

// One member of a type's wire form at one variant, worked out by the generator: a scalar is read
// and written straight by its kind, with its state byte behind it (step_state_byte; a count or
// length has none); anything else (fixed arrays, strings, variable arrays, union members) is
// step_composite and goes through the field walker.
enum WireStepFlag : uint8_t { step_state_byte = 1u << 0, step_composite = 1u << 1 };
struct WireStep {
    const Type *type; // the enumeration or record of an enumeration or record scalar
    uint16_t offset;
    uint16_t sttr_pos;
    uint16_t field; // index in Type::fields
    Kind kind;
    uint8_t flags; // WireStepFlag bits
};
struct WirePlan {
    const WireStep *steps;
    uint16_t n;
};

struct Type {
    const Bundle *bundle;
    const char *name;
    mgx_type_info_t *descriptor; // the exported static descriptor
    const Field *fields;         // declaration order
    const Literal *literals;     // enumerations, in value order
    const Variant *variants;     // n_variants entries
    void *placeholder;           // static zero-filled instance of `size` bytes
    uint32_t size;               // untracked instance size (used length + slop of every variant)
    uint32_t sttr_size;          // state-flag area of a tracked instance, behind the first `size` bytes
    uint32_t msg_base;           // number of the type's first trace message (see ops/messages.def)
    uint16_t n_fields;
    uint16_t n_literals;
    uint16_t index; // registration order
    TypeKind kind;
    int8_t n_variants;
    int8_t discriminator; // union: index of the discriminator field; -1 otherwise
    uint8_t sttr_align;   // 8 when the area holds an address, else 1
    uint32_t flags;       // TypeFlag bits
    // The fields the lifecycle walks visit, worked out by the generator: most fields are plain
    // integers, and create, decode and destroy would otherwise test each of them per instance.
    // plan holds n_owning indices (destroy: members, strings, arrays and inline instances, in
    // declaration order), then n_inline (initialize and embed: inline instances), then n_areas
    // (tracked initialize: scalar records and attribute lists with a flag area of their own).
    const uint16_t *plan;
    uint16_t n_owning, n_inline, n_areas;
    // Records and unions: the wire plan of each variant (n_variants of them); null for enumerations.
    const WirePlan *wire;

    uint32_t tracked_size() const { return size + sttr_size; }
    int8_t last_variant() const { return static_cast<int8_t>(n_variants - 1); }
};

// The capping every operation applies to a variant the runtime hands out: negative values (no
// variant) pass through, anything at or beyond the variant count becomes the last variant.
inline int8_t record_variant_cap(const Type &t, uint32_t index) {
    auto v = static_cast<int8_t>(index & 0xFFu);
    return v < t.n_variants ? v : t.last_variant();
}

// The enumerations' form works on the whole word: it is returned unchanged while its low byte is
// below the variant count (or negative), otherwise with the low byte replaced by the last variant.
inline uint32_t enum_variant_cap(const Type &t, uint32_t word) {
    auto v = static_cast<int8_t>(word & 0xFFu);
    if (v < t.n_variants) return word;
    return (word & ~0xFFu) | static_cast<uint8_t>(t.last_variant());
}

} // namespace ovrin

#endif
