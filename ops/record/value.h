// The value operations of every record and union, written once over the type tables: the clone
// (through the wire form), a total ordering, a chained hash, and whether a member index exists for
// an instance at the variant in force.
#ifndef OVRIN_OPS_RECORD_VALUE_H
#define OVRIN_OPS_RECORD_VALUE_H

#include "ops/common.h"

namespace ovrin {

// A copy made by encoding the source into buf (length bytes) and decoding it into *destination
// (a new instance, raised to the handle's domain, when it is null).
void clone(const Type &t, mgx_handle_t *h, uint32_t luid, const void *source, void **destination, uint8_t *buf, uint32_t length,
           uint32_t *err);
void clone_internal(const Type &t, mgx_handle_t *h, uint32_t luid, const void *source, void **destination, uint8_t *buf,
                    uint32_t length, uint32_t *err);
void *clone_cr(const Type &t, mgx_handle_t *h, const void *source, uint32_t work_space_min);

// Null sorts first. Otherwise the fields decide in declaration order, nested records and unions
// member by member: unsigned scalars give -1 or 1, enumerations and discriminators the raw
// 32-bit difference, the runtime's comparisons of addresses and attribute lists their own
// results, counted strings their lengths and then memcmp's result, variable arrays their counts
// and then their elements, and a union only the arm its discriminator selects. Fields of later
// variants are compared whatever the instances' variants.
int32_t compare(const Type &t, const void *a, const void *b);

// A null instance gives back the seed; otherwise every field, in declaration order, is hashed
// with the previous field's result as its seed. See value.cpp for what each field kind adds.
uint32_t hash(const Type &t, const void *instance, uint32_t seed);

// 1 when the field with this index (declaration order, union members included) exists at the
// variant in force: the handle's domain variant for the type, lowered to the instance's own
// variant unless bit 0 of flags is set.
mgx_boolean is_valid_cr(const Type &t, mgx_handle_t *h, const void *instance, uint32_t member_index, uint32_t flags);

} // namespace ovrin

#endif
