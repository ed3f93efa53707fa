// The operations of the enumeration types, written once over the type tables: user and wire
// values, range checks, compare and hash, access, the 5-byte wire form, print and XML.
//
// Everything a type does differently (the hole at 24 and the later-variant literals of the
// inbound event selector, the 32 and 512 of the length limits) follows from its literal table:
// each literal's user value, its wire value (its position) and the variant that introduced it.
#ifndef OVRIN_OPS_ENUM_ENUM_H
#define OVRIN_OPS_ENUM_ENUM_H

#include "ops/common.h"

namespace ovrin {

// Every enumeration instance: the instance header, then the user value.
struct EnumInstance {
    void *descriptor;
    int8_t variant;
    int8_t layout;
    uint8_t flags;
    uint32_t value;
};

// The wire form: the variant byte and the 32-bit wire value.
inline constexpr uint32_t enum_wire_length = 5;

// The literal a user value names, or null.
const Literal *literal_named_by(const Type &t, uint32_t user);
// The literal that travels as this wire value, or null.
const Literal *literal_on_wire(const Type &t, uint32_t wire);

// User value to wire value: a literal's user value becomes its wire value, anything else is kept.
uint32_t enum_map_to_internal_value(const Type &t, uint32_t user);
// The decoders' way back: a literal's wire value becomes its user value, anything else is kept.
uint32_t enum_wire_to_user(const Type &t, uint32_t wire);
// What callers see of a stored value: the stored value itself.
inline uint32_t enum_map_to_user_value(const Type &, uint32_t value) { return value; }

// Whether an instance of this variant may hold the value: a value whose wire value is a literal
// of variant 0 always; a later literal once the variant has reached it; a value beyond the
// literals only in a variant past the ones this bundle knows.
bool enum_admits(const Type &t, uint32_t value, int variant);

uint32_t enum_adjust_variant(const Type &t, mgx_handle_t *h, uint32_t luid, void *instance, uint32_t *err);
int32_t enum_compare(const void *a, const void *b);
uint32_t enum_hash(const void *instance, uint32_t seed);
uint32_t enum_len_cr(const mgx_handle_t *h);
void *enum_get(mgx_handle_t *h, uint32_t luid, void *instance);
uint32_t enum_get_value(mgx_handle_t *h, uint32_t luid, const void *instance, uint32_t *err);
void enum_set(const Type &t, mgx_handle_t *h, uint32_t luid, void *instance, const void *source, uint32_t *err);
void enum_set_value(const Type &t, mgx_handle_t *h, uint32_t luid, void *instance, uint32_t value, uint32_t *err);
uint32_t enum_marshal(const Type &t, mgx_handle_t *h, uint32_t luid, uint8_t *buf, const void *instance, int32_t space,
                      uint32_t *err);
uint32_t enum_unmarshal(const Type &t, mgx_handle_t *h, uint32_t luid, const uint8_t *buf, void *instance, int32_t length,
                        uint32_t flags, uint32_t *err);
uint32_t enum_print(const Type &t, mgx_handle_t *h, uint32_t luid, char *buf, uint32_t indent, const char *name,
                    const void *instance, uint32_t size, uint32_t *err);
uint32_t enum_print_cr(const Type &t, mgx_handle_t *h, const void *instance, char *buf, uint32_t size);
uint32_t enum_to_xml(const Type &t, mgx_handle_t *h, uint32_t luid, const char *name, char *buf, const void *instance,
                     uint32_t size, uint8_t state_flag, uint32_t *err);
uint32_t enum_toxml_cr(const Type &t, mgx_handle_t *h, const void *instance, char *buf, uint32_t size);
void enum_from_xml(const Type &t, mgx_handle_t *h, uint32_t luid, const char *path, void *doc, void *instance, uint32_t *err,
                   char *msg, uint32_t msg_size);
mgx_boolean enum_is_valid_cr(const Type &t, mgx_handle_t *h, uint32_t value);

} // namespace ovrin

#endif
