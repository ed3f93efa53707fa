// The steps every accessor (of fields, union members, arrays and counted strings) begins and ends
// with: variant adjustment and presence, the state-tracking checks, flag marking and containment
// reporting.
#ifndef OVRIN_OPS_STEPS_H
#define OVRIN_OPS_STEPS_H

#include "ops/common.h"

namespace ovrin::steps {

inline int8_t variant_of(const void *instance) { return mgx_get_instance_variant(instance, 1, 0); }

inline bool tracked(const void *instance) { return (hdr(instance)->flags & MGX_IF_TRACKED) != 0; }

// An object to work on (or a value to take): a missing one is an invalid argument.
inline bool exists(mgx_handle_t *h, const void *object, uint32_t *err) {
    if (object) return true;
    fail(h, err, MGX_EINVAL);
    return false;
}

// The caller's slot was clear (and the handle's last error is now cleared) and there is an
// object to work on.
inline bool start(mgx_handle_t *h, uint32_t luid, const void *instance, uint32_t *err) {
    return begin(h, luid, instance, err) && exists(h, instance, err);
}

// The field exists in the instance's variant; otherwise the variant error 43.
inline bool present_in(const Field &f, mgx_handle_t *h, const void *instance, uint32_t *err) {
    if (present(f, variant_of(instance))) return true;
    mgx_store_epoch_err(h, MGX_EVARIANT, err);
    return false;
}

// Every mutation first brings the instance to the variant the handle's domain gives its type...
inline bool adjust(const Type &t, mgx_handle_t *h, uint32_t luid, void *instance, uint32_t *err) {
    mgxlib_adjust_variant(h, luid, instance, mgx_get_manifested_type_info(instance), t.last_variant(), err);
    return !failed(err);
}

// ...then requires the field in the instance's variant.
inline bool adjust_for(const Type &t, const Field &f, mgx_handle_t *h, uint32_t luid, void *instance, uint32_t *err) {
    return adjust(t, h, luid, instance, err) && present_in(f, h, instance, err);
}

inline void report(mgx_handle_t *h, uint32_t luid, const void *object, const void *container) {
    if (h->database) mgxdb_record_containment2(h, luid, object, container, 1);
}

// Under a tracking handle the instance must be state tracked ("The object is not state
// tracked", 22). True when its flags are to be marked: tracking on and the instance tracked.
inline bool marking(const Type &t, mgx_handle_t *h, const void *instance, uint32_t *err) {
    if (!tracking(t, h)) return false;
    if (tracked(instance)) return true;
    fail(h, err, MGX_EINVAL);
    trace(t, Message::not_state_tracked, MGX_SEV_ERROR);
    return false;
}

// The value handed to a setter must be state tracked too ("The val object is not state tracked").
inline bool value_tracked(const Type &t, mgx_handle_t *h, const void *value, uint32_t *err) {
    if (tracked(value)) return true;
    fail(h, err, MGX_EINVAL);
    trace(t, Message::val_not_state_tracked, MGX_SEV_ERROR);
    return false;
}

inline void mark(mgx_handle_t *h, uint32_t luid, uint8_t *flag, const void *instance, uint8_t value = 2) {
    notify(h, flag, 1, luid, instance);
    *flag = value;
}

// After a successful set under a tracking handle, the field's flag byte says it was set (2).
inline void mark_field(const Type &t, const Field &f, mgx_handle_t *h, uint32_t luid, void *instance, uint32_t *err) {
    if (marking(t, h, instance, err))
        if (uint8_t *area = state_area(t, h, luid, instance)) mark(h, luid, area + f.sttr_pos, instance);
}

// The state-flag operations: a handle that does not track refuses without a word (22), a corrupt
// one is fatal; without a state-tracking record the instance's own check decides. Then the
// instance must be tracked: 22 with the get path's wording ("non") or the set path's ("not").
inline bool flags_reachable(const Type &t, mgx_handle_t *h, const void *instance, bool setting, uint32_t *err) {
    if (h->sttr && !tracking(t, h)) {
        fail(h, err, MGX_EINVAL);
        return false;
    }
    if (tracked(instance)) return true;
    fail(h, err, MGX_EINVAL);
    trace(t, setting ? Message::not_state_tracked : Message::non_state_tracked, MGX_SEV_ERROR);
    return false;
}

} // namespace ovrin::steps

#endif
