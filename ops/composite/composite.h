// The accessor families of the composite field kinds, written once over the type tables: union
// members (held out of line, one pointer slot each), fixed arrays of scalars or enumerations,
// variable arrays of records (one block owned by the record, count in a companion field) and
// counted strings (length+1 characters owned by the record, length in a companion field).
//
// State flags. A member or string has one flag byte in its record's area. A fixed array has one
// byte for the whole array followed by one per element. A variable array has one byte for the
// whole array and an 8-byte reference to its per-element bytes, which live in the block behind
// the elements when the handle tracks: two bytes per element, the first the element's own flag,
// the second the start of the element's nested flags (see var_element_flags).
#ifndef OVRIN_OPS_COMPOSITE_COMPOSITE_H
#define OVRIN_OPS_COMPOSITE_COMPOSITE_H

#include "ops/common.h"

namespace ovrin {

// ---------------------------------------------------------------- union members

void *member_get(const Type &t, const Field &f, mgx_handle_t *h, uint32_t luid, void *instance, uint32_t *err);
// The member passes into the union's ownership; the union switches to it.
void member_set(const Type &t, const Field &f, mgx_handle_t *h, uint32_t luid, void *instance, void *member, uint32_t *err);
uint32_t member_set_cr(const Type &t, const Field &f, mgx_handle_t *h, void *instance, void *member);
// Only the chosen member comes out; the caller then owns it.
void *member_get_detach(const Type &t, const Field &f, mgx_handle_t *h, uint32_t luid, void *instance, uint32_t *err);

// ---------------------------------------------------------------- fixed arrays

void *fixed_get(const Type &t, const Field &f, mgx_handle_t *h, uint32_t luid, void *instance, uint32_t index, uint32_t *err);
// Integer elements widened to 64 bits; enumeration elements as their user value.
uint64_t fixed_get_value(const Type &t, const Field &f, mgx_handle_t *h, uint32_t luid, void *instance, uint32_t index,
                         uint32_t *err);
void fixed_set(const Type &t, const Field &f, mgx_handle_t *h, uint32_t luid, void *instance, uint32_t index, const void *value,
               uint32_t *err);
void fixed_set_value(const Type &t, const Field &f, mgx_handle_t *h, uint32_t luid, void *instance, uint32_t index,
                     uint64_t value, uint32_t *err);
void fixed_get_mem(const Type &t, const Field &f, mgx_handle_t *h, uint32_t luid, void *instance, void *buffer, int32_t length,
                   uint32_t *err);
void fixed_set_mem(const Type &t, const Field &f, mgx_handle_t *h, uint32_t luid, void *instance, const void *buffer,
                   int32_t length, uint32_t *err);
uint32_t fixed_set_mem_cr(const Type &t, const Field &f, mgx_handle_t *h, void *instance, const void *buffer, int32_t length);

// ---------------------------------------------------------------- array flags, fixed and variable

uint8_t element_flag_get(const Type &t, const Field &f, mgx_handle_t *h, uint32_t luid, void *instance, uint32_t index,
                         uint32_t *err);
void element_flag_set(const Type &t, const Field &f, mgx_handle_t *h, uint32_t luid, void *instance, uint32_t index,
                      uint8_t value, uint32_t *err);
// The address of the per-element bytes (a variable array's: two bytes per element).
void flag_array_get(const Type &t, const Field &f, mgx_handle_t *h, uint32_t luid, void *instance, uint8_t **out, uint32_t *err);
// count must be the array's element count; the bytes go to the start of the record's flag area.
void flag_array_set(const Type &t, const Field &f, mgx_handle_t *h, uint32_t luid, void *instance, const uint8_t *flags,
                    uint32_t count, uint32_t *err);

// ---------------------------------------------------------------- variable arrays

uint32_t *var_length_get(const Type &t, const Field &f, mgx_handle_t *h, uint32_t luid, void *instance, uint32_t *err);
uint32_t var_length_get_value(const Type &t, const Field &f, mgx_handle_t *h, uint32_t luid, void *instance, uint32_t *err);
void *var_get(const Type &t, const Field &f, mgx_handle_t *h, uint32_t luid, void *instance, uint32_t index, uint32_t *err);
// deep: copy with the element type's set; otherwise build the element from the value's wire form.
void var_set(const Type &t, const Field &f, mgx_handle_t *h, uint32_t luid, void *instance, uint32_t index, void *value, int deep,
             uint32_t *err);
uint32_t var_set_cr(const Type &t, const Field &f, mgx_handle_t *h, void *instance, uint32_t index, void *value, int deep);
void var_remove_elements(const Type &t, const Field &f, mgx_handle_t *h, uint32_t luid, void *instance);

// ---------------------------------------------------------------- counted strings

void string_set(const Type &t, const Field &f, mgx_handle_t *h, uint32_t luid, void *instance, const char *text, uint32_t length,
                uint32_t *err);
uint32_t string_set_cr(const Type &t, const Field &f, mgx_handle_t *h, void *instance, const char *text, uint32_t length);
void string_get(const Type &t, const Field &f, mgx_handle_t *h, uint32_t luid, void *instance, char *buffer, uint32_t size,
                uint32_t *err);

} // namespace ovrin

#endif
