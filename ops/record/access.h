// Field access and state tracking of every record and union, written once over the type tables:
// whole-instance get and set, all integers at once, per-field get/set/value access, per-field
// state flags, and the housekeeping that keeps nested storage and flag offsets right after a
// copy.
//
// Per-field operations apply to the fields held inline as one element: the integers, booleans,
// addresses, attribute lists, enumerations and nested records or unions. Union members, arrays
// and counted strings have accessor families of their own; a whole-instance copy still copies
// them (strings and arrays deep, members moved).
#ifndef OVRIN_OPS_RECORD_ACCESS_H
#define OVRIN_OPS_RECORD_ACCESS_H

#include <initializer_list>

#include "ops/common.h"

namespace ovrin {

void *get(const Type &t, mgx_handle_t *h, uint32_t luid, void *instance);
void set(const Type &t, mgx_handle_t *h, uint32_t luid, void *dst, void *src, uint32_t *err);
// outputs: one per field_readable_by_all field in field order, each pointing at a value of the field's
// width (enumerations: 32 bits). Null outputs are skipped.
void get_all(const Type &t, mgx_handle_t *h, uint32_t luid, const void *instance, std::initializer_list<void *> outputs,
             uint32_t *err);
// values: one per field_settable_by_all field in field order.
void set_all(const Type &t, mgx_handle_t *h, uint32_t luid, void *instance, std::initializer_list<uint32_t> values,
             uint32_t *err);
void set_all_state_tracking_flag(const Type &t, mgx_handle_t *h, uint32_t luid, void *instance, uint8_t value);
void post_copyout_cleanup(const Type &t, mgx_handle_t *h, uint32_t luid, void *dst, void *src, uint32_t *err);
void offset_update(const Type &t, mgx_handle_t *h, uint32_t luid, void *instance, uint8_t *flag_base, uint32_t *err);
void offset_remove(const Type &t, mgx_handle_t *h, uint32_t luid, void *instance, uint32_t *err);

void *field_get(const Type &t, const Field &f, mgx_handle_t *h, uint32_t luid, void *instance, uint32_t *err);
// value points at one element of the field's type. A nested union gives up its members to the field.
void field_set(const Type &t, const Field &f, mgx_handle_t *h, uint32_t luid, void *instance, void *value, uint32_t *err);
inline void field_set(const Type &t, const Field &f, mgx_handle_t *h, uint32_t luid, void *instance, const void *value,
                      uint32_t *err) {
    // Integers, addresses, attribute lists and enumerations are only read from.
    field_set(t, f, h, luid, instance, const_cast<void *>(value), err);
}
// Integer and boolean fields, widened to 64 bits.
uint64_t field_get_value(const Type &t, const Field &f, mgx_handle_t *h, uint32_t luid, void *instance, uint32_t *err);
void field_set_value(const Type &t, const Field &f, mgx_handle_t *h, uint32_t luid, void *instance, uint64_t value,
                     uint32_t *err);
// The field's own state byte (a scalar's, a nested record's, a member's, a string's, or an
// array's whole-array byte).
uint8_t state_flag_get(const Type &t, const Field &f, mgx_handle_t *h, uint32_t luid, void *instance, uint32_t *err);
void state_flag_set(const Type &t, const Field &f, mgx_handle_t *h, uint32_t luid, void *instance, uint8_t value, uint32_t *err);

} // namespace ovrin

#endif
