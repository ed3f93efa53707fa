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
// The setter and getter of one integer or boolean field (the field at index of t), compiled per
// field: the runtime's get and set_value (or get_value) of its kind, its offset, the variant it
// appears in and its type's last variant are constants, so no kind or table is looked at on the
// way. They make the same runtime calls in the same order as field_set_value and field_get_value,
// and hand the cases off the common path to out-of-line helpers: no error slot or no instance (the
// general operation), a field absent from the instance's variant, no address for it, a database
// to tell, a state-tracking record to mark the field's flag in.
template <class T> struct ScalarOps;
template <class T> struct ScalarOps<T *(*)(mgx_handle_t *, uint32_t, T *, uint32_t *)> { using Value = T; };

void scalar_set_value_general(const Type &t, uint16_t index, mgx_handle_t *h, uint32_t luid, void *instance, uint64_t value,
                              uint32_t *err);
uint64_t scalar_get_value_general(const Type &t, uint16_t index, mgx_handle_t *h, uint32_t luid, void *instance, uint32_t *err);
void scalar_missing(mgx_handle_t *h, uint32_t *err);
void *scalar_report(mgx_handle_t *h, uint32_t luid, void *field, const void *instance);
void scalar_mark(const Type &t, uint16_t index, mgx_handle_t *h, uint32_t luid, void *instance, uint32_t *err);

template <auto Get, auto SetValue, uint16_t Index, int8_t From, int8_t Last, size_t Offset,
          class T = typename ScalarOps<decltype(Get)>::Value>
[[gnu::always_inline]] inline void scalar_set_value(const Type &t, mgx_handle_t *h, uint32_t luid, void *instance, T value,
                                                    uint32_t *err) {
    if (!err || !instance) [[unlikely]]
        return scalar_set_value_general(t, Index, h, luid, instance, value, err);
    if (*err) return;
    mgx_clear_last_error(h, luid, instance);
    mgxlib_adjust_variant(h, luid, instance, mgx_get_manifested_type_info(instance), Last, err);
    if (*err) return;
    if (mgx_get_instance_variant(instance, 1, 0) < From) [[unlikely]]
        return mgx_store_epoch_err(h, MGX_EVARIANT, err);
    // An address back means the slot is still clear (a get that fails gives none).
    T *field = Get(h, luid, reinterpret_cast<T *>(bytes(instance) + Offset), err);
    if (!field) [[unlikely]]
        return scalar_missing(h, err);
    if (h->database) [[unlikely]]
        field = static_cast<T *>(scalar_report(h, luid, field, instance));
    // Without a state-tracking record there is no flag to mark: the store ends the call.
    if (!h->sttr) return SetValue(h, luid, field, value, err);
    SetValue(h, luid, field, value, err);
    if (!*err) scalar_mark(t, Index, h, luid, instance, err);
}

template <auto Get, auto GetValue, uint16_t Index, int8_t From, size_t Offset, class T = typename ScalarOps<decltype(Get)>::Value>
[[gnu::always_inline]] inline T scalar_get_value(const Type &t, mgx_handle_t *h, uint32_t luid, void *instance, uint32_t *err) {
    if (!err || !instance) [[unlikely]]
        return static_cast<T>(scalar_get_value_general(t, Index, h, luid, instance, err));
    if (*err) return 0;
    mgx_clear_last_error(h, luid, instance);
    if (mgx_get_instance_variant(instance, 1, 0) < From) [[unlikely]] {
        mgx_store_epoch_err(h, MGX_EVARIANT, err);
        return 0;
    }
    T *field = Get(h, luid, reinterpret_cast<T *>(bytes(instance) + Offset), err);
    if (!field) [[unlikely]]
        return 0;
    if (h->database) [[unlikely]]
        field = static_cast<T *>(scalar_report(h, luid, field, instance));
    return GetValue(h, luid, field, err);
}

// The field's own state byte (a scalar's, a nested record's, a member's, a string's, or an
// array's whole-array byte).
uint8_t state_flag_get(const Type &t, const Field &f, mgx_handle_t *h, uint32_t luid, void *instance, uint32_t *err);
void state_flag_set(const Type &t, const Field &f, mgx_handle_t *h, uint32_t luid, void *instance, uint8_t value, uint32_t *err);

} // namespace ovrin

#endif
